// Several workstations re-issue at once through two calvarine-server workers on
// one PostgreSQL database: every workstation gets the names of its own files,
// and every file is there.

#include <csignal>
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

// A worker process, stopped when the test ends.
class Worker {
public:
    Worker(const std::string& url, const std::filesystem::path& fusion, const std::string& name)
    {
        const std::vector<std::string> args{CALVARINE_SERVER, "--db", url, "--fusion", fusion.string(), "--name", name};
        std::vector<char*> argv;
        for (const auto& arg : args) {
            argv.push_back(const_cast<char*>(arg.c_str()));
        }
        argv.push_back(nullptr);
        if (posix_spawn(&m_pid, CALVARINE_SERVER, nullptr, nullptr, argv.data(), environ) != 0) {
            throw std::runtime_error(std::string("cannot start ") + CALVARINE_SERVER);
        }
    }
    ~Worker()
    {
        kill(m_pid, SIGTERM);
        int status = 0;
        waitpid(m_pid, &status, 0);
    }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

private:
    pid_t m_pid = 0;
};

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
        std::vector<std::vector<std::pair<std::string, std::string>>> requests;
        for (int run = 0; run < kRuns; ++run) {
            std::vector<std::pair<std::string, std::string>> request;
            for (int i = 0; i <= run; ++i) {
                const auto key = scope.attribute(static_cast<std::int16_t>(1 + c * 6 + run * (run + 1) / 2 + i));
                request.emplace_back(key.substr(4, 3), key.substr(13, 10));
                expected[static_cast<std::size_t>(c)].push_back(server::fusionFileName("001", "P", "202610", key.substr(4, 3), key.substr(13, 10)));
            }
            requests.push_back(request);
        }
        clients.push_back(std::async(std::launch::async, [&database, c, requests] {
            auto store = database.connect();
            store->setClient(std::make_shared<DbaClient>("OPERATEUR", "poste-" + std::to_string(c)));
            auto tempo = store->OpenFile("TEMPO");
            std::vector<std::string> names;
            for (const auto& request : requests) {
                auto item = tempo->NewItem("REQUETEBORDEXCEL");
                for (std::size_t i = 0; i < request.size(); ++i) {
                    item->setValue(static_cast<std::int16_t>(i + 1), 1, request[i].first);
                    item->setValue(static_cast<std::int16_t>(i + 1), 2, request[i].second);
                }
                item->DBWrite();
                std::int32_t status = 0;
                store->Execute("P\xFE" "ARCHIVEBORDCAISSEEXCEL 202610 001 P", "", status);
                const auto result = tempo->ReadItem("BORDCAISSEEXCEL");
                for (int i = 1; i <= result->DCount(); ++i) {
                    names.push_back(result->attribute(static_cast<std::int16_t>(i)));
                }
                tempo->DeleteItem("BORDCAISSEEXCEL");
                tempo->DeleteItem("REQUETEBORDEXCEL");
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

} // namespace
} // namespace store::testing
