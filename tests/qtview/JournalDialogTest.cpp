// The window's journal of re-issues: sorted newest first and by any column,
// filtered by invoice and organisation, the selected run shown whole, its
// folder opened, and paper jobs still open brought up to date when it opens.

#include <gtest/gtest.h>

#include <chrono>

#include <QAbstractItemModelTester>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QTableView>
#include <QTemporaryDir>
#include <QTest>

#include "Journal.h"
#include "JournalDialog.h"
#include "Store.h"

namespace {

using namespace std::chrono;

store::JournalEntry entry(store::JournalOutput output, std::vector<store::JournalStatement> statements, int job = 0)
{
    store::JournalEntry made;
    made.user = "ALICE";
    made.host = "poste-1";
    made.entity = "001";
    made.period = "202611";
    made.activity = "P";
    made.output = output;
    made.statements = std::move(statements);
    if (output == store::JournalOutput::Files) {
        made.folder = "/srv/calvarine/FUSION";
        made.files = {"001P_202611_012_F1.pdf"};
    } else {
        made.printer = "accueil";
        made.copies = 1;
        made.job = job;
        made.jobState = "pending";
    }
    return made;
}

TEST(JournalDialog, NewestFirstFilteredByInvoiceAndOrganisationWithTheSelectedRunShownWhole)
{
    QTemporaryDir dir;
    auto store = store::Store::create(dir.path().toStdString() + "/calvarine.db");
    const auto day = [](int d) { return [d] { return system_clock::time_point(sys_days{year(2026) / November / d}); }; };
    store::Journal(*store, day(10)).append(entry(store::JournalOutput::Files, {{"012", "F1"}}));
    store::Journal(*store, day(12)).append(entry(store::JournalOutput::Paper, {{"013", "F2"}, {"012", "F3"}}, 7));
    store::Journal(*store, day(11)).append(entry(store::JournalOutput::Paper, {{"014", "F14"}}, 8));

    std::vector<int> asked;
    QStringList opened;
    JournalDialog dialog(
        *store,
        [&](const store::JournalEntry& asking) -> std::optional<std::string> {
            asked.push_back(asking.job);
            return asking.job == 7 ? std::optional<std::string>("completed") : std::nullopt;
        },
        [&](const QString& folder) { opened << folder; });
    QAbstractItemModelTester tester(&dialog.filter(), QAbstractItemModelTester::FailureReportingMode::Fatal);

    // Opening asked CUPS for the open jobs, the newest first, and kept what it said.
    EXPECT_EQ(asked, (std::vector<int>{7, 8}));
    QAbstractItemModel& rows = dialog.filter();
    const auto cell = [&](int row, int column) { return rows.index(row, column).data().toString().toStdString(); };
    ASSERT_EQ(rows.rowCount(), 3);
    EXPECT_EQ(cell(0, JournalModel::Statements), "013 F2 (+1)");
    EXPECT_EQ(cell(0, JournalModel::JobState), "n° 7 : terminé");
    EXPECT_EQ(cell(1, JournalModel::JobState), "n° 8 : en attente");
    EXPECT_EQ(cell(2, JournalModel::Destination), "/srv/calvarine/FUSION");
    dialog.table().sortByColumn(JournalModel::Statements, Qt::AscendingOrder);
    EXPECT_EQ(cell(2, JournalModel::Statements), "013 F2 (+1)") << "sorted by the number of statements";

    auto* invoice = dialog.findChild<QLineEdit*>(QStringLiteral("FiltreFacture"));
    auto* organisation = dialog.findChild<QLineEdit*>(QStringLiteral("FiltreOrganisme"));
    ASSERT_TRUE(invoice && organisation);
    QTest::keyClicks(invoice, QStringLiteral("f1"));
    EXPECT_EQ(rows.rowCount(), 2) << "F1 and F14 begin so, case ignored";
    QTest::keyClicks(organisation, QStringLiteral("014"));
    ASSERT_EQ(rows.rowCount(), 1);
    invoice->clear();
    organisation->setText(QStringLiteral("012"));
    ASSERT_EQ(rows.rowCount(), 2);

    // The file run: shown whole below the table, its folder opened.
    dialog.table().sortByColumn(JournalModel::Time, Qt::AscendingOrder);
    dialog.table().setCurrentIndex(rows.index(0, 0));
    const QString details = dialog.findChild<QPlainTextEdit*>(QStringLiteral("DetailJournal"))->toPlainText();
    EXPECT_TRUE(details.contains(QStringLiteral("Dossier /srv/calvarine/FUSION : 001P_202611_012_F1.pdf"))) << details.toStdString();
    auto* open = dialog.findChild<QPushButton*>(QStringLiteral("OuvrirDossier"));
    auto* job = dialog.findChild<QPushButton*>(QStringLiteral("EtatTravail"));
    ASSERT_TRUE(open && job);
    EXPECT_TRUE(open->isEnabled());
    EXPECT_FALSE(job->isEnabled());
    open->click();
    EXPECT_EQ(opened, QStringList{QStringLiteral("/srv/calvarine/FUSION")});
    dialog.table().setCurrentIndex(rows.index(1, 0));
    EXPECT_FALSE(open->isEnabled());
    EXPECT_TRUE(job->isEnabled());
}

} // namespace
