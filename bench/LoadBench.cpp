// Bulk loads: the demo of CALVARINE_BENCH_DEMO statements (200,000 unless set)
// into a fresh SQLite file and a fresh schema of the PostgreSQL server named by
// CALVARINE_PG_URL, against the same statements written by hand into a fresh
// SQLite file.

#include <benchmark/benchmark.h>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "Demo.h"
#include "HandWrittenSqlite.h"
#include "ScratchSchema.h"
#include "Sentence.h"
#include "Store.h"

namespace {

constexpr std::size_t kScope = 32767;

std::size_t demoStatements()
{
    const char* text = std::getenv("CALVARINE_BENCH_DEMO");
    return text && *text ? std::stoull(text) : 200000;
}

std::filesystem::path freshFile(const std::string& name)
{
    const auto file = std::filesystem::path(CALVARINE_BENCH_DATA) / name;
    removeDatabase(file);
    return file;
}

void BM_Demo_Sqlite(benchmark::State& state)
{
    for (auto _ : state) {
        state.PauseTiming();
        const auto file = freshFile("demo-load.db");
        state.ResumeTiming();
        auto store = store::Store::create(file);
        store::generateDemo(*store, store::DemoOptions{demoStatements(), 1, kScope}, {});
    }
    state.counters["statements"] = static_cast<double>(demoStatements());
}

void BM_Demo_Postgres(benchmark::State& state)
{
    const char* url = std::getenv("CALVARINE_PG_URL");
    if (!url || !*url) {
        state.SkipWithError("set CALVARINE_PG_URL to a PostgreSQL server");
        return;
    }
    for (auto _ : state) {
        state.PauseTiming();
        store::dropSchema(url, "bench_demo_load");
        state.ResumeTiming();
        auto store = store::Store::connect(store::withSchema(url, "bench_demo_load"), store::OpenMode::Create);
        store::generateDemo(*store, store::DemoOptions{demoStatements(), 1, kScope}, {});
    }
    store::dropSchema(url, "bench_demo_load");
    state.counters["statements"] = static_cast<double>(demoStatements());
}

// By hand: one prepared insert per table, the store's tables, WAL with
// synchronous=NORMAL, commits of 100,000.
void BM_HandWrittenBulkInsert(benchmark::State& state)
{
    // The demo's statements, taken once from a demo file.
    struct Statement {
        std::string key, record;
    };
    std::vector<Statement> statements;
    {
        const auto source = freshFile("demo-rows.db");
        store::generateDemo(*store::Store::create(source), store::DemoOptions{demoStatements(), 1, kScope}, {});
        Sqlite connection(source);
        sqlite3_stmt* all = prepare(connection.db, "SELECT key, record FROM ARCHIVEBORDCAISSE ORDER BY key");
        while (sqlite3_step(all) == SQLITE_ROW) {
            statements.push_back({std::string(column(all, 0)), std::string(column(all, 1))});
        }
        sqlite3_finalize(all);
    }
    const std::vector<std::pair<std::string, int>> indexes{
        {"ARCHIVEBORDCAISSE#PeriodeArchive", 1}, {"ARCHIVEBORDCAISSE#SigleOrgaArchive", 2}, {"ARCHIVEBORDCAISSE#NumFactArchive", 3}};
    for (auto _ : state) {
        state.PauseTiming();
        const auto file = freshFile("demo-hand.db");
        state.ResumeTiming();
        sqlite3* db = nullptr;
        sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
        sqlite3_exec(db,
            "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; PRAGMA cache_size=-65536;"
            "CREATE TABLE ARCHIVEBORDCAISSE(key TEXT PRIMARY KEY NOT NULL, record BLOB NOT NULL) WITHOUT ROWID;",
            nullptr, nullptr, nullptr);
        std::vector<sqlite3_stmt*> inserts;
        for (const auto& [table, attribute] : indexes) {
            sqlite3_exec(db, ("CREATE TABLE \"" + table + "\"(value TEXT NOT NULL, key TEXT NOT NULL, PRIMARY KEY(value, key)) WITHOUT ROWID").c_str(),
                nullptr, nullptr, nullptr);
            inserts.push_back(prepare(db, "INSERT INTO \"" + table + "\"(value, key) VALUES(?1, ?2)"));
        }
        sqlite3_stmt* insert = prepare(db, "INSERT INTO ARCHIVEBORDCAISSE(key, record) VALUES(?1, ?2)");
        for (std::size_t n = 0; n < statements.size(); ++n) {
            if (n % 100000 == 0) {
                sqlite3_exec(db, n ? "COMMIT; BEGIN" : "BEGIN", nullptr, nullptr, nullptr);
            }
            const auto& [key, record] = statements[n];
            sqlite3_bind_text(insert, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
            sqlite3_bind_blob(insert, 2, record.data(), static_cast<int>(record.size()), SQLITE_STATIC);
            sqlite3_step(insert);
            sqlite3_reset(insert);
            for (std::size_t i = 0; i < indexes.size(); ++i) {
                for (const auto value : store::sentence::distinctValues(store::sentence::attributeOf(record, indexes[i].second))) {
                    sqlite3_bind_text(inserts[i], 1, value.data(), static_cast<int>(value.size()), SQLITE_STATIC);
                    sqlite3_bind_text(inserts[i], 2, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
                    sqlite3_step(inserts[i]);
                    sqlite3_reset(inserts[i]);
                }
            }
        }
        sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
        sqlite3_finalize(insert);
        for (auto* statement : inserts) {
            sqlite3_finalize(statement);
        }
        sqlite3_close_v2(db);
    }
    state.counters["statements"] = static_cast<double>(statements.size());
}

BENCHMARK(BM_Demo_Sqlite)->Unit(benchmark::kSecond)->Iterations(3);
BENCHMARK(BM_Demo_Postgres)->Unit(benchmark::kSecond)->Iterations(3);
BENCHMARK(BM_HandWrittenBulkInsert)->Unit(benchmark::kSecond)->Iterations(3);

} // namespace

BENCHMARK_MAIN();
