#pragma once

// What a Store needs of the database underneath: files of records, their
// dictionaries, transactions, query sentences and, on a shared server, the queue
// of server commands. Two engines implement it: SqliteEngine (one database file,
// the default) and PgEngine (a PostgreSQL server shared by many workstations).
// Internal to the store; files opened from a Store share its engine, so they
// stay usable while any of them lives.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "CommandQueue.h"
#include "Sentence.h"
#include "Store.h"

namespace store {

struct DictName {
    std::string name;
    int attribute = 0;
    Justify justify = Justify::Left;
    std::string indexTable; // empty for the key (attribute 0)
};

// How writing a record changes one index of its file: the values of the
// indexed attribute that leave the index and those that enter it, each once.
// before is the record replaced (none for a new key), after the record written
// (none for a removal); the views point into them. An empty attribute has one
// value, "", which is indexed like any other.
struct IndexChange {
    std::vector<std::string_view> leaving;
    std::vector<std::string_view> entering;
};
IndexChange indexChange(std::optional<std::string_view> before, std::optional<std::string_view> after, int attribute);

// A sentence compiled to SQL, with the values to bind in order (all as text).
struct CompiledQuery {
    std::string sql;
    std::vector<std::string> binds;
    bool readsRecord = false; // column 1 is the record
};

class Engine {
public:
    virtual ~Engine() = default;
    Engine() = default;
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    // The database file; empty for a server.
    virtual const std::filesystem::path& path() const = 0;

    virtual bool fileExists(std::string_view file) = 0;
    // Throws DbaError NoFile, with context, when the file does not exist.
    void requireFile(std::string_view file, std::string_view context);
    virtual void createFile(std::string_view file) = 0;
    virtual std::vector<std::string> files() = 0;
    virtual void defineName(std::string_view file, std::string_view name, int attribute, Justify justify) = 0;
    virtual std::vector<DictName> dictionary(std::string_view file) = 0;

    virtual std::optional<std::string> read(std::string_view file, std::string_view key) = 0;
    virtual void write(std::string_view file, std::string_view key, std::string_view record) = 0;
    virtual bool remove(std::string_view file, std::string_view key) = 0;
    // Calls visit(key, record) for every record of the file in key order.
    virtual void forEach(std::string_view file, const std::function<void(std::string_view, std::string_view)>& visit) = 0;

    virtual void transaction(const std::function<void()>& work) = 0;
    // False during a bulk load: commits may skip the sync that makes each one
    // durable, as long as a crash still leaves the database consistent.
    virtual void setSyncEveryCommit(bool /*sync*/) {}

    // The keys, or the attributes asked (0: the key), of the records a parsed
    // sentence selects: the Store parses each sentence once and hands it here.
    virtual DbaDynArray select(const sentence::Parsed& parsed, const std::vector<int>& attributes) = 0;

    // A file of working records, rewritten by every run of every session: an
    // engine that keeps files in memory leaves it out.
    virtual void keepOutOfCache(std::string /*file*/) {}
    // The workstation session this connection works for, always given by the
    // store (its client's, or its own). An engine of one user ignores it.
    virtual void setSession(std::string /*session*/) {}
    // Of the sessions given, those that some connection to the database holds
    // now; nullopt for an engine that cannot tell, whose sessions are judged by
    // their process on this host (SessionKeys::isDeadHere). May throw DbaError.
    virtual std::optional<std::vector<std::string>> heldSessions(const std::vector<std::string>& /*sessions*/)
    {
        return std::nullopt;
    }

    // The queue of server commands of a shared database; null for an engine whose
    // commands run in the calling process.
    virtual CommandQueue* commandQueue() { return nullptr; }
    // How many times the connection to a server was lost and made again.
    virtual std::uint64_t reconnections() const { return 0; }
    // See Store::setWaitObserver.
    virtual void setWaitObserver(ServerWaitObserver* /*observer*/) {}
};

// A selector of a sentence resolved against its file's dictionary.
struct Resolved {
    int attribute = 0;              // 0: the key
    Justify justify = Justify::Left;
    std::string indexTable;         // the index table that answers it, if any
};

// A sentence resolved for an engine to compile.
struct ResolvedSentence {
    std::vector<Resolved> conditions; // one per condition of the sentence
    std::vector<Resolved> sorts;
    // The condition that drives the query: an equality on an indexed attribute
    // first, then the key, then a begins-with on an indexed attribute;
    // conditions.size() when none can (a scan).
    std::size_t driver = 0;
};

// Resolves every selector of parsed against the file's dictionary. Throws
// DbaError UnknownName naming the word, BadSentence when the sentence holds more
// values than an engine binds.
ResolvedSentence resolveSentence(const sentence::Parsed& parsed, const std::vector<DictName>& names);

// Whether every alternative of the condition is an equality (no begins-with).
bool isEquality(const sentence::Condition& condition);

// "name" quoted as an SQL identifier; both engines' SQL quotes alike.
std::string quoteIdent(std::string_view name);

// Shared by the engines: names and keys the store accepts.
namespace names {
bool hasMark(std::string_view text);
bool isPlainName(std::string_view name);
void checkKey(std::string_view key, std::string_view context);
// What a failed write of key names: write FILE "KEY".
std::string writeContext(std::string_view file, std::string_view key);
// checkKey for a write, the context made only when the key is refused (a load
// writes millions).
void checkWrittenKey(std::string_view file, std::string_view key);
// A dictionary name must be a plain word, not a number, for an attribute 0 to 32767.
void checkDictionaryName(std::string_view file, std::string_view name, int attribute);
} // namespace names

} // namespace store
