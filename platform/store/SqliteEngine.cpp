#include "SqliteEngine.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sqlite3.h>
#include <unistd.h>

#include "database/DbaDynArray.h"
#include "database/DbaError.h"

namespace store {

using names::checkKey;
using names::hasMark;
using names::isPlainName;

namespace {

constexpr const char* kDictTable = "\"calvarine#dict\"";
constexpr std::size_t kMaxCachedSentences = 64;

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

// Resets a cached statement when the operation that used it ends, however it ends.
class Use {
public:
    explicit Use(sqlite3_stmt* statement)
        : m_statement(statement)
    {
    }
    ~Use()
    {
        sqlite3_reset(m_statement);
        sqlite3_clear_bindings(m_statement);
    }
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;
    sqlite3_stmt* get() const { return m_statement; }

private:
    sqlite3_stmt* m_statement;
};

// A null pointer would bind NULL; an empty text must stay a text.
void bindText(sqlite3_stmt* statement, int index, std::string_view text)
{
    sqlite3_bind_text(statement, index, text.data() ? text.data() : "", static_cast<int>(text.size()), SQLITE_TRANSIENT);
}

std::string_view columnText(sqlite3_stmt* statement, int column)
{
    const auto* data = static_cast<const char*>(sqlite3_column_blob(statement, column));
    const int size = sqlite3_column_bytes(statement, column);
    return data ? std::string_view(data, static_cast<std::size_t>(size)) : std::string_view();
}

std::string_view valueText(sqlite3_value* value)
{
    const auto* data = static_cast<const char*>(sqlite3_value_blob(value));
    const int size = sqlite3_value_bytes(value);
    return data ? std::string_view(data, static_cast<std::size_t>(size)) : std::string_view();
}

// calv_attr(record, n): attribute n of a record, as text (compared byte by byte).
void attrFunction(sqlite3_context* context, int, sqlite3_value** argv)
{
    const auto attribute = sentence::attributeOf(valueText(argv[0]), sqlite3_value_int(argv[1]));
    sqlite3_result_text(context, attribute.data() ? attribute.data() : "", static_cast<int>(attribute.size()), SQLITE_TRANSIENT);
}

// calv_has(record, n, value, prefix): some value of attribute n matches.
void hasFunction(sqlite3_context* context, int, sqlite3_value** argv)
{
    const auto attribute = sentence::attributeOf(valueText(argv[0]), sqlite3_value_int(argv[1]));
    sqlite3_result_int(context, sentence::anyValueMatches(attribute, valueText(argv[2]), sqlite3_value_int(argv[3]) != 0));
}

// Equal under SQLite's folding of identifiers: ASCII letters only.
bool sameIgnoringCase(std::string_view a, std::string_view b)
{
    const auto fold = [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; };
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [&](char x, char y) { return fold(x) == fold(y); });
}

int rightCollation(void*, int sizeA, const void* a, int sizeB, const void* b)
{
    return sentence::compareRight(std::string_view(static_cast<const char*>(a), static_cast<std::size_t>(sizeA)),
        std::string_view(static_cast<const char*>(b), static_cast<std::size_t>(sizeB)));
}

} // namespace

void SqliteEngine::Finalize::operator()(sqlite3_stmt* statement) const
{
    sqlite3_finalize(statement);
}

SqliteEngine::SqliteEngine(const std::filesystem::path& file, OpenMode mode)
    : m_path(file)
{
    const auto refuse = [&](const std::string& cause) {
        throw DbaError(DbaError::Kind::NotConnected, "open " + file.string(), cause);
    };
    std::error_code error;
    const auto status = std::filesystem::status(file, error);
    const bool missing = status.type() == std::filesystem::file_type::not_found;
    if (missing && mode == OpenMode::Existing) {
        const auto folder = file.parent_path();
        if (!folder.empty() && !std::filesystem::is_directory(folder, error)) {
            refuse("no such folder " + folder.string());
        }
        refuse("no such database file");
    }
    if (!missing && error) {
        refuse(error.message());
    }
    if (status.type() == std::filesystem::file_type::directory) {
        refuse("a folder, not a database file");
    }
    if (missing && file.has_parent_path()) {
        std::filesystem::create_directories(file.parent_path(), error);
        if (error) {
            refuse("cannot create the folder " + file.parent_path().string() + ": " + error.message());
        }
    }
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | (missing ? SQLITE_OPEN_CREATE : 0);
    const int rc = sqlite3_open_v2(file.c_str(), &m_db, flags, nullptr);
    try {
        if (rc != SQLITE_OK) {
            refuse(m_db ? sqlite3_errmsg(m_db) : sqlite3_errstr(rc));
        }
        // Idle and age bounds: far above the gaps between the reads of one
        // operation (microseconds), far below an operator's pause.
        m_snapshot = std::make_unique<ReadSnapshot>(m_db, std::chrono::milliseconds(20), std::chrono::milliseconds(200));
        // SQLite quietly opens a write-protected file for reading only; the
        // screen writes its working records, so say so now rather than later.
        if (sqlite3_db_readonly(m_db, "main") == 1) {
            refuse(std::string("read-only: ") + (access(file.c_str(), W_OK) != 0 ? std::strerror(errno) : "cannot be written"));
        }
        sqlite3_busy_timeout(m_db, 10000);
        sqlite3_extended_result_codes(m_db, 1);
        // One read (a shared lock, never the write lock) tells a database of the
        // store from an empty file, another program's database or no database.
        int tables = 0;
        bool ours = false;
        {
            sqlite3_stmt* statement = prepareOrNull("SELECT name = 'calvarine#dict' FROM sqlite_schema WHERE type = 'table'");
            if (!statement) {
                refuse(sqlite3_errmsg(m_db));
            }
            Use use(statement);
            int step;
            while ((step = sqlite3_step(statement)) == SQLITE_ROW) {
                ++tables;
                ours = ours || sqlite3_column_int(statement, 0) != 0;
            }
            if (step != SQLITE_DONE) {
                refuse(sqlite3_errmsg(m_db));
            }
        }
        if (!ours && (mode == OpenMode::Existing || tables > 0)) {
            refuse(tables > 0 ? "not a database of this application (no dictionary table)" : "an empty file, not a database");
        }
        constexpr int functionFlags = SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS;
        sqlite3_create_function_v2(m_db, "calv_attr", 2, functionFlags, nullptr, attrFunction, nullptr, nullptr, nullptr);
        sqlite3_create_function_v2(m_db, "calv_has", 4, functionFlags, nullptr, hasFunction, nullptr, nullptr, nullptr);
        sqlite3_create_collation_v2(m_db, "calv_right", SQLITE_UTF8, nullptr, rightCollation, nullptr);
        // DBWrite promises durability: every commit reaches the disk.
        exec("PRAGMA synchronous=FULL");
        // Index tables take inserts all over their range; a larger cache keeps
        // big imports from re-reading pages.
        exec("PRAGMA cache_size=-65536");
        if (!ours) {
            // Readers then never wait for a writer, nor a writer for readers.
            exec("PRAGMA journal_mode=WAL");
            transaction([this] {
                exec("CREATE TABLE IF NOT EXISTS \"calvarine#dict\"(file TEXT NOT NULL, name TEXT NOT NULL, "
                     "attr INTEGER NOT NULL, justify TEXT NOT NULL DEFAULT 'L', PRIMARY KEY(file, name)) WITHOUT ROWID");
            });
        }
    } catch (...) {
        m_snapshot.reset();
        m_statements.clear();
        sqlite3_close_v2(m_db);
        m_db = nullptr;
        if (missing) {
            // Nothing is left of a database that could not be made.
            for (const char* suffix : {"", "-wal", "-shm", "-journal"}) {
                std::filesystem::remove(file.string() + suffix, error);
            }
        }
        throw;
    }
}

SqliteEngine::~SqliteEngine()
{
    m_snapshot.reset();
    m_statements.clear();
    m_sentences.clear();
    sqlite3_close_v2(m_db);
}

void SqliteEngine::fail(const std::string& context) const
{
    throw DbaError(DbaError::Kind::Storage, context, sqlite3_errmsg(m_db));
}

void SqliteEngine::exec(const char* sql)
{
    char* message = nullptr;
    if (sqlite3_exec(m_db, sql, nullptr, nullptr, &message) != SQLITE_OK) {
        std::string detail = message ? message : sqlite3_errmsg(m_db);
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

sqlite3_stmt* SqliteEngine::prepareSentence(const std::string& sql)
{
    if (const auto found = m_sentences.find(sql); found != m_sentences.end()) {
        return found->second.get();
    }
    // Only one sentence statement runs at a time, so dropping them all is safe.
    if (m_sentences.size() >= kMaxCachedSentences) {
        m_sentences.clear();
    }
    sqlite3_stmt* raw = nullptr;
    if (sqlite3_prepare_v3(m_db, sql.c_str(), static_cast<int>(sql.size()), SQLITE_PREPARE_PERSISTENT, &raw, nullptr) != SQLITE_OK) {
        fail("SSELECT");
    }
    return m_sentences.emplace(sql, StatementPtr(raw)).first->second.get();
}

void SqliteEngine::setSyncEveryCommit(bool sync)
{
    const auto hold = holding();
    m_snapshot->end();
    exec(sync ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=NORMAL");
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
        // Nested: a savepoint, so a failure undoes only this part.
        exec("SAVEPOINT calvarine");
        ++m_depth;
        try {
            work();
        } catch (...) {
            --m_depth;
            sqlite3_exec(m_db, "ROLLBACK TO calvarine; RELEASE calvarine", nullptr, nullptr, nullptr);
            throw;
        }
        --m_depth;
        exec("RELEASE calvarine");
        return;
    }
    // IMMEDIATE takes the write lock first (waiting up to the busy timeout), so
    // two writers never deadlock upgrading a read lock; the snapshot ends first,
    // so the write starts from the newest state.
    m_snapshot->end();
    exec("BEGIN IMMEDIATE");
    m_depth = 1;
    try {
        refreshSchema();
        work();
        m_depth = 0;
        exec("COMMIT");
    } catch (...) {
        m_depth = 0;
        if (!sqlite3_get_autocommit(m_db)) {
            sqlite3_exec(m_db, "ROLLBACK", nullptr, nullptr, nullptr);
        }
        // Created tables and dictionary rows may be gone with the rollback.
        m_knownFiles.clear();
        m_dictionaries.clear();
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
        m_dictionaries.clear();
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
        if (attribute > 0) {
            exec(("CREATE TABLE " + table + "(value TEXT NOT NULL, key TEXT NOT NULL, PRIMARY KEY(value, key)) WITHOUT ROWID").c_str());
            DictName only;
            only.name = std::string(name);
            only.attribute = attribute;
            only.indexTable = fileName + "#" + std::string(name);
            const std::vector<DictName> names{only};
            std::vector<std::pair<std::string, std::string>> records;
            forEach(file, [&](std::string_view key, std::string_view record) { records.emplace_back(key, record); });
            for (const auto& [key, record] : records) {
                indexRecord(names, key, {}, record);
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
    bindText(statement, 1, key);
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

void SqliteEngine::indexRecord(const std::vector<DictName>& names, std::string_view key, std::string_view oldRecord,
    std::string_view newRecord)
{
    for (const auto& name : names) {
        if (name.indexTable.empty()) {
            continue;
        }
        const auto oldValues = sentence::distinctValues(sentence::attributeOf(oldRecord, name.attribute));
        const auto newValues = sentence::distinctValues(sentence::attributeOf(newRecord, name.attribute));
        const bool hadRecord = oldRecord.data() != nullptr;
        if (hadRecord && oldValues == newValues) {
            continue;
        }
        const std::string table = quoteIdent(name.indexTable);
        if (hadRecord) {
            sqlite3_stmt* erase = prepare("DELETE FROM " + table + " WHERE value = ?1 AND key = ?2");
            for (const auto value : oldValues) {
                if (std::binary_search(newValues.begin(), newValues.end(), value)) {
                    continue;
                }
                Use use(erase);
                bindText(erase, 1, value);
                bindText(erase, 2, key);
                if (sqlite3_step(erase) != SQLITE_DONE) {
                    fail("index " + name.indexTable);
                }
            }
        }
        sqlite3_stmt* insert = prepare("INSERT OR IGNORE INTO " + table + "(value, key) VALUES(?1, ?2)");
        for (const auto value : newValues) {
            if (hadRecord && std::binary_search(oldValues.begin(), oldValues.end(), value)) {
                continue;
            }
            Use use(insert);
            bindText(insert, 1, value);
            bindText(insert, 2, key);
            if (sqlite3_step(insert) != SQLITE_DONE) {
                fail("index " + name.indexTable);
            }
        }
    }
}

void SqliteEngine::write(std::string_view file, std::string_view key, std::string_view record)
{
    const std::string context = "write " + std::string(file) + " \"" + std::string(key) + "\"";
    checkKey(key, context);
    const auto hold = holding();
    transaction([&] {
        createFile(file);
        const auto& names = dictionaryOf(std::string(file));
        const bool indexed = std::any_of(names.begin(), names.end(), [](const DictName& n) { return !n.indexTable.empty(); });
        if (indexed) {
            const auto old = read(file, key);
            // data() of a default string_view is null: "no record before".
            indexRecord(names, key, old ? std::string_view(*old) : std::string_view(), record.data() ? record : std::string_view("", 0));
        }
        sqlite3_stmt* statement = prepare("INSERT OR REPLACE INTO " + quoteIdent(file) + "(key, record) VALUES(?1, ?2)");
        Use use(statement);
        bindText(statement, 1, key);
        sqlite3_bind_blob(statement, 2, record.data() ? record.data() : "", static_cast<int>(record.size()), SQLITE_TRANSIENT);
        if (sqlite3_step(statement) != SQLITE_DONE) {
            fail(context);
        }
    });
}

bool SqliteEngine::remove(std::string_view file, std::string_view key)
{
    const auto hold = holding();
    if (!fileExists(file)) {
        return false;
    }
    bool removed = false;
    transaction([&] {
        const auto old = read(file, key);
        if (!old) {
            return;
        }
        const auto& names = dictionaryOf(std::string(file));
        for (const auto& name : names) {
            if (name.indexTable.empty()) {
                continue;
            }
            sqlite3_stmt* erase = prepare("DELETE FROM " + quoteIdent(name.indexTable) + " WHERE value = ?1 AND key = ?2");
            for (const auto value : sentence::distinctValues(sentence::attributeOf(*old, name.attribute))) {
                Use use(erase);
                bindText(erase, 1, value);
                bindText(erase, 2, key);
                if (sqlite3_step(erase) != SQLITE_DONE) {
                    fail("index " + name.indexTable);
                }
            }
        }
        sqlite3_stmt* statement = prepare("DELETE FROM " + quoteIdent(file) + " WHERE key = ?1");
        Use use(statement);
        bindText(statement, 1, key);
        if (sqlite3_step(statement) != SQLITE_DONE) {
            fail("delete " + std::string(file) + " \"" + std::string(key) + "\"");
        }
        removed = sqlite3_changes(m_db) > 0;
    });
    return removed;
}

namespace {

// SQL for "some alternative holds" on the key column.
std::string keyTest(const std::string& column, const sentence::Condition& condition, std::vector<std::string>& binds)
{
    std::string sql = "(";
    bool first = true;
    for (const auto& alternative : condition.alternatives) {
        sql += first ? "" : " OR ";
        first = false;
        if (!alternative.prefix) {
            binds.push_back(alternative.value);
            sql += column + " = ?" + std::to_string(binds.size());
            continue;
        }
        binds.push_back(alternative.value);
        sql += "(" + column + " >= ?" + std::to_string(binds.size());
        const auto upper = sentence::prefixUpperBound(alternative.value);
        if (!upper.empty()) {
            binds.push_back(upper);
            sql += " AND " + column + " < ?" + std::to_string(binds.size());
        }
        sql += ")";
    }
    return sql + ")";
}

std::string valueTest(const std::string& column, const sentence::Alternative& alternative, std::vector<std::string>& binds)
{
    sentence::Condition condition;
    condition.alternatives.push_back(alternative);
    return keyTest(column, condition, binds);
}

} // namespace

CompiledQuery SqliteEngine::compile(const sentence::Parsed& parsed, bool wantRecord)
{
    if (!fileExists(parsed.file)) {
        throw DbaError(DbaError::Kind::NoFile, "SSELECT " + parsed.file,
            "no file \"" + parsed.file + "\" at word " + std::to_string(parsed.fileWord.number) + " (column "
                + std::to_string(parsed.fileWord.column) + ")");
    }
    refreshSchema();
    const auto& names = dictionaryOf(parsed.file);

    const ResolvedSentence resolved = resolveSentence(parsed, names);
    const auto& conditions = resolved.conditions;
    const auto& sorts = resolved.sorts;
    const std::size_t none = conditions.size();
    const std::size_t driver = resolved.driver;

    // A single key condition narrows an index driver's range as well.
    std::size_t pushedKey = none;
    if (driver != none && conditions[driver].attribute > 0) {
        for (std::size_t i = 0; i < conditions.size(); ++i) {
            if (conditions[i].attribute == 0 && parsed.conditions[i].alternatives.size() == 1) {
                pushedKey = i;
                break;
            }
        }
    }

    CompiledQuery query;
    auto& binds = query.binds;
    const std::string table = quoteIdent(parsed.file);
    std::string from;
    std::vector<std::string> where;
    std::string keyColumn = "t.key";
    if (driver != none && conditions[driver].attribute > 0) {
        const auto index = quoteIdent(conditions[driver].indexTable);
        const auto& alts = parsed.conditions[driver].alternatives;
        if (alts.size() == 1 && !alts.front().prefix) {
            // One value: walk the index range, then fetch each record by key. A
            // begins-with could meet several values of one record, so it goes below.
            from = index + " AS i CROSS JOIN " + table + " AS t";
            where.push_back(valueTest("i.value", alts.front(), binds));
            if (pushedKey != none) {
                where.push_back(keyTest("i.key", parsed.conditions[pushedKey], binds));
            }
            where.push_back("t.key = i.key");
            keyColumn = "i.key";
        } else {
            // A key may match more than one value, so gather distinct keys.
            from = table + " AS t";
            std::string in = "t.key IN (";
            for (std::size_t a = 0; a < alts.size(); ++a) {
                in += a ? " UNION SELECT key FROM " : "SELECT key FROM ";
                in += index + " WHERE " + valueTest("value", alts[a], binds);
                if (pushedKey != none) {
                    in += " AND " + keyTest("key", parsed.conditions[pushedKey], binds);
                }
            }
            where.push_back(in + ")");
        }
    } else {
        from = table + " AS t";
    }
    for (std::size_t i = 0; i < conditions.size(); ++i) {
        if (i == driver && conditions[i].attribute > 0) {
            continue;
        }
        if (i == pushedKey) {
            continue;
        }
        if (conditions[i].attribute == 0) {
            where.push_back(keyTest("t.key", parsed.conditions[i], binds));
            continue;
        }
        std::string test = "(";
        const auto& alts = parsed.conditions[i].alternatives;
        for (std::size_t a = 0; a < alts.size(); ++a) {
            binds.push_back(alts[a].value);
            test += (a ? " OR " : "") + std::string("calv_has(t.record, ") + std::to_string(conditions[i].attribute) + ", ?"
                + std::to_string(binds.size()) + (alts[a].prefix ? ", 1)" : ", 0)");
        }
        where.push_back(test + ")");
        query.readsRecord = true;
    }

    std::string order;
    bool endsOnKey = false;
    for (const auto& sort : sorts) {
        order += order.empty() ? "" : ", ";
        const std::string collate = sort.justify == Justify::Right ? " COLLATE calv_right" : "";
        if (sort.attribute == 0) {
            order += keyColumn + collate;
            endsOnKey = collate.empty();
        } else {
            order += "calv_attr(t.record, " + std::to_string(sort.attribute) + ")" + collate;
            endsOnKey = false;
            query.readsRecord = true;
        }
    }
    if (!endsOnKey) {
        order += (order.empty() ? "" : ", ") + keyColumn;
    }

    query.readsRecord = query.readsRecord || wantRecord;
    query.sql = "SELECT " + keyColumn + (wantRecord ? ", t.record" : "") + " FROM " + from;
    for (std::size_t i = 0; i < where.size(); ++i) {
        query.sql += (i ? " AND " : " WHERE ") + where[i];
    }
    query.sql += " ORDER BY " + order;
    return query;
}

DbaDynArray SqliteEngine::select(std::string_view sentenceText, std::string_view attributeList)
{
    const auto parsed = sentence::parse(sentenceText);
    const auto attributes = sentence::parseAttributeList(attributeList);
    const bool wantRecord = std::any_of(attributes.begin(), attributes.end(), [](int a) { return a > 0; });
    const auto hold = reading();
    const auto query = compile(parsed, wantRecord);

    sqlite3_stmt* statement = prepareSentence(query.sql);
    Use use(statement);
    for (std::size_t i = 0; i < query.binds.size(); ++i) {
        sqlite3_bind_text(statement, static_cast<int>(i + 1), query.binds[i].data(), static_cast<int>(query.binds[i].size()), SQLITE_STATIC);
    }
    std::string out;
    bool first = true;
    int rc;
    while ((rc = sqlite3_step(statement)) == SQLITE_ROW) {
        if (!first) {
            out += DbaDynArray::kAttributeMark;
        }
        first = false;
        const auto key = columnText(statement, 0);
        const auto record = wantRecord ? columnText(statement, 1) : std::string_view();
        for (std::size_t k = 0; k < attributes.size(); ++k) {
            if (k) {
                out += DbaDynArray::kValueMark;
            }
            out += attributes[k] == 0 ? key : sentence::attributeOf(record, attributes[k]);
        }
    }
    if (rc != SQLITE_DONE) {
        fail("SSELECT " + parsed.file);
    }
    return DbaDynArray(std::move(out));
}

} // namespace store
