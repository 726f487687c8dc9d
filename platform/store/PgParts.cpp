// Parts of a command run by other workers (CommandParts on PostgreSQL): rows of
// the queue whose parent is the command that offered them, and the files they
// hand back in "calvarine#command_files".
//
// Offering and awaiting go through a connection of their own: the offering
// command's transaction holds the engine's, and what it wrote there would stay
// invisible to the other workers until it commits. A part's files are written
// on the engine's connection of the worker that runs it, inside the part's
// transaction, so they exist exactly when the part is done.

#include <libpq-fe.h>
#include <stdexcept>
#include <thread>

#include "PgQueue.h"
#include "PgSchema.h"

namespace store {

using pg::cell;
using pg::kCommandFilesTable;
using pg::kCommandTable;
using namespace std::chrono_literals;

namespace {

// How often an awaited part is looked at. Polled, not notified: a connection
// that listens must be read even between commands, or the server's
// notifications pile up on it.
constexpr auto kPartPoll = 50ms;

// Withdraws what is left of the parts of parent (all of them when parent is
// empty: those of every command that is no longer running), then drops their
// files. In that order: a part that completes meanwhile has its files committed
// before its row is withdrawn, or finds its row withdrawn and keeps none.
void abandonParts(pg::Connection& db, const std::string& parent)
{
    const std::string whose = parent.empty()
        ? std::string("NOT EXISTS(SELECT 1 FROM ") + kCommandTable + " p WHERE p.id = c.parent AND p.state = 'running')"
        : std::string("c.parent = $1::text::bigint");
    const pg::Params params = parent.empty() ? pg::Params{} : pg::Params{parent};
    db.runPrepared(std::string("UPDATE ") + kCommandTable + " c SET state = 'withdrawn', message = 'its command ended', done_at = now() "
            + "WHERE c.parent IS NOT NULL AND c.state IN ('queued', 'running') AND " + whose,
        params, "withdraw the parts of a command");
    db.runPrepared(std::string("DELETE FROM ") + kCommandFilesTable + " f WHERE EXISTS(SELECT 1 FROM " + kCommandTable
            + " c WHERE c.id = f.command AND c.parent IS NOT NULL AND " + whose + ")",
        params, "drop the files of the parts of a command");
}

class PgCommandParts final : public CommandParts {
public:
    PgCommandParts(pg::Connection& db, std::function<pg::Connection&()> connection, const QueuedCommand& command)
        : m_db(db)
        , m_connection(std::move(connection))
        , m_command(command)
        , m_id(std::to_string(command.id))
    {
    }
    ~PgCommandParts() override
    {
        if (!m_offered) {
            return;
        }
        try {
            abandonParts(m_connection(), m_id);
        } catch (const std::exception&) {
            // The next claim's sweep withdraws them once this command has ended.
        }
    }

    std::int64_t offer(std::string_view sentence) override
    {
        auto& connection = m_connection();
        if (!m_offered) {
            // Parts of an earlier attempt at this command are not this one's.
            abandonParts(connection, m_id);
            m_offered = true;
        }
        auto offered = connection.runPrepared(std::string("INSERT INTO ") + kCommandTable
                + "(sentence, username, session, client_seen, parent) VALUES($1::bytea, $2::text, $3::text, clock_timestamp(), "
                  "$4::text::bigint) RETURNING id::text",
            {sentence, m_command.user, m_command.session, m_id}, "offer a part of command " + m_id);
        return std::stoll(std::string(cell(offered.get(), 0, 0)));
    }

    std::optional<std::vector<CommandFile>> takeBack(std::int64_t part, const std::function<void(int partsDone)>& waiting) override
    {
        auto& connection = m_connection();
        const std::string number = std::to_string(part);
        const std::string context = "part " + number + " of command " + m_id;
        // Its state and message, whether its worker's lease runs, and how far
        // the workers of all the parts of this command have got.
        const std::string look = std::string("SELECT state, coalesce(message, ''), coalesce((lease_until > clock_timestamp())::text, ''), "
                                             "(SELECT coalesce(sum(progress_done), 0)::text FROM ")
            + kCommandTable + " WHERE parent = $2::text::bigint AND state IN ('running', 'done')) FROM " + kCommandTable
            + " WHERE id = $1::text::bigint AND parent = $2::text::bigint";
        while (true) {
            auto row = connection.runPrepared(look, {number, m_id}, context);
            if (PQntuples(row.get()) == 0) {
                throw std::runtime_error(context + " left the queue");
            }
            const auto state = cell(row.get(), 0, 0);
            if (state == "done") {
                return handedBack(number, context);
            }
            if (state == "failed") {
                throw std::runtime_error(std::string(cell(row.get(), 0, 1)));
            }
            const bool held = state == "running" && cell(row.get(), 0, 2) == "true";
            if (state == "withdrawn" || (!held && withdraw(part))) {
                return std::nullopt;
            }
            if (state == "running") {
                waiting(std::stoi(std::string(cell(row.get(), 0, 3))));
                std::this_thread::sleep_for(kPartPoll);
            }
        }
    }

    bool withdraw(std::int64_t part) override
    {
        auto withdrawn = m_connection().runPrepared(std::string("UPDATE ") + kCommandTable
                + " SET state = 'withdrawn', message = 'taken back by its command', done_at = now() "
                  "WHERE id = $1::text::bigint AND parent = $2::text::bigint "
                  "AND (state = 'queued' OR (state = 'running' AND lease_until <= clock_timestamp())) RETURNING 1",
            {std::to_string(part), m_id}, "part " + std::to_string(part) + " of command " + m_id);
        return PQntuples(withdrawn.get()) > 0;
    }

    bool isPart() const override { return m_command.parent != 0; }

    void handBack(std::string_view name, std::string_view bytes) override
    {
        if (!isPart()) {
            throw std::logic_error("command " + m_id + " is not a part of another: it has nobody to hand files back to");
        }
        m_db.runPrepared(std::string("INSERT INTO ") + kCommandFilesTable
                + "(command, seq, name, bytes) VALUES($1::text::bigint, $2::text::integer, $3::bytea, $4::bytea)",
            {m_id, std::to_string(++m_handedBack), name, bytes}, "hand back " + std::string(name));
    }

private:
    std::vector<CommandFile> handedBack(const std::string& number, const std::string& context)
    {
        auto rows = m_connection().runPrepared(
            std::string("SELECT name, bytes FROM ") + kCommandFilesTable + " WHERE command = $1::text::bigint ORDER BY seq", {number}, context);
        std::vector<CommandFile> files;
        files.reserve(static_cast<std::size_t>(PQntuples(rows.get())));
        for (int row = 0; row < PQntuples(rows.get()); ++row) {
            files.push_back({std::string(cell(rows.get(), row, 0)), std::string(cell(rows.get(), row, 1))});
        }
        return files;
    }

    pg::Connection& m_db;
    std::function<pg::Connection&()> m_connection;
    const QueuedCommand m_command;
    const std::string m_id;
    bool m_offered = false;
    int m_handedBack = 0;
};

} // namespace

pg::Connection& PgCommandQueue::partsConnection()
{
    if (!m_parts) {
        m_parts = std::make_unique<pg::Connection>(m_url);
    }
    return *m_parts;
}

std::unique_ptr<CommandParts> PgCommandQueue::parts(const QueuedCommand& command)
{
    return std::make_unique<PgCommandParts>(
        m_db, [this]() -> pg::Connection& { return partsConnection(); }, command);
}

void sweepParts(pg::Connection& db)
{
    abandonParts(db, {});
}

} // namespace store
