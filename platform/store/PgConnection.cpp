#include "PgConnection.h"

#include <algorithm>
#include <libpq-fe.h>
#include <cctype>
#include <cerrno>
#include <poll.h>
#include <sys/socket.h>
#include <thread>

#include "PgWait.h"
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

// A whole call gives up making a lost connection again after this long.
constexpr std::chrono::seconds kReconnectBound{8};
// libpq's shortest connect_timeout, in its own words.
constexpr const char* kProbeTimeout = "2";
// A probe that went unanswered holds for the calls that follow this closely.
constexpr std::chrono::seconds kProbeKept{3};

const std::string kUnreachable = "la connexion à la base a été perdue : le serveur de la base ne répond pas";
const std::string kLost = "la connexion à la base a été perdue";

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

namespace {

std::string percentDecoded(std::string_view text)
{
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && std::isxdigit(static_cast<unsigned char>(text[i + 1]))
            && std::isxdigit(static_cast<unsigned char>(text[i + 2]))) {
            out += static_cast<char>(std::stoi(std::string(text.substr(i + 1, 2)), nullptr, 16));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

void mask(std::string& text, const std::string& secret)
{
    if (secret.empty()) {
        return;
    }
    for (auto at = text.find(secret); at != std::string::npos; at = text.find(secret, at + 3)) {
        text.replace(at, secret.size(), "***");
    }
}

} // namespace

std::string redacted(std::string text, std::string_view url)
{
    // Read loosely: a malformed URI must be masked as well as a good one.
    std::vector<std::string> secrets;
    if (const auto scheme = url.find("://"); scheme != std::string_view::npos) {
        const auto userinfo = url.substr(scheme + 3);
        if (const auto at = userinfo.rfind('@'); at != std::string_view::npos) {
            if (const auto colon = userinfo.substr(0, at).find(':'); colon != std::string_view::npos) {
                secrets.emplace_back(userinfo.substr(colon + 1, at - colon - 1));
            }
        }
    }
    for (auto at = url.find("password="); at != std::string_view::npos; at = url.find("password=", at + 1)) {
        const auto value = url.substr(at + 9);
        secrets.emplace_back(value.substr(0, value.find_first_of("& ")));
    }
    for (const auto& secret : secrets) {
        mask(text, secret);
        mask(text, percentDecoded(secret));
    }
    return text;
}

void Connection::FinishConnection::operator()(pg_conn* connection) const
{
    PQfinish(connection);
}

Connection::Connection(std::string_view url)
    : m_url(url)
{
    // Defaults first: what the URI says comes later and wins.
    m_keywords = {"connect_timeout", "keepalives", "keepalives_idle", "keepalives_interval", "keepalives_count", "dbname"};
    m_values = {"5", "1", "30", "10", "3", m_url};
    m_conn = connect();
    // A statement's answer is awaited for as long as connecting may take.
    if (PQconninfoOption* options = PQconninfo(m_conn.get())) {
        for (auto* option = options; option->keyword; ++option) {
            if (std::string_view(option->keyword) == "connect_timeout" && option->val) {
                m_silence = std::chrono::seconds(std::max(1, std::atoi(option->val)));
            }
        }
        PQconninfoFree(options);
    }
}

Connection::~Connection() = default;

Connection::Parameters Connection::parameters(const char* connectTimeout) const
{
    Parameters out;
    for (std::size_t i = 0; i < m_keywords.size(); ++i) {
        out.keywords.push_back(m_keywords[i].c_str());
        out.values.push_back(m_values[i].c_str());
    }
    if (connectTimeout) {
        // After the URI, so that it wins over what the URI says.
        out.keywords.push_back("connect_timeout");
        out.values.push_back(connectTimeout);
    }
    out.keywords.push_back(nullptr);
    out.values.push_back(nullptr);
    return out;
}

Connection::Handle Connection::connect() const
{
    const auto params = parameters();
    Handle connection(PQconnectdbParams(params.keywords.data(), params.values.data(), 1));
    if (PQstatus(connection.get()) != CONNECTION_OK) {
        throw DbaError(DbaError::Kind::Storage, "connect to the PostgreSQL server", redacted(trimmed(PQerrorMessage(connection.get())), m_url),
            kUnreachable);
    }
    // The server's notices (such as its goodbye when it shuts down) reach the
    // program as errors where they matter, not on its standard error.
    PQsetNoticeProcessor(connection.get(), [](void*, const char*) {}, nullptr);
    return connection;
}

bool Connection::serverAnswers() const
{
    // Short: it only tells a frozen or stopped server from a busy one.
    const auto params = parameters(kProbeTimeout);
    return PQpingParams(params.keywords.data(), params.values.data(), 1) != PQPING_NO_RESPONSE;
}

void Connection::ensureConnected(std::string_view context)
{
    if (m_depth > 0) {
        return;
    }
    // Reads what is pending without waiting: a server that went away has closed
    // the socket, and libpq marks the connection bad on reading the end.
    PQconsumeInput(m_conn.get());
    if (PQstatus(m_conn.get()) == CONNECTION_OK) {
        return;
    }
    const auto start = std::chrono::steady_clock::now();
    // Once the server was found gone, every next call would wait as long again:
    // until it answers a probe, calls fail at once (one probe for a burst of calls).
    if (m_unreachable && (start - m_probeFailed < kProbeKept || !serverAnswers())) {
        if (start - m_probeFailed >= kProbeKept) {
            m_probeFailed = std::chrono::steady_clock::now();
        }
        throw DbaError(DbaError::Kind::Storage, std::string(context),
            "the PostgreSQL server cannot be reached (it did not answer a probe either)", kUnreachable);
    }
    // A server restarting takes a few seconds: try again, waiting longer each
    // time, all within one bound, so that no call waits much longer than it.
    Wait wait(m_waitObserver, context);
    std::chrono::milliseconds pause{250};
    for (int attempt = 1;; ++attempt) {
        const auto tried = std::chrono::steady_clock::now();
        try {
            m_conn = connect();
            break;
        } catch (const DbaError& failure) {
            const auto now = std::chrono::steady_clock::now();
            if (now + pause + (now - tried) > start + kReconnectBound) {
                m_unreachable = true;
                throw DbaError(DbaError::Kind::Storage, std::string(context),
                    "the connection to the PostgreSQL server was lost and could not be made again (" + std::to_string(attempt)
                        + " attempts in " + std::to_string(std::chrono::duration_cast<std::chrono::seconds>(now - start).count())
                        + " s): " + failure.detail(),
                    kUnreachable);
            }
        }
        wait.sleep(pause);
        pause *= 2;
    }
    m_unreachable = false;
    m_prepared.clear();
    for (const auto& [channel, handler] : m_listeners) {
        checked(exec("LISTEN " + channel, "listen"), "listen");
    }
    if (m_onReconnect) {
        m_onReconnect();
    }
}

bool Connection::awaitInput(std::string_view context)
{
    pollfd socket{PQsocket(m_conn.get()), POLLIN, 0};
    int ready = 0;
    // In slices, telling the wait observer, who may give up: the connection is then cut.
    Wait wait(m_waitObserver, context);
    const auto end = std::chrono::steady_clock::now() + m_silence;
    for (auto now = std::chrono::steady_clock::now(); ready == 0 && now < end; now = std::chrono::steady_clock::now()) {
        ready = ::poll(&socket, 1, Wait::sliceOf(end - now));
        if (ready == 0) {
            wait.tell([this] { cut(); });
        }
    }
    if (ready < 0 && errno == EINTR) {
        return true;
    }
    if (ready == 0 && !serverAnswers()) {
        // Frozen: nothing will come. Cut the connection so nothing else waits on it.
        cut();
        m_unreachable = true;
        throw DbaError(DbaError::Kind::Storage, std::string(context),
            "the PostgreSQL server did not answer within " + std::to_string(m_silence.count())
                + " s (a new connection was not accepted either); the connection was closed",
            kUnreachable);
    }
    return ready <= 0 || PQconsumeInput(m_conn.get());
}

void Connection::cut() noexcept
{
    ::shutdown(PQsocket(m_conn.get()), SHUT_RDWR);
    PQconsumeInput(m_conn.get());
}

Result Connection::answer(std::string_view context)
{
    ++m_answers;
    // Waits for the whole answer, probing a server that stays silent.
    while (PQisBusy(m_conn.get())) {
        if (!awaitInput(context)) {
            break; // lost: PQgetResult reports it
        }
    }
    Result kept;
    bool keptFailed = false;
    while (PGresult* next = PQgetResult(m_conn.get())) {
        Result result(next);
        if (keptFailed) {
            continue; // the first error is the one to report
        }
        const auto status = PQresultStatus(next);
        keptFailed = status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK;
        kept = std::move(result);
    }
    return kept;
}

Result Connection::checked(Result result, std::string_view context) const
{
    const auto status = result ? PQresultStatus(result.get()) : PGRES_FATAL_ERROR;
    if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
        fail(context, result.get());
    }
    return result;
}

Result Connection::exec(const std::string& sql, std::string_view context)
{
    if (!PQsendQuery(m_conn.get(), sql.c_str())) {
        return nullptr;
    }
    return answer(context);
}

void Connection::fail(std::string_view context, pg_result* result) const
{
    std::string detail = result ? PQresultErrorMessage(result) : PQerrorMessage(m_conn.get());
    if (detail.empty()) {
        detail = PQerrorMessage(m_conn.get());
    }
    detail = trimmed(std::move(detail));
    const bool lost = PQstatus(m_conn.get()) != CONNECTION_OK;
    if (lost) {
        detail = "connection to the server lost: " + detail;
    }
    const char* state = result ? PQresultErrorField(result, PG_DIAG_SQLSTATE) : nullptr;
    if (state && std::string_view(state) == "23505") {
        throw DuplicateKey(DbaError::Kind::Storage, std::string(context), redacted(detail, m_url));
    }
    // Class 53: the server is out of disk, memory or connections.
    const bool full = state && std::string_view(state) == "53100";
    // A role whose transactions are read-only, or a standby server: said as
    // SQLite says a database on read-only media.
    const bool readOnly = state && std::string_view(state) == "25006";
    if (readOnly) {
        detail = "the database is read-only: it can be read, not changed (" + detail + ")";
    }
    throw DbaError(DbaError::Kind::Storage, std::string(context), redacted(detail, m_url),
        lost           ? kLost
            : full     ? "le disque du serveur de la base est plein"
            : readOnly ? "la base est en lecture seule sur ce serveur : elle peut être lue, pas modifiée"
                       : std::string());
}

Result Connection::run(const std::string& sql, const Params& params, std::string_view context)
{
    ensureConnected(context);
    const BinaryParams binary(params);
    if (!PQsendQueryParams(m_conn.get(), sql.c_str(), binary.count(), nullptr, binary.values.data(), binary.lengths.data(),
            binary.formats.data(), 1)) {
        fail(context, nullptr);
    }
    return checked(answer(context), context);
}

Result Connection::runPrepared(const std::string& sql, const Params& params, std::string_view context)
{
    ensureConnected(context);
    auto found = m_prepared.find(sql);
    if (found == m_prepared.end()) {
        const std::string name = "calv" + std::to_string(m_prepared.size() + 1);
        if (!PQsendPrepare(m_conn.get(), name.c_str(), sql.c_str(), 0, nullptr)) {
            fail(context, nullptr);
        }
        checked(answer(context), context);
        found = m_prepared.emplace(sql, name).first;
    }
    const BinaryParams binary(params);
    if (!PQsendQueryPrepared(m_conn.get(), found->second.c_str(), binary.count(), binary.values.data(), binary.lengths.data(),
            binary.formats.data(), 1)) {
        fail(context, nullptr);
    }
    return checked(answer(context), context);
}

void Connection::runCommand(const std::string& sql, std::string_view context)
{
    ensureConnected(context);
    checked(exec(sql, context), context);
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
            rollBack("ROLLBACK TO SAVEPOINT calvarine; RELEASE SAVEPOINT calvarine");
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
        Result commit = checked(exec("COMMIT", "commit"), "commit");
        // COMMIT of a transaction that an error has spoilt only rolls back.
        if (std::string_view(PQcmdStatus(commit.get())) != "COMMIT") {
            throw DbaError(DbaError::Kind::Storage, "commit", "the transaction failed and was rolled back");
        }
    } catch (...) {
        m_depth = 0;
        rollBack("ROLLBACK");
        if (m_onRollback) {
            m_onRollback();
        }
        throw;
    }
}

void Connection::rollBack(const char* sql) noexcept
{
    // Best effort: a lost connection has rolled back already.
    try {
        exec(sql, "roll back");
    } catch (const std::exception&) {
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
    // A connection the server ended holds its last message and then the end:
    // one read may stop at the message, so read while anything is pending.
    bool read = PQconsumeInput(m_conn.get()) != 0;
    for (int more = 0; read && more < 16 && PQstatus(m_conn.get()) == CONNECTION_OK; ++more) {
        pollfd socket{PQsocket(m_conn.get()), POLLIN, 0};
        if (::poll(&socket, 1, 0) <= 0) {
            break;
        }
        read = PQconsumeInput(m_conn.get()) != 0;
    }
    if (!read || PQstatus(m_conn.get()) != CONNECTION_OK) {
        // The connection broke: whatever was notified since is lost, so what the
        // caller keeps from the server cannot be trusted. Connecting again tells
        // it so (the reconnection handler), or the read fails saying why.
        ensureConnected("read the notifications");
    }
    while (PGnotify* notification = PQnotifies(m_conn.get())) {
        const std::unique_ptr<PGnotify, decltype(&PQfreemem)> owned(notification, &PQfreemem);
        if (const auto found = m_listeners.find(std::string_view(notification->relname)); found != m_listeners.end()) {
            found->second(notification->extra);
        }
    }
}

void Connection::setApplicationName(const std::string& name)
{
    ensureConnected("set application name");
    const char* current = PQparameterStatus(m_conn.get(), "application_name");
    if (current && name == current) {
        return;
    }
    run("SELECT set_config('application_name', $1::text, false)", {name}, "set application name");
}

bool Connection::waitForInput(std::chrono::steady_clock::time_point deadline)
{
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
        return false;
    }
    ensureConnected("wait for the server");
    pollfd socket{PQsocket(m_conn.get()), POLLIN, 0};
    const int ready = ::poll(&socket, 1, static_cast<int>(std::min<long long>(left.count(), 60000)));
    if (ready > 0) {
        if (!PQconsumeInput(m_conn.get())) {
            fail("wait for the server", nullptr);
        }
        return true;
    }
    return false;
}

} // namespace store::pg
