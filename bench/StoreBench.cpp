// The statement query of the screen on a two-million-statement archive, through
// the store and written directly against SQLite, side by side; and the 32,767
// ReadItems of one statement query on the SQLite engine and on the PostgreSQL
// engine (its URI in CALVARINE_PG_URL, e.g. a cluster of scripts/pg-cluster),
// with and without the cache of small files.
//
// The database is generated once into the build folder (about a minute) and
// reused. CALVARINE_BENCH_STATEMENTS changes its size (another file per size).

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <sqlite3.h>
#include <string>
#include <vector>

#include "Demo.h"
#include "HandWrittenSqlite.h"
#include "PgEngine.h"
#include "ScratchSchema.h"
#include "SqliteEngine.h"
#include "Sentence.h"
#include "Store.h"
#include "archive/Archive.h"
#include "database/FileNames.h"

namespace {

constexpr std::size_t kScope = 32767;
constexpr const char* kPeriod = "202610";
const std::string kSentence = archive::scopeSentence(kPeriod, store::kBigScopeEntity, "P", archive::Order::ByOrganisationThenInvoice);

std::size_t statements()
{
    const char* text = std::getenv("CALVARINE_BENCH_STATEMENTS");
    return text && *text ? std::stoull(text) : 2000000;
}

const std::filesystem::path& database()
{
    static const std::filesystem::path path = [] {
        const auto count = statements();
        const std::filesystem::path file = std::filesystem::path(CALVARINE_BENCH_DATA) / ("store-" + std::to_string(count) + ".db");
        const auto done = file.string() + ".done";
        if (!std::filesystem::exists(done)) {
            removeDatabase(file);
            std::cerr << "generating " << count << " statements into " << file << " (once)\n";
            auto store = store::Store::create(file);
            store::generateDemo(*store, store::DemoOptions{count, 1, kScope}, {});
            std::ofstream(done) << count << '\n';
        }
        return file;
    }();
    return path;
}

// What the screen does: one Select, then one ReadItem of the organisation per key
// (the store shares one read snapshot among them by itself, as for the screen).
void BM_StoreQuery(benchmark::State& state)
{
    auto store = store::Store::create(database());
    auto organisations = store->OpenFile(FileNames::ORGPRISECHARGE);
    const std::string request = kSentence + "\xFE" + FileNames::ARCHIVEBORDCAISSE + "\xFE" + "0";
    std::size_t keys = 0;
    for (auto _ : state) {
        std::int32_t status = 0;
        const auto result = store->Select(request, "", status);
        keys = result.attributeCount();
        std::size_t named = 0;
        for (std::size_t i = 1; i <= keys; ++i) {
            const auto key = result.attribute(static_cast<std::int16_t>(i));
            try {
                named += organisations->ReadItem(archive::organisationOf(key))->attribute(1).size();
            } catch (const DbaError& error) {
                if (!error.isNoRecord()) {
                    throw;
                }
            }
        }
        benchmark::DoNotOptimize(named);
    }
    state.counters["keys"] = static_cast<double>(keys);
}

// The same work by hand: the index range joined to the records, sorted in C++,
// then one prepared lookup per key; each statement in autocommit, or the query
// and every read inside one read transaction (the floor for the store's path).
void handWrittenSqlite(benchmark::State& state, bool oneTransaction)
{
    Sqlite connection(database());
    sqlite3_stmt* query = prepare(connection.db,
        "SELECT i.key, t.record FROM \"ARCHIVEBORDCAISSE#PeriodeArchive\" AS i CROSS JOIN ARCHIVEBORDCAISSE AS t "
        "WHERE i.value = ?1 AND i.key >= ?2 AND i.key < ?3 AND t.key = i.key");
    sqlite3_stmt* organisation = prepare(connection.db, "SELECT record FROM ORGPRISECHARGE WHERE key = ?1");
    const std::string low = std::string(store::kBigScopeEntity) + "P";
    const std::string high = std::string(store::kBigScopeEntity) + "Q";
    struct Row {
        std::string sigle, invoice, key;
    };
    std::size_t keys = 0;
    for (auto _ : state) {
        if (oneTransaction) {
            sqlite3_exec(connection.db, "BEGIN", nullptr, nullptr, nullptr);
        }
        std::vector<Row> rows;
        sqlite3_bind_text(query, 1, kPeriod, -1, SQLITE_STATIC);
        sqlite3_bind_text(query, 2, low.c_str(), -1, SQLITE_STATIC);
        sqlite3_bind_text(query, 3, high.c_str(), -1, SQLITE_STATIC);
        while (sqlite3_step(query) == SQLITE_ROW) {
            const auto record = column(query, 1);
            rows.push_back({std::string(store::sentence::attributeOf(record, 2)), std::string(store::sentence::attributeOf(record, 3)),
                std::string(column(query, 0))});
        }
        sqlite3_reset(query);
        std::sort(rows.begin(), rows.end(), [](const Row& a, const Row& b) {
            return std::tie(a.sigle, a.invoice, a.key) < std::tie(b.sigle, b.invoice, b.key);
        });
        keys = rows.size();
        std::size_t named = 0;
        for (const auto& row : rows) {
            sqlite3_bind_text(organisation, 1, row.key.data() + 4, 3, SQLITE_STATIC);
            if (sqlite3_step(organisation) == SQLITE_ROW) {
                const std::string record(column(organisation, 0));
                named += store::sentence::attributeOf(record, 1).size();
            }
            sqlite3_reset(organisation);
        }
        if (oneTransaction) {
            sqlite3_exec(connection.db, "COMMIT", nullptr, nullptr, nullptr);
        }
        benchmark::DoNotOptimize(named);
    }
    sqlite3_finalize(query);
    sqlite3_finalize(organisation);
    state.counters["keys"] = static_cast<double>(keys);
}

void BM_HandWrittenSqlite(benchmark::State& state)
{
    handWrittenSqlite(state, false);
}

void BM_HandWrittenSqlite_OneTransaction(benchmark::State& state)
{
    handWrittenSqlite(state, true);
}

// How much of the indexes the compiled sentence walks: every row its loops
// visit passes a counting function placed on the driving index.
void BM_IndexEntriesPerKey(benchmark::State& state)
{
    store::SqliteEngine engine(database(), store::OpenMode::Existing);
    const auto compiled = engine.compile(store::sentence::parse(kSentence), false);
    std::size_t visited = 0;
    sqlite3_create_function_v2(engine.handle(), "calv_count", 1, SQLITE_UTF8, &visited,
        [](sqlite3_context* context, int, sqlite3_value**) {
            ++*static_cast<std::size_t*>(sqlite3_user_data(context));
            sqlite3_result_int(context, 1);
        },
        nullptr, nullptr, nullptr);
    std::string sql = compiled.sql;
    const auto join = sql.find("t.key = i.key");
    if (join == std::string::npos) {
        state.SkipWithError(("the sentence is not driven by an index: " + sql).c_str());
        return;
    }
    sql.insert(join, "calv_count(i.key) AND ");
    sqlite3_stmt* statement = prepare(engine.handle(), sql);
    std::size_t keys = 0;
    int fullScan = 0;
    int vmSteps = 0;
    for (auto _ : state) {
        visited = 0;
        keys = 0;
        for (std::size_t i = 0; i < compiled.binds.size(); ++i) {
            sqlite3_bind_text(statement, static_cast<int>(i + 1), compiled.binds[i].c_str(), static_cast<int>(compiled.binds[i].size()), SQLITE_STATIC);
        }
        while (sqlite3_step(statement) == SQLITE_ROW) {
            ++keys;
        }
        fullScan = sqlite3_stmt_status(statement, SQLITE_STMTSTATUS_FULLSCAN_STEP, 1);
        vmSteps = sqlite3_stmt_status(statement, SQLITE_STMTSTATUS_VM_STEP, 1);
        sqlite3_reset(statement);
    }
    sqlite3_finalize(statement);
    state.counters["keys"] = static_cast<double>(keys);
    state.counters["index_entries_per_key"] = keys ? static_cast<double>(visited) / static_cast<double>(keys) : 0;
    // The driving range plus one seek of the record per key.
    state.counters["btree_visits_per_key"] = keys ? static_cast<double>(visited + keys) / static_cast<double>(keys) : 0;
    state.counters["fullscan_steps"] = fullScan;
    state.counters["vm_steps_per_key"] = keys ? static_cast<double>(vmSteps) / static_cast<double>(keys) : 0;
}

// ReadItems: one data set of 40,000 statements (the big scope in it), in a SQLite
// file and in a schema of the server, made once and kept.
constexpr std::size_t kReadStatements = 40000;

std::string serverConnection()
{
    const char* url = std::getenv("CALVARINE_PG_URL");
    return url && *url ? store::withSchema(url, "bench_" + std::to_string(kReadStatements)) : std::string();
}

std::shared_ptr<store::Store> readData(bool server)
{
    auto store = server ? store::Store::connect(serverConnection(), store::OpenMode::Create)
                        : store::Store::create(std::filesystem::path(CALVARINE_BENCH_DATA) / ("reads-" + std::to_string(kReadStatements) + ".db"));
    if (!store->read("BENCH", "done")) {
        std::cerr << "generating " << kReadStatements << " statements for the reads (once)\n";
        store::generateDemo(*store, store::DemoOptions{kReadStatements, 1, kScope}, {});
        store->write("BENCH", "done", "1");
    }
    return store;
}

// The organisation codes of the statement query, one per key, in its order.
const std::vector<std::string>& readKeys()
{
    static const std::vector<std::string> keys = [] {
        const auto result = readData(false)->select(kSentence);
        std::vector<std::string> out;
        for (int i = 1; i <= result.DCount(); ++i) {
            out.push_back(archive::organisationOf(result.attribute(static_cast<std::int16_t>(i))));
        }
        return out;
    }();
    return keys;
}

void readAll(benchmark::State& state, DbaFile& organisations)
{
    const auto& keys = readKeys();
    for (auto _ : state) {
        std::size_t named = 0;
        for (const auto& key : keys) {
            try {
                named += organisations.ReadItem(key)->attribute(1).size();
            } catch (const DbaError& error) {
                if (!error.isNoRecord()) {
                    throw;
                }
            }
        }
        benchmark::DoNotOptimize(named);
    }
    state.counters["reads"] = static_cast<double>(keys.size());
}

void BM_ReadItems_Sqlite(benchmark::State& state)
{
    auto store = readData(false);
    readAll(state, *store->OpenFile(FileNames::ORGPRISECHARGE));
}

void BM_ReadItems_Postgres(benchmark::State& state)
{
    if (serverConnection().empty()) {
        state.SkipWithError("set CALVARINE_PG_URL to a PostgreSQL server");
        return;
    }
    auto store = readData(true);
    readAll(state, *store->OpenFile(FileNames::ORGPRISECHARGE));
}

// Without the cache: one prepared statement, one round trip per read.
void BM_ReadItems_PostgresUncached(benchmark::State& state)
{
    if (serverConnection().empty()) {
        state.SkipWithError("set CALVARINE_PG_URL to a PostgreSQL server");
        return;
    }
    readData(true);
    store::PgEngine engine(serverConnection());
    engine.setCacheLimit(0);
    const auto& keys = readKeys();
    for (auto _ : state) {
        std::size_t named = 0;
        for (const auto& key : keys) {
            if (const auto record = engine.read(FileNames::ORGPRISECHARGE, key)) {
                named += store::sentence::attributeOf(*record, 1).size();
            }
        }
        benchmark::DoNotOptimize(named);
    }
    state.counters["reads"] = static_cast<double>(keys.size());
}

// The screen's statement query once: Select, then the organisation of each
// statement read. Gives the number of statements.
std::size_t queryAndReadOnce(store::Store& store, DbaFile& organisations)
{
    const auto result = store.select(kSentence);
    std::size_t named = 0;
    for (std::size_t i = 1; i <= result.attributeCount(); ++i) {
        try {
            named += organisations.ReadItem(archive::organisationOf(result.attribute(static_cast<std::int16_t>(i))))->attribute(1).size();
        } catch (const DbaError& error) {
            if (!error.isNoRecord()) {
                throw;
            }
        }
    }
    benchmark::DoNotOptimize(named);
    return result.attributeCount();
}

// The whole statement query of the screen, Select and ReadItems, on each engine.
void queryAndRead(benchmark::State& state, store::Store& store)
{
    auto organisations = store.OpenFile(FileNames::ORGPRISECHARGE);
    std::size_t keys = 0;
    for (auto _ : state) {
        keys = queryAndReadOnce(store, *organisations);
    }
    state.counters["keys"] = static_cast<double>(keys);
}

void BM_QueryAndReads_Sqlite(benchmark::State& state)
{
    queryAndRead(state, *readData(false));
}

void BM_QueryAndReads_Postgres(benchmark::State& state)
{
    if (serverConnection().empty()) {
        state.SkipWithError("set CALVARINE_PG_URL to a PostgreSQL server");
        return;
    }
    queryAndRead(state, *readData(true));
}

void queryOnly(benchmark::State& state, store::Store& store);

// Cold: the first statement query (Select and ReadItems) of a connection just
// opened, and the first after another connection wrote an organisation (on
// PostgreSQL that empties the cache of small files, read again from the server;
// on SQLite the connection's page cache is dropped). The opening and the write
// are left out of the timing; BM_QueryAndReads_* is the same query warm.
std::shared_ptr<store::Store> openReadData(bool server)
{
    return server ? store::Store::connect(serverConnection())
                  : store::Store::create(std::filesystem::path(CALVARINE_BENCH_DATA) / ("reads-" + std::to_string(kReadStatements) + ".db"));
}

void firstQueryAfterOpening(benchmark::State& state, bool server)
{
    if (server && serverConnection().empty()) {
        state.SkipWithError("set CALVARINE_PG_URL to a PostgreSQL server");
        return;
    }
    readData(server);
    for (auto _ : state) {
        state.PauseTiming();
        auto store = openReadData(server);
        state.ResumeTiming();
        auto organisations = store->OpenFile(FileNames::ORGPRISECHARGE);
        queryAndReadOnce(*store, *organisations);
        state.PauseTiming();
        store.reset();
        state.ResumeTiming();
    }
}

void firstQueryAfterAWrite(benchmark::State& state, bool server)
{
    if (server && serverConnection().empty()) {
        state.SkipWithError("set CALVARINE_PG_URL to a PostgreSQL server");
        return;
    }
    auto store = readData(server);
    auto other = openReadData(server);
    auto organisations = store->OpenFile(FileNames::ORGPRISECHARGE);
    const std::string written = "999";
    int round = 0;
    for (auto _ : state) {
        state.PauseTiming();
        other->write(FileNames::ORGPRISECHARGE, written, "BENCH " + std::to_string(++round));
        state.ResumeTiming();
        queryAndReadOnce(*store, *organisations);
    }
    other->remove(FileNames::ORGPRISECHARGE, written);
}

void BM_FirstQueryAfterOpening_Sqlite(benchmark::State& state)
{
    firstQueryAfterOpening(state, false);
}

void BM_FirstQueryAfterOpening_Postgres(benchmark::State& state)
{
    firstQueryAfterOpening(state, true);
}

void BM_FirstQueryAfterAWrite_Sqlite(benchmark::State& state)
{
    firstQueryAfterAWrite(state, false);
}

void BM_FirstQueryAfterAWrite_Postgres(benchmark::State& state)
{
    firstQueryAfterAWrite(state, true);
}

// The statement query on data just loaded (a fresh demo of 40,000 statements
// in a new SQLite file and a new schema, made by a bulk load as calvarine-db
// demo makes it), before anything else reads it: what a server whose planner
// had no statistics of the new tables would plan blind.
void freshQuery(benchmark::State& state, bool server)
{
    const char* url = std::getenv("CALVARINE_PG_URL");
    if (server && !(url && *url)) {
        state.SkipWithError("set CALVARINE_PG_URL to a PostgreSQL server");
        return;
    }
    std::optional<store::ScratchSchema> schema;
    const auto file = std::filesystem::path(CALVARINE_BENCH_DATA) / "fresh.db";
    removeDatabase(file);
    std::shared_ptr<store::Store> store;
    if (server) {
        schema.emplace(url);
        store = store::Store::connect(schema->connection());
    } else {
        store = store::Store::create(file);
    }
    store::generateDemo(*store, store::DemoOptions{kReadStatements, 1, kScope}, {});
    queryOnly(state, *store);
    store.reset();
    removeDatabase(file);
}

void BM_FreshStatementQuery_Sqlite(benchmark::State& state)
{
    freshQuery(state, false);
}

void BM_FreshStatementQuery_Postgres(benchmark::State& state)
{
    freshQuery(state, true);
}

// The statement query alone, the same sentence on the same data on each engine.
void queryOnly(benchmark::State& state, store::Store& store)
{
    std::size_t keys = 0;
    for (auto _ : state) {
        keys = store.select(kSentence).attributeCount();
    }
    state.counters["keys"] = static_cast<double>(keys);
}

void BM_StatementQuery_Sqlite(benchmark::State& state)
{
    queryOnly(state, *readData(false));
}

void BM_StatementQuery_Postgres(benchmark::State& state)
{
    if (serverConnection().empty()) {
        state.SkipWithError("set CALVARINE_PG_URL to a PostgreSQL server");
        return;
    }
    queryOnly(state, *readData(true));
}

BENCHMARK(BM_StatementQuery_Sqlite)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_StatementQuery_Postgres)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_ReadItems_Sqlite)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_ReadItems_Postgres)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_ReadItems_PostgresUncached)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_QueryAndReads_Sqlite)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_QueryAndReads_Postgres)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_FirstQueryAfterOpening_Sqlite)->Unit(benchmark::kMillisecond)->Iterations(20);
BENCHMARK(BM_FirstQueryAfterOpening_Postgres)->Unit(benchmark::kMillisecond)->Iterations(20);
BENCHMARK(BM_FirstQueryAfterAWrite_Sqlite)->Unit(benchmark::kMillisecond)->Iterations(20);
BENCHMARK(BM_FirstQueryAfterAWrite_Postgres)->Unit(benchmark::kMillisecond)->Iterations(20);
BENCHMARK(BM_FreshStatementQuery_Sqlite)->Unit(benchmark::kMillisecond)->Iterations(10);
BENCHMARK(BM_FreshStatementQuery_Postgres)->Unit(benchmark::kMillisecond)->Iterations(10);
BENCHMARK(BM_StoreQuery)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_HandWrittenSqlite)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_HandWrittenSqlite_OneTransaction)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_IndexEntriesPerKey)->Unit(benchmark::kMillisecond)->Iterations(3);

} // namespace

BENCHMARK_MAIN();
