#pragma once

// The read snapshot of a SQLite connection. Outside a write transaction, an
// autocommit read opens and closes a read transaction of its own (a lock on the
// shared-memory file, its release and a stat, each time). Instead the first
// read of an operation begins one read transaction, and the reads that follow
// back to back share it, seeing one consistent state of the database. It ends:
//   - before any write transaction of this connection, so a write never
//     upgrades a stale snapshot (no SQLITE_BUSY_SNAPSHOT) and sees the newest data;
//   - after a short idle time, or once it is older than a bound, ended by a
//     watcher thread between two calls: never held across an operator's
//     think-time, so checkpoints run and other connections' commits show soon.
// Writers in other connections or processes are never blocked by it (WAL).
// So one state is promised only to reads that follow each other within those
// bounds: an operation that reads for longer (a server command's find, then
// its loads) spans several snapshots, each read seeing a committed state, not
// always the one of the reads before it. Such an operation must hold when a
// record it found is gone by the time it loads it (the command says which
// statements it could not find), or read inside a transaction.
// Internal to the SQLite engine.

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

struct sqlite3;

namespace store {

class ReadSnapshot {
public:
    using Clock = std::chrono::steady_clock;
    ReadSnapshot(sqlite3* db, Clock::duration idle, Clock::duration maxAge);
    ~ReadSnapshot(); // ends the snapshot; the connection stays open
    ReadSnapshot(const ReadSnapshot&) = delete;
    ReadSnapshot& operator=(const ReadSnapshot&) = delete;

    // Held by every call of the engine, so that the watcher acts only between calls.
    std::unique_lock<std::recursive_mutex> hold() { return std::unique_lock(m_mutex); }
    // Before a read outside a write transaction (with hold() held).
    void read();
    // Before a write transaction (with hold() held).
    void end();
    bool isOpen() const { return m_open; }

private:
    void watch();

    sqlite3* m_db;
    Clock::duration m_idle;
    Clock::duration m_maxAge;
    std::recursive_mutex m_mutex;
    std::condition_variable_any m_wake;
    bool m_open = false;
    bool m_stop = false;
    Clock::time_point m_since;
    Clock::time_point m_lastUse;
    std::thread m_watcher;
};

} // namespace store
