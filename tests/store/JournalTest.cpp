// The journal of re-issues on both engines: what an entry keeps, how it is
// filtered, paper jobs brought up to date, the purge, the move from one engine
// to another, and the entries the server command writes for runs that succeed
// or fail, from two workstations at once.

#include <gtest/gtest.h>

#include <fstream>
#include <filesystem>
#include <future>
#include <thread>
#include <sstream>

#include <QGuiApplication>

#include "ArchiveBordCaisseExcel.h"
#include "Fixtures.h"
#include "Journal.h"
#include "ScratchSchema.h"
#include "StoreTestSupport.h"
#include "ThrowsDbaError.h"
#include "Worker.h"
#include "database/FileNames.h"

namespace store::testing {
namespace {

using namespace std::chrono;

constexpr char A = DbaDynArray::kAttributeMark;
constexpr char V = DbaDynArray::kValueMark;

system_clock::time_point at(int day, int hour)
{
    return sys_days{year(2026) / November / day} + hours(hour);
}

Journal::Clock fixed(system_clock::time_point when)
{
    return [when] { return when; };
}

JournalEntry paperEntry(std::string user, std::vector<JournalStatement> statements, int job, std::string state)
{
    JournalEntry entry;
    entry.user = std::move(user);
    entry.host = "poste-1";
    entry.entity = "001";
    entry.period = "202611";
    entry.activity = "P";
    entry.output = JournalOutput::Paper;
    entry.printer = "accueil";
    entry.printServer = "cups.example:631";
    entry.copies = 2;
    entry.duplex = true;
    entry.job = job;
    entry.jobState = std::move(state);
    entry.statements = std::move(statements);
    return entry;
}

JournalEntry filesEntry(std::string user, std::vector<JournalStatement> statements, JournalOutcome outcome, std::string reason = {})
{
    JournalEntry entry;
    entry.user = std::move(user);
    entry.host = "poste-2";
    entry.entity = "001";
    entry.period = "202611";
    entry.activity = "P";
    entry.folder = "/srv/calvarine/FUSION";
    entry.outcome = outcome;
    entry.reason = std::move(reason);
    entry.statements = std::move(statements);
    for (const auto& statement : entry.statements) {
        entry.files.push_back("001P_202611_" + statement.organisation + "_" + statement.invoice + ".pdf");
    }
    return entry;
}

std::vector<std::string> invoicesOf(const std::vector<JournalEntry>& entries)
{
    std::vector<std::string> invoices;
    for (const auto& entry : entries) {
        std::string named;
        for (const auto& statement : entry.statements) {
            named += (named.empty() ? "" : "+") + statement.invoice;
        }
        invoices.push_back(named);
    }
    return invoices;
}

class JournalTest : public StoreTest {};

TEST_P(JournalTest, AnEntryKeepsEveryFieldAndFiltersPickWhatTheyName)
{
    // Written out of order: the journal reads in the order of the runs.
    Journal(db(), fixed(at(20, 9))).append(filesEntry("BERNARD", {{"012", "F3"}}, JournalOutcome::Done));
    Journal(db(), fixed(at(18, 9))).append(paperEntry("ALICE", {{"012", "F1"}, {"013", "F2        "}}, 41, "pending"));
    // A reason from outside may hold anything, marks included.
    Journal(db(), fixed(at(22, 9)))
        .append(filesEntry("ALICE", {{"014", "F4"}}, JournalOutcome::Refused, std::string("disque \"plein\", ") + A + "fin"));

    Journal journal(db());
    const auto all = journal.entries();
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(invoicesOf(all), (std::vector<std::string>{"F1+F2", "F3", "F4"}));
    const JournalEntry& paper = all[0];
    EXPECT_EQ(paper.time, "2026-11-18T09:00:00Z");
    EXPECT_EQ(paper.user, "ALICE");
    EXPECT_EQ(paper.host, "poste-1");
    EXPECT_EQ(paper.output, JournalOutput::Paper);
    EXPECT_EQ(paper.printer, "accueil");
    EXPECT_EQ(paper.printServer, "cups.example:631");
    EXPECT_EQ(paper.copies, 2);
    EXPECT_TRUE(paper.duplex);
    EXPECT_EQ(paper.job, 41);
    EXPECT_EQ(paper.jobState, "pending");
    EXPECT_EQ(paper.statements[1].organisation, "013");
    EXPECT_EQ(all[1].files, (std::vector<std::string>{"001P_202611_012_F3.pdf"}));
    EXPECT_EQ(all[1].folder, "/srv/calvarine/FUSION");
    EXPECT_EQ(all[2].outcome, JournalOutcome::Refused);
    EXPECT_EQ(all[2].reason, "disque \"plein\", ?fin");
    EXPECT_EQ(journal.entry(all[2].key)->reason, all[2].reason);

    const auto only = [&](std::string since, std::string user, std::string invoice, std::string organisation) {
        return invoicesOf(journal.entries(JournalFilter{std::move(since), std::move(user), std::move(invoice), std::move(organisation)}));
    };
    using Named = std::vector<std::string>;
    EXPECT_EQ(only("2026-11-20", "", "", ""), (Named{"F3", "F4"}));
    EXPECT_EQ(only("", "ALICE", "", ""), (Named{"F1+F2", "F4"}));
    EXPECT_EQ(only("", "", "F2   ", ""), (Named{"F1+F2"}));
    EXPECT_EQ(only("", "", "", "012"), (Named{"F1+F2", "F3"}));
    // Invoice and organisation must name the same statement.
    EXPECT_EQ(only("", "", "F2", "012"), Named{});
    EXPECT_EQ(only("", "alice", "", ""), Named{});

    // A record written by hand is no entry and is skipped, not a failure.
    db().write(kJournalFile, "autre", "pas" + std::string(1, A) + "une entrée");
    EXPECT_EQ(journal.entries().size(), 3u);
    // An entry written then brought up to date keeps its time and host.
    auto written = Journal(db(), fixed(at(23, 9))).append(paperEntry("ALICE", {{"012", "F5"}}, 42, "pending"));
    written.jobState = "completed";
    journal.update(written);
    EXPECT_EQ(journal.entry(written.key)->time, "2026-11-23T09:00:00Z");
    EXPECT_EQ(journal.entry(written.key)->jobState, "completed");
    JournalEntry absent;
    absent.key = "absent";
    EXPECT_THAT([&] { journal.update(absent); }, ThrowsDbaError(DbaError::Kind::NoRecord));
}

TEST_P(JournalTest, OnlyOpenPaperJobsAreAskedForAndThePurgeIsJournaled)
{
    Journal(db(), fixed(at(10, 8))).append(paperEntry("ALICE", {{"012", "F1"}}, 7, "pending"));
    Journal(db(), fixed(at(12, 8))).append(paperEntry("ALICE", {{"012", "F2"}}, 8, "completed"));
    Journal(db(), fixed(at(14, 8))).append(paperEntry("ALICE", {{"012", "F3"}}, 9, "processing"));
    Journal(db(), fixed(at(15, 8))).append(filesEntry("BERNARD", {{"012", "F4"}}, JournalOutcome::Done));

    Journal journal(db());
    std::vector<int> asked;
    const auto cups = [&](const JournalEntry& entry) -> std::optional<std::string> {
        const int job = entry.job;
        asked.push_back(job);
        // Job 9's server cannot say: the entry stays as it was.
        return job == 9 ? std::nullopt : std::optional<std::string>("completed");
    };
    // Once its time is spent nothing more is asked (a server that does not
    // answer costs one wait): the newest open job goes first.
    EXPECT_EQ(journal.refreshJobStates(cups, seconds(0)), 0u);
    EXPECT_EQ(asked, (std::vector<int>{9}));
    asked.clear();
    EXPECT_EQ(journal.refreshJobStates(cups), 1u);
    EXPECT_EQ(asked, (std::vector<int>{9, 7}));
    const auto states = journal.entries();
    EXPECT_EQ(states[0].jobState, "completed");
    EXPECT_EQ(states[2].jobState, "processing");
    asked.clear();
    EXPECT_EQ(journal.refreshJobStates(cups), 0u);
    EXPECT_EQ(asked, (std::vector<int>{9}));

    EXPECT_THROW(journal.purgeBefore("2026-02-30", "ADMIN", "serveur"), std::invalid_argument);
    EXPECT_EQ(journal.purgeBefore("2026-11-14", "ADMIN", "serveur"), 2u);
    const auto kept = journal.entries();
    ASSERT_EQ(kept.size(), 3u);
    EXPECT_EQ(invoicesOf({kept[0], kept[1]}), (std::vector<std::string>{"F3", "F4"}));
    EXPECT_EQ(kept[2].output, JournalOutput::Purge);
    EXPECT_EQ(kept[2].user, "ADMIN");
    EXPECT_EQ(kept[2].reason, "2 entrées antérieures au 2026-11-14 supprimées");
}

CALVARINE_BOTH_ENGINES(JournalTest);

// The server command's runs, as workstations ask for them.
class JournalRuns : public StoreTest {
protected:
    JournalRuns()
    {
        static int argc = 1;
        static char name[] = "journal_tests";
        static char* argv[] = {name, nullptr};
        if (!QGuiApplication::instance()) {
            m_app = std::make_unique<QGuiApplication>(argc, argv);
        }
        std::ifstream fixture(CALVARINE_PLATFORM_TEST_DATA "/reissue.jsonl");
        importJsonLines(db(), fixture, "reissue.jsonl");
    }

    // A workstation of user on its own connection, able to run the command.
    std::shared_ptr<Store> workstation(const std::string& user)
    {
        auto store = m_database.connect();
        store->setClient(std::make_shared<DbaClient>(user));
        server::registerArchiveBordCaisseExcel(*store);
        if (onServer()) {
            serveOwnCommands(*store);
        }
        return store;
    }

    static void run(Store& store, const std::vector<std::pair<std::string, std::string>>& request)
    {
        std::string text;
        for (const auto& [organisation, invoice] : request) {
            text += (text.empty() ? "" : std::string(1, A)) + organisation + V + invoice;
        }
        store.write(FileNames::TEMPO, Keys::REQUETEBORDEXCEL, text);
        std::int32_t status = 0;
        store.Execute(std::string("P") + A + "ARCHIVEBORDCAISSEEXCEL 202611 001 P", "", status);
    }

    std::unique_ptr<QGuiApplication> m_app;
};

TEST_P(JournalRuns, AFileRunIsOneEntryDoneWithItsFilesOrRefusedWithItsReason)
{
    auto alice = workstation("ALICE");
    run(*alice, {{"013", "F77       "}, {"012", "F000000123"}});
    EXPECT_THAT([&] { run(*alice, {{"012", "NOPE"}, {"013", "F77"}}); }, ThrowsDbaError(DbaError::Kind::CommandFailed));

    const auto entries = Journal(db()).entries();
    ASSERT_EQ(entries.size(), 2u);
    const JournalEntry& done = entries[0];
    EXPECT_EQ(done.outcome, JournalOutcome::Done);
    EXPECT_EQ(done.user, "ALICE");
    EXPECT_EQ(done.host, journalHostName());
    EXPECT_EQ(done.entity + done.activity + done.period, "001P202611");
    EXPECT_EQ(done.output, JournalOutput::Files);
    EXPECT_EQ(done.folder, alice->fusionDirectory().string());
    EXPECT_EQ(done.files, (std::vector<std::string>{"001P_202611_013_F77.pdf", "001P_202611_012_F000000123.pdf"}));
    EXPECT_EQ(invoicesOf({done}), (std::vector<std::string>{"F77+F000000123"}));

    const JournalEntry& refused = entries[1];
    EXPECT_EQ(refused.outcome, JournalOutcome::Refused);
    EXPECT_TRUE(refused.files.empty());
    EXPECT_EQ(invoicesOf({refused}), (std::vector<std::string>{"NOPE+F77"}));
    EXPECT_NE(refused.reason.find("012 NOPE"), std::string::npos) << refused.reason;
}

TEST_P(JournalRuns, TwoWorkstationsAtOnceLoseAndDoubleNothing)
{
    constexpr int kRuns = 4;
    const auto runs = [&](const std::string& user) {
        auto store = workstation(user);
        int failed = 0;
        for (int i = 0; i < kRuns; ++i) {
            try {
                // Every other run asks for a statement that is not archived.
                run(*store, {{"012", i % 2 ? "ABSENT" : "F000000123"}});
            } catch (const DbaError&) {
                ++failed;
            }
        }
        return failed;
    };
    auto first = std::async(std::launch::async, runs, "ALICE");
    auto second = std::async(std::launch::async, runs, "BERNARD");
    EXPECT_EQ(first.get(), kRuns / 2);
    EXPECT_EQ(second.get(), kRuns / 2);

    const auto entries = Journal(db()).entries();
    ASSERT_EQ(entries.size(), 2u * kRuns);
    std::map<std::string, int> outcomes;
    for (const auto& entry : entries) {
        const bool asksAbsent = invoicesOf({entry}) == std::vector<std::string>{"ABSENT"};
        EXPECT_EQ(entry.outcome, asksAbsent ? JournalOutcome::Refused : JournalOutcome::Done) << entry.key;
        ++outcomes[entry.user + (entry.outcome == JournalOutcome::Done ? " faite" : " refusée")];
    }
    EXPECT_EQ(outcomes, (std::map<std::string, int>{
                            {"ALICE faite", kRuns / 2}, {"ALICE refusée", kRuns / 2}, {"BERNARD faite", kRuns / 2}, {"BERNARD refusée", kRuns / 2}}));
}

TEST_P(JournalRuns, ARunNoWorkerTookIsRefusedByTheWorkstation)
{
    if (!onServer()) {
        GTEST_SKIP() << "a database file runs its commands itself";
    }
    auto alone = m_database.connect();
    alone->setClient(std::make_shared<DbaClient>("ALICE"));
    server::registerArchiveBordCaisseExcel(*alone);
    alone->setCommandTimeout(milliseconds(200));
    EXPECT_THAT([&] { run(*alone, {{"012", "F000000123"}}); }, ThrowsDbaError(DbaError::Kind::CommandFailed, "no worker is running"));
    const auto entries = Journal(db()).entries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].outcome, JournalOutcome::Refused);
    EXPECT_EQ(entries[0].user, "ALICE");
    EXPECT_EQ(invoicesOf(entries), (std::vector<std::string>{"F000000123"}));
    EXPECT_NE(entries[0].reason.find("aucun programme serveur"), std::string::npos) << entries[0].reason;
}

// Annuler in the progress window: the run is one cancelled entry and leaves no
// file. On a server the worker's own records go with its withdrawn claim, so the
// workstation writes the entry; a run that ended before the cancel reached it
// stands, and Execute says so rather than that it was cancelled.
TEST_P(JournalRuns, ACancelledRunIsOneCancelledEntryAndARunThatEndedFirstStands)
{
    const auto cancelling = [](Store& store) {
        store.setCommandProgress([](int, int) {
            throw DbaError(DbaError::Kind::CommandFailed, "Execute", "cancelled by the operator", "annulée par l'opérateur");
        });
    };
    auto alice = m_database.connect();
    alice->setClient(std::make_shared<DbaClient>("ALICE"));
    server::registerArchiveBordCaisseExcel(*alice);
    cancelling(*alice);
    std::future<void> worker;
    if (onServer()) {
        // A worker whose run goes on reporting until it finds itself withdrawn.
        worker = std::async(std::launch::async, [this] {
            auto own = m_database.connect();
            own->registerCommand("ARCHIVEBORDCAISSEEXCEL", [](CommandContext& context) {
                for (int done = 1; done <= 1000; ++done) {
                    context.progress(done, 1000);
                    std::this_thread::sleep_for(milliseconds(10));
                }
                ADD_FAILURE() << "the worker never heard of the cancel";
            });
            const auto until = steady_clock::now() + seconds(10);
            while (!Worker(*own).runQueuedCommand("worker", seconds(3)) && steady_clock::now() < until) {
                Worker(*own).waitForCommands(milliseconds(100));
            }
        });
    }
    EXPECT_THAT([&] { run(*alice, {{"012", "F000000123"}}); }, ThrowsDbaError(DbaError::Kind::CommandFailed, "cancelled by the operator"));
    if (worker.valid()) {
        worker.get();
    }
    auto entries = Journal(db()).entries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].outcome, JournalOutcome::Cancelled);
    EXPECT_EQ(entries[0].reason, "annulée par l'opérateur");
    EXPECT_EQ(invoicesOf(entries), (std::vector<std::string>{"F000000123"}));
    EXPECT_TRUE(std::filesystem::is_empty(alice->fusionDirectory()));

    if (onServer()) {
        // Its own worker ends the run before the workstation hears of its progress.
        auto bernard = workstation("BERNARD");
        cancelling(*bernard);
        run(*bernard, {{"012", "F000000123"}});
        entries = Journal(db()).entries();
        ASSERT_EQ(entries.size(), 2u);
        EXPECT_EQ(entries[1].outcome, JournalOutcome::Done);
        EXPECT_TRUE(std::filesystem::exists(bernard->fusionDirectory() / "001P_202611_012_F000000123.pdf"));
    }
}

CALVARINE_BOTH_ENGINES(JournalRuns);

TEST(JournalHost, AWorkerJournalsTheWorkstationThatAsked)
{
    EXPECT_EQ(journalHostOfSession("p1234.5678.poste-accueil.0badcafe"), "poste-accueil");
    EXPECT_EQ(journalHostOfSession("poste-1"), journalHostName());
    EXPECT_EQ(journalHostOfSession(""), journalHostName());
    EXPECT_TRUE(isJournalDay("2028-02-29"));
    EXPECT_FALSE(isJournalDay("2026-02-29"));
    EXPECT_FALSE(isJournalDay("2026-1-01"));
}

} // namespace
} // namespace store::testing
