#include "PgConnection.h"

#include <algorithm>
#include <libpq-fe.h>
#include <poll.h>

#include "database/DbaError.h"

namespace store::pg {

namespace {

std::string trimmed(std::string text)
{
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) {
        text.pop_back();
    }
    return text;
}

// Parameters as libpq takes them: every value in binary, so any byte survives.
struct BinaryParams {
    std::vector<const char*> values;
    std::vector<int> lengths;
    std::vector<int> formats;

    explicit BinaryParams(const Params& params)
        : formats(params.size(), 1)
    {
        for (const auto param : params) {
            values.push_back(param.data() ? param.data() : "");
            lengths.push_back(static_cast<int>(param.size()));
        }
    }
    int count() const { return static_cast<int>(values.size()); }
};

} // namespace

void ClearResult::operator()(pg_result* result) const
{
    PQclear(result);
}

std::string_view cell(pg_result* result, int row, int column)
{
    if (PQgetisnull(result, row, column)) {
        return {};
    }
    return {PQgetvalue(result, row, column), static_cast<std::size_t>(PQgetlength(result, row, column))};
}

int rowCount(pg_result* result)
{
    return PQntuples(result);
}

std::string quoteIdent(std::string_view name)
{
    std::string out = "\"";
    for (const char c : name) {
        if (c == '"') {
            out += '"';
        }
        out += c;
    }
    out += '"';
    return out;
}

Connection::Connection(std::string_view url)
{
    const std::string text(url);
    m_conn = PQconnectdb(text.c_str());
    if (PQstatus(m_conn) != CONNECTION_OK) {
        const std::string detail = trimmed(PQerrorMessage(m_conn));
        PQfinish(m_conn);
        m_conn = nullptr;
        throw DbaError(DbaError::Kind::Storage, "connect to the PostgreSQL server", detail);
    }
}

Connection::~Connection()
{
    PQfinish(m_conn);
}

void Connection::fail(std::string_view context, pg_result* result) const
{
    std::string detail = result ? PQresultErrorMessage(result) : PQerrorMessage(m_conn);
    if (detail.empty()) {
        detail = PQerrorMessage(m_conn);
    }
    detail = trimmed(std::move(detail));
    if (PQstatus(m_conn) != CONNECTION_OK) {
        detail = "connection to the server lost: " + detail;
    }
    throw DbaError(DbaError::Kind::Storage, std::string(context), detail);
}

Result Connection::run(const std::string& sql, const Params& params, std::string_view context)
{
    const BinaryParams binary(params);
    Result result(PQexecParams(m_conn, sql.c_str(), binary.count(), nullptr, binary.values.data(), binary.lengths.data(),
        binary.formats.data(), 1));
    const auto status = PQresultStatus(result.get());
    if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
        fail(context, result.get());
    }
    return result;
}

Result Connection::runPrepared(const std::string& sql, const Params& params, std::string_view context)
{
    auto found = m_prepared.find(sql);
    if (found == m_prepared.end()) {
        const std::string name = "calv" + std::to_string(m_prepared.size() + 1);
        Result prepared(PQprepare(m_conn, name.c_str(), sql.c_str(), 0, nullptr));
        if (PQresultStatus(prepared.get()) != PGRES_COMMAND_OK) {
            fail(context, prepared.get());
        }
        found = m_prepared.emplace(sql, name).first;
    }
    const BinaryParams binary(params);
    Result result(PQexecPrepared(m_conn, found->second.c_str(), binary.count(), binary.values.data(), binary.lengths.data(),
        binary.formats.data(), 1));
    const auto status = PQresultStatus(result.get());
    if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
        fail(context, result.get());
    }
    return result;
}

void Connection::runCommand(const std::string& sql, std::string_view context)
{
    Result result(PQexec(m_conn, sql.c_str()));
    const auto status = PQresultStatus(result.get());
    if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
        fail(context, result.get());
    }
}

void Connection::deallocateAll(std::string_view context)
{
    runCommand("DEALLOCATE ALL", context);
    m_prepared.clear();
}

void Connection::transaction(const std::function<void()>& work)
{
    if (m_depth > 0) {
        runCommand("SAVEPOINT calvarine", "savepoint");
        ++m_depth;
        try {
            work();
        } catch (...) {
            --m_depth;
            Result ignored(PQexec(m_conn, "ROLLBACK TO SAVEPOINT calvarine; RELEASE SAVEPOINT calvarine"));
            throw;
        }
        --m_depth;
        runCommand("RELEASE SAVEPOINT calvarine", "release savepoint");
        return;
    }
    runCommand("BEGIN", "begin");
    m_depth = 1;
    try {
        work();
        m_depth = 0;
        Result commit(PQexec(m_conn, "COMMIT"));
        if (PQresultStatus(commit.get()) != PGRES_COMMAND_OK) {
            fail("commit", commit.get());
        }
        // COMMIT of a transaction that an error has spoilt only rolls back.
        if (std::string_view(PQcmdStatus(commit.get())) != "COMMIT") {
            throw DbaError(DbaError::Kind::Storage, "commit", "the transaction failed and was rolled back");
        }
    } catch (...) {
        m_depth = 0;
        Result ignored(PQexec(m_conn, "ROLLBACK"));
        if (m_onRollback) {
            m_onRollback();
        }
        throw;
    }
}

void Connection::listen(const std::string& channel, NotificationHandler handler)
{
    if (!m_listeners.contains(channel)) {
        runCommand("LISTEN " + channel, "listen");
    }
    m_listeners[channel] = std::move(handler);
}

void Connection::drainNotifications()
{
    PQconsumeInput(m_conn);
    while (PGnotify* notification = PQnotifies(m_conn)) {
        const std::unique_ptr<PGnotify, decltype(&PQfreemem)> owned(notification, &PQfreemem);
        if (const auto found = m_listeners.find(std::string_view(notification->relname)); found != m_listeners.end()) {
            found->second(notification->extra);
        }
    }
}

bool Connection::waitForInput(std::chrono::steady_clock::time_point deadline)
{
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
        return false;
    }
    pollfd socket{PQsocket(m_conn), POLLIN, 0};
    const int ready = ::poll(&socket, 1, static_cast<int>(std::min<long long>(left.count(), 60000)));
    if (ready > 0) {
        if (!PQconsumeInput(m_conn)) {
            fail("wait for the server", nullptr);
        }
        return true;
    }
    return false;
}

} // namespace store::pg
