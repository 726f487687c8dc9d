#include "StatementRenderer.h"

#include <stdexcept>
#include <vector>

#include <QBuffer>
#include <QGuiApplication>
#include <QPageLayout>
#include <QPageSize>
#include <QPainter>
#include <QPdfWriter>
#include <QSaveFile>

#include "Format.h"
#include "PdfArchive.h"
#include "StatementFiles.h"
#include "StatementLayout.h"

namespace statements {

namespace {

const QColor kHeaderShade(230, 230, 230);

qreal ruleWidth()
{
    return LayoutContext::points(0.5);
}

// Draws lines [first, end) of a paragraph with the top of line first at (x, y).
void drawLines(QPainter& painter, const Paragraph& paragraph, int first, int end, qreal x, qreal y)
{
    if (first >= end) {
        return;
    }
    const qreal top = paragraph.layout->lineAt(first).y();
    for (int i = first; i < end; ++i) {
        paragraph.layout->lineAt(i).draw(&painter, QPointF(x, y - top));
    }
}

class PagePainter {
public:
    PagePainter(QPainter& painter, LayoutContext& context, const StatementLayout& layout, const StatementData& data)
        : m_painter(painter)
        , m_context(context)
        , m_layout(layout)
        , m_data(data)
    {
    }

    void draw(std::size_t index)
    {
        const StatementPage& page = m_layout.pages[index];
        const bool first = index == 0;
        const bool last = index + 1 == m_layout.pages.size();
        qreal y = 0;
        if (first) {
            for (const auto& [at, paragraph] : m_layout.firstHeading) {
                paragraph.layout->draw(&m_painter, at);
            }
            y = m_layout.firstHeadingHeight;
        } else {
            m_layout.nextHeading.layout->draw(&m_painter, QPointF(0, 0));
            y = m_layout.nextHeading.height + LayoutContext::points(6);
        }
        y = headerRow(y);
        if (!first) {
            y = totalsRow(y, QStringLiteral("Report"), page.broughtForward);
        }
        for (const RowPiece& piece : page.rows) {
            y = row(y, piece);
        }
        if (!last) {
            totalsRow(y, QStringLiteral("À reporter"), page.carriedForward);
        } else {
            m_layout.total.layout->draw(&m_painter, QPointF(0, y + LayoutContext::points(10)));
        }
        footer(index);
        m_painter.drawLines(m_rules.data(), static_cast<int>(m_rules.size()));
        m_rules.clear();
    }

private:
    qreal left(std::size_t column) const
    {
        qreal x = 0;
        for (std::size_t c = 0; c < column; ++c) {
            x += m_layout.columns[c];
        }
        return x;
    }

    // The rules of a row, drawn with the page's others at its end: one path
    // for the page, not one per line. The outer ones stand half a rule inside
    // the page's paint rectangle: a printer may clip to it, and a line centred
    // on its edge would lose its outer half.
    void grid(qreal top, qreal height, bool allColumns)
    {
        const qreal inset = ruleWidth() / 2;
        const qreal right = m_layout.page.width() - inset;
        const qreal bottom = top + height;
        m_rules.emplace_back(inset, top, right, top);
        m_rules.emplace_back(inset, bottom, right, bottom);
        m_rules.emplace_back(inset, top, inset, bottom);
        m_rules.emplace_back(right, top, right, bottom);
        for (std::size_t c = 1; c < m_layout.columns.size(); ++c) {
            if (allColumns || c == m_layout.columns.size() - 1) {
                const qreal x = left(c);
                m_rules.emplace_back(x, top, x, bottom);
            }
        }
    }

    qreal headerRow(qreal y)
    {
        m_painter.fillRect(QRectF(0, y, m_layout.page.width(), m_layout.headerRowHeight), kHeaderShade);
        for (std::size_t c = 0; c < m_layout.captions.size(); ++c) {
            m_layout.captions[c].layout->draw(&m_painter, QPointF(left(c) + m_layout.padding, y + m_layout.padding));
        }
        grid(y, m_layout.headerRowHeight, true);
        return y + m_layout.headerRowHeight;
    }

    // "Report" or "À reporter": the label on the left, the amount in the amount column.
    qreal totalsRow(qreal y, const QString& label, std::int64_t cents)
    {
        const qreal pad = m_layout.padding;
        const std::size_t amount = m_layout.columns.size() - 1;
        const Paragraph text = layoutParagraph(m_context, label, m_context.bold, left(amount) - 2 * pad, Qt::AlignLeft, {}, Reuse::Yes);
        const Paragraph sum = layoutParagraph(m_context, formatEuros(cents), m_context.bold, m_layout.columns[amount] - 2 * pad, Qt::AlignRight);
        text.layout->draw(&m_painter, QPointF(pad, y + pad));
        sum.layout->draw(&m_painter, QPointF(left(amount) + pad, y + pad));
        grid(y, m_layout.totalsRowHeight, false);
        return y + m_layout.totalsRowHeight;
    }

    qreal row(qreal y, const RowPiece& piece)
    {
        const qreal pad = m_layout.padding;
        const auto& cells = m_layout.cells[piece.row];
        for (std::size_t c = 0; c < cells.size(); ++c) {
            const bool number = c >= 3;
            if (number && !piece.withNumbers) {
                continue;
            }
            qreal top = y + pad;
            if (piece.continued && c == 0) {
                m_layout.suite.layout->draw(&m_painter, QPointF(left(c) + pad, top));
            }
            if (piece.continued) {
                top += m_layout.suite.height;
            }
            drawLines(m_painter, cells[c], piece.lines[c].first, piece.lines[c].second, left(c) + pad, top);
        }
        grid(y, piece.height, true);
        return y + piece.height;
    }

    void footer(std::size_t index)
    {
        const qreal width = m_layout.page.width();
        const QString leftText = QStringLiteral("DUPLICATA – Facture n° %1").arg(QString::fromStdString(trimmedRight(m_data.invoiceNumber)));
        const QString rightText = QStringLiteral("Page %1 / %2").arg(index + 1).arg(m_layout.pages.size());
        const Paragraph l = layoutParagraph(m_context, leftText, m_context.footer, width / 2, Qt::AlignLeft);
        const Paragraph r = layoutParagraph(m_context, rightText, m_context.footer, width / 2, Qt::AlignRight, {}, Reuse::Yes);
        const qreal y = m_layout.page.height() - l.height;
        l.layout->draw(&m_painter, QPointF(0, y));
        r.layout->draw(&m_painter, QPointF(width / 2, y));
    }

    QPainter& m_painter;
    LayoutContext& m_context;
    const StatementLayout& m_layout;
    const StatementData& m_data;
    std::vector<QLineF> m_rules;
};

} // namespace

void requireGuiApplication()
{
    if (!qobject_cast<QGuiApplication*>(QCoreApplication::instance())) {
        throw std::runtime_error("rendering a statement needs a QGuiApplication (headless hosts: QT_QPA_PLATFORM=offscreen)");
    }
}

StatementPrinter::StatementPrinter(QPagedPaintDevice& device)
    : m_device(device)
{
    requireGuiApplication();
    if (!m_painter.begin(&device)) {
        throw std::runtime_error("cannot paint on the print device");
    }
    // The page size comes from the page layout, in points, never from the device's
    // pixels: a printer and a PDF writer of one paper size paginate alike.
    m_page = device.pageLayout().paintRect(QPageLayout::Point).size() * (kLayoutDpi / 72);
    m_painter.scale(device.logicalDpiX() / kLayoutDpi, device.logicalDpiY() / kLayoutDpi);
    QPen pen(Qt::black);
    pen.setWidthF(ruleWidth());
    m_painter.setPen(pen);
    m_context = std::make_unique<LayoutContext>();
}

StatementPrinter::~StatementPrinter()
{
    if (m_painter.isActive()) {
        m_painter.end();
    }
}

int StatementPrinter::add(const StatementData& data)
{
    const StatementLayout layout = layOut(*m_context, data, m_page);
    PagePainter pages(m_painter, *m_context, layout, data);
    for (std::size_t p = 0; p < layout.pages.size(); ++p) {
        if (!m_firstPage && !m_device.newPage()) {
            throw std::runtime_error("cannot start a new page on the print device");
        }
        m_firstPage = false;
        pages.draw(p);
    }
    return static_cast<int>(layout.pages.size());
}

void StatementPrinter::finish()
{
    if (!m_painter.end()) {
        throw std::runtime_error("the print device could not finish the document");
    }
}

std::vector<int> render(std::span<const StatementData> statements, QPagedPaintDevice& device)
{
    std::vector<int> pageCounts;
    if (statements.empty()) {
        return pageCounts;
    }
    StatementPrinter printer(device);
    for (const StatementData& data : statements) {
        pageCounts.push_back(printer.add(data));
    }
    printer.finish();
    return pageCounts;
}

std::unique_ptr<QPdfWriter> archiveWriter(QIODevice& out, const QString& title, const QPageSize& paper)
{
    auto writer = std::make_unique<QPdfWriter>(&out);
    writer->setPdfVersion(QPagedPaintDevice::PdfVersion_A1b);
    writer->setTitle(title);
    writer->setCreator(QStringLiteral("Calvarine"));
    writer->setResolution(300);
    writer->setPageLayout(QPageLayout(paper, QPageLayout::Portrait, QMarginsF(15, 15, 15, 12),
        QPageLayout::Millimeter));
    return writer;
}

std::vector<int> renderPdf(std::span<const StatementData> statements, QIODevice& out, const QString& title, const QPageSize& paper)
{
    if (statements.empty()) {
        return {};
    }
    // Drawn in parts on the threads, then joined and written once with the document's metadata.
    const DrawnDocuments drawn = drawDocuments(statements, 64, 0, paper);
    PdfMetadata metadata{title, QString::fromStdString(statements.front().entity.name),
        statements.size() == 1 ? QStringLiteral("Duplicata d'un bordereau")
                               : QStringLiteral("Duplicata de %1 bordereaux").arg(statements.size())};
    const std::string bytes = joinPdf(drawn.documents, metadata);
    if (out.write(bytes.data(), static_cast<qint64>(bytes.size())) != static_cast<qint64>(bytes.size())) {
        throw std::runtime_error("cannot write the PDF: " + out.errorString().toStdString());
    }
    return drawn.pageCounts;
}

void renderPdfFile(std::span<const StatementData> statements, const QString& path)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly)) {
        throw std::runtime_error("cannot write " + path.toStdString() + ": " + file.errorString().toStdString());
    }
    renderPdf(statements, file, QStringLiteral("Bordereaux - DUPLICATA"));
    if (!file.commit()) {
        throw std::runtime_error("cannot write " + path.toStdString() + ": " + file.errorString().toStdString());
    }
}

} // namespace statements
