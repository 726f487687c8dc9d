#include "SessionKeys.h"

#include <cstdio>
#include <random>

namespace store {

SessionKeys::SessionKeys()
{
    std::random_device random;
    char text[24];
    std::snprintf(text, sizeof text, "s%08x%08x", random(), random());
    m_own = text;
    m_session = m_own;
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
