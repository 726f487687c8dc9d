#pragma once

// What the SQLite engine's source files share: the statement guard and the
// conversions between SQLite's values and the store's texts. Internal.

#include <sqlite3.h>
#include <string_view>

namespace store::sqlite {

// Resets a cached statement when the operation that used it ends, however it ends.
class Use {
public:
    explicit Use(sqlite3_stmt* statement)
        : m_statement(statement)
    {
    }
    ~Use()
    {
        sqlite3_reset(m_statement);
        sqlite3_clear_bindings(m_statement);
    }
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;
    sqlite3_stmt* get() const { return m_statement; }

private:
    sqlite3_stmt* m_statement;
};

// A null pointer would bind NULL; an empty text must stay a text.
inline void bindText(sqlite3_stmt* statement, int index, std::string_view text)
{
    sqlite3_bind_text(statement, index, text.data() ? text.data() : "", static_cast<int>(text.size()), SQLITE_TRANSIENT);
}

inline std::string_view columnText(sqlite3_stmt* statement, int column)
{
    const auto* data = static_cast<const char*>(sqlite3_column_blob(statement, column));
    const int size = sqlite3_column_bytes(statement, column);
    return data ? std::string_view(data, static_cast<std::size_t>(size)) : std::string_view();
}

} // namespace store::sqlite
