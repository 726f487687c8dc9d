#include "StatementRenderer.h"

#include <stdexcept>

#include <QAbstractTextDocumentLayout>
#include <QGuiApplication>
#include <QPageLayout>
#include <QPageSize>
#include <QPainter>
#include <QPdfWriter>
#include <QSaveFile>
#include <QTextCursor>
#include <QTextDocument>
#include <QTextTable>

#include "Format.h"

namespace statements {

namespace {

// DejaVu is installed with the project's dependencies, so the PDF looks the same
// on every machine; the family falls back to the platform's sans otherwise.
const QString kFontFamily = QStringLiteral("DejaVu Sans");
constexpr qreal kBodyPoints = 9;
constexpr qreal kFooterPoints = 8;
const QString kDuplicata = QStringLiteral("DUPLICATA");

QString q(const std::string& text)
{
    return QString::fromStdString(text);
}

QFont font(qreal points, bool bold = false)
{
    QFont f(kFontFamily);
    f.setStyleHint(QFont::SansSerif);
    // Ligatures would extract as "ﬁ" and defeat a search for "fi" in the PDF.
    f.setStyleStrategy(QFont::PreferNoShaping);
    f.setPointSizeF(points);
    f.setBold(bold);
    return f;
}

QTextCharFormat charFormat(qreal points, bool bold = false)
{
    QTextCharFormat format;
    format.setFont(font(points, bold));
    return format;
}

QTextBlockFormat blockFormat(Qt::Alignment alignment, qreal topMargin = 0)
{
    QTextBlockFormat format;
    format.setAlignment(alignment);
    format.setTopMargin(topMargin);
    return format;
}

// Name in bold, then the lines of the address, in the cell under the cursor.
void writeParty(QTextCursor& cursor, const Party& party, bool showShortName)
{
    cursor.insertText(q(party.name), charFormat(kBodyPoints + 1, true));
    if (showShortName && !party.shortName.empty() && party.shortName != party.name) {
        cursor.insertText(QStringLiteral(" (%1)").arg(q(party.shortName)), charFormat(kBodyPoints));
    }
    for (const auto& line : party.addressLines) {
        cursor.insertBlock(blockFormat(Qt::AlignLeft), charFormat(kBodyPoints));
        cursor.insertText(q(line), charFormat(kBodyPoints));
    }
}

void writeCell(QTextTable* table, int row, int column, const QString& text, const QTextCharFormat& format,
    Qt::Alignment alignment)
{
    QTextCursor cell = table->cellAt(row, column).firstCursorPosition();
    cell.setBlockFormat(blockFormat(alignment));
    cell.insertText(text, format);
}

} // namespace

void requireGuiApplication()
{
    if (!qobject_cast<QGuiApplication*>(QCoreApplication::instance())) {
        throw std::runtime_error("rendering a statement needs a QGuiApplication (headless hosts: QT_QPA_PLATFORM=offscreen)");
    }
}

std::unique_ptr<QTextDocument> buildDocument(const StatementData& data)
{
    auto document = std::make_unique<QTextDocument>();
    document->setDefaultFont(font(kBodyPoints));
    document->setDocumentMargin(0);
    QTextCursor cursor(document.get());

    // Sender on the left, addressee on the right, as a window envelope expects.
    QTextTableFormat heading;
    heading.setBorder(0);
    heading.setCellPadding(2);
    heading.setWidth(QTextLength(QTextLength::PercentageLength, 100));
    heading.setColumnWidthConstraints(
        {QTextLength(QTextLength::PercentageLength, 50), QTextLength(QTextLength::PercentageLength, 50)});
    QTextTable* parties = cursor.insertTable(1, 2, heading);
    QTextCursor left = parties->cellAt(0, 0).firstCursorPosition();
    writeParty(left, data.entity, false);
    QTextCursor right = parties->cellAt(0, 1).firstCursorPosition();
    writeParty(right, data.organisation, true);
    cursor.movePosition(QTextCursor::End);

    cursor.insertBlock(blockFormat(Qt::AlignHCenter, 18), charFormat(16, true));
    cursor.insertText(kDuplicata, charFormat(16, true));
    if (!data.activityLabel.empty()) {
        cursor.insertBlock(blockFormat(Qt::AlignHCenter, 4), charFormat(kBodyPoints + 2, true));
        cursor.insertText(QStringLiteral("BORDEREAU %1").arg(q(data.activityLabel)), charFormat(kBodyPoints + 2, true));
    }
    cursor.insertBlock(blockFormat(Qt::AlignLeft, 14), charFormat(kBodyPoints));
    cursor.insertText(QStringLiteral("Période : "), charFormat(kBodyPoints));
    cursor.insertText(periodInWords(q(data.period)), charFormat(kBodyPoints, true));
    cursor.insertBlock(blockFormat(Qt::AlignLeft, 2), charFormat(kBodyPoints));
    cursor.insertText(QStringLiteral("Facture n° "), charFormat(kBodyPoints));
    cursor.insertText(q(trimmedRight(data.invoiceNumber)), charFormat(kBodyPoints, true));
    if (!data.invoiceDate.empty()) {
        cursor.insertText(QStringLiteral(" du "), charFormat(kBodyPoints));
        cursor.insertText(formatDate(q(data.invoiceDate)), charFormat(kBodyPoints, true));
    }
    cursor.insertBlock(blockFormat(Qt::AlignLeft, 10), charFormat(kBodyPoints));

    // The header row repeats on every page the table spills onto.
    const int rows = static_cast<int>(data.lines.size()) + 1;
    QTextTableFormat grid;
    grid.setBorder(0.5);
    grid.setBorderStyle(QTextFrameFormat::BorderStyle_Solid);
    // Collapsed borders cost three times the layout time on long statements.
    grid.setBorderCollapse(false);
    grid.setCellPadding(3);
    grid.setCellSpacing(0);
    grid.setHeaderRowCount(1);
    grid.setWidth(QTextLength(QTextLength::PercentageLength, 100));
    grid.setColumnWidthConstraints({QTextLength(QTextLength::PercentageLength, 25),
        QTextLength(QTextLength::PercentageLength, 12), QTextLength(QTextLength::PercentageLength, 25),
        QTextLength(QTextLength::PercentageLength, 10), QTextLength(QTextLength::PercentageLength, 14),
        QTextLength(QTextLength::PercentageLength, 14)});
    QTextTable* table = cursor.insertTable(rows, 6, grid);

    const QTextCharFormat headerFormat = charFormat(kBodyPoints, true);
    const QStringList captions = {QStringLiteral("Bénéficiaire"), QStringLiteral("N° dossier"),
        QStringLiteral("Prestation"), QStringLiteral("Quantité"), QStringLiteral("Prix unitaire"),
        QStringLiteral("Montant")};
    for (int column = 0; column < captions.size(); ++column) {
        QTextTableCell cell = table->cellAt(0, column);
        QTextCharFormat shaded = cell.format();
        shaded.setBackground(QColor(230, 230, 230));
        cell.setFormat(shaded);
        writeCell(table, 0, column, captions[column], headerFormat, column >= 3 ? Qt::AlignRight : Qt::AlignLeft);
    }
    const QTextCharFormat body = charFormat(kBodyPoints);
    for (int i = 0; i + 1 < rows; ++i) {
        const StatementLine& line = data.lines[static_cast<std::size_t>(i)];
        writeCell(table, i + 1, 0, q(line.beneficiary), body, Qt::AlignLeft);
        writeCell(table, i + 1, 1, q(line.fileNumber), body, Qt::AlignLeft);
        writeCell(table, i + 1, 2, q(line.service), body, Qt::AlignLeft);
        writeCell(table, i + 1, 3, formatQuantity(line.quantityHundredths), body, Qt::AlignRight);
        writeCell(table, i + 1, 4, formatEuros(line.unitPriceCents), body, Qt::AlignRight);
        writeCell(table, i + 1, 5, formatEuros(line.amountCents), body, Qt::AlignRight);
    }
    cursor.movePosition(QTextCursor::End);

    cursor.insertBlock(blockFormat(Qt::AlignRight, 10), charFormat(kBodyPoints + 1, true));
    cursor.insertText(QStringLiteral("Total : "), charFormat(kBodyPoints + 1, true));
    cursor.insertText(formatEuros(data.totalCents), charFormat(kBodyPoints + 1, true));
    return document;
}

void render(std::span<const StatementData> statements, QPagedPaintDevice& device)
{
    if (statements.empty()) {
        return;
    }
    requireGuiApplication();
    QPainter painter;
    if (!painter.begin(&device)) {
        throw std::runtime_error("cannot paint on the print device");
    }
    const QRectF page(0, 0, device.width(), device.height());
    const QFont footerFont = font(kFooterPoints);
    const qreal footerHeight = QFontMetricsF(footerFont, &device).height() * 2.5;
    const qreal bodyHeight = page.height() - footerHeight;

    bool firstPage = true;
    for (const StatementData& data : statements) {
        const auto document = buildDocument(data);
        // Fonts and lengths resolve against the device, so layout and drawing agree.
        document->documentLayout()->setPaintDevice(&device);
        document->setPageSize(QSizeF(page.width(), bodyHeight));
        const int pages = document->pageCount();
        const QString footerLeft = QStringLiteral("%1 – Facture n° %2").arg(kDuplicata, q(trimmedRight(data.invoiceNumber)));
        for (int p = 0; p < pages; ++p) {
            if (!firstPage && !device.newPage()) {
                throw std::runtime_error("cannot start a new page on the print device");
            }
            firstPage = false;
            painter.save();
            painter.translate(0, -p * bodyHeight);
            document->drawContents(&painter, QRectF(0, p * bodyHeight, page.width(), bodyHeight));
            painter.restore();

            painter.setFont(footerFont);
            const QRectF footer(0, page.height() - footerHeight / 2, page.width(), footerHeight / 2);
            painter.drawText(footer, Qt::AlignLeft | Qt::AlignBottom, footerLeft);
            painter.drawText(footer, Qt::AlignRight | Qt::AlignBottom, QStringLiteral("Page %1 / %2").arg(p + 1).arg(pages));
        }
    }
    if (!painter.end()) {
        throw std::runtime_error("the print device could not finish the document");
    }
}

void renderPdf(std::span<const StatementData> statements, QIODevice& out, const QString& title)
{
    requireGuiApplication();
    QPdfWriter writer(&out);
    writer.setTitle(title);
    writer.setCreator(QStringLiteral("Calvarine"));
    writer.setResolution(300);
    writer.setPageLayout(QPageLayout(QPageSize(QPageSize::A4), QPageLayout::Portrait, QMarginsF(15, 15, 15, 12),
        QPageLayout::Millimeter));
    render(statements, writer);
}

void renderPdfFile(std::span<const StatementData> statements, const QString& path)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly)) {
        throw std::runtime_error("cannot write " + path.toStdString() + ": " + file.errorString().toStdString());
    }
    renderPdf(statements, file, QStringLiteral("Bordereaux - %1").arg(kDuplicata));
    if (!file.commit()) {
        throw std::runtime_error("cannot write " + path.toStdString() + ": " + file.errorString().toStdString());
    }
}

} // namespace statements
