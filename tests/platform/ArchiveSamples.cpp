// Writes the PDF files that an archive validator checks: FUSION files as the
// server command cuts them out of shared documents, and paper jobs as the
// printing control lays them out, each from one to fourteen pages.
//
//   archive_samples FOLDER
//
// Prints one line per file written: its name and number of pages. The file
// control-plain.pdf is a plain PDF, which a validator that works refuses.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <QApplication>
#include <QBuffer>
#include <QPdfWriter>
#include <QPageSize>

#include "PaperLayout.h"
#include "PdfArchive.h"
#include "StatementFiles.h"
#include "StatementRenderer.h"

using statements::StatementData;

namespace {

// A statement of rows lines, some with long names that wrap, and the accents,
// signs and spaces the fonts must carry.
StatementData statement(int number, int rows)
{
    StatementData data;
    data.key = "001P012202611000000" + std::to_string(1000 + number);
    data.activity = "P";
    data.activityLabel = "PRESTATAIRE";
    data.period = "202611";
    data.invoiceNumber = "F" + std::to_string(number) + "   ";
    data.invoiceDate = "20261215";
    data.entity = {"001", "AIDE À DOMICILE DU VAL", "", {"12 RUE DES LILAS", "38000 GRENOBLE"}};
    data.organisation = {"012", "CAISSE PRIMAIRE DE L'ISÈRE n° " + std::to_string(number), "CPAM38",
        {"2 RUE DES ALPES", "38045 GRENOBLE CEDEX"}};
    for (int i = 0; i < rows; ++i) {
        std::string beneficiary = "BÉNÉFICIAIRE " + std::to_string(i + 1);
        if (i % 7 == 3) {
            beneficiary += " DE LA FONTAINE-SAINT-ÉTIENNE ŒUVRE « ÇA »";
        }
        const std::int64_t amount = 1000 + 37 * i;
        data.lines.push_back({beneficiary, "D" + std::to_string(1000 + i), "AIDE MÉNAGÈRE", 150, amount, amount});
        data.totalCents += amount;
    }
    return data;
}

// The page count of a file we wrote: the root of its page tree has the largest /Count.
int pagesOf(const std::string& pdf)
{
    int pages = -1;
    for (auto at = pdf.find("/Count "); at != std::string::npos; at = pdf.find("/Count ", at + 1)) {
        pages = std::max(pages, std::atoi(pdf.c_str() + at + 7));
    }
    return pages;
}

int pagesOf(const StatementData& data)
{
    QBuffer buffer;
    buffer.open(QIODevice::WriteOnly);
    const auto writer = statements::archiveWriter(buffer, QStringLiteral("essai"));
    return statements::render({&data, 1}, *writer).front();
}

// A statement of exactly pages pages on A4: the fewest rows that fill them
// (a row more adds a page at most), found by halving.
StatementData statementOf(int pages)
{
    int fewest = 1;
    int most = pages * 60;
    while (fewest < most) {
        const int rows = (fewest + most) / 2;
        if (pagesOf(statement(pages, rows)) >= pages) {
            most = rows;
        } else {
            fewest = rows + 1;
        }
    }
    return statement(pages, fewest);
}

void save(const std::filesystem::path& file, const std::string& bytes)
{
    std::ofstream(file, std::ios::binary) << bytes;
    std::printf("%s %d\n", file.filename().c_str(), pagesOf(bytes));
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: archive_samples FOLDER\n");
        return 2;
    }
    const QApplication app(argc, argv);
    const std::filesystem::path folder = argv[1];
    std::filesystem::create_directories(folder);

    // One statement of each length from 1 to 14 pages.
    std::vector<StatementData> all;
    for (int pages = 1; pages <= 14; ++pages) {
        all.push_back(statementOf(pages));
    }

    // FUSION files: cut out of documents of three statements on two threads.
    statements::StatementFiles files(3, 2);
    for (const auto& data : all) {
        files.add(data);
    }
    int n = 0;
    for (const auto& pdf : files.take()) {
        save(folder / ("fusion-" + std::to_string(++n) + ".pdf"), pdf);
    }

    // Paper jobs: one statement alone, and runs that add up to fourteen pages.
    n = 0;
    const auto job = [&](const std::vector<StatementData>& found, const QPageSize& paper, const std::string& name) {
        const QByteArray pdf = belmontis::layOut(found, paper, "Bordereaux - DUPLICATA");
        save(folder / name, pdf.toStdString());
    };
    for (const auto& data : all) {
        job({data}, QPageSize(QPageSize::A4), "paper-" + std::to_string(++n) + ".pdf");
    }
    job({all[0], all[1], all[2], all[7]}, QPageSize(QPageSize::A4), "paper-run.pdf");
    job({all[0], all[4]}, QPageSize(QPageSize::Letter), "paper-letter.pdf");
    // A run drawn as two documents joined into one job: two subsets of each font.
    std::vector<StatementData> many;
    for (int i = 0; i < 70; ++i) {
        many.push_back(statement(100 + i, 1 + i % 3));
    }
    job(many, QPageSize(QPageSize::A4), "paper-joined.pdf");

    // The control: a plain PDF (no output intent, no XMP), which the validator must refuse.
    QByteArray plain;
    {
        QBuffer buffer(&plain);
        buffer.open(QIODevice::WriteOnly);
        QPdfWriter writer(&buffer);
        statements::render({all.data(), 2}, writer);
    }
    save(folder / "control-plain.pdf", plain.toStdString());
    return 0;
}
