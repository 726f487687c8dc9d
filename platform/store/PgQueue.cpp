#include "PgQueue.h"

#include <atomic>
#include <condition_variable>
#include <libpq-fe.h>
#include <mutex>
#include <thread>

#include "PgSchema.h"
#include "database/DbaError.h"

namespace store {

using pg::cell;
using pg::kCommandTable;
using namespace std::chrono_literals;

namespace {

// A command whose client has not been seen for this long is withdrawn.
constexpr const char* kClientGone = "30 seconds";
// How often a waiting client looks at its command (progress included).
constexpr auto kClientPoll = 250ms;
// Progress reaches the row at most this often.
constexpr auto kProgressEvery = 250ms;
// A command still queued this long after it was sent makes the client look
// whether any worker is connected at all, and then every as often again.
constexpr auto kWorkersLook = 3s;

std::string text(int value)
{
    return std::to_string(value);
}

// While a worker runs a command: renews its lease every third of it and writes
// its progress, on a connection of its own, from a thread of its own (the
// command's transaction holds the main connection).
class Heartbeat {
public:
    Heartbeat(pg::Connection& side, const QueuedCommand& command)
        : m_side(side)
        , m_id(std::to_string(command.id))
        , m_attempt(std::to_string(command.attempt))
        , m_lease(std::to_string(command.lease.count()))
        , m_every(std::chrono::duration_cast<std::chrono::milliseconds>(command.lease) / 3)
        , m_thread([this] { beat(); })
    {
    }
    ~Heartbeat()
    {
        {
            const std::lock_guard lock(m_mutex);
            m_stop = true;
        }
        m_wake.notify_one();
        m_thread.join();
    }
    Heartbeat(const Heartbeat&) = delete;
    Heartbeat& operator=(const Heartbeat&) = delete;

    void report(int done, int total)
    {
        if (m_lost) {
            throw DbaError(DbaError::Kind::CommandFailed, "command " + m_id, "withdrawn: its client stopped waiting, or another worker took it");
        }
        {
            const std::lock_guard lock(m_mutex);
            m_done = done;
            m_total = total;
            m_changed = true;
        }
        m_wake.notify_one();
    }
    std::pair<int, int> progress()
    {
        const std::lock_guard lock(m_mutex);
        return {m_done, m_total};
    }

private:
    void beat()
    {
        auto renewAt = std::chrono::steady_clock::now() + m_every;
        auto wroteAt = std::chrono::steady_clock::now() - kProgressEvery;
        std::unique_lock lock(m_mutex);
        while (!m_stop) {
            const auto due = m_changed ? std::min(renewAt, wroteAt + kProgressEvery) : renewAt;
            m_wake.wait_until(lock, due, [&] { return m_stop || (m_changed && std::chrono::steady_clock::now() >= wroteAt + kProgressEvery); });
            const auto now = std::chrono::steady_clock::now();
            if (m_stop || (now < renewAt && !(m_changed && now >= wroteAt + kProgressEvery))) {
                continue;
            }
            const std::string done = text(m_done);
            const std::string total = text(m_total);
            m_changed = false;
            lock.unlock();
            try {
                auto renewed = m_side.run(std::string("UPDATE ") + kCommandTable
                        + " SET lease_until = clock_timestamp() + make_interval(secs => $3::text::integer), "
                          "progress_done = NULLIF($4::text::integer, -1), progress_total = NULLIF($5::text::integer, -1) "
                          "WHERE id = $1::text::bigint AND attempt = $2::text::integer AND state = 'running' RETURNING 1",
                    {m_id, m_attempt, m_lease, done, total}, "renew the lease of command " + m_id);
                m_lost = m_lost || pg::rowCount(renewed.get()) == 0;
            } catch (const std::exception&) {
                // The server is out of reach: the lease may run out, and the
                // completion will then find the command taken.
            }
            lock.lock();
            wroteAt = renewAt = std::chrono::steady_clock::now();
            renewAt += m_every;
        }
    }

    pg::Connection& m_side;
    const std::string m_id;
    const std::string m_attempt;
    const std::string m_lease;
    const std::chrono::milliseconds m_every;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_stop = false;
    bool m_changed = false;
    int m_done = -1;
    int m_total = -1;
    std::atomic<bool> m_lost = false;
    std::thread m_thread; // last: starts once the rest is set
};

struct ClaimLost {};

} // namespace

PgCommandQueue::PgCommandQueue(pg::Connection& db, std::string url, std::string schema)
    : m_db(db)
    , m_url(std::move(url))
    , m_schema(std::move(schema))
{
}

PgCommandQueue::~PgCommandQueue() = default;

const char* PgCommandQueue::currentCheck()
{
    return "SELECT EXISTS(SELECT 1 FROM information_schema.tables WHERE table_schema = current_schema() "
           "AND table_name = 'calvarine#command_files')";
}

void PgCommandQueue::createTables(pg::Connection& db)
{
    // The queue of server commands. A running command belongs to its worker
    // until lease_until; attempt counts the claims, so a worker whose lease ran
    // out cannot mark done a command that another has taken since.
    db.runCommand(R"(CREATE TABLE IF NOT EXISTS "calvarine#commands"(id bigserial PRIMARY KEY, sentence bytea NOT NULL,
  username text NOT NULL, session text NOT NULL, state text NOT NULL DEFAULT 'queued',
  attempt integer NOT NULL DEFAULT 0, worker text, lease_until timestamptz, message text,
  queued_at timestamptz NOT NULL DEFAULT now(), done_at timestamptz))",
        "schema");
    // Added since the first version: who still waits, and how far the command got.
    db.runCommand(R"(ALTER TABLE "calvarine#commands" ADD COLUMN IF NOT EXISTS client_seen timestamptz,
  ADD COLUMN IF NOT EXISTS progress_done integer, ADD COLUMN IF NOT EXISTS progress_total integer)",
        "schema");
    db.runCommand(R"(CREATE INDEX IF NOT EXISTS "calvarine#commands#waiting" ON "calvarine#commands"(id)
  WHERE state IN ('queued', 'running'))",
        "schema");
    // Added since: parts of a command, offered to the other workers, and the
    // files they hand back (already compressed PDFs: stored as they are).
    db.runCommand(R"(ALTER TABLE "calvarine#commands" ADD COLUMN IF NOT EXISTS parent bigint)", "schema");
    db.runCommand(R"(CREATE INDEX IF NOT EXISTS "calvarine#commands#parts" ON "calvarine#commands"(parent) WHERE parent IS NOT NULL)",
        "schema");
    db.runCommand(R"(CREATE TABLE IF NOT EXISTS "calvarine#command_files"(command bigint NOT NULL, seq integer NOT NULL,
  name bytea NOT NULL, bytes bytea NOT NULL, PRIMARY KEY(command, seq)))",
        "schema");
    db.runCommand(R"(ALTER TABLE "calvarine#command_files" ALTER COLUMN bytes SET STORAGE EXTERNAL)", "schema");
    // Added since: why a command failed, in the operator's words.
    db.runCommand(R"(ALTER TABLE "calvarine#commands" ADD COLUMN IF NOT EXISTS reason text)", "schema");
    db.runCommand(R"(CREATE OR REPLACE FUNCTION "calvarine#queued"() RETURNS trigger LANGUAGE plpgsql AS $f$
BEGIN
  IF NEW.state = 'queued' THEN
    PERFORM pg_notify('calvarine_queue', TG_TABLE_SCHEMA);
  ELSIF NEW.state IN ('done', 'failed', 'withdrawn') THEN
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
    auto result = m_db.runPrepared(std::string("INSERT INTO ") + kCommandTable
            + "(sentence, username, session, client_seen) VALUES($1::bytea, $2::text, $3::text, clock_timestamp()) RETURNING id::text",
        {sentence, user, session}, "Execute P");
    return std::stoll(std::string(cell(result.get(), 0, 0)));
}

CommandOutcome PgCommandQueue::await(std::int64_t id, std::chrono::milliseconds timeout, const CommandProgress& progress)
{
    m_db.listen(pg::kDoneChannel, [this](std::string_view payload) { m_doneSignal = m_doneSignal || payload.starts_with(m_schema); });
    const std::string number = std::to_string(id);
    // The time since a worker last held the command.
    auto held = std::chrono::steady_clock::now();
    auto looked = held;
    std::pair<std::string, std::string> shown{"", ""};
    while (true) {
        m_doneSignal = false;
        // Looking is also saying that the client still waits.
        auto state = m_db.runPrepared(std::string("UPDATE ") + kCommandTable
                + " SET client_seen = clock_timestamp() WHERE id = $1::text::bigint RETURNING state, coalesce(message, ''), "
                  "coalesce(progress_done::text, ''), coalesce(progress_total::text, ''), "
                  "(state = 'running' AND lease_until > clock_timestamp())::text, coalesce(reason, ''), (attempt = 0)::text",
            {number}, "Execute P");
        if (PQntuples(state.get()) == 0) {
            return {false, "the command " + number + " left the queue", "la demande a été retirée de la file du serveur", false};
        }
        const auto status = cell(state.get(), 0, 0);
        const std::pair<std::string, std::string> reported{std::string(cell(state.get(), 0, 2)), std::string(cell(state.get(), 0, 3))};
        if (progress && reported != shown && !reported.first.empty() && !reported.second.empty()) {
            shown = reported;
            progress(std::stoi(reported.first), std::stoi(reported.second));
        }
        if (status == "done" || status == "failed") {
            return {status == "done", std::string(cell(state.get(), 0, 1)), std::string(cell(state.get(), 0, 5))};
        }
        if (status == "withdrawn") {
            return {false, "the command was withdrawn: " + std::string(cell(state.get(), 0, 1)), "la demande a été retirée de la file du serveur",
                false};
        }
        const auto now = std::chrono::steady_clock::now();
        if (cell(state.get(), 0, 4) == "true") {
            held = now;
        } else if (status == "queued" && cell(state.get(), 0, 6) == "true" && now - looked >= kWorkersLook) {
            // Only a command no worker ever took: one handed back waits for the next worker to start.
            looked = now;
            // Nobody could take it: the operator hears so now, not after the whole timeout.
            if (workersConnected() == 0) {
                auto outcome = withdraw(number, std::chrono::duration_cast<std::chrono::milliseconds>(now - held));
                if (!outcome.message.empty()) {
                    return outcome;
                }
                continue;
            }
        } else if (now - held >= timeout) {
            auto outcome = withdraw(number, timeout);
            if (!outcome.message.empty()) {
                return outcome;
            }
            continue; // done or taken meanwhile: look again
        }
        const auto slice = std::chrono::steady_clock::now() + kClientPoll;
        while (!m_doneSignal && m_db.waitForInput(slice)) {
            m_db.drainNotifications();
        }
    }
}

bool PgCommandQueue::cancel(std::int64_t id)
{
    // The row's lock orders this against the worker's completion: one of the
    // two finds the other's state, never both their own.
    auto withdrawn = m_db.run(std::string("UPDATE ") + kCommandTable
            + " SET state = 'withdrawn', message = 'cancelled by its operator', done_at = now() "
              "WHERE id = $1::text::bigint AND state IN ('queued', 'running') RETURNING id",
        {std::to_string(id)}, "withdraw a command");
    sweepParts(m_db);
    return PQntuples(withdrawn.get()) > 0;
}

std::int64_t PgCommandQueue::workersConnected()
{
    auto count = m_db.run("SELECT count(*)::text FROM pg_stat_activity WHERE datname = current_database() AND application_name = $1::text",
        {workerName()}, "Execute P");
    return std::stoll(std::string(cell(count.get(), 0, 0)));
}

std::string PgCommandQueue::workerName() const
{
    // Per schema: a worker of another schema of the same database serves nobody here.
    return ("calvarine-server " + m_schema).substr(0, 63);
}

CommandOutcome PgCommandQueue::withdraw(const std::string& number, std::chrono::milliseconds timeout)
{
    const std::string seconds = std::to_string(std::chrono::duration_cast<std::chrono::seconds>(timeout).count());
    auto busy = m_db.run(std::string("SELECT count(DISTINCT worker)::text FROM ") + kCommandTable
            + " WHERE state = 'running' AND lease_until > clock_timestamp() AND id <> $1::text::bigint",
        {number}, "Execute P");
    const std::string workers(cell(busy.get(), 0, 0));
    const bool none = workers == "0";
    const std::string message = none
        ? "no worker is running (is calvarine-server started?); the command was withdrawn after " + seconds + " s"
        : workers + (workers == "1" ? " worker was" : " workers were") + " busy with other commands for " + seconds
            + " s; the command was withdrawn, try again later";
    const std::string reason = none
        ? "aucun programme serveur (calvarine-server) n'a pris la demande en " + seconds + " s : il n'est pas démarré ; la demande a été retirée"
        : (workers == "1" ? "le programme serveur (calvarine-server) était occupé"
                          : "les " + workers + " programmes serveur (calvarine-server) étaient occupés")
            + " par d'autres demandes pendant " + seconds + " s ; la demande a été retirée, réessayez plus tard";
    // Withdrawn only if no worker holds it now: one that took it meanwhile finishes it.
    auto withdrawn = m_db.run(std::string("UPDATE ") + kCommandTable
            + " SET state = 'withdrawn', message = 'its client stopped waiting', done_at = now() WHERE id = $1::text::bigint "
              "AND (state = 'queued' OR (state = 'running' AND lease_until <= clock_timestamp())) RETURNING 1",
        {number}, "Execute P");
    if (PQntuples(withdrawn.get()) == 0) {
        return {false, {}, {}};
    }
    return {false, message, reason, false};
}

std::optional<QueuedCommand> PgCommandQueue::claim(std::string_view worker, std::chrono::seconds lease)
{
    m_db.setApplicationName(workerName());
    // Commands whose client went away unseen are nobody's to run (a part's
    // client is the command that offered it: see sweepParts).
    m_db.runPrepared(std::string("UPDATE ") + kCommandTable + " SET state = 'withdrawn', message = 'its client stopped waiting', done_at = now() "
            + "WHERE parent IS NULL AND state IN ('queued', 'running') AND client_seen < clock_timestamp() - interval '" + kClientGone + "' "
            + "AND (state = 'queued' OR lease_until < clock_timestamp())",
        {}, "claim a command");
    sweepParts(m_db);
    const std::string seconds = std::to_string(lease.count());
    // A part is taken only while the command that offered it runs.
    auto result = m_db.runPrepared(std::string("UPDATE ") + kCommandTable
            + " SET state = 'running', attempt = attempt + 1, worker = $1::text, "
              "lease_until = clock_timestamp() + make_interval(secs => $2::text::integer) "
              "WHERE id = (SELECT id FROM "
            + kCommandTable + " c WHERE (state = 'queued' OR (state = 'running' AND lease_until < clock_timestamp())) "
            + "AND (parent IS NULL OR EXISTS(SELECT 1 FROM " + kCommandTable
            + " p WHERE p.id = c.parent AND p.state = 'running' AND p.lease_until > clock_timestamp())) "
              "ORDER BY id LIMIT 1 FOR UPDATE SKIP LOCKED) "
              "RETURNING id::text, attempt::text, sentence, username, session, coalesce(parent, 0)::text",
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
    command.lease = lease;
    command.parent = std::stoll(std::string(cell(result.get(), 0, 5)));
    return command;
}

bool PgCommandQueue::complete(const QueuedCommand& command, const Work& work)
{
    if (!m_side) {
        m_side = std::make_unique<pg::Connection>(m_url);
    }
    try {
        m_db.transaction([&] {
            CommandOutcome outcome;
            std::pair<int, int> last;
            {
                // Stopped before the row is marked: its renewal would wait for the
                // row's lock, which this transaction then holds.
                Heartbeat heartbeat(*m_side, command);
                outcome = work([&](int done, int total) { heartbeat.report(done, total); });
                last = heartbeat.progress();
            }
            const auto [done, total] = last;
            const std::string id = std::to_string(command.id);
            const std::string attempt = std::to_string(command.attempt);
            auto marked = m_db.runPrepared(std::string("UPDATE ") + kCommandTable
                    + " SET state = $3::text, message = $4::text, done_at = now(), lease_until = NULL, "
                      "progress_done = NULLIF($5::text::integer, -1), progress_total = NULLIF($6::text::integer, -1), "
                      "reason = NULLIF($7::text, '') "
                      "WHERE id = $1::text::bigint AND attempt = $2::text::integer AND state = 'running' RETURNING id",
                {id, attempt, outcome.succeeded ? "done" : "failed", outcome.message, text(done), text(total), outcome.reason},
                "complete command " + id);
            if (PQntuples(marked.get()) == 0) {
                throw ClaimLost{};
            }
        });
    } catch (const ClaimLost&) {
        return false;
    } catch (const HandedBack&) {
        // Queued again as it was first: a worker may take it now, not once the lease has run out.
        m_db.runPrepared(std::string("UPDATE ") + kCommandTable
                + " SET state = 'queued', worker = NULL, lease_until = NULL, progress_done = NULL, progress_total = NULL "
                  "WHERE id = $1::text::bigint AND attempt = $2::text::integer AND state = 'running'",
            {std::to_string(command.id), std::to_string(command.attempt)}, "hand back command " + std::to_string(command.id));
        return false;
    }
    return true;
}

void PgCommandQueue::waitForCommands(std::chrono::milliseconds timeout)
{
    // Waiting for commands is what a worker does: clients see it connected.
    m_db.setApplicationName(workerName());
    m_db.listen(pg::kQueueChannel, [this](std::string_view payload) { m_queueSignal = m_queueSignal || payload == m_schema; });
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    m_db.drainNotifications();
    while (!m_queueSignal && m_db.waitForInput(deadline)) {
        m_db.drainNotifications();
    }
    m_queueSignal = false;
}

} // namespace store
