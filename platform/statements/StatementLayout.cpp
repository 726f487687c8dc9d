#include "StatementLayout.h"

#include <algorithm>
#include <unordered_map>

#include <QFontMetricsF>
#include <QTextOption>

#include "Format.h"

namespace statements {

namespace {

const QString kFontFamily = QStringLiteral("DejaVu Sans");

QFont makeFont(qreal points, bool bold = false, bool italic = false)
{
    // DejaVu is installed with the project's dependencies, so the pages look the
    // same on every machine; the family falls back to the platform's sans otherwise.
    QFont f(kFontFamily);
    f.setStyleHint(QFont::SansSerif);
    // Ligatures would extract as "ﬁ" and defeat a search for "fi" in the PDF.
    f.setStyleStrategy(QFont::PreferNoShaping);
    // Unhinted outlines: the same advances at every resolution.
    f.setHintingPreference(QFont::PreferNoHinting);
    f.setPointSizeF(points);
    f.setBold(bold);
    f.setItalic(italic);
    return f;
}

QString q(const std::string& text)
{
    return QString::fromStdString(text);
}

QTextLayout::FormatRange boldRange(int start, int length, const QFont& bold)
{
    QTextLayout::FormatRange range;
    range.start = start;
    range.length = length;
    range.format.setFont(bold);
    return range;
}

// "Label : value" with the value in bold.
Paragraph labelled(LayoutContext& context, const QStringList& pieces, qreal width, Reuse reuse = Reuse::No)
{
    QString text;
    QList<QTextLayout::FormatRange> formats;
    for (int i = 0; i < pieces.size(); ++i) {
        if (i % 2 == 1) {
            formats.push_back(boldRange(static_cast<int>(text.size()), static_cast<int>(pieces[i].size()), context.bold));
        }
        text += pieces[i];
    }
    return layoutParagraph(context, text, context.body, width, Qt::AlignLeft, formats, reuse);
}

} // namespace

// The kept layouts, by text, font, width and alignment. Bounded: a run of
// statements whose repeated texts are all different starts over now and then.
struct LayoutContext::Kept {
    static constexpr std::size_t kMost = 2048;
    struct Key {
        QString text;
        QFont font;
        qreal width;
        int alignment;
        QList<QTextLayout::FormatRange> formats;
        bool operator==(const Key&) const = default;
    };
    struct Hash {
        std::size_t operator()(const Key& key) const
        {
            return qHashMulti(0, key.text, key.font, key.width, key.alignment, key.formats.size());
        }
    };
    std::unordered_map<Key, Paragraph, Hash> paragraphs;
    std::unordered_map<Key, Paragraph, Hash> numbers; // the key's font: the body's, before any shrinking
};

LayoutContext::~LayoutContext() = default;

LayoutContext::LayoutContext()
    : body(makeFont(9))
    , bold(makeFont(9, true))
    , italic(makeFont(8, false, true))
    , heading(makeFont(16, true))
    , label(makeFont(11, true))
    , party(makeFont(10, true))
    , footer(makeFont(8))
    , m_reference(1, 1, QImage::Format_Mono)
    , m_kept(std::make_unique<Kept>())
{
    const int dotsPerMeter = qRound(kLayoutDpi / 0.0254);
    m_reference.setDotsPerMeterX(dotsPerMeter);
    m_reference.setDotsPerMeterY(dotsPerMeter);
}

qreal Paragraph::linesHeight(int first, int end) const
{
    qreal height = 0;
    for (int i = first; i < end; ++i) {
        height += layout->lineAt(i).height();
    }
    return height;
}

Paragraph layoutParagraph(LayoutContext& context, const QString& text, const QFont& font, qreal width,
    Qt::Alignment alignment, const QList<QTextLayout::FormatRange>& formats, Reuse reuse)
{
    const bool keep = reuse == Reuse::Yes;
    LayoutContext::Kept::Key key;
    if (keep) {
        key = {text, font, width, static_cast<int>(alignment), formats};
        if (const auto kept = context.kept().paragraphs.find(key); kept != context.kept().paragraphs.end()) {
            return {kept->second.layout, kept->second.height};
        }
    }
    auto layout = std::make_shared<QTextLayout>(text, font, context.device());
    QTextOption option(alignment);
    option.setWrapMode(QTextOption::WrapAtWordBoundaryOrAnywhere);
    layout->setTextOption(option);
    layout->setFormats(formats);
    layout->beginLayout();
    qreal height = 0;
    for (QTextLine line = layout->createLine(); line.isValid(); line = layout->createLine()) {
        line.setLineWidth(width);
        line.setPosition(QPointF(0, height));
        height += line.height();
    }
    layout->endLayout();
    Paragraph paragraph{std::move(layout), height};
    if (keep) {
        auto& kept = context.kept().paragraphs;
        if (kept.size() >= LayoutContext::Kept::kMost) {
            kept.clear();
        }
        kept.emplace(std::move(key), Paragraph{paragraph.layout, height});
    }
    return paragraph;
}

StatementLayout layOut(LayoutContext& context, const StatementData& data, QSizeF page)
{
    StatementLayout out;
    out.page = page;
    const qreal pt = LayoutContext::points(1);
    out.padding = 3 * pt;
    const qreal width = page.width();
    for (const qreal share : {0.25, 0.12, 0.25, 0.10, 0.14, 0.14}) {
        out.columns.push_back(width * share);
    }
    const QString invoice = q(trimmedRight(data.invoiceNumber));

    // Page 1: sender on the left, addressee on the right, as a window envelope expects.
    qreal y = 0;
    {
        const qreal half = width / 2 - 2 * out.padding;
        qreal bottom = 0;
        for (const bool right : {false, true}) {
            const Party& party = right ? data.organisation : data.entity;
            QString name = q(party.name);
            QList<QTextLayout::FormatRange> formats{boldRange(0, static_cast<int>(name.size()), context.party)};
            if (right && !party.shortName.empty() && party.shortName != party.name) {
                name += QStringLiteral(" (%1)").arg(q(party.shortName));
            }
            const qreal left = right ? width / 2 + out.padding : out.padding;
            qreal top = out.padding;
            // The parties and their addresses come back in every statement of an entity or an organisation.
            out.firstHeading.emplace_back(QPointF(left, top), layoutParagraph(context, name, context.body, half, Qt::AlignLeft, formats, Reuse::Yes));
            top += out.firstHeading.back().second.height;
            for (const auto& line : party.addressLines) {
                out.firstHeading.emplace_back(QPointF(left, top), layoutParagraph(context, q(line), context.body, half, Qt::AlignLeft, {}, Reuse::Yes));
                top += out.firstHeading.back().second.height;
            }
            bottom = std::max(bottom, top + out.padding);
        }
        y = bottom;
    }
    const auto add = [&](qreal gap, Paragraph paragraph) {
        y += gap;
        const qreal height = paragraph.height;
        out.firstHeading.emplace_back(QPointF(0, y), std::move(paragraph));
        y += height;
    };
    add(18 * pt, layoutParagraph(context, QStringLiteral("DUPLICATA"), context.heading, width, Qt::AlignHCenter, {}, Reuse::Yes));
    if (!data.activityLabel.empty()) {
        add(4 * pt, layoutParagraph(context, QStringLiteral("BORDEREAU %1").arg(q(data.activityLabel)), context.label, width, Qt::AlignHCenter, {}, Reuse::Yes));
    }
    add(14 * pt, labelled(context, {QStringLiteral("Période : "), periodInWords(q(data.period))}, width, Reuse::Yes));
    QStringList invoiceLine{QStringLiteral("Facture n° "), invoice};
    if (!data.invoiceDate.empty()) {
        invoiceLine << QStringLiteral(" du ") << formatDate(q(data.invoiceDate));
    }
    add(2 * pt, labelled(context, invoiceLine, width));
    out.firstHeadingHeight = y + 10 * pt;

    // The following pages: who and which invoice, on one line.
    QString next = QStringLiteral("DUPLICATA – ");
    if (!data.activityLabel.empty()) {
        next += QStringLiteral("BORDEREAU %1 – ").arg(q(data.activityLabel));
    }
    next += QStringLiteral("%1 – Facture n° %2 – %3").arg(q(data.organisation.name), invoice, periodInWords(q(data.period)));
    out.nextHeading = layoutParagraph(context, next, context.bold, width, Qt::AlignLeft);

    const QStringList captions = {QStringLiteral("Bénéficiaire"), QStringLiteral("N° dossier"), QStringLiteral("Prestation"),
        QStringLiteral("Quantité"), QStringLiteral("Prix unitaire"), QStringLiteral("Montant")};
    for (int c = 0; c < captions.size(); ++c) {
        out.captions.push_back(layoutParagraph(context, captions[c], context.bold, out.columns[static_cast<std::size_t>(c)] - 2 * out.padding,
            c >= 3 ? Qt::AlignRight : Qt::AlignLeft, {}, Reuse::Yes));
        out.headerRowHeight = std::max(out.headerRowHeight, out.captions.back().height + 2 * out.padding);
    }
    out.totalsRowHeight = QFontMetricsF(context.bold, context.device()).height() + 2 * out.padding;
    out.suite = layoutParagraph(context, QStringLiteral("(suite)"), context.italic, out.columns[0] - 2 * out.padding, Qt::AlignLeft, {}, Reuse::Yes);
    out.total = layoutParagraph(context, QStringLiteral("Total : %1").arg(formatEuros(data.totalCents)), context.party, width, Qt::AlignRight);
    out.reserve = std::max(out.totalsRowHeight, 10 * pt + out.total.height);
    out.footerHeight = QFontMetricsF(context.footer, context.device()).height() * 2.5;

    // A number is never broken: one too wide for its column (an amount of ten
    // million euros and more) is set in a smaller size, on one line.
    // Kept by text and room, so that a number seen before is not measured again.
    const auto numberCell = [&](const QString& text, qreal room) {
        auto& kept = context.kept().numbers;
        const LayoutContext::Kept::Key key{text, context.body, room, Qt::AlignRight, {}};
        if (const auto found = kept.find(key); found != kept.end()) {
            return Paragraph{found->second.layout, found->second.height};
        }
        QFont font = context.body;
        const qreal natural = QFontMetricsF(font, context.device()).horizontalAdvance(text);
        if (natural > room) {
            font.setPointSizeF(font.pointSizeF() * room / natural * 0.97);
        }
        Paragraph cell = layoutParagraph(context, text, font, room, Qt::AlignRight);
        if (kept.size() >= LayoutContext::Kept::kMost) {
            kept.clear();
        }
        kept.emplace(key, Paragraph{cell.layout, cell.height});
        return cell;
    };
    for (const StatementLine& line : data.lines) {
        const QString texts[6] = {q(line.beneficiary), q(line.fileNumber), q(line.service), formatQuantity(line.quantityHundredths),
            formatEuros(line.unitPriceCents), formatEuros(line.amountCents)};
        std::vector<Paragraph> row;
        for (std::size_t c = 0; c < 6; ++c) {
            const qreal room = out.columns[c] - 2 * out.padding;
            // Services, quantities and prices come back from row to row; names and file numbers seldom do.
            row.push_back(c >= 3 ? numberCell(texts[c], room)
                                 : layoutParagraph(context, texts[c], context.body, room, Qt::AlignLeft, {}, c == 2 ? Reuse::Yes : Reuse::No));
        }
        out.cells.push_back(std::move(row));
    }

    // Pagination: whole rows; a row taller than a whole page is cut by lines.
    const qreal bottom = page.height() - out.footerHeight - out.reserve;
    const qreal firstTop = out.firstHeadingHeight + out.headerRowHeight;
    const qreal nextTop = out.nextHeading.height + 6 * pt + out.headerRowHeight + out.totalsRowHeight;
    out.pages.emplace_back();
    qreal used = firstTop;
    const auto newPage = [&] {
        out.pages.emplace_back();
        used = nextTop;
    };
    for (std::size_t r = 0; r < out.cells.size(); ++r) {
        const auto& row = out.cells[r];
        qreal height = 0;
        for (const auto& cell : row) {
            height = std::max(height, cell.height + 2 * out.padding);
        }
        if (used + height > bottom && !out.pages.back().rows.empty()) {
            newPage();
        }
        if (used + height <= bottom) {
            RowPiece piece{r, {}, false, true, height};
            for (const auto& cell : row) {
                piece.lines.emplace_back(0, cell.lineCount());
            }
            out.pages.back().rows.push_back(std::move(piece));
            used += height;
            continue;
        }
        // Taller than what a page holds: as many lines of each cell as fit, the rest on the next pages.
        std::vector<int> next(row.size(), 0);
        bool continued = false;
        for (;;) {
            const qreal room = bottom - used - 2 * out.padding - (continued ? out.suite.height : 0);
            RowPiece piece{r, {}, continued, !continued, 0};
            bool more = false;
            bool progressed = false;
            qreal tallest = 0;
            for (std::size_t c = 0; c < row.size(); ++c) {
                int end = next[c];
                while (end < row[c].lineCount() && row[c].linesHeight(next[c], end + 1) <= room) {
                    ++end;
                }
                if (end == next[c] && end < row[c].lineCount() && !progressed && c + 1 == row.size()) {
                    ++end; // a page that holds not even one line still takes one
                }
                progressed = progressed || end > next[c];
                tallest = std::max(tallest, row[c].linesHeight(next[c], end));
                piece.lines.emplace_back(next[c], end);
                next[c] = end;
                more = more || end < row[c].lineCount();
            }
            piece.height = tallest + 2 * out.padding + (continued ? out.suite.height : 0);
            used += piece.height;
            out.pages.back().rows.push_back(std::move(piece));
            if (!more) {
                break;
            }
            newPage();
            continued = true;
        }
    }

    // Running totals: an amount counts on the page where it is shown.
    std::int64_t running = 0;
    for (StatementPage& p : out.pages) {
        p.broughtForward = running;
        for (const RowPiece& piece : p.rows) {
            if (piece.withNumbers) {
                running += data.lines[piece.row].amountCents;
            }
        }
        p.carriedForward = running;
    }
    return out;
}

} // namespace statements
