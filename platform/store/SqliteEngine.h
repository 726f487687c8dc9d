#pragma once

// The SQLite engine: one connection, its prepared statements, the
// dictionaries it has read, and the index tables it keeps in step with every
// write. Internal to the store; files opened from a Store share its engine, so
// they stay usable while any of them lives.
// SqliteOpen.cpp opens or creates the file, SqliteQuery.cpp compiles and runs
// sentences, SqliteEngine.cpp holds records, dictionaries and transactions.
//
// Schema (one database file):
//   "calvarine#dict"(file, name, attr, justify)   the dictionaries
//   "<FILE>"(key TEXT PRIMARY KEY, record BLOB)   one table per file, WITHOUT ROWID
//   "<FILE>#<NAME>"(value TEXT, key TEXT)         one row per distinct value of the
//                                                 name's attribute, PRIMARY KEY(value, key)

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Engine.h"
#include "SqliteSnapshot.h"

struct sqlite3;
struct sqlite3_stmt;

namespace store {

class SqliteEngine final : public Engine {
public:
    // Opens the database file; with OpenMode::Create makes it (folder, file,
    // schema) when missing. Throws DbaError NotConnected naming the path and the
    // cause; a failed creation leaves nothing behind.
    SqliteEngine(const std::filesystem::path& file, OpenMode mode);
    ~SqliteEngine() override;

    const std::filesystem::path& path() const override { return m_path; }
    sqlite3* handle() const { return m_db; }

    bool fileExists(std::string_view file) override;
    void createFile(std::string_view file) override;
    std::vector<std::string> files() override;
    void defineName(std::string_view file, std::string_view name, int attribute, Justify justify) override;
    std::vector<DictName> dictionary(std::string_view file) override;

    std::optional<std::string> read(std::string_view file, std::string_view key) override;
    void write(std::string_view file, std::string_view key, std::string_view record) override;
    bool remove(std::string_view file, std::string_view key) override;
    // Calls visit(key, record) for every record of the file in key order.
    void forEach(std::string_view file, const std::function<void(std::string_view, std::string_view)>& visit) override;

    void transaction(const std::function<void()>& work) override;
    // In WAL mode synchronous=NORMAL stays crash-safe: a crash may lose the last
    // commits, never consistency.
    void setSyncEveryCommit(bool sync) override;

    // Resolves and compiles a sentence; throws NoFile, UnknownName, BadSentence.
    CompiledQuery compile(const sentence::Parsed& parsed, bool wantRecord);
    DbaDynArray select(const sentence::Parsed& parsed, const std::vector<int>& attributes) override;

    static void checkFileName(std::string_view file);

private:
    sqlite3_stmt* prepare(const std::string& sql);
    sqlite3_stmt* prepareOrNull(const std::string& sql); // cached; null on failure
    sqlite3_stmt* prepareSentence(const std::string& sql);
    void exec(const char* sql);
    // The journal mode ("wal", "delete"...), after asking for WAL when setWal.
    std::string journalMode(bool setWal);
    // Every call holds the snapshot's lock; reading() also has a read outside a
    // write transaction join the operation's snapshot.
    std::unique_lock<std::recursive_mutex> holding() { return m_snapshot->hold(); }
    std::unique_lock<std::recursive_mutex> reading();
    [[noreturn]] void fail(const std::string& context) const;
    void refreshSchema();
    const std::vector<DictName>& dictionaryOf(const std::string& file);
    // What a write to one file runs: the record's upsert and delete and, per
    // index table, its insert and delete. Prepared once per file, forgotten with
    // the dictionaries.
    struct WritePlan {
        struct Index {
            int attribute = 0;
            std::string table;
            sqlite3_stmt* insert = nullptr;
            sqlite3_stmt* erase = nullptr;
        };
        sqlite3_stmt* upsert = nullptr;
        sqlite3_stmt* erase = nullptr;
        std::vector<Index> indexes;
    };
    const WritePlan& writePlanOf(std::string_view file);
    WritePlan::Index indexStatements(int attribute, const std::string& table);
    void forgetDictionaries();
    void step(sqlite3_stmt* statement, const char* context);
    void indexRecord(const WritePlan& plan, std::string_view key, std::optional<std::string_view> before, std::optional<std::string_view> after);

    // What a failed call on db means, in plain words for a full or read-only
    // disk; said: SQLite's own message when it gave one apart.
    static std::string failure(sqlite3* db, std::string_view said = {});

    std::filesystem::path m_path;
    sqlite3* m_db = nullptr;
    struct Finalize {
        void operator()(sqlite3_stmt* statement) const;
    };
    using StatementPtr = std::unique_ptr<sqlite3_stmt, Finalize>;
    std::unordered_map<std::string, StatementPtr> m_statements;
    std::unordered_map<std::string, StatementPtr> m_sentences;
    std::set<std::string, std::less<>> m_knownFiles;
    std::unordered_map<std::string, std::vector<DictName>> m_dictionaries;
    std::map<std::string, WritePlan, std::less<>> m_writePlans;
    // The read of a record, prepared once per file.
    std::map<std::string, sqlite3_stmt*, std::less<>> m_reads;
    std::unique_ptr<ReadSnapshot> m_snapshot;
    int m_schemaVersion = -1;
    int m_depth = 0;
    // Why a failed savepoint could not be rolled back; the transaction then fails.
    std::string m_partLost;
    bool m_loading = false; // a bulk load: writes inside its transactions take no savepoint
};

} // namespace store
