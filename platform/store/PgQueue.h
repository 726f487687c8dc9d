#pragma once

// The command queue on PostgreSQL: the table "calvarine#commands", shared by
// the workstations that queue commands and the calvarine-server workers that
// run them. It works on the engine's connection, so that a command's records
// and its completion commit in one transaction. Internal to the store.

#include <functional>
#include <string>

#include "CommandQueue.h"
#include "PgConnection.h"

namespace store {

class PgCommandQueue final : public CommandQueue {
public:
    // session gives the connection's session, for commands queued without one.
    PgCommandQueue(pg::Connection& db, std::string schema, std::function<std::string()> session);

    // Creates the queue's table, trigger and index (inside the schema's transaction).
    static void createTables(pg::Connection& db);

    std::int64_t enqueue(std::string_view sentence, std::string_view user, std::string_view session) override;
    std::optional<CommandOutcome> await(std::int64_t id, std::chrono::milliseconds timeout) override;
    std::optional<QueuedCommand> claim(std::string_view worker, std::chrono::seconds lease) override;
    bool complete(const QueuedCommand& command, const std::function<CommandOutcome()>& work) override;
    void waitForCommands(std::chrono::milliseconds timeout) override;

private:
    pg::Connection& m_db;
    std::string m_schema;
    std::function<std::string()> m_session;
    bool m_queueSignal = false;
    bool m_doneSignal = false;
};

} // namespace store
