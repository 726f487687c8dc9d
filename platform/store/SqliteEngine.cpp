#include "SqliteEngine.h"

#include <cerrno>

#include <algorithm>
#include <sqlite3.h>

#include "SqliteStatement.h"
#include "database/DbaError.h"

namespace store {

using names::isPlainName;
using sqlite::bindText;
using sqlite::columnText;
using sqlite::Use;

namespace {

constexpr const char* kDictTable = "\"calvarine#dict\"";

// Equal under SQLite's folding of identifiers: ASCII letters only.
bool sameIgnoringCase(std::string_view a, std::string_view b)
{
    const auto fold = [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; };
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [&](char x, char y) { return fold(x) == fold(y); });
}

} // namespace

void SqliteEngine::Finalize::operator()(sqlite3_stmt* statement) const
{
    sqlite3_finalize(statement);
}

std::string SqliteEngine::failure(sqlite3* db, std::string_view said)
{
    std::string detail(said.empty() ? std::string_view(sqlite3_errmsg(db)) : said);
    // A full or read-only disk reaches SQLite as a write that failed: "disk I/O
    // error" or "attempt to write a readonly database" say neither plainly.
    const int code = sqlite3_extended_errcode(db);
    const int system = sqlite3_system_errno(db);
    if ((code & 0xFF) == SQLITE_FULL || system == ENOSPC || system == EDQUOT) {
        return "the disk is full (" + detail + ")";
    }
    if ((code & 0xFF) == SQLITE_READONLY || system == EROFS) {
        return "the database is read-only: it can be read, not changed (" + detail + ")";
    }
    return detail;
}

void SqliteEngine::fail(const std::string& context) const
{
    throw DbaError(DbaError::Kind::Storage, context, failure(m_db));
}

void SqliteEngine::exec(const char* sql)
{
    char* message = nullptr;
    if (sqlite3_exec(m_db, sql, nullptr, nullptr, &message) != SQLITE_OK) {
        std::string detail = failure(m_db, message ? message : "");
        sqlite3_free(message);
        throw DbaError(DbaError::Kind::Storage, sql, detail);
    }
}

sqlite3_stmt* SqliteEngine::prepare(const std::string& sql)
{
    if (const auto found = m_statements.find(sql); found != m_statements.end()) {
        return found->second.get();
    }
    sqlite3_stmt* raw = nullptr;
    if (sqlite3_prepare_v3(m_db, sql.c_str(), static_cast<int>(sql.size()), SQLITE_PREPARE_PERSISTENT, &raw, nullptr) != SQLITE_OK) {
        fail("prepare " + sql);
    }
    return m_statements.emplace(sql, StatementPtr(raw)).first->second.get();
}

sqlite3_stmt* SqliteEngine::prepareOrNull(const std::string& sql)
{
    sqlite3_stmt* raw = nullptr;
    if (sqlite3_prepare_v3(m_db, sql.c_str(), static_cast<int>(sql.size()), 0, &raw, nullptr) != SQLITE_OK) {
        sqlite3_finalize(raw);
        return nullptr;
    }
    return m_statements.emplace(sql, StatementPtr(raw)).first->second.get();
}

void SqliteEngine::setSyncEveryCommit(bool sync)
{
    const auto hold = holding();
    m_snapshot->end();
    exec(sync ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=NORMAL");
    // Each write of a load is a savepoint inside the batch's transaction, and a
    // savepoint journals the pages it changes: in memory, not in a temporary file
    // written at every write (most of a load's time otherwise).
    exec(sync ? "PRAGMA temp_store=DEFAULT" : "PRAGMA temp_store=MEMORY");
    m_loading = !sync;
}

std::unique_lock<std::recursive_mutex> SqliteEngine::reading()
{
    auto lock = m_snapshot->hold();
    if (m_depth == 0) {
        m_snapshot->read();
    }
    return lock;
}

void SqliteEngine::transaction(const std::function<void()>& work)
{
    const auto hold = holding();
    if (m_depth > 0) {
        // Nested: a savepoint, so a failure undoes only this part. Every write of
        // a load is one: prepared, not parsed each time.
        step(prepare("SAVEPOINT calvarine"), "SAVEPOINT calvarine");
        ++m_depth;
        try {
            work();
        } catch (...) {
            --m_depth;
            // The caller may catch this failure and go on: if the part cannot be
            // undone (or the library already ended the whole transaction, as it
            // does on some I/O errors), the enclosing transaction must not commit
            // what the part left, nor later writes run one by one outside it.
            char* message = nullptr;
            if (sqlite3_exec(m_db, "ROLLBACK TO calvarine; RELEASE calvarine", nullptr, nullptr, &message) != SQLITE_OK
                || sqlite3_get_autocommit(m_db)) {
                if (m_partLost.empty()) {
                    m_partLost = failure(m_db, message ? message : "the transaction was ended by the database library");
                }
                if (sqlite3_get_autocommit(m_db)) {
                    // What the caller writes next goes into a transaction again, to be rolled back with it.
                    sqlite3_exec(m_db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
                }
            }
            sqlite3_free(message);
            throw;
        }
        --m_depth;
        step(prepare("RELEASE calvarine"), "RELEASE calvarine");
        return;
    }
    // IMMEDIATE takes the write lock first (waiting up to the busy timeout), so
    // two writers never deadlock upgrading a read lock; the snapshot ends first,
    // so the write starts from the newest state.
    m_snapshot->end();
    exec("BEGIN IMMEDIATE");
    m_depth = 1;
    m_partLost.clear();
    try {
        refreshSchema();
        work();
        m_depth = 0;
        if (!m_partLost.empty()) {
            throw DbaError(DbaError::Kind::Storage, "COMMIT",
                "a failed part of the transaction could not be undone (" + m_partLost + "): nothing of it was written");
        }
        exec("COMMIT");
    } catch (...) {
        m_depth = 0;
        m_partLost.clear();
        if (!sqlite3_get_autocommit(m_db)) {
            sqlite3_exec(m_db, "ROLLBACK", nullptr, nullptr, nullptr);
        }
        // Created tables and dictionary rows may be gone with the rollback.
        m_knownFiles.clear();
        forgetDictionaries();
        m_reads.clear();
        throw;
    }
}

void SqliteEngine::refreshSchema()
{
    sqlite3_stmt* statement = prepare("PRAGMA schema_version");
    Use use(statement);
    if (sqlite3_step(statement) != SQLITE_ROW) {
        fail("schema version");
    }
    const int version = sqlite3_column_int(statement, 0);
    if (version != m_schemaVersion) {
        // Another connection defined names or files: read the dictionaries again.
        m_schemaVersion = version;
        forgetDictionaries();
    }
}

void SqliteEngine::checkFileName(std::string_view file)
{
    std::string lower(file.substr(0, 7));
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (!isPlainName(file) || lower == "sqlite_") {
        throw DbaError(DbaError::Kind::BadData, "file \"" + std::string(file) + "\"", "not a valid file name");
    }
}

bool SqliteEngine::fileExists(std::string_view file)
{
    if (m_knownFiles.contains(file)) {
        return true;
    }
    if (!isPlainName(file)) {
        return false;
    }
    const auto hold = reading();
    sqlite3_stmt* statement = prepare("SELECT 1 FROM sqlite_schema WHERE type = 'table' AND name = ?1");
    Use use(statement);
    bindText(statement, 1, file);
    const int rc = sqlite3_step(statement);
    if (rc == SQLITE_ROW) {
        m_knownFiles.emplace(file);
        return true;
    }
    if (rc != SQLITE_DONE) {
        fail("file " + std::string(file));
    }
    return false;
}

void SqliteEngine::createFile(std::string_view file)
{
    const auto hold = holding();
    if (fileExists(file)) {
        return;
    }
    checkFileName(file);
    // SQLite compares table names without regard to ASCII case: "f" would land
    // in the table of "F". Names stay exact, so such a name is refused.
    sqlite3_stmt* twin = prepare("SELECT name FROM sqlite_schema WHERE type = 'table' AND name = ?1 COLLATE NOCASE");
    {
        Use use(twin);
        bindText(twin, 1, file);
        const int rc = sqlite3_step(twin);
        if (rc == SQLITE_ROW) {
            throw DbaError(DbaError::Kind::BadData, "file \"" + std::string(file) + "\"",
                "file \"" + std::string(columnText(twin, 0)) + "\" exists, and names differing only in case are not told apart");
        }
        if (rc != SQLITE_DONE) {
            fail("file " + std::string(file));
        }
    }
    transaction([&] {
        exec(("CREATE TABLE IF NOT EXISTS " + quoteIdent(file) + "(key TEXT PRIMARY KEY NOT NULL, record BLOB NOT NULL) WITHOUT ROWID").c_str());
    });
    m_knownFiles.emplace(file);
}

std::vector<std::string> SqliteEngine::files()
{
    const auto hold = reading();
    std::vector<std::string> names;
    sqlite3_stmt* statement = prepare("SELECT name FROM sqlite_schema WHERE type = 'table' AND instr(name, '#') = 0 "
                                      "AND name NOT LIKE 'sqlite\\_%' ESCAPE '\\' ORDER BY name");
    Use use(statement);
    int rc;
    while ((rc = sqlite3_step(statement)) == SQLITE_ROW) {
        names.emplace_back(columnText(statement, 0));
    }
    if (rc != SQLITE_DONE) {
        fail("files");
    }
    return names;
}

const std::vector<DictName>& SqliteEngine::dictionaryOf(const std::string& file)
{
    if (const auto found = m_dictionaries.find(file); found != m_dictionaries.end()) {
        return found->second;
    }
    std::vector<DictName> names;
    sqlite3_stmt* statement = prepare("SELECT name, attr, justify FROM \"calvarine#dict\" WHERE file = ?1 ORDER BY name");
    Use use(statement);
    bindText(statement, 1, file);
    int rc;
    while ((rc = sqlite3_step(statement)) == SQLITE_ROW) {
        DictName name;
        name.name = std::string(columnText(statement, 0));
        name.attribute = sqlite3_column_int(statement, 1);
        name.justify = columnText(statement, 2) == "R" ? Justify::Right : Justify::Left;
        if (name.attribute > 0) {
            name.indexTable = file + "#" + name.name;
        }
        names.push_back(std::move(name));
    }
    if (rc != SQLITE_DONE) {
        fail("dictionary of " + file);
    }
    return m_dictionaries.emplace(file, std::move(names)).first->second;
}

std::vector<DictName> SqliteEngine::dictionary(std::string_view file)
{
    const auto hold = reading();
    refreshSchema();
    return dictionaryOf(std::string(file));
}

void SqliteEngine::defineName(std::string_view file, std::string_view name, int attribute, Justify justify)
{
    names::checkDictionaryName(file, name, attribute);
    const std::string context = "name " + std::string(name) + " of " + std::string(file);
    checkFileName(file);
    const auto hold = holding();
    transaction([&] {
        createFile(file);
        const std::string fileName(file);
        for (const auto& existing : dictionaryOf(fileName)) {
            if (existing.name == name && existing.attribute == attribute && existing.justify == justify) {
                return;
            }
            // Index tables are named after the name, and SQLite ignores case there.
            if (existing.name != name && sameIgnoringCase(existing.name, name)) {
                throw DbaError(DbaError::Kind::BadData, context,
                    "the dictionary of " + fileName + " holds \"" + existing.name
                        + "\", and names differing only in case are not told apart");
            }
        }
        const std::string table = quoteIdent(fileName + "#" + std::string(name));
        // Any change rebuilds the index table, which also changes the schema
        // version, so other connections read the dictionary again.
        exec(("DROP TABLE IF EXISTS " + table).c_str());
        sqlite3_stmt* upsert = prepare(std::string("INSERT OR REPLACE INTO ") + kDictTable + "(file, name, attr, justify) VALUES(?1, ?2, ?3, ?4)");
        {
            Use use(upsert);
            bindText(upsert, 1, file);
            bindText(upsert, 2, name);
            sqlite3_bind_int(upsert, 3, attribute);
            bindText(upsert, 4, justify == Justify::Right ? "R" : "L");
            if (sqlite3_step(upsert) != SQLITE_DONE) {
                fail(context);
            }
        }
        m_dictionaries.erase(fileName);
        m_writePlans.erase(fileName);
        if (attribute > 0) {
            exec(("CREATE TABLE " + table + "(value TEXT NOT NULL, key TEXT NOT NULL, PRIMARY KEY(value, key)) WITHOUT ROWID").c_str());
            // The records already there enter the new index, and only it.
            WritePlan only;
            only.indexes.push_back(indexStatements(attribute, fileName + "#" + std::string(name)));
            std::vector<std::pair<std::string, std::string>> records;
            forEach(file, [&](std::string_view key, std::string_view record) { records.emplace_back(key, record); });
            for (const auto& [key, record] : records) {
                indexRecord(only, key, std::nullopt, record);
            }
        }
        refreshSchema();
    });
}

std::optional<std::string> SqliteEngine::read(std::string_view file, std::string_view key)
{
    const auto hold = reading();
    auto found = m_reads.find(file);
    if (found == m_reads.end()) {
        requireFile(file, "read " + std::string(file));
        found = m_reads.emplace(std::string(file), prepare("SELECT record FROM " + quoteIdent(file) + " WHERE key = ?1")).first;
    }
    sqlite3_stmt* statement = found->second;
    Use use(statement);
    // Static: the key outlives the step, and the screen reads one per line.
    sqlite3_bind_text(statement, 1, key.data() ? key.data() : "", static_cast<int>(key.size()), SQLITE_STATIC);
    const int rc = sqlite3_step(statement);
    if (rc == SQLITE_ROW) {
        return std::string(columnText(statement, 0));
    }
    if (rc != SQLITE_DONE) {
        fail("read " + std::string(file) + " \"" + std::string(key) + "\"");
    }
    return std::nullopt;
}

void SqliteEngine::forEach(std::string_view file, const std::function<void(std::string_view, std::string_view)>& visit)
{
    const auto hold = reading();
    requireFile(file, "read " + std::string(file));
    // Not cached: visit may use the engine, and this statement must stay its own.
    sqlite3_stmt* raw = nullptr;
    const std::string sql = "SELECT key, record FROM " + quoteIdent(file) + " ORDER BY key";
    if (sqlite3_prepare_v2(m_db, sql.c_str(), -1, &raw, nullptr) != SQLITE_OK) {
        fail(sql);
    }
    StatementPtr statement(raw);
    int rc;
    while ((rc = sqlite3_step(raw)) == SQLITE_ROW) {
        visit(columnText(raw, 0), columnText(raw, 1));
    }
    if (rc != SQLITE_DONE) {
        fail(sql);
    }
}

void SqliteEngine::forgetDictionaries()
{
    m_dictionaries.clear();
    m_writePlans.clear();
}

} // namespace store
