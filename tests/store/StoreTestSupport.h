#pragma once

// A store on a throwaway database, removed when the test ends: a SQLite file in
// a fresh temporary folder, or a fresh schema on the PostgreSQL server of the
// tests (its URI in CALVARINE_PG_URL, or in the file named by
// CALVARINE_PG_URL_FILE, which the ctest fixture writes). Tests that hold for
// both engines are TEST_P on StoreTest or a fixture derived from it.

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <stdexcept>
#include <optional>
#include <string>
#include <sys/wait.h>
#include <thread>

#include "Fixtures.h"
#include "ScratchSchema.h"
#include "Store.h"
#include "WorkerProcess.h"

namespace store::testing {

enum class EngineKind { Sqlite, Postgres };

inline std::string engineName(const ::testing::TestParamInfo<EngineKind>& info)
{
    return info.param == EngineKind::Sqlite ? "sqlite" : "postgresql";
}

inline std::string randomName(const char* prefix)
{
    std::random_device random;
    return prefix + std::to_string(random()) + std::to_string(random());
}

// The server's URI; throws when there is none, so that the test fails saying why.
inline std::string serverUrl()
{
    if (const char* url = std::getenv("CALVARINE_PG_URL"); url && *url) {
        return url;
    }
    if (const char* file = std::getenv("CALVARINE_PG_URL_FILE"); file && *file) {
        std::ifstream in(file);
        std::string url;
        if (in && std::getline(in, url) && !url.empty()) {
            return url;
        }
        throw std::runtime_error(std::string("no PostgreSQL server: cannot read its URI from ") + file
            + " (did the pg_cluster fixture start? is the postgresql package installed?)");
    }
    throw std::runtime_error("no PostgreSQL server for the tests: set CALVARINE_PG_URL or CALVARINE_PG_URL_FILE");
}

// Waits for something another process or connection brings about (a
// notification, a worker's result): true as soon as it holds, false after 10 s.
template <typename Condition>
bool eventually(Condition holds)
{
    for (int tries = 0; tries < 1000; ++tries) {
        if (holds()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return holds();
}

class TempDir {
public:
    TempDir()
    {
        m_path = std::filesystem::temp_directory_path() / randomName("calvarine-store-");
        std::filesystem::create_directories(m_path);
    }
    ~TempDir()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::filesystem::path& path() const { return m_path; }

private:
    std::filesystem::path m_path;
};

// A small tmpfs mounted on a fresh folder, for a full or read-only disk;
// mounted() is false where mounting is not permitted (the test then skips).
class SmallDisk {
public:
    explicit SmallDisk(const std::string& size)
    {
        const auto command = "mount -t tmpfs -o size=" + size + " tmpfs '" + m_dir.path().string() + "' 2>/dev/null";
        m_mounted = std::system(command.c_str()) == 0;
    }
    ~SmallDisk()
    {
        if (m_mounted) {
            (void)std::system(("umount '" + m_dir.path().string() + "' 2>/dev/null").c_str());
        }
    }
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;
    bool mounted() const { return m_mounted; }
    const std::filesystem::path& path() const { return m_dir.path(); }
    bool makeReadOnly() const
    {
        return std::system(("mount -o remount,ro '" + m_dir.path().string() + "' 2>/dev/null").c_str()) == 0;
    }

private:
    TempDir m_dir;
    bool m_mounted = false;
};

// One throwaway database; connect() opens another connection to it.
class TestDatabase {
public:
    explicit TestDatabase(EngineKind kind)
        : m_kind(kind)
    {
        if (kind == EngineKind::Postgres) {
            m_connection = m_schema.emplace(serverUrl()).connection();
        } else {
            m_connection = "sqlite:" + (m_dir.path() / "test.db").string();
            Store::create(m_dir.path() / "test.db");
        }
    }
    TestDatabase(const TestDatabase&) = delete;
    TestDatabase& operator=(const TestDatabase&) = delete;

    std::shared_ptr<Store> connect() const
    {
        auto store = Store::connect(m_connection);
        store->setFusionDirectory(m_dir.path() / "FUSION");
        return store;
    }
    EngineKind kind() const { return m_kind; }
    const std::string& connection() const { return m_connection; }
    const std::filesystem::path& folder() const { return m_dir.path(); }

private:
    EngineKind m_kind;
    TempDir m_dir;
    std::optional<ScratchSchema> m_schema;
    std::string m_connection;
};

class StoreTest : public ::testing::TestWithParam<EngineKind> {
protected:
    StoreTest()
        : m_database(GetParam())
        , m_store(m_database.connect())
    {
    }

    Store& db() { return *m_store; }
    bool onServer() const { return m_database.kind() == EngineKind::Postgres; }
    void load(const std::string& lines) { store::importJsonLine(*m_store, lines, "test"); }

    // Marks written as in scenario files: ^ attribute, | value, ~ subvalue.
    static std::string marks(std::string text)
    {
        for (auto& c : text) {
            c = c == '\xFE' ? '^' : c == '\xFD' ? '|' : c == '\xFC' ? '~' : c;
        }
        return text;
    }
    std::string keys(const std::string& sentence, const std::string& attributes = "0")
    {
        return marks(m_store->select(sentence, attributes).text());
    }

    TestDatabase m_database;
    std::shared_ptr<Store> m_store;
};

#define CALVARINE_BOTH_ENGINES(Suite)                                                                                   \
    INSTANTIATE_TEST_SUITE_P(Engines, Suite, ::testing::Values(EngineKind::Sqlite, EngineKind::Postgres), engineName)

} // namespace store::testing
