#pragma once

// The files whose records belong to the workstation session that writes them:
// the working records a screen hands to a server command and gets back. Each
// session reads, writes, removes and selects only its own, stored under
// "<key>@<session>", so two workstations re-issuing at once never see each
// other's. The store declares which files are (TEMPO); the engines store
// the keys as given. Internal to the store.

#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "database/DbaDynArray.h"

namespace store {

class SessionKeys {
public:
    // A session of this process's own, used while the host names none. Its name
    // says which process on which host it is ("p<pid>.<start>.<host>.<random>"),
    // so that the records of a process that died can be told from the others.
    SessionKeys();

    // The session of a key as stored (after its last '@'), if it has one.
    static std::optional<std::string_view> sessionOf(std::string_view storedKey);
    // True for a session of a process of this host that has ended (killed,
    // crashed, or ended without removing its records). False for a live one, a
    // session of another host and a session named by a host, which nobody here
    // can judge.
    static bool isDeadHere(std::string_view session);
    // This host's name as sessions hold it: letters, digits and '-', at most 32.
    static std::string hostName();
    // The host of a session of the store's own form; nullopt for another form.
    static std::optional<std::string> hostOf(std::string_view session);

    void declare(std::string file) { m_files.insert(std::move(file)); }
    bool isPrivate(std::string_view file) const { return !m_files.empty() && m_files.contains(file); }
    const std::set<std::string, std::less<>>& privateFiles() const { return m_files; }
    // The host's session; empty: this process's own.
    void setSession(const std::string& session) { m_session = session.empty() ? m_own : session; }
    const std::string& session() const { return m_session; }

    // The key as the engine stores it.
    std::string stored(std::string_view file, std::string_view key) const
    {
        return isPrivate(file) ? std::string(key) + "@" + m_session : std::string(key);
    }
    // The key as the session wrote it, or nullopt for another session's record.
    std::optional<std::string_view> shown(std::string_view storedKey) const;
    // A selection made with attribute 0 first, reduced to this session's records
    // and given as asked (attributes without that first 0, keys as written).
    DbaDynArray ownRows(const DbaDynArray& selected) const;

private:
    std::set<std::string, std::less<>> m_files;
    std::string m_own;
    std::string m_session;
};

} // namespace store
