#include "SessionKeys.h"

#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <fstream>
#include <random>
#include <sstream>
#include <vector>

namespace store {

namespace {

// The start time of a process (clock ticks after boot, /proc/PID/stat field
// 22): with the pid, a name no later process of the host has. Empty when the
// process does not exist.
std::string processStart(long pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(in, line)) {
        return {};
    }
    // The command name, in parentheses, may hold spaces: count from its end.
    const auto close = line.rfind(')');
    if (close == std::string::npos) {
        return {};
    }
    std::istringstream fields(line.substr(close + 1));
    std::string field;
    for (int i = 3; i <= 22 && fields >> field; ++i) {
    }
    return field;
}

} // namespace

std::string SessionKeys::hostName()
{
    char host[256] = {};
    ::gethostname(host, sizeof host - 1);
    std::string name;
    for (const char* c = host; *c && name.size() < 32; ++c) {
        name += std::isalnum(static_cast<unsigned char>(*c)) || *c == '-' ? *c : '-';
    }
    return name;
}

SessionKeys::SessionKeys()
{
    std::random_device random;
    char text[16];
    std::snprintf(text, sizeof text, "%08x", random());
    const long pid = ::getpid();
    m_own = "p" + std::to_string(pid) + "." + processStart(pid) + "." + hostName() + "." + text;
    m_session = m_own;
}

std::optional<std::string_view> SessionKeys::sessionOf(std::string_view storedKey)
{
    const auto at = storedKey.rfind('@');
    if (at == std::string_view::npos) {
        return std::nullopt;
    }
    return storedKey.substr(at + 1);
}

namespace {

// The parts of a session of the store's own form, p<pid>.<start>.<host>.<random>;
// empty for another form.
std::vector<std::string> ownSessionParts(std::string_view session)
{
    if (!session.starts_with('p')) {
        return {};
    }
    std::vector<std::string> parts;
    std::size_t from = 1;
    for (std::size_t dot; (dot = session.find('.', from)) != std::string_view::npos; from = dot + 1) {
        parts.emplace_back(session.substr(from, dot - from));
    }
    parts.emplace_back(session.substr(from));
    if (parts.size() != 4 || parts[0].empty() || parts[1].empty() || parts[2].empty()
        || parts[0].find_first_not_of("0123456789") != std::string::npos) {
        return {};
    }
    return parts;
}

} // namespace

bool SessionKeys::isDeadHere(std::string_view session)
{
    const auto parts = ownSessionParts(session);
    if (parts.empty() || parts[2] != hostName()) {
        return false;
    }
    return processStart(std::stol(parts[0])) != parts[1];
}

std::optional<std::string> SessionKeys::hostOf(std::string_view session)
{
    auto parts = ownSessionParts(session);
    if (parts.empty()) {
        return std::nullopt;
    }
    return std::move(parts[2]);
}

std::optional<std::string_view> SessionKeys::shown(std::string_view storedKey) const
{
    if (storedKey.size() <= m_session.size() + 1 || !storedKey.ends_with(m_session)
        || storedKey[storedKey.size() - m_session.size() - 1] != '@') {
        return std::nullopt;
    }
    return storedKey.substr(0, storedKey.size() - m_session.size() - 1);
}

DbaDynArray SessionKeys::ownRows(const DbaDynArray& selected) const
{
    std::string out;
    bool first = true;
    if (selected.text().empty()) {
        return {};
    }
    for (const auto row : splitMarks(selected.text(), DbaDynArray::kAttributeMark)) {
        // Keys hold no marks: the first value is the whole stored key.
        const auto mark = row.find(DbaDynArray::kValueMark);
        const auto storedKey = row.substr(0, mark);
        const auto key = shown(storedKey);
        if (!key) {
            continue;
        }
        out += first ? "" : std::string(1, DbaDynArray::kAttributeMark);
        first = false;
        if (mark == std::string_view::npos) {
            continue;
        }
        // Where the key was asked for again, it shows as written.
        bool firstValue = true;
        for (const auto value : splitMarks(row.substr(mark + 1), DbaDynArray::kValueMark)) {
            out += firstValue ? "" : std::string(1, DbaDynArray::kValueMark);
            firstValue = false;
            out += value == storedKey ? *key : value;
        }
    }
    return DbaDynArray(std::move(out));
}

} // namespace store
