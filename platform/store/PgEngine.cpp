#include "PgEngine.h"

#include "PgQueue.h"
#include "PgSchema.h"

namespace store {

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
    });
    setUpSchema();
    m_db->listen(pg::kChangesChannel, [this](std::string_view payload) { noticeChange(payload); });
    m_queue = std::make_unique<PgCommandQueue>(*m_db, std::string(url), m_schema);
}

PgEngine::~PgEngine() = default;

void PgEngine::setWaitObserver(ServerWaitObserver* observer)
{
    m_db->setWaitObserver(observer);
}

CommandQueue* PgEngine::commandQueue()
{
    return m_queue.get();
}

} // namespace store
