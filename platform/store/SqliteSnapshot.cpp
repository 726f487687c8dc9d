#include "SqliteSnapshot.h"

#include <sqlite3.h>

namespace store {

ReadSnapshot::ReadSnapshot(sqlite3* db, Clock::duration idle, Clock::duration maxAge)
    : m_db(db)
    , m_idle(idle)
    , m_maxAge(maxAge)
    , m_watcher([this] { watch(); })
{
}

ReadSnapshot::~ReadSnapshot()
{
    {
        auto lock = hold();
        m_stop = true;
        end();
    }
    m_wake.notify_all();
    m_watcher.join();
}

void ReadSnapshot::read()
{
    const auto now = Clock::now();
    if (m_open) {
        m_lastUse = now;
        return;
    }
    // DEFERRED: the snapshot is taken by the first read, and no lock before.
    if (sqlite3_exec(m_db, "BEGIN", nullptr, nullptr, nullptr) != SQLITE_OK) {
        return; // the reads then run in autocommit, as without a snapshot
    }
    m_open = true;
    m_since = now;
    m_lastUse = now;
    m_wake.notify_all();
}

void ReadSnapshot::end()
{
    if (!m_open) {
        return;
    }
    m_open = false;
    if (sqlite3_exec(m_db, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK && !sqlite3_get_autocommit(m_db)) {
        sqlite3_exec(m_db, "ROLLBACK", nullptr, nullptr, nullptr);
    }
}

void ReadSnapshot::watch()
{
    auto lock = hold();
    while (!m_stop) {
        if (!m_open) {
            m_wake.wait(lock);
            continue;
        }
        const auto due = std::min(m_lastUse + m_idle, m_since + m_maxAge);
        if (Clock::now() >= due) {
            end();
            continue;
        }
        m_wake.wait_until(lock, due);
    }
}

} // namespace store
