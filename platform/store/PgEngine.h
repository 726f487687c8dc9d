#pragma once

// The PostgreSQL engine: one libpq connection shared by the workstations' stores
// and the workers that run server commands.
//
// Schema (in the connection's current schema, created if missing):
//   "calvarine#dict"(file, name, attr, justify, idx)   the dictionaries
//   "<FILE>"(key bytea PRIMARY KEY, record bytea)       one table per file
//   "<FILE>#<NAME>"(value bytea, key bytea)             index tables, as on SQLite
//   "calvarine#commands"                                 the queue of server commands
//   "calvarine#command_files"                            the files parts of a command hand back
// Keys and records are bytea: the marks 0xFE/0xFD/0xFC are no valid UTF-8, so
// text columns would refuse them under most server encodings, and bytea sorts
// by bytes exactly as SQLite's BINARY collation does.
//
// Every write fires a statement trigger that notifies "calvarine_changes" with
// "<schema>.<table>". The engine listens, and keeps small files (ORGPRISECHARGE,
// ASSOCIATION...) whole in memory: a ReadItem then costs no round trip. Pending
// notifications are read from the socket before every cached read, without a
// round trip, so a change committed elsewhere empties the file's cache as soon as
// its notification reaches this client.
//
// Keys are stored as given: a session's private keys are the Store's policy
// (SessionKeys).

#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Engine.h"
#include "PgConnection.h"

namespace store {

class PgCommandQueue;

// The engine's parts live in files of their own: PgEngine.cpp (connection,
// transactions, sessions), PgSchema.cpp (schema, files, dictionaries),
// PgCache.cpp (notifications and the small-file cache), PgRecords.cpp (records
// and index tables), PgBulk.cpp (bulk loads through COPY), PgQuery.cpp
// (sentences to SQL), PgQueue.cpp (the queue); PgCopy.cpp streams COPY.
class PgEngine final : public Engine {
public:
    explicit PgEngine(std::string_view url);
    ~PgEngine() override;

    const std::filesystem::path& path() const override { return m_path; }
    const std::string& schema() const { return m_schema; }

    bool fileExists(std::string_view file) override;
    void createFile(std::string_view file) override;
    std::vector<std::string> files() override;
    void defineName(std::string_view file, std::string_view name, int attribute, Justify justify) override;
    std::vector<DictName> dictionary(std::string_view file) override;

    std::optional<std::string> read(std::string_view file, std::string_view key) override;
    void write(std::string_view file, std::string_view key, std::string_view record) override;
    bool remove(std::string_view file, std::string_view key) override;
    void forEach(std::string_view file, const std::function<void(std::string_view, std::string_view)>& visit) override;

    void transaction(const std::function<void()>& work) override;
    // Off: a bulk load, whose writes go through COPY (PgBulk.cpp).
    void setSyncEveryCommit(bool sync) override;

    DbaDynArray select(const sentence::Parsed& parsed, const std::vector<int>& attributes) override;
    // The SQL of a sentence (tests and benchmark).
    CompiledQuery compile(const sentence::Parsed& parsed, const std::vector<int>& attributes);

    // The session is also held on the server, by a shared session-level
    // advisory lock keyed by the schema and the session's name, for as long as
    // it is this connection's (taken again after a reconnection): the records
    // of a session that no connection holds are nobody's.
    void setSession(std::string session) override;
    std::optional<std::vector<std::string>> heldSessions(const std::vector<std::string>& sessions) override;

    CommandQueue* commandQueue() override;
    std::uint64_t reconnections() const override { return m_reconnections; }
    void setWaitObserver(ServerWaitObserver* observer) override;

    void keepOutOfCache(std::string file) override { m_uncachedFiles.insert(std::move(file)); }

    // Files kept in memory: at most this many records (0 turns the cache off).
    void setCacheLimit(std::size_t records)
    {
        m_cacheLimit = records;
        m_cache.clear();
        m_largeFiles.clear();
    }

private:
    void setUpSchema();
    void noticeChange(std::string_view payload);
    void forgetAll();

    const std::vector<DictName>& dictionaryOf(const std::string& file);
    void indexRecord(const std::vector<DictName>& names, std::string_view key, std::optional<std::string_view> before,
        std::optional<std::string_view> after);
    void checkFileName(std::string_view file) const;
    // Takes the lock of m_session and lets go of the one held before. Never
    // throws: a failure leaves the session unheld until the next call.
    void holdSessionLock() noexcept;
    void forget(std::string_view file);

    // Bulk loads (PgBulk.cpp).
    struct PendingWrite {
        std::string file, key, record;
    };
    // Keeps the write for COPY when a load is under way; false otherwise.
    bool keepForLoad(std::string_view file, std::string_view key, std::string_view record);
    // Sends what is kept for file, or for every file.
    void flush(std::string_view file);
    void flushAll();
    void dropPendingFrom(std::size_t mark);
    void copyRecords(const std::string& file, const std::vector<PendingWrite>& writes);
    // Rows written to file, counted for the planner's statistics (PgBulk.cpp):
    // what a load wrote is analyzed when the load ends, other writes once a
    // file has had many of them.
    void noteChanged(std::string_view file, std::size_t rows);
    void analyzeChanged(std::size_t atLeast);

    std::filesystem::path m_path;
    std::unique_ptr<pg::Connection> m_db;
    std::unique_ptr<PgCommandQueue> m_queue;
    std::uint64_t m_reconnections = 0;
    std::string m_schema;
    std::string m_session;        // the store's session (setSession)
    std::string m_lockedSession;  // the session whose advisory lock this connection holds

    std::set<std::string, std::less<>> m_knownFiles;
    std::unordered_map<std::string, std::vector<DictName>> m_dictionaries;

    // Small files in memory; a file that proved too large is not tried again
    // until the cache is emptied (a reconnection, a rollback).
    struct CachedFile {
        std::unordered_map<std::string, std::string> records;
    };
    std::unordered_map<std::string, CachedFile> m_cache;
    std::set<std::string, std::less<>> m_largeFiles;
    std::set<std::string, std::less<>> m_uncachedFiles;
    std::size_t m_cacheLimit = 4096;

    bool m_bulk = false;
    std::vector<PendingWrite> m_pending;                      // in the order written
    std::map<std::string, std::size_t, std::less<>> m_pendingFiles; // how many of m_pending each file has
    std::size_t m_pendingBytes = 0;
    bool m_spoilt = false; // a nested transaction failed after it had sent something
    // Rows written per file since its statistics were last brought up to date
    // by this connection (only committed writes stay counted).
    std::map<std::string, std::size_t, std::less<>> m_changedRows;
};

} // namespace store
