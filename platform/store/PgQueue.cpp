#include "PgQueue.h"

#include <libpq-fe.h>

#include "PgSchema.h"
#include "database/DbaError.h"

namespace store {

using pg::cell;
using pg::kCommandTable;

PgCommandQueue::PgCommandQueue(pg::Connection& db, std::string schema, std::function<std::string()> session)
    : m_db(db)
    , m_schema(std::move(schema))
    , m_session(std::move(session))
{
}

void PgCommandQueue::createTables(pg::Connection& db)
{
    // The queue of server commands. A running command belongs to its worker
    // until lease_until; attempt counts the claims, so a worker whose lease ran
    // out cannot mark done a command that another has taken since.
    db.runCommand(R"(CREATE TABLE "calvarine#commands"(id bigserial PRIMARY KEY, sentence bytea NOT NULL,
  username text NOT NULL, session text NOT NULL, state text NOT NULL DEFAULT 'queued',
  attempt integer NOT NULL DEFAULT 0, worker text, lease_until timestamptz, message text,
  queued_at timestamptz NOT NULL DEFAULT now(), done_at timestamptz))",
        "schema");
    db.runCommand(R"(CREATE INDEX "calvarine#commands#waiting" ON "calvarine#commands"(id)
  WHERE state IN ('queued', 'running'))",
        "schema");
    db.runCommand(R"(CREATE OR REPLACE FUNCTION "calvarine#queued"() RETURNS trigger LANGUAGE plpgsql AS $f$
BEGIN
  IF NEW.state = 'queued' THEN
    PERFORM pg_notify('calvarine_queue', TG_TABLE_SCHEMA);
  ELSIF NEW.state IN ('done', 'failed') THEN
    PERFORM pg_notify('calvarine_done', TG_TABLE_SCHEMA || '.' || NEW.id);
  END IF;
  RETURN NULL;
END $f$)",
        "schema");
    db.runCommand(R"(CREATE OR REPLACE TRIGGER "calvarine#queued" AFTER INSERT OR UPDATE OF state
  ON "calvarine#commands" FOR EACH ROW EXECUTE FUNCTION "calvarine#queued"())",
        "schema");
}

std::int64_t PgCommandQueue::enqueue(std::string_view sentence, std::string_view user, std::string_view session)
{
    const std::string scope = session.empty() ? m_session() : std::string(session);
    auto result = m_db.runPrepared(std::string("INSERT INTO ") + kCommandTable + "(sentence, username, session) VALUES($1::bytea, $2::text, $3::text) "
            + "RETURNING id::text",
        {sentence, user, scope}, "Execute P");
    return std::stoll(std::string(cell(result.get(), 0, 0)));
}

std::optional<CommandOutcome> PgCommandQueue::await(std::int64_t id, std::chrono::milliseconds timeout)
{
    m_db.listen(pg::kDoneChannel, [this](std::string_view payload) { m_doneSignal = m_doneSignal || payload.starts_with(m_schema); });
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    const std::string number = std::to_string(id);
    while (true) {
        m_doneSignal = false;
        auto state = m_db.runPrepared(std::string("SELECT state, coalesce(message, '') FROM ") + kCommandTable + " WHERE id = $1::text::bigint",
            {number}, "Execute P");
        if (PQntuples(state.get()) == 0) {
            throw DbaError(DbaError::Kind::CommandFailed, "Execute P", "the command " + number + " left the queue");
        }
        const auto status = cell(state.get(), 0, 0);
        if (status == "done" || status == "failed") {
            return CommandOutcome{status == "done", std::string(cell(state.get(), 0, 1))};
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            // Withdrawn unless a worker has it: a late run would leave records
            // nobody waits for.
            m_db.run(std::string("UPDATE ") + kCommandTable + " SET state = 'abandoned', done_at = now() WHERE id = $1::text::bigint AND state = 'queued'",
                {number}, "Execute P");
            return std::nullopt;
        }
        // Woken by a notification, or every second to be safe.
        const auto slice = std::min(deadline, std::chrono::steady_clock::now() + std::chrono::seconds(1));
        while (!m_doneSignal && m_db.waitForInput(slice)) {
            m_db.drainNotifications();
        }
    }
}

std::optional<QueuedCommand> PgCommandQueue::claim(std::string_view worker, std::chrono::seconds lease)
{
    const std::string seconds = std::to_string(lease.count());
    auto result = m_db.runPrepared(std::string("UPDATE ") + kCommandTable
            + " SET state = 'running', attempt = attempt + 1, worker = $1::text, "
              "lease_until = clock_timestamp() + make_interval(secs => $2::text::integer) "
              "WHERE id = (SELECT id FROM "
            + kCommandTable
            + " WHERE state = 'queued' OR (state = 'running' AND lease_until < clock_timestamp()) "
              "ORDER BY id LIMIT 1 FOR UPDATE SKIP LOCKED) "
              "RETURNING id::text, attempt::text, sentence, username, session",
        {worker, seconds}, "claim a command");
    if (PQntuples(result.get()) == 0) {
        return std::nullopt;
    }
    QueuedCommand command;
    command.id = std::stoll(std::string(cell(result.get(), 0, 0)));
    command.attempt = std::stoi(std::string(cell(result.get(), 0, 1)));
    command.sentence = std::string(cell(result.get(), 0, 2));
    command.user = std::string(cell(result.get(), 0, 3));
    command.session = std::string(cell(result.get(), 0, 4));
    return command;
}

namespace {
struct ClaimLost {};
} // namespace

bool PgCommandQueue::complete(const QueuedCommand& command, const std::function<CommandOutcome()>& work)
{
    try {
        m_db.transaction([&] {
            const auto outcome = work();
            const std::string id = std::to_string(command.id);
            const std::string attempt = std::to_string(command.attempt);
            auto marked = m_db.runPrepared(std::string("UPDATE ") + kCommandTable
                    + " SET state = $3::text, message = $4::text, done_at = now(), lease_until = NULL "
                      "WHERE id = $1::text::bigint AND attempt = $2::text::integer AND state = 'running' RETURNING id",
                {id, attempt, outcome.succeeded ? "done" : "failed", outcome.message}, "complete command " + id);
            if (PQntuples(marked.get()) == 0) {
                throw ClaimLost{};
            }
        });
    } catch (const ClaimLost&) {
        return false;
    }
    return true;
}

void PgCommandQueue::waitForCommands(std::chrono::milliseconds timeout)
{
    m_db.listen(pg::kQueueChannel, [this](std::string_view payload) { m_queueSignal = m_queueSignal || payload == m_schema; });
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    m_db.drainNotifications();
    while (!m_queueSignal && m_db.waitForInput(deadline)) {
        m_db.drainNotifications();
    }
    m_queueSignal = false;
}

} // namespace store

