#pragma once

// The record database as the control uses it: a client, an open database, its
// files, and items (records tied to a file and a key). The control holds every
// one of them as a shared reference.
//
// DbaDatabase and DbaFile are interfaces: the store (an engine on SQLite, or a
// decorator that logs the operations) implements them. DbaItem and DbaDynArray
// are plain values.
//
// Failures are thrown as DbaError. Objects are used from one thread at a time.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "database/DbaDynArray.h"
#include "database/DbaError.h"

class DbaFile;

// The user's connection to the database server. The control only stores it and
// hands it on; hosts and the rights read the user from it.
class DbaClient {
public:
    explicit DbaClient(std::string userName, std::string session = {});
    virtual ~DbaClient() = default;

    const std::string& userName() const noexcept { return m_userName; }
    // The workstation session, which keeps a session's working records apart
    // from another's on a shared server; empty for a database of one user.
    const std::string& session() const noexcept { return m_session; }

private:
    std::string m_userName;
    std::string m_session;
};

// A record read from or to be written to a file: a DbaDynArray that knows its
// file and its key.
class DbaItem : public DbaDynArray {
public:
    DbaItem(std::shared_ptr<DbaFile> file, std::string key, std::string text = {});

    const std::string& key() const noexcept { return m_key; }
    const std::shared_ptr<DbaFile>& file() const noexcept { return m_file; }

    // Stores the whole text under the key, replacing any record there, atomically
    // and durably. Throws DbaError on failure; the stored record is then unchanged.
    void DBWrite();

private:
    std::shared_ptr<DbaFile> m_file;
    std::string m_key;
};

// An open file of records. Its items keep it alive.
class DbaFile : public std::enable_shared_from_this<DbaFile> {
public:
    virtual ~DbaFile() = default;

    virtual const std::string& name() const noexcept = 0;

    // The record under key. Throws DbaError NoRecord when there is none.
    virtual std::shared_ptr<DbaItem> ReadItem(std::string_view key) = 0;
    // An empty item for key; nothing is stored until DBWrite.
    virtual std::shared_ptr<DbaItem> NewItem(std::string_view key);
    // Removes the record under key, if any; gives "" (nothing is reported back).
    virtual std::string DeleteItem(std::string_view key) = 0;
    // Stores record under key; DbaItem::DBWrite comes here.
    virtual void writeRecord(std::string_view key, std::string_view record) = 0;
};

// An open database.
class DbaDatabase {
public:
    virtual ~DbaDatabase() = default;

    // Throws DbaError NoFile for a file that does not exist.
    virtual std::shared_ptr<DbaFile> OpenFile(std::string_view name) = 0;

    // request: attribute 1 the query sentence, attribute 2 the file name,
    // attribute 3 the attribute numbers to return separated by blanks (0: key).
    // Gives one attribute per selected record in the sentence's order, its values
    // the requested attributes; "" when nothing is selected. options is unused;
    // status receives 0. Throws DbaError on a malformed sentence, an unknown file
    // or an unknown dictionary name.
    virtual DbaDynArray Select(std::string_view request, std::string_view options, std::int32_t& status) = 0;

    // request attribute 1 is the operation: "LOGIN" alone, or "P" with a server
    // command sentence in attribute 2, which runs the command registered under its
    // first word and returns when it has ended. Throws DbaError CommandFailed for
    // an unknown operation or command, or a command that failed.
    virtual DbaDynArray Execute(std::string_view request, std::string_view options, std::int32_t& status) = 0;
};
