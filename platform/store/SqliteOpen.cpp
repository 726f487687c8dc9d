#include "SqliteEngine.h"

// Opening (and, when asked, creating) the database file: the checks that tell a
// missing file, a folder, a read-only file or another program's database apart,
// the functions and collation the compiled sentences call, the schema of a new
// database. A failed opening leaves nothing behind.

#include <cerrno>
#include <cstring>
#include <unistd.h>

#include "SqliteStatement.h"
#include "database/DbaError.h"

namespace store {

using sqlite::Use;

namespace {

std::string_view valueText(sqlite3_value* value)
{
    const auto* data = static_cast<const char*>(sqlite3_value_blob(value));
    const int size = sqlite3_value_bytes(value);
    return data ? std::string_view(data, static_cast<std::size_t>(size)) : std::string_view();
}

// calv_attr(record, n): attribute n of a record, as text (compared byte by byte).
void attrFunction(sqlite3_context* context, int, sqlite3_value** argv) noexcept
{
    const auto attribute = sentence::attributeOf(valueText(argv[0]), sqlite3_value_int(argv[1]));
    sqlite3_result_text(context, attribute.data() ? attribute.data() : "", static_cast<int>(attribute.size()), SQLITE_TRANSIENT);
}

// calv_has(record, n, value, prefix): some value of attribute n matches.
void hasFunction(sqlite3_context* context, int, sqlite3_value** argv) noexcept
{
    const auto attribute = sentence::attributeOf(valueText(argv[0]), sqlite3_value_int(argv[1]));
    sqlite3_result_int(context, sentence::anyValueMatches(attribute, valueText(argv[2]), sqlite3_value_int(argv[3]) != 0));
}

// Called from inside the library's C code, where no exception may pass: the
// comparison neither throws nor allocates.
int rightCollation(void*, int sizeA, const void* a, int sizeB, const void* b) noexcept
{
    return sentence::compareRight(std::string_view(static_cast<const char*>(a), static_cast<std::size_t>(sizeA)),
        std::string_view(static_cast<const char*>(b), static_cast<std::size_t>(sizeB)));
}

} // namespace

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
    // A database that cannot be written (a write-protected file, read-only
    // media) is opened for reading: its records can be looked at and exported,
    // and every write says why it cannot be done. Made, it must be writable.
    const bool readOnly = !missing && access(file.c_str(), W_OK) != 0;
    const int readOnlyWhy = readOnly ? errno : 0;
    if (readOnly && mode == OpenMode::Create) {
        refuse(std::string("read-only: ") + std::strerror(readOnlyWhy));
    }
    int flags = (readOnly ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE) | SQLITE_OPEN_NOMUTEX | (missing ? SQLITE_OPEN_CREATE : 0);
    std::string name = file.string();
    if (readOnlyWhy == EROFS) {
        // Nobody can change a database on read-only media, and its write-ahead
        // log's index cannot be made there: read it as the immutable file it is.
        std::string uri = "file:";
        for (const char c : std::filesystem::absolute(file).string()) {
            if (c == '%' || c == '?' || c == '#') {
                static constexpr char kHex[] = "0123456789ABCDEF";
                uri += '%';
                uri += kHex[static_cast<unsigned char>(c) >> 4];
                uri += kHex[static_cast<unsigned char>(c) & 0xF];
            } else {
                uri += c;
            }
        }
        name = uri + "?immutable=1";
        flags |= SQLITE_OPEN_URI;
    }
    const int rc = sqlite3_open_v2(name.c_str(), &m_db, flags, nullptr);
    try {
        if (rc != SQLITE_OK) {
            refuse(m_db ? sqlite3_errmsg(m_db) : sqlite3_errstr(rc));
        }
        // Idle and age bounds: far above the gaps between the reads of one
        // operation (microseconds), far below an operator's pause.
        m_snapshot = std::make_unique<ReadSnapshot>(m_db, std::chrono::milliseconds(20), std::chrono::milliseconds(200));
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
        if (sqlite3_create_function_v2(m_db, "calv_attr", 2, functionFlags, nullptr, attrFunction, nullptr, nullptr, nullptr) != SQLITE_OK
            || sqlite3_create_function_v2(m_db, "calv_has", 4, functionFlags, nullptr, hasFunction, nullptr, nullptr, nullptr) != SQLITE_OK
            || sqlite3_create_collation_v2(m_db, "calv_right", SQLITE_UTF8, nullptr, rightCollation, nullptr) != SQLITE_OK) {
            refuse(std::string("cannot declare the functions of the queries: ") + sqlite3_errmsg(m_db));
        }
        // DBWrite promises durability: every commit reaches the disk.
        exec("PRAGMA synchronous=FULL");
        // Index tables take inserts all over their range; a larger cache keeps
        // big imports from re-reading pages.
        exec("PRAGMA cache_size=-65536");
        // Readers never wait for a writer, nor a writer for readers, only in
        // write-ahead-log mode. A file system without the shared memory it needs
        // (some network ones) answers with the rollback journal instead: several
        // programs would then block each other for seconds at a time, so such a
        // database is refused rather than run slower than promised. A database
        // that another tool switched back to a rollback journal is switched again.
        // One in memory (no file) is a single program's own: nobody shares it.
        const char* onDisk = sqlite3_db_filename(m_db, "main");
        if (!readOnly && onDisk && *onDisk && journalMode(false) != "wal" && journalMode(true) != "wal") {
            refuse("the file system of " + std::filesystem::absolute(file).parent_path().string()
                + " cannot hold the write-ahead log with which several programs share the database"
                  " (the database stays in \""
                + journalMode(false) + "\" journal mode): keep it on a local file system");
        }
        if (!ours) {
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

std::string SqliteEngine::journalMode(bool setWal)
{
    sqlite3_stmt* raw = nullptr;
    const char* sql = setWal ? "PRAGMA journal_mode=WAL" : "PRAGMA journal_mode";
    if (sqlite3_prepare_v2(m_db, sql, -1, &raw, nullptr) != SQLITE_OK) {
        sqlite3_finalize(raw);
        throw DbaError(DbaError::Kind::Storage, sql, sqlite3_errmsg(m_db));
    }
    const StatementPtr statement(raw);
    if (sqlite3_step(raw) != SQLITE_ROW) {
        throw DbaError(DbaError::Kind::Storage, sql, sqlite3_errmsg(m_db));
    }
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(raw, 0));
    return text ? text : "";
}

SqliteEngine::~SqliteEngine()
{
    m_snapshot.reset();
    m_statements.clear();
    m_sentences.clear();
    sqlite3_close_v2(m_db);
}

} // namespace store
