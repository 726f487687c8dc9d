#include "PgEngine.h"

#include <algorithm>
#include <libpq-fe.h>
#include <poll.h>
#include <random>

#include "database/DbaDynArray.h"
#include "database/DbaError.h"

namespace store {

using names::checkKey;
using names::isPlainName;

namespace {

constexpr const char* kDictTable = "\"calvarine#dict\"";
constexpr const char* kCommandTable = "\"calvarine#commands\"";
constexpr const char* kChangesChannel = "calvarine_changes";
constexpr const char* kQueueChannel = "calvarine_queue";
constexpr const char* kDoneChannel = "calvarine_done";
// Every connection's schema changes (tables, triggers, functions) take this lock.
constexpr const char* kSchemaLock = "SELECT pg_advisory_xact_lock(7415000001)";
constexpr std::size_t kMaxSentenceStatements = 256;
// PostgreSQL cuts identifiers at 63 bytes.
constexpr std::size_t kMaxIdentifier = 63;

std::string quoteIdent(std::string_view name)
{
    std::string out = "\"";
    for (const char c : name) {
        if (c == '"') {
            out += '"';
        }
        out += c;
    }
    out += '"';
    return out;
}

std::string_view cell(pg_result* result, int row, int column)
{
    if (PQgetisnull(result, row, column)) {
        return {};
    }
    return {PQgetvalue(result, row, column), static_cast<std::size_t>(PQgetlength(result, row, column))};
}

std::uint64_t fnv1a(std::string_view a, std::string_view b = {})
{
    std::uint64_t hash = 14695981039346656037ull;
    for (const auto part : {a, std::string_view("\0", 1), b}) {
        for (const char c : part) {
            hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211ull;
        }
    }
    return hash;
}

// The index table of a name; a name too long for an identifier is shortened
// with a hash of the whole, so two names never share a table.
std::string indexTableName(std::string_view file, std::string_view name)
{
    std::string full = std::string(file) + "#" + std::string(name);
    if (full.size() <= kMaxIdentifier) {
        return full;
    }
    char hex[17];
    std::snprintf(hex, sizeof hex, "%016llx", static_cast<unsigned long long>(fnv1a(file, name)));
    return std::string(file.substr(0, 40)) + "#" + hex;
}

bool isTempoKey(std::string_view file, std::string_view key)
{
    return file == "TEMPO" && (key == "REQUETEBORDEXCEL" || key == "BORDCAISSEEXCEL");
}

std::string randomSession()
{
    std::random_device random;
    char text[24];
    std::snprintf(text, sizeof text, "s%08x%08x", random(), random());
    return text;
}

std::string placeholder(std::vector<std::string>& binds, std::string value)
{
    binds.push_back(std::move(value));
    return "$" + std::to_string(binds.size()) + "::bytea";
}

// SQL for "some alternative holds" on a bytea column.
std::string rangeTest(const std::string& column, const std::vector<sentence::Alternative>& alternatives, std::vector<std::string>& binds)
{
    std::string sql = "(";
    bool first = true;
    for (const auto& alternative : alternatives) {
        sql += first ? "" : " OR ";
        first = false;
        if (!alternative.prefix) {
            sql += column + " = " + placeholder(binds, alternative.value);
            continue;
        }
        sql += "(" + column + " >= " + placeholder(binds, alternative.value);
        const auto upper = sentence::prefixUpperBound(alternative.value);
        if (!upper.empty()) {
            sql += " AND " + column + " < " + placeholder(binds, upper);
        }
        sql += ")";
    }
    return sql + ")";
}

// What the client does after the server has answered: the conditions no index
// answers, and the sort.
struct Plan {
    CompiledQuery query;
    bool record = false;                 // column 1 is the record
    std::vector<int> sortColumns;        // column of each sort attribute, -1 for the key
    std::vector<Resolved> sorts;
    std::vector<std::pair<int, const sentence::Condition*>> residual; // attribute, condition
};

} // namespace

void PgEngine::ClearResult::operator()(pg_result* result) const
{
    PQclear(result);
}

PgEngine::PgEngine(std::string_view url)
{
    const std::string text(url);
    m_conn = PQconnectdb(text.c_str());
    if (PQstatus(m_conn) != CONNECTION_OK) {
        std::string detail = PQerrorMessage(m_conn);
        while (!detail.empty() && (detail.back() == '\n' || detail.back() == ' ')) {
            detail.pop_back();
        }
        PQfinish(m_conn);
        m_conn = nullptr;
        throw DbaError(DbaError::Kind::Storage, "connect to the PostgreSQL server", detail);
    }
    try {
        runCommand("SET client_min_messages = warning", "connect");
        setUpSchema();
        bool listening = false;
        listen(kChangesChannel, listening);
    } catch (...) {
        PQfinish(m_conn);
        m_conn = nullptr;
        throw;
    }
    m_defaultSession = randomSession();
}

PgEngine::~PgEngine()
{
    PQfinish(m_conn);
}

void PgEngine::fail(std::string_view context, pg_result* result) const
{
    std::string detail = result ? PQresultErrorMessage(result) : PQerrorMessage(m_conn);
    if (detail.empty()) {
        detail = PQerrorMessage(m_conn);
    }
    while (!detail.empty() && (detail.back() == '\n' || detail.back() == ' ')) {
        detail.pop_back();
    }
    if (PQstatus(m_conn) != CONNECTION_OK) {
        detail = "connection to the server lost: " + detail;
    }
    throw DbaError(DbaError::Kind::Storage, std::string(context), detail);
}

namespace {

// Parameters as libpq takes them: every value in binary, so any byte survives.
struct BinaryParams {
    std::vector<const char*> values;
    std::vector<int> lengths;
    std::vector<int> formats;

    explicit BinaryParams(const std::vector<std::string_view>& params)
        : formats(params.size(), 1)
    {
        for (const auto param : params) {
            values.push_back(param.data() ? param.data() : "");
            lengths.push_back(static_cast<int>(param.size()));
        }
    }
    int count() const { return static_cast<int>(values.size()); }
};

} // namespace

PgEngine::Result PgEngine::run(const std::string& sql, const Params& params, std::string_view context)
{
    const BinaryParams binary(params);
    Result result(PQexecParams(m_conn, sql.c_str(), binary.count(), nullptr, binary.values.data(), binary.lengths.data(),
        binary.formats.data(), 1));
    const auto status = PQresultStatus(result.get());
    if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
        fail(context, result.get());
    }
    return result;
}

PgEngine::Result PgEngine::runPrepared(const std::string& sql, const Params& params, std::string_view context)
{
    auto found = m_prepared.find(sql);
    if (found == m_prepared.end()) {
        const std::string name = "calv" + std::to_string(m_prepared.size() + 1);
        Result prepared(PQprepare(m_conn, name.c_str(), sql.c_str(), 0, nullptr));
        if (PQresultStatus(prepared.get()) != PGRES_COMMAND_OK) {
            fail(context, prepared.get());
        }
        found = m_prepared.emplace(sql, name).first;
    }
    const BinaryParams binary(params);
    Result result(PQexecPrepared(m_conn, found->second.c_str(), binary.count(), binary.values.data(), binary.lengths.data(),
        binary.formats.data(), 1));
    const auto status = PQresultStatus(result.get());
    if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
        fail(context, result.get());
    }
    return result;
}

void PgEngine::runCommand(const std::string& sql, std::string_view context)
{
    Result result(PQexec(m_conn, sql.c_str()));
    const auto status = PQresultStatus(result.get());
    if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
        fail(context, result.get());
    }
}

void PgEngine::setUpSchema()
{
    transaction([&] {
        runCommand(kSchemaLock, "schema");
        auto current = run("SELECT current_schema()::text, split_part(current_setting('search_path'), ',', 1)", {}, "schema");
        if (PQgetisnull(current.get(), 0, 0)) {
            // The first schema of the search path does not exist yet: a fresh one.
            std::string wanted(cell(current.get(), 0, 1));
            wanted.erase(0, wanted.find_first_not_of(' '));
            if (wanted.size() >= 2 && wanted.front() == '"' && wanted.back() == '"') {
                wanted = wanted.substr(1, wanted.size() - 2);
            }
            if (wanted.empty() || wanted == "$user") {
                throw DbaError(DbaError::Kind::Storage, "connect", "no schema to work in (search_path is empty)");
            }
            runCommand("CREATE SCHEMA IF NOT EXISTS " + quoteIdent(wanted), "schema");
            current = run("SELECT current_schema()::text", {}, "schema");
        }
        m_schema = std::string(cell(current.get(), 0, 0));
        auto present = run("SELECT to_regclass('\"calvarine#commands\"') IS NOT NULL", {}, "schema");
        if (cell(present.get(), 0, 0) == std::string_view("\x01", 1)) {
            return;
        }
        runCommand(R"(CREATE TABLE IF NOT EXISTS "calvarine#dict"(file text NOT NULL, name text NOT NULL, attr integer NOT NULL,
  justify text NOT NULL DEFAULT 'L', idx text NOT NULL DEFAULT '', PRIMARY KEY(file, name)))",
            "schema");
        runCommand(R"(CREATE OR REPLACE FUNCTION "calvarine#changed"() RETURNS trigger LANGUAGE plpgsql AS $f$
BEGIN
  PERFORM pg_notify('calvarine_changes', TG_TABLE_SCHEMA || '.' || TG_TABLE_NAME);
  RETURN NULL;
END $f$)",
            "schema");
        runCommand(R"(CREATE OR REPLACE TRIGGER "calvarine#changed" AFTER INSERT OR UPDATE OR DELETE OR TRUNCATE
  ON "calvarine#dict" FOR EACH STATEMENT EXECUTE FUNCTION "calvarine#changed"())",
            "schema");
        // Attribute n of a record, as sentence::attributeOf gives it; sorts use it so
        // that only the attribute crosses the wire, not the record.
        runCommand(R"(CREATE OR REPLACE FUNCTION "calvarine#attr"(r bytea, n integer) RETURNS bytea
  LANGUAGE plpgsql IMMUTABLE STRICT PARALLEL SAFE AS $f$
DECLARE
  rest bytea := r;
  p integer;
BEGIN
  FOR i IN 2..n LOOP
    p := position('\xfe'::bytea IN rest);
    IF p = 0 THEN RETURN '\x'::bytea; END IF;
    rest := substring(rest FROM p + 1);
  END LOOP;
  p := position('\xfe'::bytea IN rest);
  IF p = 0 THEN RETURN rest; END IF;
  RETURN substring(rest FOR p - 1);
END $f$)",
            "schema");
        // The queue of server commands. A running command belongs to its worker
        // until lease_until; attempt counts the claims, so a worker whose lease ran
        // out cannot mark done a command that another has taken since.
        runCommand(R"(CREATE TABLE "calvarine#commands"(id bigserial PRIMARY KEY, sentence bytea NOT NULL,
  username text NOT NULL, session text NOT NULL, state text NOT NULL DEFAULT 'queued',
  attempt integer NOT NULL DEFAULT 0, worker text, lease_until timestamptz, message text,
  queued_at timestamptz NOT NULL DEFAULT now(), done_at timestamptz))",
            "schema");
        runCommand(R"(CREATE INDEX "calvarine#commands#waiting" ON "calvarine#commands"(id)
  WHERE state IN ('queued', 'running'))",
            "schema");
        runCommand(R"(CREATE OR REPLACE FUNCTION "calvarine#queued"() RETURNS trigger LANGUAGE plpgsql AS $f$
BEGIN
  IF NEW.state = 'queued' THEN
    PERFORM pg_notify('calvarine_queue', TG_TABLE_SCHEMA);
  ELSIF NEW.state IN ('done', 'failed') THEN
    PERFORM pg_notify('calvarine_done', TG_TABLE_SCHEMA || '.' || NEW.id);
  END IF;
  RETURN NULL;
END $f$)",
            "schema");
        runCommand(R"(CREATE OR REPLACE TRIGGER "calvarine#queued" AFTER INSERT OR UPDATE OF state
  ON "calvarine#commands" FOR EACH ROW EXECUTE FUNCTION "calvarine#queued"())",
            "schema");
    });
}

void PgEngine::listen(const char* channel, bool& listening)
{
    if (!listening) {
        runCommand(std::string("LISTEN ") + channel, "listen");
        listening = true;
    }
}

void PgEngine::drainNotifications()
{
    // Reads what the server has already sent; never waits.
    PQconsumeInput(m_conn);
    while (PGnotify* notification = PQnotifies(m_conn)) {
        const std::string_view channel = notification->relname;
        const std::string_view payload = notification->extra;
        if (channel == kChangesChannel) {
            if (payload.size() > m_schema.size() && payload.starts_with(m_schema) && payload[m_schema.size()] == '.') {
                const auto table = payload.substr(m_schema.size() + 1);
                if (table == "calvarine#dict") {
                    m_dictionaries.clear();
                } else {
                    m_cache.erase(std::string(table));
                }
            }
        } else if (channel == kQueueChannel) {
            m_queueSignal = m_queueSignal || payload == m_schema;
        } else if (channel == kDoneChannel) {
            m_doneSignal = m_doneSignal || payload.starts_with(m_schema);
        }
        PQfreemem(notification);
    }
}

bool PgEngine::waitForSocket(std::chrono::steady_clock::time_point deadline)
{
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
        return false;
    }
    pollfd socket{PQsocket(m_conn), POLLIN, 0};
    const int ready = ::poll(&socket, 1, static_cast<int>(std::min<long long>(left.count(), 60000)));
    if (ready > 0) {
        if (!PQconsumeInput(m_conn)) {
            fail("wait for the server", nullptr);
        }
        return true;
    }
    return false;
}

void PgEngine::transaction(const std::function<void()>& work)
{
    if (m_depth > 0) {
        runCommand("SAVEPOINT calvarine", "savepoint");
        ++m_depth;
        try {
            work();
        } catch (...) {
            --m_depth;
            Result ignored(PQexec(m_conn, "ROLLBACK TO SAVEPOINT calvarine; RELEASE SAVEPOINT calvarine"));
            throw;
        }
        --m_depth;
        runCommand("RELEASE SAVEPOINT calvarine", "release savepoint");
        return;
    }
    runCommand("BEGIN", "begin");
    m_depth = 1;
    try {
        work();
        m_depth = 0;
        Result commit(PQexec(m_conn, "COMMIT"));
        if (PQresultStatus(commit.get()) != PGRES_COMMAND_OK) {
            fail("commit", commit.get());
        }
        // COMMIT of a transaction that an error has spoilt only rolls back.
        if (std::string_view(PQcmdStatus(commit.get())) != "COMMIT") {
            throw DbaError(DbaError::Kind::Storage, "commit", "the transaction failed and was rolled back");
        }
    } catch (...) {
        m_depth = 0;
        Result ignored(PQexec(m_conn, "ROLLBACK"));
        // Created tables and dictionary rows may be gone with the rollback.
        m_knownFiles.clear();
        m_dictionaries.clear();
        m_cache.clear();
        throw;
    }
}

void PgEngine::checkFileName(std::string_view file) const
{
    if (!isPlainName(file) || file.size() > kMaxIdentifier || file.starts_with("pg_")) {
        throw DbaError(DbaError::Kind::BadData, "file \"" + std::string(file) + "\"", "not a valid file name");
    }
}

bool PgEngine::fileExists(std::string_view file)
{
    if (m_knownFiles.contains(file)) {
        return true;
    }
    if (!isPlainName(file) || file.size() > kMaxIdentifier) {
        return false;
    }
    auto result = runPrepared("SELECT 1 FROM pg_catalog.pg_tables WHERE schemaname = current_schema() AND tablename = $1::text",
        {file}, "file " + std::string(file));
    if (PQntuples(result.get()) > 0) {
        m_knownFiles.emplace(file);
        return true;
    }
    return false;
}

void PgEngine::createFile(std::string_view file)
{
    if (fileExists(file)) {
        return;
    }
    checkFileName(file);
    transaction([&] {
        runCommand(kSchemaLock, "create " + std::string(file));
        const auto table = quoteIdent(file);
        runCommand("CREATE TABLE IF NOT EXISTS " + table + "(key bytea PRIMARY KEY, record bytea NOT NULL)", "create " + std::string(file));
        runCommand("CREATE OR REPLACE TRIGGER \"calvarine#changed\" AFTER INSERT OR UPDATE OR DELETE OR TRUNCATE ON " + table
                + " FOR EACH STATEMENT EXECUTE FUNCTION \"calvarine#changed\"()",
            "create " + std::string(file));
    });
    m_knownFiles.emplace(file);
}

std::vector<std::string> PgEngine::files()
{
    auto result = runPrepared("SELECT tablename::text FROM pg_catalog.pg_tables WHERE schemaname = current_schema() "
                              "AND position('#' IN tablename) = 0 ORDER BY tablename COLLATE \"C\"",
        {}, "files");
    std::vector<std::string> names;
    for (int row = 0; row < PQntuples(result.get()); ++row) {
        names.emplace_back(cell(result.get(), row, 0));
    }
    return names;
}

const std::vector<DictName>& PgEngine::dictionaryOf(const std::string& file)
{
    drainNotifications();
    if (const auto found = m_dictionaries.find(file); found != m_dictionaries.end()) {
        return found->second;
    }
    auto result = runPrepared(std::string("SELECT name, attr::text, justify, idx FROM ") + kDictTable
            + " WHERE file = $1::text ORDER BY name COLLATE \"C\"",
        {file}, "dictionary of " + file);
    std::vector<DictName> names;
    for (int row = 0; row < PQntuples(result.get()); ++row) {
        DictName name;
        name.name = std::string(cell(result.get(), row, 0));
        name.attribute = std::stoi(std::string(cell(result.get(), row, 1)));
        name.justify = cell(result.get(), row, 2) == "R" ? Justify::Right : Justify::Left;
        name.indexTable = std::string(cell(result.get(), row, 3));
        names.push_back(std::move(name));
    }
    return m_dictionaries.emplace(file, std::move(names)).first->second;
}

std::vector<DictName> PgEngine::dictionary(std::string_view file)
{
    return dictionaryOf(std::string(file));
}

void PgEngine::defineName(std::string_view file, std::string_view name, int attribute, Justify justify)
{
    names::checkDictionaryName(file, name, attribute);
    const std::string context = "name " + std::string(name) + " of " + std::string(file);
    checkFileName(file);
    transaction([&] {
        createFile(file);
        runCommand(kSchemaLock, context);
        const std::string fileName(file);
        m_dictionaries.erase(fileName);
        for (const auto& existing : dictionaryOf(fileName)) {
            if (existing.name == name && existing.attribute == attribute && existing.justify == justify) {
                return;
            }
        }
        const std::string index = attribute > 0 ? indexTableName(file, name) : std::string();
        runCommand("DROP TABLE IF EXISTS " + quoteIdent(indexTableName(file, name)), context);
        const std::string attr = std::to_string(attribute);
        run(std::string("INSERT INTO ") + kDictTable + "(file, name, attr, justify, idx) VALUES($1::text, $2::text, $3::text::integer, $4::text, $5::text) "
                + "ON CONFLICT (file, name) DO UPDATE SET attr = EXCLUDED.attr, justify = EXCLUDED.justify, idx = EXCLUDED.idx",
            {file, name, attr, justify == Justify::Right ? "R" : "L", index}, context);
        m_dictionaries.erase(fileName);
        if (!index.empty()) {
            runCommand("CREATE TABLE " + quoteIdent(index) + "(value bytea NOT NULL, key bytea NOT NULL, PRIMARY KEY(value, key))", context);
            DictName only;
            only.name = std::string(name);
            only.attribute = attribute;
            only.indexTable = index;
            const std::vector<DictName> names{only};
            std::vector<std::pair<std::string, std::string>> records;
            forEach(file, [&](std::string_view key, std::string_view record) { records.emplace_back(key, record); });
            for (const auto& [key, record] : records) {
                indexRecord(names, key, std::nullopt, record);
            }
        }
    });
    m_dictionaries.erase(std::string(file));
}

std::string PgEngine::storedKey(std::string_view file, std::string_view key) const
{
    if (isTempoKey(file, key)) {
        return std::string(key) + "@" + (m_session.empty() ? m_defaultSession : m_session);
    }
    return std::string(key);
}

void PgEngine::forget(std::string_view file)
{
    if (const auto found = m_cache.find(std::string(file)); found != m_cache.end()) {
        m_cache.erase(found);
    }
}

std::optional<std::string> PgEngine::read(std::string_view file, std::string_view key)
{
    requireFile(file, "read " + std::string(file));
    const std::string stored = storedKey(file, key);
    // The cache holds committed records only: inside a transaction read the server.
    if (m_depth == 0 && m_cacheLimit > 0 && file != "TEMPO" && !m_largeFiles.contains(file)) {
        drainNotifications();
        auto found = m_cache.find(std::string(file));
        if (found == m_cache.end()) {
            const std::string limit = std::to_string(m_cacheLimit + 1);
            auto result = runPrepared("SELECT key, record FROM " + quoteIdent(file) + " LIMIT $1::text::bigint", {limit},
                "read " + std::string(file));
            const int rows = PQntuples(result.get());
            if (static_cast<std::size_t>(rows) > m_cacheLimit) {
                m_largeFiles.emplace(file);
            } else {
                CachedFile cached;
                cached.records.reserve(static_cast<std::size_t>(rows));
                for (int row = 0; row < rows; ++row) {
                    cached.records.emplace(std::string(cell(result.get(), row, 0)), std::string(cell(result.get(), row, 1)));
                }
                found = m_cache.emplace(std::string(file), std::move(cached)).first;
            }
        }
        if (found != m_cache.end()) {
            const auto record = found->second.records.find(stored);
            if (record == found->second.records.end()) {
                return std::nullopt;
            }
            return record->second;
        }
    }
    auto result = runPrepared("SELECT record FROM " + quoteIdent(file) + " WHERE key = $1::bytea", {stored},
        "read " + std::string(file) + " \"" + std::string(key) + "\"");
    if (PQntuples(result.get()) == 0) {
        return std::nullopt;
    }
    return std::string(cell(result.get(), 0, 0));
}

void PgEngine::forEach(std::string_view file, const std::function<void(std::string_view, std::string_view)>& visit)
{
    requireFile(file, "read " + std::string(file));
    // A cursor, so a large file never sits whole in memory; visit may use the
    // engine between batches.
    transaction([&] {
        runCommand("DECLARE \"calvarine#each\" NO SCROLL CURSOR FOR SELECT key, record FROM " + quoteIdent(file) + " ORDER BY key",
            "read " + std::string(file));
        while (true) {
            auto batch = run("FETCH 5000 FROM \"calvarine#each\"", {}, "read " + std::string(file));
            const int rows = PQntuples(batch.get());
            for (int row = 0; row < rows; ++row) {
                visit(cell(batch.get(), row, 0), cell(batch.get(), row, 1));
            }
            if (rows < 5000) {
                break;
            }
        }
        runCommand("CLOSE \"calvarine#each\"", "read " + std::string(file));
    });
}

void PgEngine::indexRecord(const std::vector<DictName>& names, std::string_view key, std::optional<std::string_view> oldRecord,
    std::string_view newRecord)
{
    for (const auto& name : names) {
        if (name.indexTable.empty()) {
            continue;
        }
        const auto newValues = sentence::distinctValues(sentence::attributeOf(newRecord, name.attribute));
        std::vector<std::string_view> oldValues;
        if (oldRecord) {
            oldValues = sentence::distinctValues(sentence::attributeOf(*oldRecord, name.attribute));
            if (oldValues == newValues) {
                continue;
            }
        }
        const std::string table = quoteIdent(name.indexTable);
        for (const auto value : oldValues) {
            if (!std::binary_search(newValues.begin(), newValues.end(), value)) {
                runPrepared("DELETE FROM " + table + " WHERE value = $1::bytea AND key = $2::bytea", {value, key}, "index " + name.indexTable);
            }
        }
        for (const auto value : newValues) {
            if (!std::binary_search(oldValues.begin(), oldValues.end(), value)) {
                runPrepared("INSERT INTO " + table + "(value, key) VALUES($1::bytea, $2::bytea) ON CONFLICT DO NOTHING", {value, key},
                    "index " + name.indexTable);
            }
        }
    }
}

void PgEngine::write(std::string_view file, std::string_view key, std::string_view record)
{
    const std::string context = "write " + std::string(file) + " \"" + std::string(key) + "\"";
    checkKey(key, context);
    const std::string stored = storedKey(file, key);
    const std::string upsert = "INSERT INTO " + quoteIdent(file)
        + "(key, record) VALUES($1::bytea, $2::bytea) ON CONFLICT (key) DO UPDATE SET record = EXCLUDED.record";
    forget(file);
    if (fileExists(file)) {
        const auto& names = dictionaryOf(std::string(file));
        if (std::none_of(names.begin(), names.end(), [](const DictName& n) { return !n.indexTable.empty(); })) {
            // One statement: atomic on its own.
            runPrepared(upsert, {stored, record}, context);
            return;
        }
    }
    transaction([&] {
        createFile(file);
        const auto names = dictionaryOf(std::string(file));
        // The index changes come from the record this write replaces, read under
        // the row's lock, so two writers of one key never leave the index astray.
        const std::string table = quoteIdent(file);
        auto inserted = runPrepared("INSERT INTO " + table + "(key, record) VALUES($1::bytea, $2::bytea) ON CONFLICT (key) DO NOTHING RETURNING 1",
            {stored, record}, context);
        if (PQntuples(inserted.get()) > 0) {
            indexRecord(names, stored, std::nullopt, record);
            return;
        }
        auto old = runPrepared("WITH old AS (SELECT record FROM " + table + " WHERE key = $1::bytea FOR UPDATE) UPDATE " + table
                + " AS t SET record = $2::bytea FROM old WHERE t.key = $1::bytea RETURNING old.record",
            {stored, record}, context);
        if (PQntuples(old.get()) == 0) {
            // Removed between the two statements: write it anew.
            runPrepared(upsert, {stored, record}, context);
            indexRecord(names, stored, std::nullopt, record);
            return;
        }
        indexRecord(names, stored, cell(old.get(), 0, 0), record);
    });
}

bool PgEngine::remove(std::string_view file, std::string_view key)
{
    if (!fileExists(file)) {
        return false;
    }
    const std::string stored = storedKey(file, key);
    const std::string context = "delete " + std::string(file) + " \"" + std::string(key) + "\"";
    forget(file);
    bool removed = false;
    transaction([&] {
        const auto names = dictionaryOf(std::string(file));
        auto old = runPrepared("DELETE FROM " + quoteIdent(file) + " WHERE key = $1::bytea RETURNING record", {stored}, context);
        if (PQntuples(old.get()) == 0) {
            return;
        }
        removed = true;
        const auto record = cell(old.get(), 0, 0);
        for (const auto& name : names) {
            if (name.indexTable.empty()) {
                continue;
            }
            for (const auto value : sentence::distinctValues(sentence::attributeOf(record, name.attribute))) {
                runPrepared("DELETE FROM " + quoteIdent(name.indexTable) + " WHERE value = $1::bytea AND key = $2::bytea", {value, stored},
                    "index " + name.indexTable);
            }
        }
    });
    return removed;
}

namespace {

Plan plan(const sentence::Parsed& parsed, const std::vector<DictName>& names, const std::vector<int>& attributes)
{
    const ResolvedSentence resolved = resolveSentence(parsed, names);
    const auto& conditions = resolved.conditions;
    Plan out;
    out.sorts = resolved.sorts;
    const std::size_t driver = resolved.driver;
    auto allEqual = [&](std::size_t i) { return isEquality(parsed.conditions[i]); };

    auto& binds = out.query.binds;
    const std::string table = quoteIdent(parsed.file);
    std::string from = table + " AS t";
    std::vector<std::string> where;
    for (std::size_t i = 0; i < conditions.size(); ++i) {
        const auto& alts = parsed.conditions[i].alternatives;
        if (conditions[i].attribute == 0) {
            where.push_back(rangeTest("t.key", alts, binds));
        } else if (!conditions[i].indexTable.empty() && (i == driver || allEqual(i))) {
            // The index table answers it: the planner walks its (value, key) range
            // when it drives, or probes it per key otherwise.
            where.push_back("t.key IN (SELECT x.key FROM " + quoteIdent(conditions[i].indexTable) + " AS x WHERE "
                + rangeTest("x.value", alts, binds) + ")");
        } else {
            out.residual.emplace_back(conditions[i].attribute, &parsed.conditions[i]);
        }
    }

    const bool wantRecord = !out.residual.empty() || std::any_of(attributes.begin(), attributes.end(), [](int a) { return a > 0; });
    std::string columns = "t.key";
    if (wantRecord) {
        columns += ", t.record";
        out.record = true;
    }
    int column = wantRecord ? 2 : 1;
    for (const auto& sort : out.sorts) {
        if (sort.attribute == 0 || wantRecord) {
            out.sortColumns.push_back(-1);
            continue;
        }
        columns += ", \"calvarine#attr\"(t.record, " + std::to_string(sort.attribute) + ")";
        out.sortColumns.push_back(column++);
    }
    out.query.sql = "SELECT " + columns + " FROM " + from;
    for (std::size_t i = 0; i < where.size(); ++i) {
        out.query.sql += (i ? " AND " : " WHERE ") + where[i];
    }
    out.query.sql += " ORDER BY t.key";
    out.query.readsRecord = wantRecord;
    return out;
}

} // namespace

CompiledQuery PgEngine::compile(const sentence::Parsed& parsed, const std::vector<int>& attributes)
{
    requireFile(parsed.file, "SSELECT " + parsed.file);
    return plan(parsed, dictionaryOf(parsed.file), attributes).query;
}

DbaDynArray PgEngine::select(std::string_view sentenceText, std::string_view attributeList)
{
    const auto parsed = sentence::parse(sentenceText);
    const auto attributes = sentence::parseAttributeList(attributeList);
    if (!fileExists(parsed.file)) {
        throw DbaError(DbaError::Kind::NoFile, "SSELECT " + parsed.file,
            "no file \"" + parsed.file + "\" at word " + std::to_string(parsed.fileWord.number) + " (column "
                + std::to_string(parsed.fileWord.column) + ")");
    }
    const auto planned = plan(parsed, dictionaryOf(parsed.file), attributes);
    Params params(planned.query.binds.begin(), planned.query.binds.end());
    if (!m_prepared.contains(planned.query.sql) && ++m_sentenceStatements > kMaxSentenceStatements) {
        // Sentences of many shapes: start again rather than fill the server's memory.
        runCommand("DEALLOCATE ALL", "SSELECT " + parsed.file);
        m_prepared.clear();
        m_sentenceStatements = 1;
    }
    auto result = runPrepared(planned.query.sql, params, "SSELECT " + parsed.file);

    struct Row {
        std::string_view key;
        std::string_view record;
        int row = 0;
    };
    const int count = PQntuples(result.get());
    std::vector<Row> rows;
    rows.reserve(static_cast<std::size_t>(count));
    for (int row = 0; row < count; ++row) {
        Row entry{cell(result.get(), row, 0), planned.record ? cell(result.get(), row, 1) : std::string_view(), row};
        bool kept = std::all_of(planned.residual.begin(), planned.residual.end(), [&](const auto& test) {
            const auto attribute = sentence::attributeOf(entry.record, test.first);
            return std::any_of(test.second->alternatives.begin(), test.second->alternatives.end(),
                [&](const sentence::Alternative& a) { return sentence::anyValueMatches(attribute, a.value, a.prefix); });
        });
        if (kept && parsed.file == "TEMPO") {
            // Another session's working records are not this one's to see.
            const auto at = entry.key.find('@');
            kept = at == std::string_view::npos || !isTempoKey("TEMPO", entry.key.substr(0, at))
                || entry.key.substr(at + 1) == (m_session.empty() ? m_defaultSession : m_session);
        }
        if (kept) {
            rows.push_back(entry);
        }
    }
    if (!planned.sorts.empty()) {
        auto sortValue = [&](const Row& row, std::size_t k) -> std::string_view {
            const auto& sort = planned.sorts[k];
            if (sort.attribute == 0) {
                return row.key;
            }
            if (planned.sortColumns[k] < 0) {
                return sentence::attributeOf(row.record, sort.attribute);
            }
            return cell(result.get(), row.row, planned.sortColumns[k]);
        };
        // Rows come in key order and the sort is stable: ties stay in key order.
        std::stable_sort(rows.begin(), rows.end(), [&](const Row& a, const Row& b) {
            for (std::size_t k = 0; k < planned.sorts.size(); ++k) {
                const auto x = sortValue(a, k);
                const auto y = sortValue(b, k);
                const int order = planned.sorts[k].justify == Justify::Right ? sentence::compareRight(x, y) : x.compare(y);
                if (order != 0) {
                    return order < 0;
                }
            }
            return false;
        });
    }

    std::string out;
    bool first = true;
    for (const auto& row : rows) {
        if (!first) {
            out += DbaDynArray::kAttributeMark;
        }
        first = false;
        for (std::size_t k = 0; k < attributes.size(); ++k) {
            if (k) {
                out += DbaDynArray::kValueMark;
            }
            if (attributes[k] == 0) {
                // Working records of a session show under the key the session wrote.
                const auto at = parsed.file == "TEMPO" ? row.key.find('@') : std::string_view::npos;
                out += at != std::string_view::npos && isTempoKey("TEMPO", row.key.substr(0, at)) ? row.key.substr(0, at) : row.key;
            } else {
                out += sentence::attributeOf(row.record, attributes[k]);
            }
        }
    }
    return DbaDynArray(std::move(out));
}

std::int64_t PgEngine::enqueueCommand(std::string_view sentence, std::string_view user, std::string_view session)
{
    const std::string scope = session.empty() ? (m_session.empty() ? m_defaultSession : m_session) : std::string(session);
    auto result = runPrepared(std::string("INSERT INTO ") + kCommandTable + "(sentence, username, session) VALUES($1::bytea, $2::text, $3::text) "
            + "RETURNING id::text",
        {sentence, user, scope}, "Execute P");
    return std::stoll(std::string(cell(result.get(), 0, 0)));
}

std::optional<CommandOutcome> PgEngine::awaitCommand(std::int64_t id, std::chrono::milliseconds timeout)
{
    listen(kDoneChannel, m_listeningDone);
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    const std::string number = std::to_string(id);
    while (true) {
        m_doneSignal = false;
        auto state = runPrepared(std::string("SELECT state, coalesce(message, '') FROM ") + kCommandTable + " WHERE id = $1::text::bigint",
            {number}, "Execute P");
        if (PQntuples(state.get()) == 0) {
            throw DbaError(DbaError::Kind::CommandFailed, "Execute P", "the command " + number + " left the queue");
        }
        const auto status = cell(state.get(), 0, 0);
        if (status == "done" || status == "failed") {
            return CommandOutcome{status == "done", std::string(cell(state.get(), 0, 1))};
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            // Withdrawn unless a worker has it: a late run would leave records
            // nobody waits for.
            run(std::string("UPDATE ") + kCommandTable + " SET state = 'abandoned', done_at = now() WHERE id = $1::text::bigint AND state = 'queued'",
                {number}, "Execute P");
            return std::nullopt;
        }
        // Woken by a notification, or every second to be safe.
        const auto slice = std::min(deadline, std::chrono::steady_clock::now() + std::chrono::seconds(1));
        while (!m_doneSignal && waitForSocket(slice)) {
            drainNotifications();
        }
    }
}

std::optional<QueuedCommand> PgEngine::claimCommand(std::string_view worker, std::chrono::seconds lease)
{
    const std::string seconds = std::to_string(lease.count());
    auto result = runPrepared(std::string("UPDATE ") + kCommandTable
            + " SET state = 'running', attempt = attempt + 1, worker = $1::text, "
              "lease_until = clock_timestamp() + make_interval(secs => $2::text::integer) "
              "WHERE id = (SELECT id FROM "
            + kCommandTable
            + " WHERE state = 'queued' OR (state = 'running' AND lease_until < clock_timestamp()) "
              "ORDER BY id LIMIT 1 FOR UPDATE SKIP LOCKED) "
              "RETURNING id::text, attempt::text, sentence, username, session",
        {worker, seconds}, "claim a command");
    if (PQntuples(result.get()) == 0) {
        return std::nullopt;
    }
    QueuedCommand command;
    command.id = std::stoll(std::string(cell(result.get(), 0, 0)));
    command.attempt = std::stoi(std::string(cell(result.get(), 0, 1)));
    command.sentence = std::string(cell(result.get(), 0, 2));
    command.user = std::string(cell(result.get(), 0, 3));
    command.session = std::string(cell(result.get(), 0, 4));
    return command;
}

namespace {
struct ClaimLost {};
} // namespace

bool PgEngine::completeCommand(const QueuedCommand& command, const std::function<CommandOutcome()>& work)
{
    try {
        transaction([&] {
            const auto outcome = work();
            const std::string id = std::to_string(command.id);
            const std::string attempt = std::to_string(command.attempt);
            auto marked = runPrepared(std::string("UPDATE ") + kCommandTable
                    + " SET state = $3::text, message = $4::text, done_at = now(), lease_until = NULL "
                      "WHERE id = $1::text::bigint AND attempt = $2::text::integer AND state = 'running' RETURNING id",
                {id, attempt, outcome.succeeded ? "done" : "failed", outcome.message}, "complete command " + id);
            if (PQntuples(marked.get()) == 0) {
                throw ClaimLost{};
            }
        });
    } catch (const ClaimLost&) {
        return false;
    }
    return true;
}

void PgEngine::waitForCommands(std::chrono::milliseconds timeout)
{
    listen(kQueueChannel, m_listeningQueue);
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    drainNotifications();
    while (!m_queueSignal && waitForSocket(deadline)) {
        drainNotifications();
    }
    m_queueSignal = false;
}

} // namespace store
