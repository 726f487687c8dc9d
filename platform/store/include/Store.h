#pragma once

// The multi-valued record store: files of records under text keys, a
// dictionary of names per file, query sentences, and server commands run by
// Execute. Two engines: one database file (SQLite, WAL mode), which several
// processes may use at once, or a PostgreSQL server shared by workstations, where
// server commands go through a queue to workers (calvarine-server).
//
// TEMPO's records (the working records a screen hands to a server command and
// gets back) belong to the workstation session that writes them: each session
// reads, writes, removes and selects only its own, through the files it opens
// and the calls below, on every engine. The session is the client's (setClient),
// or one of this Store's own while it has none; a queued command runs in the
// session that asked. An import writes in this session; an export shows the
// keys as stored ("<key>@<session>").
//
// A Store is a DbaDatabase; the files it opens are DbaFiles. Use from one thread
// at a time. Every failure is a DbaError (see database/DbaError.h).

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "database/Dba.h"

namespace store {

class Store;

// How far a running command has got: done units (statements) out of total.
using CommandProgress = std::function<void(int done, int total)>;

class CommandParts;

// What a server command is given when Execute runs it.
struct CommandContext {
    Store& store;                        // the database the command works in
    std::filesystem::path fusion;        // the directory FUSION, which exists
    std::vector<std::string> arguments;  // the words of the sentence after the command's name
    std::shared_ptr<DbaClient> client;   // the session that asked, if known
    CommandProgress progress = [](int, int) {}; // call as work advances; never empty
    // A worker's way to share the command with the other workers (not owned);
    // null where commands run in the calling process (one database file).
    CommandParts* parts = nullptr;
    // Where the command's outcome commits only after it returns (a worker of a
    // shared server, whose completion commits with the command's records), the
    // command may leave here what must follow that outcome: it is called with
    // true once the outcome has committed, false when it has not (the claim
    // lost, the commit failed). Null where the command's return is its outcome.
    std::function<void(bool committed)>* settled = nullptr;
};

// A server command. Throws (DbaError or any std::exception) on failure; Execute
// then fails with DbaError CommandFailed carrying the command's message.
using ServerCommand = std::function<void(CommandContext&)>;
// Why a server command ended without its result.
struct CommandFailed {
    std::string message;    // for the logs
    std::string reason;     // the cause in an operator's words, when known (see DbaError::reason)
    bool cancelled = false; // the operator gave the run up (the host's progress observer threw)
};
// Told that a server command failed, once its records are undone.
using CommandFailure = std::function<void(CommandContext&, const CommandFailed&)>;

// Told while a call waits on a shared server for longer than a quick answer
// takes (an answer that does not come, a lost connection made again), so that
// a host can show the wait and let the operator give up. Connecting and the
// server's probe (up to 5 and 2 s) are not told.
class ServerWaitObserver {
public:
    virtual ~ServerWaitObserver() = default;
    // About every 100 ms of a wait, with the time waited so far. What it throws
    // ends the wait: the connection is dropped and the call fails with a
    // DbaError Storage that keeps a DbaError's reason.
    virtual void waiting(std::chrono::milliseconds waited) = 0;
    // The wait that waiting() was told of is over, whichever way.
    virtual void waited() noexcept = 0;
};

enum class Justify { Left, Right };

// A name of a file's dictionary: a word for attribute number attribute (0: the key).
struct DictionaryName {
    std::string name;
    int attribute = 0;
    Justify justify = Justify::Left;
};

// Whether opening a database may create it.
enum class OpenMode {
    Existing, // the database must exist: nothing is created
    Create,   // made when missing, opened as it is when it exists
};

class Store : public DbaDatabase {
public:
    // Opens an existing database file of the store. Opening writes nothing and
    // takes no write lock, so it never waits for another process's import. A
    // missing file or folder, a folder and a file that is not a database of the
    // store are refused with DbaError NotConnected, whose context names the path
    // and detail the cause; nothing is created. A file that cannot be written (a
    // write-protected file, read-only media) is opened for reading only: reads,
    // selections and exports work, and every write fails with DbaError Storage
    // whose detail begins "the database is read-only". A write that finds the
    // disk full fails with a detail that begins "the disk is full".
    // With OpenMode::Create the file is made (with its folder and the store's
    // schema) when missing, and opened as it is when it exists; a read-only
    // file is then refused ("read-only: <reason>").
    // FUSION defaults to the folder "FUSION" beside the file.
    static std::shared_ptr<Store> open(const std::filesystem::path& file, OpenMode mode = OpenMode::Existing);
    // open(file, OpenMode::Create): for the commands that make a database
    // (demo data, import, the first-use demo, tests and scenario runs).
    static std::shared_ptr<Store> create(const std::filesystem::path& file);
    // Opens "sqlite:PATH" (or a bare path) as open() does, or connects to the
    // PostgreSQL server of a URI "postgresql://..." or "postgres://...". On a
    // server FUSION defaults to "FUSION" in the current folder, and the store's
    // tables are made on first connection whatever the mode.
    static std::shared_ptr<Store> connect(std::string_view connection, OpenMode mode = OpenMode::Existing);
    // True for a PostgreSQL URI.
    static bool isServerConnection(std::string_view connection);

    ~Store() override;

    // DbaDatabase.
    std::shared_ptr<DbaFile> OpenFile(std::string_view name) override;
    DbaDynArray Select(std::string_view request, std::string_view options, std::int32_t& status) override;
    DbaDynArray Execute(std::string_view request, std::string_view options, std::int32_t& status) override;

    // Runs a query sentence directly: the keys (attributes "0") or the attributes asked.
    DbaDynArray select(std::string_view sentence, std::string_view attributes = "0");

    // Files and dictionaries.
    bool fileExists(std::string_view file);
    void createFile(std::string_view file);                 // no-op when it exists
    std::vector<std::string> files();
    void defineName(std::string_view file, std::string_view name, int attribute, Justify justify = Justify::Left);
    // The names of a file's dictionary. Throws DbaError NoFile for a missing file.
    std::vector<DictionaryName> dictionary(std::string_view file);

    // Records, outside any DbaFile (tools, tests, commands).
    std::optional<std::string> read(std::string_view file, std::string_view key);
    void write(std::string_view file, std::string_view key, std::string_view record); // creates the file if needed
    bool remove(std::string_view file, std::string_view key);
    // Calls visit(key, record) for every record of the file in key order, every
    // session's alike, with the keys as stored (for an export or a check of the
    // whole database). Throws DbaError NoFile for a missing file.
    void forEachStored(std::string_view file, const std::function<void(std::string_view key, std::string_view record)>& visit);

    // Several writes as one transaction: all or nothing.
    void transaction(const std::function<void()>& work);
    // Runs work, a large load (demo data, an import) that makes its own
    // transactions, with the cheapest settings that stay crash-safe (on SQLite:
    // no sync per commit in WAL mode). When bytes (the size of the data to load)
    // is given, first checks the free space beside a database file: a load
    // writes about twice its size (the write-ahead log, then the database);
    // when short, refuses with DbaError Storage naming the folder, the space
    // needed and the space free, before anything is written. Inside a load, a
    // write that fails inside a transaction must fail that transaction (let
    // the error through): the write itself is then not undone apart.
    void bulkLoad(const std::function<void()>& work, std::uintmax_t bytes = 0);

    // Server commands, run by Execute "P": in this process on SQLite; on a server
    // Execute queues the command and waits for a worker to run it.
    // before, when given, runs first, outside the command's own transaction:
    // what it writes stays even when the command then fails (such as clearing
    // the result record of an earlier run, so a failed run never shows it).
    // failed, when given, runs after a failure, outside the command's undone
    // work: in this process on its own, on a worker in the transaction that
    // records the failed outcome (so what it writes is neither lost nor written
    // twice); on a workstation of a server whose command no worker ran (withdrawn
    // for want of workers), on that workstation. What it throws is ignored: the
    // command's failure is what is told.
    void registerCommand(std::string name, ServerCommand command, ServerCommand before = {}, CommandFailure failed = {});
    void unregisterCommand(std::string_view name);
    const std::filesystem::path& fusionDirectory() const;
    void setFusionDirectory(std::filesystem::path directory);
    // The session that Execute passes to the commands it runs.
    void setClient(std::shared_ptr<DbaClient> client);
    // Called, on the thread that called Execute, with the progress a command
    // reports while Execute "P" runs it. Empty (the default): not reported.
    void setCommandProgress(CommandProgress observer);

    // The database file; empty on a server.
    const std::filesystem::path& path() const;

    // True on a server, where Execute "P" queues the command for a worker (see Worker.h).
    bool queuesCommands() const;
    // On a server, who is told of the calls' waits (not owned; must outlive
    // them). Null (the default): nobody. Nothing on a database file.
    void setWaitObserver(ServerWaitObserver* observer);
    // How long Execute "P" waits for a worker before it fails (default 2 minutes).
    void setCommandTimeout(std::chrono::milliseconds timeout);

private:
    friend class Worker;
    class Impl;
    explicit Store(std::unique_ptr<Impl> impl);
    DbaDynArray executeQueued(const std::string& sentence, const std::string& name);
    std::unique_ptr<Impl> m_impl;
};

} // namespace store
