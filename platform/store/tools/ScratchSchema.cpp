#include "ScratchSchema.h"

#include <chrono>
#include <cstdio>
#include <libpq-fe.h>
#include <memory>
#include <random>
#include <thread>

#include "Worker.h"
#include "database/DbaError.h"

namespace store {

std::string withSchema(std::string_view url, std::string_view schema)
{
    if (!Store::isServerConnection(url)) {
        // Appended to a file's name, the options would name another file.
        throw DbaError(DbaError::Kind::NotConnected, "schema " + std::string(schema),
            "a schema needs a PostgreSQL URI (postgresql://...), not a database file");
    }
    // libpq takes server options in the URI; "=" must be percent-encoded there.
    std::string out(url);
    out += out.find('?') == std::string::npos ? "?" : "&";
    out += "options=-csearch_path%3D";
    out += schema;
    return out;
}

void dropSchema(std::string_view url, std::string_view schema)
{
    const std::string context = "drop schema " + std::string(schema);
    const std::unique_ptr<PGconn, decltype(&PQfinish)> connection(PQconnectdb(std::string(url).c_str()), &PQfinish);
    if (PQstatus(connection.get()) != CONNECTION_OK) {
        throw DbaError(DbaError::Kind::Storage, context, PQerrorMessage(connection.get()));
    }
    const std::unique_ptr<char, decltype(&PQfreemem)> quoted(
        PQescapeIdentifier(connection.get(), schema.data(), schema.size()), &PQfreemem);
    if (!quoted) {
        throw DbaError(DbaError::Kind::Storage, context, PQerrorMessage(connection.get()));
    }
    const auto sql = "SET client_min_messages = warning; DROP SCHEMA IF EXISTS " + std::string(quoted.get()) + " CASCADE";
    const std::unique_ptr<PGresult, decltype(&PQclear)> result(PQexec(connection.get(), sql.c_str()), &PQclear);
    if (PQresultStatus(result.get()) != PGRES_COMMAND_OK) {
        throw DbaError(DbaError::Kind::Storage, context, PQerrorMessage(connection.get()));
    }
}

int cutConnections(std::string_view url, std::string_view applicationName)
{
    const std::string context = "cut the connections of " + std::string(applicationName);
    const std::unique_ptr<PGconn, decltype(&PQfinish)> connection(PQconnectdb(std::string(url).c_str()), &PQfinish);
    if (PQstatus(connection.get()) != CONNECTION_OK) {
        throw DbaError(DbaError::Kind::Storage, context, PQerrorMessage(connection.get()));
    }
    const std::string name(applicationName);
    const auto query = [&](const char* sql) {
        const char* values[] = {name.c_str()};
        const std::unique_ptr<PGresult, decltype(&PQclear)> result(
            PQexecParams(connection.get(), sql, 1, nullptr, values, nullptr, nullptr, 0), &PQclear);
        if (PQresultStatus(result.get()) != PGRES_TUPLES_OK || PQntuples(result.get()) != 1) {
            throw DbaError(DbaError::Kind::Storage, context, PQerrorMessage(connection.get()));
        }
        return std::stoi(PQgetvalue(result.get(), 0, 0));
    };
    const int cut = query("SELECT count(pg_terminate_backend(pid))::int FROM pg_stat_activity WHERE application_name = $1");
    // The backends end a moment later: wait for them to be gone, locks and all
    // (their sockets close a moment after that again).
    for (int tries = 0; tries < 1000; ++tries) {
        if (query("SELECT count(*)::int FROM pg_stat_activity WHERE application_name = $1") == 0) {
            return cut;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    throw DbaError(DbaError::Kind::Storage, context, "the connections were still there after 10 s");
}

ScratchSchema::ScratchSchema(std::string_view url)
    : m_url(url)
{
    std::random_device random;
    char name[32];
    std::snprintf(name, sizeof name, "scratch_%08x%08x", random(), random());
    m_schema = name;
    m_connection = withSchema(m_url, m_schema);
}

ScratchSchema::~ScratchSchema()
{
    try {
        dropSchema(m_url, m_schema);
    } catch (const std::exception&) {
        // The server is gone, and the schema with it for all that matters here.
    }
}

void serveOwnCommands(Store& store)
{
    if (!store.queuesCommands()) {
        return; // a database file runs its commands where they are asked
    }
    Worker(store).setCommandQueued([&store] {
        while (Worker(store).runQueuedCommand("in-process")) {
        }
    });
}

} // namespace store
