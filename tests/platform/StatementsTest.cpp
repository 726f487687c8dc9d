#include <gtest/gtest.h>

#include <fstream>
#include <regex>

#include <QBuffer>
#include <QFile>
#include <QPageLayout>
#include <QPdfWriter>
#include <QRegularExpression>

#include "Format.h"
#include "PdfArchive.h"
#include "StatementFiles.h"
#include "StatementLayout.h"
#include "PlatformTestSupport.h"
#include "StatementRenderer.h"
#include "ThrowsDbaError.h"
#include "database/Dba.h"

using namespace statements;

namespace {

// A record written with visible marks: ^ between attributes, | between values.
std::string record(std::string text)
{
    for (auto& c : text) {
        c = c == '^' ? DbaDynArray::kAttributeMark : c == '|' ? DbaDynArray::kValueMark : c;
    }
    return text;
}

std::string plain(const QString& text)
{
    QString s = text;
    s.replace(QChar(0x00A0), QLatin1Char(' '));
    return s.toStdString();
}

StatementData sample(int lineCount)
{
    StatementData data;
    data.key = "001P0122026110000000123";
    data.activity = "P";
    data.activityLabel = "PRESTATAIRE";
    data.period = "202611";
    data.invoiceNumber = "F000123   ";
    data.invoiceDate = "20261215";
    data.entity = {"001", "AIDE A DOMICILE DU VAL", "", {"12 RUE DES LILAS", "38000 GRENOBLE"}};
    data.organisation = {"012", "CAISSE PRIMAIRE DE L'ISÈRE", "CPAM38", {"2 RUE DES ALPES", "38045 GRENOBLE CEDEX"}};
    for (int i = 0; i < lineCount; ++i) {
        data.lines.push_back({"BÉNÉFICIAIRE " + std::to_string(i + 1), "D" + std::to_string(1000 + i), "AIDE MÉNAGÈRE",
            150, 2290, 3435});
        data.totalCents += 3435;
    }
    return data;
}

class StatementRendering : public ::testing::Test {
protected:
    void SetUp() override
    {
        testsupport::guiApplication();
        ASSERT_TRUE(m_dir.isValid());
    }
    std::filesystem::path write(const std::vector<StatementData>& statements, const std::string& name = "out.pdf")
    {
        const auto file = testsupport::path(m_dir) / name;
        renderPdfFile(statements, QString::fromStdString(file.string()));
        return file;
    }
    QTemporaryDir m_dir;
};

} // namespace

TEST(StatementFormat, FrenchAmountsAndQuantities)
{
    EXPECT_EQ(plain(formatEuros(123456)), "1 234,56 €");
    EXPECT_EQ(plain(formatEuros(5)), "0,05 €");
    EXPECT_EQ(plain(formatEuros(-123456789)), "-1 234 567,89 €");
    EXPECT_EQ(plain(formatEuros(0)), "0,00 €");
    // The most negative value has no positive counterpart in int64.
    EXPECT_EQ(plain(formatEuros(std::numeric_limits<std::int64_t>::min())), "-92 233 720 368 547 758,08 €");
    EXPECT_EQ(plain(formatQuantity(150)), "1,50");
    EXPECT_EQ(plain(formatQuantity(100000)), "1 000,00");
}

TEST(StatementFormat, PeriodsAndDates)
{
    EXPECT_EQ(periodInWords("202611").toStdString(), "novembre 2026");
    EXPECT_EQ(periodInWords("202602").toStdString(), "février 2026");
    EXPECT_EQ(periodInWords("202613").toStdString(), "202613");
    EXPECT_EQ(periodInWords("2026").toStdString(), "2026");
    EXPECT_EQ(formatDate("20261215").toStdString(), "15/12/2026");
    EXPECT_EQ(formatDate("20260231").toStdString(), "20260231");
}

TEST(ArchiveRecord, ParsesLinesFromParallelValues)
{
    const DbaDynArray r(record("202611^CPAM38^F000123^20261215^DUPONT JEAN|MARTIN ALICE^D1|D2^AIDE|SOINS^150|200^2290|1000^3435|2000^5435"));
    const auto data = parseArchiveRecord("001P0122026110000F000123", r);
    EXPECT_EQ(data.entity.code, "001");
    EXPECT_EQ(data.activity, "P");
    EXPECT_EQ(data.activityLabel, "PRESTATAIRE");
    EXPECT_EQ(data.organisation.code, "012");
    EXPECT_EQ(data.organisation.shortName, "CPAM38");
    EXPECT_EQ(data.invoiceNumber, "F000123");
    ASSERT_EQ(data.lines.size(), 2u);
    EXPECT_EQ(data.lines[1].beneficiary, "MARTIN ALICE");
    EXPECT_EQ(data.lines[1].quantityHundredths, 200);
    EXPECT_EQ(data.lines[1].amountCents, 2000);
    EXPECT_EQ(data.totalCents, 5435);
}

TEST(ArchiveRecord, RaggedAttributesAndBadNumbers)
{
    // A line missing some values still shows, with the gaps empty or zero.
    const DbaDynArray ragged(record("202611^^F1^^A|B|C^^^^^1|2^"));
    const auto data = parseArchiveRecord("001M012", ragged);
    ASSERT_EQ(data.lines.size(), 3u);
    EXPECT_EQ(data.lines[2].beneficiary, "C");
    EXPECT_EQ(data.lines[2].amountCents, 0);
    EXPECT_EQ(data.totalCents, 0);
    EXPECT_TRUE(parseArchiveRecord("001P012", DbaDynArray()).lines.empty());

    const DbaDynArray bad(record("202611^^F1^^X^^^^^12|1,5^0"));
    EXPECT_THAT([&] { parseArchiveRecord("001P012", bad); }, ThrowsDbaError(DbaError::Kind::BadData, "attribute 10 value 2"));
}

TEST_F(StatementRendering, OnePageCarriesEverything)
{
    const auto file = write({sample(2)});
    EXPECT_EQ(testsupport::pdfPageCount(file), 1);
    const std::string text = testsupport::pdfText(file);
    for (const char* expected : {"DUPLICATA", "AIDE A DOMICILE DU VAL", "12 RUE DES LILAS", "CAISSE PRIMAIRE DE L'ISÈRE",
             "CPAM38", "38045 GRENOBLE CEDEX", "novembre 2026", "F000123", "15/12/2026", "BÉNÉFICIAIRE 2", "D1001",
             "AIDE MÉNAGÈRE", "1,50", "22,90 €", "34,35 €", "Total : 68,70 €", "Page 1 / 1", "PRESTATAIRE", "Bénéficiaire"}) {
        EXPECT_NE(text.find(expected), std::string::npos) << expected << " missing from: " << text;
    }
    // The trailing blanks of an archived invoice number are not shown.
    EXPECT_NE(text.find("Facture n° F000123 du 15/12/2026"), std::string::npos) << text;
}

TEST_F(StatementRendering, SeveralStatementsStartOnTheirOwnPages)
{
    auto second = sample(1);
    second.invoiceNumber = "F999";
    second.organisation.name = "MUTUELLE DU DAUPHINÉ";
    const auto file = write({sample(1), second});
    EXPECT_EQ(testsupport::pdfPageCount(file), 2);
    const std::string text = testsupport::pdfText(file);
    EXPECT_LT(text.find("CAISSE PRIMAIRE"), text.find("MUTUELLE DU DAUPHINÉ"));
    EXPECT_NE(text.find("DUPLICATA – Facture n° F999"), std::string::npos) << text;
}

TEST_F(StatementRendering, FontsAreEmbeddedSubsetsUnderNamesOfTheirOwn)
{
    // Seventy statements are drawn as two documents and joined: each font has
    // a subset from each, which must not share a name.
    const auto file = write(std::vector<StatementData>(70, sample(1)));
    QProcess process;
    process.start(QStringLiteral("pdffonts"), {QString::fromStdString(file.string())});
    ASSERT_TRUE(process.waitForFinished(30000));
    const auto lines = QString::fromUtf8(process.readAllStandardOutput()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    ASSERT_EQ(lines.size(), 2 + 4) << "two fonts, two subsets each";
    QStringList names;
    for (int i = 2; i < lines.size(); ++i) {
        // Columns: name type encoding emb sub uni object; emb and sub are the first yes/no.
        const auto words = lines[i].split(QLatin1Char(' '), Qt::SkipEmptyParts);
        const auto emb = std::find_if(words.begin(), words.end(), [](const QString& w) { return w == "yes" || w == "no"; });
        ASSERT_LT(emb + 1, words.end()) << lines[i].toStdString();
        EXPECT_EQ(*emb, QStringLiteral("yes")) << lines[i].toStdString();
        EXPECT_EQ(*(emb + 1), QStringLiteral("yes")) << "not named as a subset: " << lines[i].toStdString();
        EXPECT_TRUE(QRegularExpression(QStringLiteral("^[A-Z]{6}\\+DejaVuSans")).match(words[0]).hasMatch()) << lines[i].toStdString();
        EXPECT_FALSE(names.contains(words[0])) << "two subsets named " << words[0].toStdString();
        names << words[0];
    }
}

namespace {

// The text of each page as pdftotext lays it out (pages end with a form feed),
// blanks made one: a row of the table reads as one line.
std::vector<std::string> pageTexts(const std::filesystem::path& pdf)
{
    QProcess process;
    process.start(QStringLiteral("pdftotext"), {QStringLiteral("-layout"), QString::fromStdString(pdf.string()), QStringLiteral("-")});
    process.waitForFinished(30000);
    std::vector<std::string> pages;
    for (const auto& page : QString::fromUtf8(process.readAllStandardOutput()).split(QChar(0x0C))) {
        QString text = page;
        text.replace(QChar(0x00A0), QLatin1Char(' '));
        text.replace(QChar(0x202F), QLatin1Char(' '));
        pages.push_back(text.simplified().toStdString());
    }
    if (!pages.empty() && pages.back().empty()) {
        pages.pop_back();
    }
    return pages;
}

std::int64_t cents(const std::string& amount)
{
    std::string digits;
    for (const char c : amount) {
        if (c >= '0' && c <= '9') {
            digits += c;
        }
    }
    return std::stoll(digits);
}

// Lines of one to six wrapped lines, each row's text bounded by START<n> and END<n>.
StatementData ragged(int rows)
{
    StatementData data = sample(0);
    for (int i = 0; i < rows; ++i) {
        std::string beneficiary = "START" + std::to_string(i);
        for (int w = 0; w < (i * 7) % 23; ++w) {
            beneficiary += " NOMCOMPOSE";
        }
        const std::int64_t amount = 1000 + 37 * i;
        data.lines.push_back({beneficiary, "D" + std::to_string(i), "SOINS END" + std::to_string(i), 100, amount, amount});
        data.totalCents += amount;
    }
    return data;
}

bool contains(const std::string& text, const std::string& word)
{
    // Whole words: "END1" must not be found inside "END12".
    for (auto at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) {
        const auto after = at + word.size();
        if ((at == 0 || text[at - 1] == ' ') && (after == text.size() || text[after] == ' ')) {
            return true;
        }
    }
    return false;
}

} // namespace

TEST_F(StatementRendering, RowsAreNeverCutAndTotalsAreCarriedFromPageToPage)
{
    const int rows = 160;
    const auto data = ragged(rows);
    const auto file = write({data});
    const auto pages = pageTexts(file);
    ASSERT_GE(pages.size(), 4u);
    EXPECT_EQ(testsupport::pdfPageCount(file), static_cast<int>(pages.size()));
    const std::regex carried("À reporter ([0-9 ]+,[0-9]{2}) €");
    const std::regex brought("Report ([0-9 ]+,[0-9]{2}) €");
    std::int64_t running = 0;
    int seen = 0;
    for (std::size_t p = 0; p < pages.size(); ++p) {
        const std::string& text = pages[p];
        SCOPED_TRACE("page " + std::to_string(p + 1));
        std::smatch match;
        if (p > 0) {
            ASSERT_TRUE(std::regex_search(text, match, brought)) << text;
            EXPECT_EQ(cents(match[1]), running);
        } else {
            EXPECT_FALSE(std::regex_search(text, match, brought));
        }
        EXPECT_NE(text.find("Bénéficiaire N° dossier Prestation Quantité Prix unitaire Montant"), std::string::npos);
        EXPECT_NE(text.find("Page " + std::to_string(p + 1) + " / " + std::to_string(pages.size())), std::string::npos);
        for (int i = 0; i < rows; ++i) {
            const bool start = contains(text, "START" + std::to_string(i));
            const bool end = contains(text, "END" + std::to_string(i));
            const bool number = contains(text, "D" + std::to_string(i));
            // A row is on a page whole, or not at all.
            EXPECT_EQ(start, end) << "row " << i;
            EXPECT_EQ(start, number) << "row " << i;
            if (start) {
                running += data.lines[static_cast<std::size_t>(i)].amountCents;
                ++seen;
            }
        }
        if (p + 1 < pages.size()) {
            ASSERT_TRUE(std::regex_search(text, match, carried)) << text;
            EXPECT_EQ(cents(match[1]), running);
            EXPECT_EQ(text.find("Total :"), std::string::npos);
        } else {
            EXPECT_FALSE(std::regex_search(text, match, carried));
            EXPECT_NE(text.find("Total : " + plain(formatEuros(data.totalCents))), std::string::npos) << text;
        }
    }
    EXPECT_EQ(seen, rows);
}

// Up to 999 999 999,99 € an amount stays whole on one line of its cell, and
// so do the quantity and the unit price beside it.
TEST_F(StatementRendering, TheLargestAmountsStayOnOneLine)
{
    StatementData data = sample(3);
    data.lines[0].amountCents = 99999999999;
    data.lines[1].unitPriceCents = 1234567890;
    data.lines[2].quantityHundredths = 99999999999;
    LayoutContext context;
    const StatementLayout layout = layOut(context, data, QSizeF(LayoutContext::points(510), LayoutContext::points(760)));
    for (std::size_t r = 0; r < layout.cells.size(); ++r) {
        for (std::size_t c = 3; c < 6; ++c) {
            EXPECT_EQ(layout.cells[r][c].lineCount(), 1) << "row " << r << ", column " << c << ": "
                                                         << plain(layout.cells[r][c].layout->text());
        }
    }
    EXPECT_EQ(plain(layout.cells[0][5].layout->text()), "999 999 999,99 €");
    const auto file = write({data});
    EXPECT_NE(plain(QString::fromStdString(testsupport::pdfText(file))).find("999 999 999,99 €"), std::string::npos);
}

// A context keeps the layouts of texts that come back (services, numbers,
// captions) from one statement to the next: what it gives again must be what a
// fresh context lays out, at another width too, a shrunk amount included.
TEST_F(StatementRendering, KeptLayoutsMatchFreshOnes)
{
    StatementData data = sample(12);
    data.lines[0].amountCents = 99999999999;
    data.lines[5].service = std::string(60, 'W');
    const QSizeF wide(LayoutContext::points(510), LayoutContext::points(760));
    const QSizeF narrow(LayoutContext::points(300), LayoutContext::points(400));
    LayoutContext kept;
    layOut(kept, data, wide);
    layOut(kept, sample(12), narrow);
    for (const QSizeF& page : {narrow, wide}) {
        LayoutContext fresh;
        const StatementLayout again = layOut(kept, data, page);
        const StatementLayout first = layOut(fresh, data, page);
        ASSERT_EQ(again.pages.size(), first.pages.size());
        for (std::size_t r = 0; r < first.cells.size(); ++r) {
            for (std::size_t c = 0; c < 6; ++c) {
                const Paragraph& a = again.cells[r][c];
                const Paragraph& f = first.cells[r][c];
                EXPECT_EQ(a.layout->text(), f.layout->text());
                EXPECT_EQ(a.layout->font(), f.layout->font()) << "row " << r << ", column " << c;
                EXPECT_EQ(a.lineCount(), f.lineCount()) << "row " << r << ", column " << c;
                EXPECT_DOUBLE_EQ(a.height, f.height) << "row " << r << ", column " << c;
            }
        }
        for (std::size_t p = 0; p < first.pages.size(); ++p) {
            EXPECT_EQ(again.pages[p].rows.size(), first.pages[p].rows.size()) << "page " << p;
        }
        ASSERT_EQ(again.firstHeading.size(), first.firstHeading.size());
        for (std::size_t h = 0; h < first.firstHeading.size(); ++h) {
            EXPECT_EQ(again.firstHeading[h].first, first.firstHeading[h].first) << "heading " << h;
            EXPECT_EQ(again.firstHeading[h].second.layout->text(), first.firstHeading[h].second.layout->text());
            EXPECT_EQ(again.firstHeading[h].second.layout->formats(), first.firstHeading[h].second.layout->formats());
        }
    }
}

TEST_F(StatementRendering, ARowTallerThanAPageGoesOnMarkedSuite)
{
    auto data = sample(2);
    std::string service;
    for (int w = 0; w < 400; ++w) {
        service += "MOT" + std::to_string(w) + " ";
    }
    data.lines[1].service = service;
    const auto pages = pageTexts(write({data}));
    ASSERT_GE(pages.size(), 2u);
    std::string all;
    for (const auto& page : pages) {
        all += page + " ";
    }
    // Every word once, in order: nothing hidden, nothing lost.
    std::size_t from = 0;
    for (int w = 0; w < 400; ++w) {
        const std::string word = " MOT" + std::to_string(w) + " ";
        const auto at = all.find(word, from > 0 ? from - 1 : 0);
        ASSERT_NE(at, std::string::npos) << word;
        EXPECT_EQ(all.find(word, at + 1), std::string::npos) << word << " twice";
        from = at + word.size();
    }
    // The row starts on a page of its own, and each page after that says it goes on.
    std::size_t first = 0;
    while (first < pages.size() && !contains(pages[first], "MOT0")) {
        ++first;
    }
    ASSERT_LT(first + 1, pages.size());
    for (std::size_t p = 0; p < pages.size(); ++p) {
        EXPECT_EQ(pages[p].find("(suite)") != std::string::npos, p > first) << p;
    }
}

TEST_F(StatementRendering, PaginationDependsOnThePageNotOnTheResolution)
{
    const auto data = ragged(120);
    const auto pagesOf = [&](int resolution, QPageSize size) {
        QBuffer buffer;
        buffer.open(QIODevice::WriteOnly);
        {
            QPdfWriter writer(&buffer);
            writer.setResolution(resolution);
            writer.setPageLayout(QPageLayout(size, QPageLayout::Portrait, QMarginsF(15, 15, 15, 12), QPageLayout::Millimeter));
            render({&data, 1}, writer);
        }
        const auto file = testsupport::path(m_dir) / ("r" + std::to_string(resolution) + ".pdf");
        QFile out(QString::fromStdString(file.string()));
        out.open(QIODevice::WriteOnly);
        out.write(buffer.data());
        out.close();
        return pageTexts(file);
    };
    // A printer's 1200 dpi and the PDF's 300 dpi: page n is the same page.
    EXPECT_EQ(pagesOf(1200, QPageSize(QPageSize::A4)), pagesOf(300, QPageSize(QPageSize::A4)));
    // Another paper size is paginated for itself, everything still there.
    const auto small = pagesOf(300, QPageSize(QPageSize::A5));
    EXPECT_GT(small.size(), pagesOf(300, QPageSize(QPageSize::A4)).size());
    EXPECT_NE(small.back().find("END119"), std::string::npos);
}

TEST_F(StatementRendering, OneFilePerStatementFromSharedDocuments)
{
    // Three statements per drawn document: the cut falls inside and between
    // documents, drawn on two threads that may finish out of order.
    StatementFiles files(3, 2);
    std::vector<StatementData> statements;
    for (int i = 0; i < 7; ++i) {
        auto data = i == 4 ? ragged(90) : sample(1 + i);
        data.invoiceNumber = "F" + std::to_string(i);
        data.organisation.name = "ORGANISME " + std::to_string(i);
        files.add(data);
        statements.push_back(data);
    }
    const auto pdfs = files.take();
    ASSERT_EQ(pdfs.size(), 7u);
    for (std::size_t i = 0; i < pdfs.size(); ++i) {
        const auto file = testsupport::path(m_dir) / ("s" + std::to_string(i) + ".pdf");
        std::ofstream(file, std::ios::binary) << pdfs[i];
        const std::string text = testsupport::pdfText(file);
        EXPECT_NE(text.find("ORGANISME " + std::to_string(i)), std::string::npos) << i;
        EXPECT_NE(text.find("Total : " + plain(formatEuros(statements[i].totalCents))), std::string::npos) << i;
        for (std::size_t other = 0; other < pdfs.size(); ++other) {
            if (other != i) {
                EXPECT_EQ(text.find("ORGANISME " + std::to_string(other) + " "), std::string::npos) << i << " holds " << other;
            }
        }
        EXPECT_EQ(testsupport::pdfPageCount(file), i == 4 ? static_cast<int>(pageTexts(file).size()) : 1);
    }
    EXPECT_TRUE(files.take().empty());
}
