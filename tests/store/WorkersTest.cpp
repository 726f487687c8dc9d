// Several workstations re-issue at once through two calvarine-server workers on
// one PostgreSQL database: every workstation gets the names of its own files,
// and every file is there. The suite SplitRequest shares one large request
// between workers. The suite Outage runs on a cluster of its own, which it
// freezes and restarts: nobody hangs, and everyone carries on afterwards.

#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <future>
#include <iostream>
#include <map>
#include <random>
#include <set>
#include <sys/file.h>
#include <sys/wait.h>
#include <thread>

#include <gtest/gtest.h>

#include <QGuiApplication>

#include "ArchiveBordCaisseExcel.h"
#include "CommandParts.h"
#include "Demo.h"
#include "PgConnection.h"
#include "PgSchema.h"
#include "StoreTestSupport.h"
#include "Worker.h"

namespace store::testing {
namespace {

using namespace std::chrono_literals;

// A worker process, stopped when the test ends; its messages go to log if given.
class Worker {
public:
    Worker(const std::string& url, const std::filesystem::path& fusion, const std::string& name, const std::filesystem::path& log = {},
        const std::vector<std::string>& extra = {}, const std::vector<std::string>& environment = {})
        : m_process(CALVARINE_SERVER, arguments(url, fusion, name, extra), environment, log)
    {
    }
    ~Worker()
    {
        if (!m_process.stop()) {
            ADD_FAILURE() << "a worker did not stop on SIGTERM within a minute";
        }
    }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;
    void kill() { m_process.kill(); }
    // SIGTERM: true when it stopped by itself within a minute.
    bool stop() { return m_process.stop(); }

private:
    static std::vector<std::string> arguments(const std::string& url, const std::filesystem::path& fusion, const std::string& name,
        const std::vector<std::string>& extra)
    {
        std::vector<std::string> args{"--db", url, "--fusion", fusion.string(), "--name", name};
        args.insert(args.end(), extra.begin(), extra.end());
        return args;
    }
    WorkerProcess m_process;
};

// One re-issue of statements of 001P 202610 through the workers, as the screen
// asks for it: the names of the files made.
std::vector<std::string> reissue(Store& store, const std::vector<std::string>& keys)
{
    auto tempo = store.OpenFile("TEMPO");
    auto item = tempo->NewItem("REQUETEBORDEXCEL");
    for (std::size_t i = 0; i < keys.size(); ++i) {
        item->setValue(static_cast<std::int16_t>(i + 1), 1, keys[i].substr(4, 3));
        item->setValue(static_cast<std::int16_t>(i + 1), 2, keys[i].substr(13, 10));
    }
    item->DBWrite();
    std::int32_t status = 0;
    store.Execute("P\xFE" "ARCHIVEBORDCAISSEEXCEL 202610 001 P", "", status);
    const auto result = tempo->ReadItem("BORDCAISSEEXCEL");
    std::vector<std::string> names;
    for (int i = 1; i <= result->DCount(); ++i) {
        names.push_back(result->attribute(static_cast<std::int16_t>(i)));
    }
    tempo->DeleteItem("BORDCAISSEEXCEL");
    tempo->DeleteItem("REQUETEBORDEXCEL");
    return names;
}

// The first count statements of 001P 202610 by invoice: their keys and the names of their files.
struct Statements {
    std::vector<std::string> keys;
    std::vector<std::string> names;
};
Statements firstStatements(Store& store, std::int16_t count)
{
    const auto scope = store.select(R"(SSELECT ARCHIVEBORDCAISSE AVEC PeriodeArchive = "202610" AND AVEC 0 = "001P]" PAR NumFactArchive)");
    EXPECT_GE(scope.DCount(), count);
    Statements statements;
    for (std::int16_t i = 1; i <= count && i <= scope.DCount(); ++i) {
        statements.keys.push_back(scope.attribute(i));
        const std::string& key = statements.keys.back();
        statements.names.push_back(server::fusionFileName("001", "P", "202610", key.substr(4, 3), key.substr(13, 10)));
    }
    return statements;
}

// The first six bytes of a file: "former" as the tests write it, "%PDF-1" as the command does.
std::string head(const std::filesystem::path& file)
{
    std::ifstream in(file, std::ios::binary);
    std::string text(6, '\0');
    in.read(text.data(), 6);
    return text.substr(0, static_cast<std::size_t>(in.gcount()));
}

// The first column of a query, as text.
std::vector<std::string> column(const std::string& connection, const std::string& sql, const pg::Params& params = {})
{
    pg::Connection db(connection);
    auto rows = db.run(sql, params, "test");
    std::vector<std::string> cells;
    for (int row = 0; row < pg::rowCount(rows.get()); ++row) {
        cells.emplace_back(pg::cell(rows.get(), row, 0));
    }
    return cells;
}

TEST(Workers, ConcurrentReissuesThroughTwoWorkersStayApart)
{
    TestDatabase database(EngineKind::Postgres);
    auto admin = database.connect();
    generateDemo(*admin, DemoOptions{600, 7, 40});
    const auto scope = admin->select(R"(SSELECT ARCHIVEBORDCAISSE AVEC PeriodeArchive = "202610" AND AVEC 0 = "001P]" PAR NumFactArchive)");
    ASSERT_GE(scope.DCount(), 24);

    const auto fusion = database.folder() / "FUSION";
    Worker first(database.connection(), fusion, "w1");
    Worker second(database.connection(), fusion, "w2");

    constexpr int kClients = 4;
    constexpr int kRuns = 3;
    std::vector<std::future<std::vector<std::string>>> clients;
    std::vector<std::vector<std::string>> expected(kClients);
    for (int c = 0; c < kClients; ++c) {
        // Each workstation asks for its own statements, a different number each time.
        std::vector<std::vector<std::string>> requests;
        for (int run = 0; run < kRuns; ++run) {
            std::vector<std::string> request;
            for (int i = 0; i <= run; ++i) {
                const auto key = scope.attribute(static_cast<std::int16_t>(1 + c * 6 + run * (run + 1) / 2 + i));
                request.push_back(key);
                expected[static_cast<std::size_t>(c)].push_back(server::fusionFileName("001", "P", "202610", key.substr(4, 3), key.substr(13, 10)));
            }
            requests.push_back(request);
        }
        clients.push_back(std::async(std::launch::async, [&database, c, requests] {
            auto store = database.connect();
            store->setClient(std::make_shared<DbaClient>("OPERATEUR", "poste-" + std::to_string(c)));
            std::vector<std::string> names;
            for (const auto& request : requests) {
                const auto made = reissue(*store, request);
                names.insert(names.end(), made.begin(), made.end());
            }
            return names;
        }));
    }
    std::set<std::string> all;
    for (int c = 0; c < kClients; ++c) {
        const auto names = clients[static_cast<std::size_t>(c)].get();
        EXPECT_EQ(names, expected[static_cast<std::size_t>(c)]) << "workstation " << c;
        all.insert(names.begin(), names.end());
    }
    for (const auto& name : all) {
        EXPECT_TRUE(std::filesystem::is_regular_file(fusion / name)) << name;
    }
    // Every workstation's request went with its run, whichever session wrote it.
    std::vector<std::string> requests;
    admin->forEachStored("TEMPO", [&](std::string_view key, std::string_view) {
        if (key.starts_with("REQUETEBORDEXCEL")) {
            requests.emplace_back(key);
        }
    });
    EXPECT_EQ(requests, std::vector<std::string>{});
}

// A worker's outcome commits after the command has put its files in place: when
// it cannot (here another worker took the command meanwhile), the earlier files
// are back; the run that then completes publishes its own.
TEST(Workers, AnOutcomeThatCannotCommitPutsTheEarlierFilesBack)
{
    // This process is the worker here: it draws the statements.
    static int argc = 1;
    static char name[] = "store_worker_tests";
    static char* argv[] = {name, nullptr};
    static QGuiApplication application(argc, argv);
    TestDatabase database(EngineKind::Postgres);
    auto admin = database.connect();
    generateDemo(*admin, DemoOptions{60, 3, 4});
    const auto [keys, names] = firstStatements(*admin, 3);
    const auto fusion = database.folder() / "FUSION";
    std::filesystem::create_directories(fusion);
    for (const auto& name : {names[0], names[1]}) {
        std::ofstream(fusion / name) << "former";
    }
    const auto contents = [&](const std::string& name) { return head(fusion / name); };
    auto client = database.connect();
    client->setClient(std::make_shared<DbaClient>("OPERATEUR", "poste-1"));
    auto asked = std::async(std::launch::async, [&] { return reissue(*client, keys); });

    auto worker = database.connect();
    worker->setFusionDirectory(fusion);
    server::registerArchiveBordCaisseExcel(*worker);
    worker->registerCommand(server::kArchiveBordCaisseExcel, [&](CommandContext& context) {
        server::archiveBordCaisseExcel(context);
        EXPECT_EQ(contents(names[0]), "%PDF-1");
        pg::Connection other(database.connection());
        other.run(std::string("UPDATE ") + pg::kCommandTable + " SET attempt = attempt + 1 WHERE state = 'running'", {}, "test");
    });
    ASSERT_TRUE(eventually([&] { return store::Worker(*worker).runQueuedCommand("w1"); }));
    EXPECT_EQ(contents(names[0]), "former");
    EXPECT_EQ(contents(names[1]), "former");
    EXPECT_FALSE(std::filesystem::exists(fusion / names[2]));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(fusion), {}), 2);

    // Given back to the queue, the command runs again, whole this time.
    pg::Connection(database.connection()).run(std::string("UPDATE ") + pg::kCommandTable + " SET state = 'queued' WHERE state = 'running'", {}, "test");
    server::registerArchiveBordCaisseExcel(*worker);
    ASSERT_TRUE(store::Worker(*worker).runQueuedCommand("w1"));
    ASSERT_EQ(asked.wait_for(60s), std::future_status::ready);
    EXPECT_EQ(asked.get(), names);
    for (const auto& name : names) {
        EXPECT_EQ(contents(name), "%PDF-1") << name;
    }
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(fusion), {}), 3);
}

::testing::AssertionResult contains(const std::string& text, const std::string& part)
{
    if (text.find(part) != std::string::npos) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << "\"" << part << "\" not in: " << text;
}

std::string readText(const std::filesystem::path& path)
{
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// A PostgreSQL cluster of the test's own (scripts/pg-cluster), so that freezing
// or stopping it disturbs no other test.
class OwnCluster {
public:
    OwnCluster()
        : m_dir(std::filesystem::path("/tmp") / randomName("pgw-"))
    {
        script("start", "54342");
        m_url = readText(m_dir / "url");
        while (!m_url.empty() && m_url.back() == '\n') {
            m_url.pop_back();
        }
    }
    ~OwnCluster()
    {
        script("thaw");
        script("stop");
    }
    OwnCluster(const OwnCluster&) = delete;
    OwnCluster& operator=(const OwnCluster&) = delete;

    // Connecting and waiting for answers give up after 2 s.
    std::string url() const { return m_url + "?connect_timeout=2"; }
    // As the programs connect by default.
    const std::string& plainUrl() const { return m_url; }
    void freeze() { script("freeze"); }
    void thaw() { script("thaw"); }
    void halt() { script("halt"); }
    void start() { script("start"); }

private:
    int script(const std::string& command, const std::string& port = {})
    {
        const std::string line = std::string(CALVARINE_PG_CLUSTER) + " " + command + " " + m_dir.string() + " " + port + " >/dev/null 2>&1";
        return std::system(line.c_str());
    }
    std::filesystem::path m_dir;
    std::string m_url;
};

// The outcome of work: "ok", or the message of the DbaError it threw.
template <typename Work>
std::future<std::string> attempt(Work work)
{
    return std::async(std::launch::async, [work] {
        try {
            work();
            return std::string("ok");
        } catch (const DbaError& error) {
            return std::string(error.what());
        }
    });
}

TEST(Outage, AFrozenServerHangsNobodyAndIsUsedAgainOnceItAnswers)
{
    OwnCluster cluster;
    ScratchSchema scratch(cluster.url());
    auto store = Store::connect(scratch.connection());
    store->write("DOSSIER", "A", "x");

    cluster.freeze();
    auto reading = attempt([&] { store->select("SSELECT DOSSIER"); });
    auto connecting = attempt([&] { Store::connect(scratch.connection()); });
    // Bounded: a hang thaws the server rather than block the test for ever.
    const bool answered = reading.wait_for(60s) == std::future_status::ready && connecting.wait_for(30s) == std::future_status::ready;
    cluster.thaw();
    ASSERT_TRUE(answered) << "a client still waits on the frozen server";
    EXPECT_TRUE(contains(reading.get(), "did not answer"));
    EXPECT_TRUE(contains(connecting.get(), "connect to the PostgreSQL server"));

    // The same store carries on, on a new connection.
    EXPECT_EQ(store->select("SSELECT DOSSIER").text(), "A");
}

TEST(Outage, AWaitTheHostGivesUpEndsTheCallAtOnceAndTheStoreCarriesOn)
{
    OwnCluster cluster;
    ScratchSchema scratch(cluster.plainUrl());
    auto store = Store::connect(scratch.connection());
    store->write("DOSSIER", "A", "x");
    struct GiveUp : ServerWaitObserver {
        int told = 0;
        bool over = false;
        void waiting(std::chrono::milliseconds waited) override
        {
            ++told;
            if (waited >= 300ms) {
                throw DbaError(DbaError::Kind::Storage, "test", "given up", "abandonnée");
            }
        }
        void waited() noexcept override { over = true; }
    } observer;
    store->setWaitObserver(&observer);

    cluster.freeze();
    auto reading = attempt([&] { store->select("SSELECT DOSSIER"); });
    const bool answered = reading.wait_for(3s) == std::future_status::ready;
    cluster.thaw();
    ASSERT_TRUE(answered) << "the wait was not given up";
    EXPECT_TRUE(contains(reading.get(), "given up"));
    EXPECT_GE(observer.told, 3);
    EXPECT_TRUE(observer.over);

    store->setWaitObserver(nullptr);
    EXPECT_EQ(store->select("SSELECT DOSSIER").text(), "A");
}

TEST(Outage, AfterARestartWorkersAndClientsCarryOn)
{
    OwnCluster cluster;
    ScratchSchema scratch(cluster.url());
    TempDir folder;
    auto client = Store::connect(scratch.connection());
    client->setClient(std::make_shared<DbaClient>("OPERATEUR", "poste-1"));
    client->setCommandTimeout(30s);
    generateDemo(*client, DemoOptions{60, 3, 4});
    const auto scope = client->select(R"(SSELECT ARCHIVEBORDCAISSE AVEC PeriodeArchive = "202610" AND AVEC 0 = "001P]")");
    ASSERT_GE(scope.DCount(), 2);
    const auto log = folder.path() / "worker.log";
    Worker worker(scratch.connection(), folder.path() / "FUSION", "w1", log);
    const auto before = reissue(*client, {scope.attribute(1)}).at(0);
    ASSERT_TRUE(std::filesystem::is_regular_file(folder.path() / "FUSION" / before)) << before;

    cluster.halt();
    cluster.start();

    // The client's next operation and the worker both work on a new connection.
    EXPECT_EQ(client->select(R"(SSELECT ARCHIVEBORDCAISSE AVEC PeriodeArchive = "202610" AND AVEC 0 = "001P]")").text(), scope.text());
    const auto after = reissue(*client, {scope.attribute(2)}).at(0);
    EXPECT_TRUE(std::filesystem::is_regular_file(folder.path() / "FUSION" / after)) << after;
    EXPECT_TRUE(eventually([&] { return readText(log).find("connected to the database again") != std::string::npos; })) << readText(log);
}

// A workstation's re-issue (calvarine-script --notes, as an operator at the
// window would see it) while the server is frozen, or stopped, once the command
// is queued: the operator is told that no file was made, and why, in seconds.
class ReissueOutage : public ::testing::Test {
protected:
    struct Run {
        std::string output;
        double seconds = 0;
    };

    // The control's message when it read its own request back as the result.
    static std::string falseList()
    {
        return std::string("MSGBOX 64 \\\"Message TRIVALDEN\\\" \\\"Le fichier suivant a été généré dans le répertoire FUSION :\\r\\n - 012")
            + DbaDynArray::kValueMark + "F000000008\\\"";
    }

    // Plays the scenario on the cluster's database; disturb runs once the command is queued.
    Run reissue(const std::string& message, const std::string& note, const std::function<void()>& disturb)
    {
        const auto scenario = m_folder.path() / "reissue.scn";
        std::ofstream(scenario) << "fixture " << CALVARINE_SCENARIO_DATA << "/statements.jsonl\n"
                                << "init\ntype Txt_Entite \"002\"\nclick Lst_OrgaPos 0\nclick Cmd_PasseDroit\n"
                                << "click Opt_Fichier\nclick Cmd_Imprimer\n"
                                << "expect event \"" << message << "\"\n"
                                << "expect event \"NOTE \\\"" << note << "\\\"\"\n";
        const auto output = m_folder.path() / "output";
        const std::string command = std::string(CALVARINE_SCRIPT) + " --notes --db '" + m_scratch.connection() + "' " + scenario.string()
            + " >" + output.string() + " 2>&1";
        const auto start = std::chrono::steady_clock::now();
        auto played = std::async(std::launch::async, [command] { return std::system(command.c_str()); });
        const bool queued = eventually([&] {
            try {
                return !column(std::string("SELECT id::text FROM ") + pg::kCommandTable + " WHERE state = 'queued'").empty();
            } catch (const DbaError&) {
                return false; // the workstation has not made the queue's tables yet
            }
        });
        EXPECT_TRUE(queued) << "the command was never queued";
        disturb();
        const bool ended = played.wait_for(90s) == std::future_status::ready;
        Run run{readText(output), std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count()};
        m_cluster.thaw();
        EXPECT_TRUE(ended) << "the workstation still waits";
        return run;
    }

    std::vector<std::string> column(const std::string& sql) const { return store::testing::column(m_scratch.connection() + "&connect_timeout=2", sql); }

    OwnCluster m_cluster;
    ScratchSchema m_scratch{m_cluster.plainUrl()};
    TempDir m_folder;
};

TEST_F(ReissueOutage, AFrozenServerGivesNoFalseSuccessAndAnAnswerInSeconds)
{
    const auto run = reissue(falseList(),
        "Attention : aucun fichier n'a été créé : la connexion à la base a été perdue : le serveur de la base ne répond pas.",
        [&] { m_cluster.freeze(); });
    EXPECT_NE(run.output.find("2 passed, 0 failed"), std::string::npos) << run.output;
    std::cout << "frozen server: the workstation's run ended in " << run.seconds << " s\n";
}

TEST_F(ReissueOutage, AStoppedServerGivesNoFalseSuccessAndAnAnswerInSeconds)
{
    const auto run = reissue(falseList(),
        "Attention : aucun fichier n'a été créé : la connexion à la base a été perdue : le serveur de la base ne répond pas.",
        [&] { m_cluster.halt(); });
    EXPECT_NE(run.output.find("2 passed, 0 failed"), std::string::npos) << run.output;
    std::cout << "stopped server: the workstation's run ended in " << run.seconds << " s\n";
    m_cluster.start();
}

TEST_F(ReissueOutage, NoWorkerIsSaidInSecondsNotAfterTheWholeWait)
{
    const auto run = reissue("MSGBOX 48 \\\"Message TRIVALDEN\\\" \\\"Le fichier graphique n'a pas pu être généré. Si le problème persiste, "
                             "contacter TRIVALDEN.\\\"",
        "Cause : aucun programme serveur (calvarine-server) n'a pris la demande en 3 s : il n'est pas démarré ; la demande a été retirée.",
        [] {});
    EXPECT_NE(run.output.find("2 passed, 0 failed"), std::string::npos) << run.output;
    std::cout << "no worker: the workstation's run ended in " << run.seconds << " s\n";
}

// One large request split across workers: ranges of its entries rendered by
// whichever worker is idle, the files still published once each, in the order
// of the request. Workers draw on one thread each, so a part is 64 entries.
class SplitRequest : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_admin = m_database.connect();
        generateDemo(*m_admin, DemoOptions{100, 11, 300});
        // Four ranges; across them a statement asked twice (one file, at its first place).
        auto statements = firstStatements(*m_admin, 250);
        m_request = statements.keys;
        m_request.insert(m_request.begin() + 200, m_request[4]);
        m_expected = statements.names;
        m_client = m_database.connect();
        m_client->setClient(std::make_shared<DbaClient>("OPERATEUR", "poste-1"));
        m_client->setCommandProgress([this](int done, int total) { m_progress.emplace_back(done, total); });
        m_client->setCommandTimeout(10s);
    }

    std::filesystem::path fusion() const { return m_database.folder() / "FUSION"; }
    std::filesystem::path log(const std::string& worker) const { return m_database.folder() / (worker + ".log"); }

    // A worker drawing on one thread, once it waits for commands.
    std::unique_ptr<Worker> startWorker(const std::string& name, const std::vector<std::string>& extra = {})
    {
        auto worker = std::make_unique<Worker>(m_database.connection(), fusion(), name, log(name), extra,
            std::vector<std::string>{"CALVARINE_RENDER_THREADS=1"});
        EXPECT_TRUE(eventually([&] { return readText(log(name)).find("waiting for commands") != std::string::npos; })) << readText(log(name));
        return worker;
    }

    // The first column of a query of the queue's tables, as text.
    std::vector<std::string> column(const std::string& sql, const pg::Params& params = {}) const
    {
        return store::testing::column(m_database.connection(), sql, params);
    }
    // The workers the queue recorded for the parts in state, one per part.
    std::vector<std::string> partWorkers(const std::string& state) const
    {
        return column(std::string("SELECT coalesce(worker, '') FROM ") + pg::kCommandTable + " WHERE parent IS NOT NULL AND state = $1::text",
            {state});
    }
    std::vector<std::string> filesHandedBack() const { return column(std::string("SELECT name FROM ") + pg::kCommandFilesTable); }
    // Every file of FUSION, hidden ones included, once no run holds the folder:
    // the worker lets go of the files a run replaced just after its outcome
    // commits, which is when the client learns it.
    std::vector<std::string> fusionFiles() const
    {
        EXPECT_TRUE(eventually([&] {
            const int folder = ::open(fusion().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
            const bool free = folder >= 0 && ::flock(folder, LOCK_EX | LOCK_NB) == 0;
            ::close(folder);
            return free;
        })) << "a run still holds FUSION";
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(fusion())) {
            names.push_back(entry.path().filename().string());
        }
        std::sort(names.begin(), names.end());
        return names;
    }
    std::vector<std::string> expectedFiles() const
    {
        auto names = m_expected;
        std::sort(names.begin(), names.end());
        return names;
    }

    TestDatabase m_database{EngineKind::Postgres};
    std::shared_ptr<Store> m_admin;
    std::shared_ptr<Store> m_client;
    std::vector<std::string> m_request;  // keys, as reissue() takes them
    std::vector<std::string> m_expected; // the names, in the order of the request
    std::vector<std::pair<int, int>> m_progress;
};

TEST_F(SplitRequest, TwoWorkersShareItAndEveryFileIsListedOnceInRequestOrder)
{
    auto first = startWorker("w1");
    auto second = startWorker("w2");
    EXPECT_EQ(reissue(*m_client, m_request), m_expected);
    EXPECT_EQ(fusionFiles(), expectedFiles());

    // The worker that ran the command rendered a range; the other ran parts.
    const std::string owner = column(std::string("SELECT worker FROM ") + pg::kCommandTable + " WHERE parent IS NULL ORDER BY id DESC").at(0);
    const auto helpers = partWorkers("done");
    ASSERT_TRUE(owner == "w1" || owner == "w2") << owner;
    EXPECT_NE(std::find_if(helpers.begin(), helpers.end(), [&](const auto& worker) { return worker != owner; }), helpers.end())
        << "no part ran on the other worker";
    EXPECT_TRUE(filesHandedBack().empty());
    // The progress counts every entry, whoever rendered it, and never goes back.
    ASSERT_FALSE(m_progress.empty());
    const int total = static_cast<int>(m_request.size());
    EXPECT_EQ(m_progress.back(), std::make_pair(total, total));
    EXPECT_TRUE(std::is_sorted(m_progress.begin(), m_progress.end()));
}

TEST_F(SplitRequest, OneWorkerAloneRendersEveryRangeItself)
{
    auto only = startWorker("seul");
    EXPECT_EQ(reissue(*m_client, m_request), m_expected);
    EXPECT_EQ(fusionFiles(), expectedFiles());
    // Nobody else was there: every part was taken back before anyone ran it.
    EXPECT_TRUE(partWorkers("done").empty());
    EXPECT_EQ(partWorkers("withdrawn").size(), 3u);
    EXPECT_TRUE(filesHandedBack().empty());
}

TEST_F(SplitRequest, APartWorkerKilledMidPartLosesAndDuplicatesNothing)
{
    std::map<std::string, std::unique_ptr<Worker>> workers;
    for (const std::string name : {"w1", "w2"}) {
        workers[name] = startWorker(name, {"--lease", "2"});
    }
    auto client = std::async(std::launch::async, [&] { return reissue(*m_client, m_request); });
    // A part well before its end: killed there, it has handed nothing back.
    std::vector<std::string> part;
    ASSERT_TRUE(eventually([&] {
        part = column(std::string("SELECT id::text FROM ") + pg::kCommandTable
            + " WHERE parent IS NOT NULL AND state = 'running' AND coalesce(progress_done, 0) < 16");
        return !part.empty();
    })) << "no part ran on the other worker";
    const auto partRow = std::string(" FROM ") + pg::kCommandTable + " WHERE id = $1::text::bigint";
    workers.at(column("SELECT worker" + partRow, {part.front()}).at(0))->kill();

    const bool completed = client.wait_for(60s) == std::future_status::ready;
    if (!completed) {
        workers.clear(); // the client then gives up within its command timeout
    }
    ASSERT_TRUE(completed) << "the request never completed";
    EXPECT_EQ(client.get(), m_expected);
    EXPECT_EQ(fusionFiles(), expectedFiles());
    // Its range was rendered again once the dead worker's lease ran out.
    EXPECT_EQ(column("SELECT state" + partRow, {part.front()}), std::vector<std::string>{"withdrawn"});
    EXPECT_TRUE(partWorkers("failed").empty());
    EXPECT_TRUE(filesHandedBack().empty());
}

// calvarine-server --workers 3: a supervisor and three worker processes.
class Supervision : public SplitRequest {
protected:
    // The pids of the workers the supervisor said it started, latest first.
    std::vector<pid_t> startedPids(const std::string& name) const
    {
        std::vector<pid_t> pids;
        const std::string text = readText(log(name));
        const std::string mark = " started (pid ";
        for (auto at = text.find(mark); at != std::string::npos; at = text.find(mark, at + 1)) {
            pids.insert(pids.begin(), std::stoi(text.substr(at + mark.size())));
        }
        return pids;
    }
    static std::size_t count(const std::string& text, const std::string& part)
    {
        std::size_t n = 0;
        for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
            ++n;
        }
        return n;
    }
    static bool alive(pid_t pid) { return ::kill(pid, 0) == 0; }
};

TEST_F(Supervision, KilledWorkersAreStartedAgainAndServe)
{
    auto server = std::make_unique<Worker>(m_database.connection(), fusion(), "sup", log("sup"), std::vector<std::string>{"--workers", "3"},
        std::vector<std::string>{"CALVARINE_RENDER_THREADS=1"});
    ASSERT_TRUE(eventually([&] { return count(readText(log("sup")), "waiting for commands") == 3; })) << readText(log("sup"));
    const auto first = startedPids("sup");
    ASSERT_EQ(first.size(), 3u);
    ::kill(first[0], SIGKILL);
    ::kill(first[1], SIGKILL);
    // Both logged, started again after a second, and connected again.
    ASSERT_TRUE(eventually([&] { return count(readText(log("sup")), "waiting for commands") == 5; })) << readText(log("sup"));
    const std::string text = readText(log("sup"));
    EXPECT_EQ(count(text, "was killed by signal 9 (Killed); starting it again in 1 s"), 2u) << text;
    const auto now = startedPids("sup");
    ASSERT_EQ(now.size(), 5u);
    for (const pid_t pid : {now[0], now[1], first[2]}) {
        EXPECT_TRUE(alive(pid)) << pid;
    }
    // They serve: the large request is shared among the three again.
    EXPECT_EQ(reissue(*m_client, m_request), m_expected);
    EXPECT_EQ(fusionFiles(), expectedFiles());
    const auto helpers = partWorkers("done");
    EXPECT_FALSE(helpers.empty());
}

TEST_F(Supervision, SigtermStopsEveryWorkerAndHandsTheCommandInFlightBack)
{
    auto server = std::make_unique<Worker>(m_database.connection(), fusion(), "sup", log("sup"), std::vector<std::string>{"--workers", "3"},
        std::vector<std::string>{"CALVARINE_RENDER_THREADS=1"});
    ASSERT_TRUE(eventually([&] { return count(readText(log("sup")), "waiting for commands") == 3; })) << readText(log("sup"));
    const auto pids = startedPids("sup");
    auto client = std::async(std::launch::async, [&] { return reissue(*m_client, m_request); });
    const std::string commandRow = std::string(" FROM ") + pg::kCommandTable + " WHERE parent IS NULL";
    // As soon as it has begun, long before its end.
    ASSERT_TRUE(eventually([&] {
        const auto done = column("SELECT coalesce(progress_done, 0)::text" + commandRow + " AND state = 'running'");
        return !done.empty() && std::stoi(done.front()) >= 1;
    })) << readText(log("sup"));
    ASSERT_EQ(column("SELECT worker" + commandRow).at(0).rfind("sup/", 0), 0u);
    ASSERT_TRUE(server->stop()) << "the workers did not stop on SIGTERM: " << readText(log("sup"));
    // Another host's worker, which takes the command at once: its lease (60 s) is not waited out.
    auto other = startWorker("other");
    for (const pid_t pid : pids) {
        EXPECT_FALSE(alive(pid)) << pid;
    }
    EXPECT_EQ(count(readText(log("sup")), ": stopped"), 3u) << readText(log("sup"));
    // Handed back rather than left until its lease of 60 s runs out; on a loaded
    // machine the stopping worker may finish it first, which loses nothing either.
    const bool finishedFirst = column("SELECT state || ' ' || coalesce(worker, '')" + commandRow).at(0).starts_with("done sup/");
    EXPECT_TRUE(finishedFirst || eventually([&] { return column("SELECT worker" + commandRow).at(0) == "other"; }))
        << column("SELECT state || ' ' || coalesce(worker, '') || ' ' || coalesce(message, '')" + commandRow).at(0) << "\n"
        << readText(log("sup")) << readText(log("other"));
    ASSERT_EQ(client.wait_for(120s), std::future_status::ready);
    EXPECT_EQ(client.get(), m_expected);
    EXPECT_EQ(fusionFiles(), expectedFiles());
    EXPECT_TRUE(partWorkers("failed").empty());
}

} // namespace
} // namespace store::testing
