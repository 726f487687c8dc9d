#pragma once

// The pages of one statement, laid out before anything is drawn.
//
// Everything is measured in layout units of 1/1200 inch against a reference
// device of that resolution, whatever the target device is: a printer and a
// PDF writer with the same paper size and margins get the same lines and the
// same page breaks. A row of the table is never cut by a page break; only a
// row taller than a whole page goes on over the next ones, the rest of its
// cells' text marked "(suite)". Every page repeats the table header; every
// page but the last ends with the running total carried forward ("À
// reporter"), which the next page brings forward at its head ("Report").

#include <cstdint>
#include <memory>
#include <vector>

#include <QFont>
#include <QFontMetricsF>
#include <QImage>
#include <QPointF>
#include <QSizeF>
#include <QTextLayout>

#include "StatementData.h"

namespace statements {

inline constexpr qreal kLayoutDpi = 1200;

struct Paragraph;

// Whether a paragraph's text comes back often (captions, services, prices,
// "Report"...) and its layout is worth keeping for the next statements.
enum class Reuse {
    No,
    Yes
};

// The fonts and the reference device every layout is measured against, and
// the layouts of the texts that come back, shared by the statements drawn with
// this context (on one thread).
class LayoutContext {
public:
    LayoutContext();
    LayoutContext(const LayoutContext&) = delete;
    LayoutContext& operator=(const LayoutContext&) = delete;
    ~LayoutContext();
    QPaintDevice* device() { return &m_reference; }
    QFont body;
    QFont bold;
    QFont italic;
    QFont heading;
    QFont label;
    QFont party;
    QFont footer;
    static qreal points(qreal pt) { return pt * kLayoutDpi / 72; }

    // The kept layouts (StatementLayout.cpp).
    struct Kept;
    Kept& kept() { return *m_kept; }

private:
    QImage m_reference;
    std::unique_ptr<Kept> m_kept;
};

// A paragraph laid out to a width: its lines can be drawn all or in part.
struct Paragraph {
    std::shared_ptr<const QTextLayout> layout;
    qreal height = 0;
    int lineCount() const { return layout->lineCount(); }
    // Height of lines [first, end).
    qreal linesHeight(int first, int end) const;
};

// Lays text out to width; with Reuse::Yes, the layout the context keeps of the
// same text, font, width, alignment and formats when there is one.
Paragraph layoutParagraph(LayoutContext& context, const QString& text, const QFont& font, qreal width,
    Qt::Alignment alignment, const QList<QTextLayout::FormatRange>& formats = {}, Reuse reuse = Reuse::No);

// The part of a table row on one page: lines [first, end) of each cell.
struct RowPiece {
    std::size_t row = 0;
    std::vector<std::pair<int, int>> lines;
    bool continued = false;  // not the row's first piece: marked "(suite)"
    bool withNumbers = true; // quantity, price and amount (on the first piece only)
    qreal height = 0;
};

struct StatementPage {
    std::vector<RowPiece> rows;
    std::int64_t broughtForward = 0; // shown at the head of every page but the first
    std::int64_t carriedForward = 0; // shown at the foot of every page but the last
};

// A statement laid out for a page size (the printable area, in layout units).
struct StatementLayout {
    QSizeF page;
    std::vector<qreal> columns;          // widths of the six columns
    std::vector<std::pair<QPointF, Paragraph>> firstHeading; // parties, titles, period, invoice: page 1
    qreal firstHeadingHeight = 0;
    Paragraph nextHeading;               // one line on the following pages
    std::vector<Paragraph> captions;
    qreal headerRowHeight = 0;
    qreal totalsRowHeight = 0;           // "Report" and "À reporter"
    qreal footerHeight = 0;
    qreal reserve = 0;                   // kept free at the foot of the rows: carried total or total
    Paragraph total;
    qreal padding = 0;
    std::vector<std::vector<Paragraph>> cells; // per row, per column
    Paragraph suite;                     // "(suite)"
    std::vector<StatementPage> pages;
};

StatementLayout layOut(LayoutContext& context, const StatementData& data, QSizeF page);

} // namespace statements
