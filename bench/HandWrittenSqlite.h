#pragma once

// The few lines of raw SQLite that the benchmarks' hand-written baselines share.

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <sqlite3.h>
#include <string>
#include <string_view>

struct Sqlite {
    sqlite3* db = nullptr;
    explicit Sqlite(const std::filesystem::path& file) { sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr); }
    ~Sqlite() { sqlite3_close_v2(db); }
    Sqlite(const Sqlite&) = delete;
    Sqlite& operator=(const Sqlite&) = delete;
};

inline sqlite3_stmt* prepare(sqlite3* db, const std::string& sql)
{
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
        std::cerr << sqlite3_errmsg(db) << '\n';
        std::abort();
    }
    return statement;
}

inline std::string_view column(sqlite3_stmt* statement, int i)
{
    return {static_cast<const char*>(sqlite3_column_blob(statement, i)), static_cast<std::size_t>(sqlite3_column_bytes(statement, i))};
}

// Removes a database file and the journal files SQLite keeps beside it.
inline void removeDatabase(const std::filesystem::path& file)
{
    for (const char* suffix : {"", "-wal", "-shm"}) {
        std::filesystem::remove(file.string() + suffix);
    }
}
