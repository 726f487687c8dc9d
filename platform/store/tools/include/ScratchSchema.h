#pragma once

// Throwaway databases on a PostgreSQL server, and a store that serves its own
// queued commands: for tests, benchmarks and the scenario host, which run with
// no worker beside them and want a database of their own on a shared server.

#include <string>
#include <string_view>

#include "Store.h"

namespace store {

// The URI with every connection working in schema (created on first use).
// Throws DbaError NotConnected for a connection that is not a server's.
std::string withSchema(std::string_view url, std::string_view schema);
// Drops a schema with everything in it. Throws DbaError Storage when the
// server cannot be reached or refuses.
void dropSchema(std::string_view url, std::string_view schema);

// Ends, from the server's side, every connection named applicationName (its
// URI's application_name), as a network cut or a killed backend would, and
// waits until they are gone (at most 10 s). Gives how many there were. Throws
// DbaError Storage.
int cutConnections(std::string_view url, std::string_view applicationName);

// A fresh schema on a server, dropped with everything in it when this goes:
// a database of its own for each test or scenario file.
class ScratchSchema {
public:
    explicit ScratchSchema(std::string_view url);
    ~ScratchSchema();
    ScratchSchema(const ScratchSchema&) = delete;
    ScratchSchema& operator=(const ScratchSchema&) = delete;
    // The URI to connect with.
    const std::string& connection() const { return m_connection; }

private:
    std::string m_url;
    std::string m_schema;
    std::string m_connection;
};

// On a server, Execute "P" of this store runs the queue itself, as a worker
// would, once it has queued a command (for a host with no worker beside it).
void serveOwnCommands(Store& store);

} // namespace store
