#pragma once

// One libpq connection as the PostgreSQL engine and its command queue use it:
// statements with binary parameters (prepared once per connection), nested
// transactions as savepoints, and notifications handed to whoever listens to
// their channel. Internal to the store.
//
// A server that stops answering never hangs the program: connecting times out
// (connect_timeout, 5 s unless the URI says otherwise) and TCP keepalives are on
// by default (keepalives_* in the URI override them). While a statement waits for
// its answer, every connect_timeout seconds of silence the server is probed with
// a new connection (2 s at most); a server that does not take it either is taken
// for frozen, the connection is dropped and the statement fails. A lost
// connection is made again, with backoff, by the next statement outside a
// transaction, within 8 s; once that failed, later statements fail as soon as a
// probe goes unanswered, so that a run of calls against a frozen or stopped
// server ends in seconds, not minutes. Failures of that kind carry a reason for
// the operator (DbaError::reason).

#include <chrono>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "database/DbaError.h"

namespace store {
class ServerWaitObserver;
}

struct pg_conn;
struct pg_result;

namespace store::pg {

// A value to bind: bytes, sent as binary (bytea and text alike).
using Params = std::vector<std::string_view>;

struct ClearResult {
    void operator()(pg_result* result) const;
};
using Result = std::unique_ptr<pg_result, ClearResult>;

// A unique key already held (SQLSTATE 23505): what a load tries first and then
// does otherwise.
struct DuplicateKey : DbaError {
    using DbaError::DbaError;
};

// Rows for COPY ... FROM STDIN in the binary format, every field as bytes.
class BinaryRows {
public:
    BinaryRows();
    void add(std::initializer_list<std::string_view> fields);
    std::size_t size() const { return m_rows; }
    // The whole stream, its end mark added.
    const std::string& finished();

private:
    std::string m_data;
    std::size_t m_rows = 0;
    bool m_finished = false;
};

// A cell of a result as bytes; empty for NULL.
std::string_view cell(pg_result* result, int row, int column);
int rowCount(pg_result* result);
// text with the password of url (and url itself) masked, for messages.
std::string redacted(std::string text, std::string_view url);

class Connection {
public:
    explicit Connection(std::string_view url);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // The connection was made again since the last call (for the owner to
    // forget what it knew, notifications having been missed meanwhile).
    void setReconnectHandler(std::function<void()> handler) { m_onReconnect = std::move(handler); }

    Result run(const std::string& sql, const Params& params, std::string_view context);
    // As run, through a statement prepared on first use.
    Result runPrepared(const std::string& sql, const Params& params, std::string_view context);
    void runCommand(const std::string& sql, std::string_view context);
    // COPY (...) TO STDOUT (FORMAT binary): hands each row's fields (bytes,
    // empty for NULL) to visit as they arrive, so the whole answer never sits in
    // memory at once. What visit throws is rethrown once the answer is read.
    using RowVisitor = std::function<void(const std::vector<std::string_view>& fields)>;
    void copyOut(const std::string& sql, std::string_view context, const RowVisitor& visit);
    // COPY ... FROM STDIN (FORMAT binary) of rows.
    void copyIn(const std::string& sql, std::string_view context, BinaryRows& rows);

    // Runs work in a transaction, or in a savepoint inside one; a failure rolls
    // it back and is rethrown. onRollback runs after an outer rollback.
    void transaction(const std::function<void()>& work);
    bool inTransaction() const { return m_depth > 0; }
    // How many statements have been answered on this connection.
    std::size_t answers() const { return m_answers; }
    void setRollbackHandler(std::function<void()> handler) { m_onRollback = std::move(handler); }

    // LISTENs to channel (once) and hands its notifications to handler.
    using NotificationHandler = std::function<void(std::string_view payload)>;
    void listen(const std::string& channel, NotificationHandler handler);
    // Hands out what the server has already sent; never waits on a working
    // connection. On a broken one, connects again first (the reconnection
    // handler runs, as notifications may have been missed), which may wait and
    // throws DbaError Storage when the server cannot be reached.
    void drainNotifications();
    // Waits until the server sends something, or deadline; false on time out.
    bool waitForInput(std::chrono::steady_clock::time_point deadline);

    [[noreturn]] void fail(std::string_view context, pg_result* result) const;

    // Who is told of this connection's waits (see Store::setWaitObserver); not owned.
    void setWaitObserver(ServerWaitObserver* observer) { m_waitObserver = observer; }

    // The name the server shows for this connection (pg_stat_activity), set
    // again after a reconnection; a round trip only when it changes.
    void setApplicationName(const std::string& name);

private:
    struct FinishConnection {
        void operator()(pg_conn* connection) const;
    };
    using Handle = std::unique_ptr<pg_conn, FinishConnection>;

    // m_keywords and m_values as the null-terminated arrays libpq takes; they
    // point into the members, so they live no longer than this connection.
    struct Parameters {
        std::vector<const char*> keywords;
        std::vector<const char*> values;
    };
    // connectTimeout, when given, replaces whatever the URI says.
    Parameters parameters(const char* connectTimeout = nullptr) const;
    Handle connect() const;
    // Makes the connection again if it was lost (outside a transaction only).
    void ensureConnected(std::string_view context);
    // The answer to what was just sent: the first error, else the last result.
    Result answer(std::string_view context);
    Result exec(const std::string& sql, std::string_view context);
    // Waits once for the server (probing it when silent) and reads what came;
    // false when the connection is lost.
    bool awaitInput(std::string_view context);
    // Sends a COPY and reads up to the server's go-ahead (status expected).
    Result startCopy(const std::string& sql, std::string_view context, int expected);
    Result checked(Result result, std::string_view context) const;
    void rollBack(const char* sql) noexcept;
    // Closes the socket under libpq, which then takes the connection for lost.
    void cut() noexcept;
    bool serverAnswers() const;

    // Connection parameters, in the order libpq takes them: defaults, then the URI.
    std::vector<std::string> m_keywords;
    std::vector<std::string> m_values;
    std::string m_url;
    std::chrono::seconds m_silence{5};
    // The server was found gone (frozen or stopped) and not reached since.
    bool m_unreachable = false;
    ServerWaitObserver* m_waitObserver = nullptr;
    std::chrono::steady_clock::time_point m_probeFailed;
    Handle m_conn;
    std::function<void()> m_onReconnect;
    int m_depth = 0;
    std::size_t m_answers = 0;
    std::function<void()> m_onRollback;
    std::unordered_map<std::string, std::string> m_prepared; // SQL to statement name
    std::map<std::string, NotificationHandler, std::less<>> m_listeners;
};

} // namespace store::pg
