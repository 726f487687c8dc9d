#include "PgEngine.h"

#include <cstdint>
#include <libpq-fe.h>
#include <set>

#include "PgQueue.h"
#include "PgSchema.h"

namespace store {

namespace {

// FNV-1a: the same key in every process and version, unlike std::hash.
std::uint32_t stableHash(std::string_view text)
{
    std::uint32_t hash = 2166136261u;
    for (const char c : text) {
        hash = (hash ^ static_cast<unsigned char>(c)) * 16777619u;
    }
    return hash;
}

// The two keys of a session's advisory lock: the schema's, then the session's
// (as the server's int4, and as pg_locks shows them: classid and objid, oids).
// Two sessions sharing a key only keep each other's records: never a loss.
std::uint32_t schemaKey(std::string_view schema)
{
    return stableHash("calvarine session of " + std::string(schema));
}

std::string asInt4(std::uint32_t key)
{
    return std::to_string(static_cast<std::int32_t>(key));
}

} // namespace

PgEngine::PgEngine(std::string_view url)
    : m_db(std::make_unique<pg::Connection>(url))
{
    m_db->runCommand("SET client_min_messages = warning", "connect");
    // Created tables and dictionary rows may be gone with a rollback.
    m_db->setRollbackHandler([this] { forgetAll(); });
    // Changes made while the connection was down sent notifications nobody heard.
    m_db->setReconnectHandler([this] {
        ++m_reconnections;
        forgetAll();
        m_db->runCommand("SET client_min_messages = warning", "connect");
        // The lock went with the old connection.
        m_lockedSession.clear();
        holdSessionLock();
    });
    setUpSchema();
    m_db->listen(pg::kChangesChannel, [this](std::string_view payload) { noticeChange(payload); });
    m_queue = std::make_unique<PgCommandQueue>(*m_db, std::string(url), m_schema);
}

PgEngine::~PgEngine() = default;

void PgEngine::setSession(std::string session)
{
    m_session = std::move(session);
    holdSessionLock();
}

void PgEngine::holdSessionLock() noexcept
{
    const std::string wanted = m_session;
    if (wanted.empty() || wanted == m_lockedSession) {
        return;
    }
    try {
        const std::string space = asInt4(schemaKey(m_schema));
        // Shared: workstations may share a named session, and a worker takes
        // its client's session for the command it runs.
        m_db->run("SELECT pg_advisory_lock_shared($1::text::int4, $2::text::int4)::text", {space, asInt4(stableHash(wanted))}, "hold the session");
        if (!m_lockedSession.empty()) {
            m_db->run("SELECT pg_advisory_unlock_shared($1::text::int4, $2::text::int4)::text", {space, asInt4(stableHash(m_lockedSession))},
                "let go of the session");
        }
        m_lockedSession = wanted;
    } catch (const std::exception&) {
        // Unheld, the session's records may be swept by another workstation; its
        // next command then fails saying its request is gone, nothing worse.
    }
}

std::optional<std::vector<std::string>> PgEngine::heldSessions(const std::vector<std::string>& sessions)
{
    auto result = m_db->run("SELECT objid::bigint::text FROM pg_locks WHERE locktype = 'advisory' AND objsubid = 2"
                            " AND classid::bigint = $1::text::bigint AND database = (SELECT oid FROM pg_database WHERE datname = current_database())",
        {std::to_string(schemaKey(m_schema))}, "find the sessions held");
    std::set<std::uint32_t> keys;
    for (int row = 0; row < PQntuples(result.get()); ++row) {
        keys.insert(static_cast<std::uint32_t>(std::stoul(std::string(pg::cell(result.get(), row, 0)))));
    }
    std::vector<std::string> held;
    for (const auto& name : sessions) {
        if (keys.contains(stableHash(name))) {
            held.push_back(name);
        }
    }
    return held;
}

void PgEngine::setWaitObserver(ServerWaitObserver* observer)
{
    m_db->setWaitObserver(observer);
}

CommandQueue* PgEngine::commandQueue()
{
    return m_queue.get();
}

} // namespace store
