#pragma once

// The command queue on PostgreSQL: the table "calvarine#commands", shared by
// the workstations that queue commands and the calvarine-server workers that
// run them. It works on the engine's connection, so that a command's records
// and its completion commit in one transaction; while a command runs, a second
// connection of the worker renews its lease and publishes its progress, which
// the waiting client reads. Internal to the store.
//
// A command's life: queued -> running (a worker's claim, renewed while it
// works) -> done or failed; or withdrawn, when its client stopped waiting
// (timed out, or no longer seen for kClientGone), after which no worker takes it.
// A part (see CommandParts) is a command whose client is the command that
// offered it (column parent): it is taken only while that command runs, and
// withdrawn, its files dropped, once that command has ended (PgParts.cpp).

#include <functional>
#include <memory>
#include <string>

#include "CommandQueue.h"
#include "PgConnection.h"

namespace store {

class PgCommandQueue final : public CommandQueue {
public:
    // url opens the worker's second connection; session gives the connection's
    // session, for commands queued without one.
    PgCommandQueue(pg::Connection& db, std::string url, std::string schema);
    ~PgCommandQueue() override;

    // Creates or completes the queue's table, trigger and index (inside the
    // schema's transaction).
    static void createTables(pg::Connection& db);
    // Whether the queue's table is as this version needs it.
    static const char* currentCheck();

    std::int64_t enqueue(std::string_view sentence, std::string_view user, std::string_view session) override;
    CommandOutcome await(std::int64_t id, std::chrono::milliseconds timeout, const CommandProgress& progress) override;
    bool cancel(std::int64_t id) override;
    std::optional<QueuedCommand> claim(std::string_view worker, std::chrono::seconds lease) override;
    bool complete(const QueuedCommand& command, const Work& work) override;
    void waitForCommands(std::chrono::milliseconds timeout) override;
    std::unique_ptr<CommandParts> parts(const QueuedCommand& command) override;

private:
    CommandOutcome withdraw(const std::string& number, std::chrono::milliseconds timeout);
    // The workers connected to this schema's queue (see workerName).
    std::int64_t workersConnected();
    // The application name under which a worker waits for this schema's commands.
    std::string workerName() const;
    pg::Connection& partsConnection();

    pg::Connection& m_db;
    std::string m_url;
    std::string m_schema;
    std::unique_ptr<pg::Connection> m_side; // the lease and progress of a running command
    // Made when a command first offers parts: it queues and awaits them outside
    // the command's transaction, which would hide them from the other workers.
    std::unique_ptr<pg::Connection> m_parts;
    bool m_queueSignal = false;
    bool m_doneSignal = false;
};

// Withdraws the parts of commands that have ended and drops their files: the
// leftovers of a command whose worker stopped before it could.
void sweepParts(pg::Connection& db);

} // namespace store
