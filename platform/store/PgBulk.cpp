// Bulk loads on PostgreSQL: during Store::bulkLoad the writes made inside a
// transaction are kept here, then sent through COPY, a file at a time, when the
// transaction ends, when that file is read, queried or changed otherwise, or when
// they grow large. A nested transaction inside a load is kept on this side too
// (no savepoint, no round trip per imported line): its failure drops the writes
// it kept, or, if it sent anything to the server meanwhile, spoils the whole
// load, which then rolls back whole. Loads are all-or-nothing anyway.

#include "PgEngine.h"

#include <unordered_set>

#include "PgSchema.h"
#include "database/DbaError.h"

namespace store {

namespace {

// Writes kept at most, in bytes of keys and records, before they are sent.
constexpr std::size_t kPendingBytes = 64u << 20;

// Outside a load, a file whose rows changed this much is analyzed at once
// rather than when autovacuum comes to it (half a minute or more later, the
// queries planned blind meanwhile).
constexpr std::size_t kAnalyzeAfterRows = 10000;

} // namespace

void PgEngine::setSyncEveryCommit(bool sync)
{
    if (!sync == m_bulk) {
        return;
    }
    if (sync) {
        flushAll();
    }
    m_bulk = !sync;
    // Without waiting for each commit's flush to disk: a crash may lose the last
    // commits of the load, never leaves a half-written one.
    m_db->runCommand(sync ? "SET synchronous_commit = on" : "SET synchronous_commit = off", "bulk load");
    if (sync) {
        // The tables a load filled have statistics of when they were empty (or
        // none): without this the first queries on fresh data are planned blind.
        analyzeChanged(1);
    }
}

void PgEngine::noteChanged(std::string_view file, std::size_t rows)
{
    if (auto found = m_changedRows.find(file); found != m_changedRows.end()) {
        found->second += rows;
    } else {
        m_changedRows.emplace(std::string(file), rows);
    }
    if (!m_bulk && !m_db->inTransaction()) {
        analyzeChanged(kAnalyzeAfterRows);
    }
}

void PgEngine::analyzeChanged(std::size_t atLeast)
{
    std::string tables;
    for (auto changed = m_changedRows.begin(); changed != m_changedRows.end();) {
        if (changed->second < atLeast || !fileExists(changed->first)) {
            ++changed;
            continue;
        }
        tables += (tables.empty() ? "" : ", ") + quoteIdent(changed->first);
        for (const auto& name : dictionaryOf(changed->first)) {
            if (!name.indexTable.empty()) {
                tables += ", " + quoteIdent(name.indexTable);
            }
        }
        changed = m_changedRows.erase(changed);
    }
    if (!tables.empty()) {
        m_db->runCommand("ANALYZE " + tables, "statistics");
    }
}

void PgEngine::transaction(const std::function<void()>& work)
{
    if (!m_bulk) {
        if (m_db->inTransaction()) {
            m_db->transaction(work);
            return;
        }
        const auto counted = m_changedRows;
        try {
            m_db->transaction(work);
        } catch (...) {
            m_changedRows = counted;
            throw;
        }
        analyzeChanged(kAnalyzeAfterRows);
        return;
    }
    if (m_db->inTransaction()) {
        const auto mark = m_pending.size();
        const auto answers = m_db->answers();
        try {
            work();
        } catch (...) {
            if (m_db->answers() == answers) {
                dropPendingFrom(mark);
            } else {
                m_spoilt = true;
            }
            throw;
        }
        return;
    }
    m_spoilt = false;
    const auto counted = m_changedRows;
    try {
        m_db->transaction([&] {
            work();
            if (m_spoilt) {
                throw DbaError(DbaError::Kind::Storage, "bulk load",
                    "a part of the load failed after it had been sent to the server; nothing was loaded");
            }
            flushAll();
        });
    } catch (...) {
        dropPendingFrom(0);
        m_spoilt = false;
        m_changedRows = counted;
        throw;
    }
}

bool PgEngine::keepForLoad(std::string_view file, std::string_view key, std::string_view record)
{
    if (!m_bulk || !m_db->inTransaction() || !fileExists(file)) {
        return false;
    }
    forget(file);
    auto& count = m_pendingFiles[std::string(file)];
    ++count;
    m_pending.push_back({std::string(file), std::string(key), std::string(record)});
    m_pendingBytes += key.size() + record.size();
    if (m_pendingBytes > kPendingBytes) {
        flushAll();
    }
    return true;
}

void PgEngine::dropPendingFrom(std::size_t mark)
{
    while (m_pending.size() > mark) {
        const auto& last = m_pending.back();
        m_pendingBytes -= last.key.size() + last.record.size();
        if (const auto found = m_pendingFiles.find(last.file); found != m_pendingFiles.end() && --found->second == 0) {
            m_pendingFiles.erase(found);
        }
        m_pending.pop_back();
    }
}

void PgEngine::flushAll()
{
    while (!m_pendingFiles.empty()) {
        flush(m_pendingFiles.begin()->first);
    }
}

void PgEngine::flush(std::string_view name)
{
    const auto counted = m_pendingFiles.find(name);
    if (counted == m_pendingFiles.end()) {
        return;
    }
    const std::string file = counted->first; // name may be that key, erased below
    std::vector<PendingWrite> writes;
    writes.reserve(counted->second);
    std::vector<PendingWrite> others;
    for (auto& write : m_pending) {
        (write.file == file ? writes : others).push_back(std::move(write));
    }
    m_pending = std::move(others);
    m_pendingFiles.erase(counted);
    m_pendingBytes = 0;
    for (const auto& write : m_pending) {
        m_pendingBytes += write.key.size() + write.record.size();
    }
    copyRecords(file, writes);
}

void PgEngine::copyRecords(const std::string& file, const std::vector<PendingWrite>& writes)
{
    const std::string context = "load " + file;
    // The last write of a key is the one that stands.
    std::vector<const PendingWrite*> latest;
    std::unordered_set<std::string_view> seen;
    for (auto write = writes.rbegin(); write != writes.rend(); ++write) {
        if (seen.insert(write->key).second) {
            latest.push_back(&*write);
        }
    }
    pg::BinaryRows records;
    for (auto write = latest.rbegin(); write != latest.rend(); ++write) {
        records.add({(*write)->key, (*write)->record});
    }
    const auto names = dictionaryOf(file);
    std::vector<std::pair<std::string, pg::BinaryRows>> indexes;
    for (const auto& name : names) {
        if (name.indexTable.empty()) {
            continue;
        }
        pg::BinaryRows rows;
        for (const auto* write : latest) {
            for (const auto value : indexChange(std::nullopt, write->record, name.attribute).entering) {
                rows.add({value, write->key});
            }
        }
        indexes.emplace_back(quoteIdent(name.indexTable), std::move(rows));
    }
    noteChanged(file, latest.size());
    const std::string table = quoteIdent(file);
    auto copyIndexes = [&] {
        for (auto& [index, rows] : indexes) {
            m_db->copyIn("COPY " + index + "(value, key) FROM STDIN (FORMAT binary)", context, rows);
        }
    };
    try {
        // New keys only, the common case: straight into the tables.
        m_db->transaction([&] {
            m_db->copyIn("COPY " + table + "(key, record) FROM STDIN (FORMAT binary)", context, records);
            copyIndexes();
        });
        return;
    } catch (const pg::DuplicateKey&) {
        // Some keys are there already: replace their records and index entries.
    }
    const std::string staging = "pg_temp.\"calvarine#load\"";
    m_db->runCommand("CREATE TEMP TABLE IF NOT EXISTS \"calvarine#load\"(key bytea NOT NULL, record bytea NOT NULL)", context);
    m_db->runCommand("TRUNCATE " + staging, context);
    m_db->copyIn("COPY " + staging + "(key, record) FROM STDIN (FORMAT binary)", context, records);
    for (const auto& [index, rows] : indexes) {
        m_db->runCommand("DELETE FROM " + index + " AS x USING " + staging + " AS l WHERE x.key = l.key", context);
    }
    m_db->runCommand("INSERT INTO " + table + "(key, record) SELECT key, record FROM " + staging
            + " ON CONFLICT (key) DO UPDATE SET record = EXCLUDED.record",
        context);
    copyIndexes();
    m_db->runCommand("TRUNCATE " + staging, context);
}

} // namespace store
