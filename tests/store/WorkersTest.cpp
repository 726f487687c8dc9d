// Several workstations re-issue at once through two calvarine-server workers on
// one PostgreSQL database: every workstation gets the names of its own files,
// and every file is there. The suite Outage runs on a cluster of its own, which
// it freezes and restarts: nobody hangs, and everyone carries on afterwards.

#include <csignal>
#include <fcntl.h>
#include <future>
#include <gtest/gtest.h>
#include <set>
#include <spawn.h>
#include <sys/wait.h>

#include "ArchiveBordCaisseExcel.h"
#include "Demo.h"
#include "StoreTestSupport.h"

extern char** environ;

namespace store::testing {
namespace {

using namespace std::chrono_literals;

// A worker process, stopped when the test ends; its messages go to log if given.
class Worker {
public:
    Worker(const std::string& url, const std::filesystem::path& fusion, const std::string& name, const std::filesystem::path& log = {},
        std::vector<std::string> extra = {})
    {
        std::vector<std::string> args{CALVARINE_SERVER, "--db", url, "--fusion", fusion.string(), "--name", name};
        args.insert(args.end(), extra.begin(), extra.end());
        std::vector<char*> argv;
        for (const auto& arg : args) {
            argv.push_back(const_cast<char*>(arg.c_str()));
        }
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        if (!log.empty()) {
            posix_spawn_file_actions_addopen(&actions, 2, log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        }
        const int failed = posix_spawn(&m_pid, CALVARINE_SERVER, &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        if (failed != 0) {
            throw std::runtime_error(std::string("cannot start ") + CALVARINE_SERVER);
        }
    }
    ~Worker()
    {
        kill(m_pid, SIGTERM);
        if (!waitForExit(m_pid)) {
            ADD_FAILURE() << "a worker did not stop on SIGTERM within a minute";
        }
    }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

private:
    pid_t m_pid = 0;
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
            // What a workstation's host declares when it registers the command.
            store->setSessionPrivate("TEMPO");
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
    EXPECT_EQ(admin->read("TEMPO", "REQUETEBORDEXCEL"), std::nullopt);
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

TEST(Outage, AfterARestartWorkersAndClientsCarryOn)
{
    OwnCluster cluster;
    ScratchSchema scratch(cluster.url());
    TempDir folder;
    auto client = Store::connect(scratch.connection());
    client->setClient(std::make_shared<DbaClient>("OPERATEUR", "poste-1"));
    client->setSessionPrivate("TEMPO");
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

} // namespace
} // namespace store::testing
