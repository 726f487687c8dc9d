#include "SqliteEngine.h"

// Writes of the SQLite engine: a record and the entries of its file's index
// tables, kept in step in one savepoint, through statements prepared once per file.

#include <sqlite3.h>

#include "SqliteStatement.h"
#include "database/DbaError.h"

namespace store {

using sqlite::bindText;
using sqlite::columnText;
using sqlite::Use;

void SqliteEngine::step(sqlite3_stmt* statement, const char* context)
{
    Use use(statement);
    if (sqlite3_step(statement) != SQLITE_DONE) {
        fail(context);
    }
}

SqliteEngine::WritePlan::Index SqliteEngine::indexStatements(int attribute, const std::string& table)
{
    const std::string quoted = quoteIdent(table);
    return {attribute, table, prepare("INSERT OR IGNORE INTO " + quoted + "(value, key) VALUES(?1, ?2)"),
        prepare("DELETE FROM " + quoted + " WHERE value = ?1 AND key = ?2")};
}

const SqliteEngine::WritePlan& SqliteEngine::writePlanOf(std::string_view file)
{
    if (const auto found = m_writePlans.find(file); found != m_writePlans.end()) {
        return found->second;
    }
    const std::string table = quoteIdent(file);
    WritePlan plan;
    plan.upsert = prepare("INSERT OR REPLACE INTO " + table + "(key, record) VALUES(?1, ?2)");
    plan.erase = prepare("DELETE FROM " + table + " WHERE key = ?1");
    for (const auto& name : dictionaryOf(std::string(file))) {
        if (name.indexTable.empty()) {
            continue;
        }
        plan.indexes.push_back(indexStatements(name.attribute, name.indexTable));
    }
    return m_writePlans.emplace(std::string(file), std::move(plan)).first->second;
}

void SqliteEngine::indexRecord(const WritePlan& plan, std::string_view key, std::optional<std::string_view> before, std::optional<std::string_view> after)
{
    auto apply = [&](sqlite3_stmt* statement, std::string_view value, const std::string& table) {
        Use use(statement);
        bindText(statement, 1, value);
        bindText(statement, 2, key);
        if (sqlite3_step(statement) != SQLITE_DONE) {
            fail("index " + table);
        }
    };
    for (const auto& index : plan.indexes) {
        const auto change = indexChange(before, after, index.attribute);
        for (const auto value : change.leaving) {
            apply(index.erase, value, index.table);
        }
        for (const auto value : change.entering) {
            apply(index.insert, value, index.table);
        }
    }
}

void SqliteEngine::write(std::string_view file, std::string_view key, std::string_view record)
{
    const auto hold = holding();
    auto work = [&] {
        createFile(file);
        const auto& plan = writePlanOf(file);
        if (!plan.indexes.empty()) {
            const auto old = read(file, key);
            indexRecord(plan, key, old ? std::optional<std::string_view>(*old) : std::nullopt, record);
        }
        Use use(plan.upsert);
        bindText(plan.upsert, 1, key);
        // Static: the record outlives the step, and a load's records are large.
        sqlite3_bind_blob(plan.upsert, 2, record.data() ? record.data() : "", static_cast<int>(record.size()), SQLITE_STATIC);
        if (sqlite3_step(plan.upsert) != SQLITE_DONE) {
            fail(names::writeContext(file, key));
        }
    };
    // A write is all or nothing: a savepoint of its own. Within a load's
    // transaction a failed write fails the load, which is rolled back whole, so
    // the savepoint (a copy of every page the write touches) is left out.
    if (m_loading && m_depth > 0) {
        work();
    } else {
        transaction(work);
    }
}

bool SqliteEngine::remove(std::string_view file, std::string_view key)
{
    const auto hold = holding();
    if (!fileExists(file)) {
        return false;
    }
    bool removed = false;
    transaction([&] {
        const auto old = read(file, key);
        if (!old) {
            return;
        }
        const auto& plan = writePlanOf(file);
        indexRecord(plan, key, *old, std::nullopt);
        Use use(plan.erase);
        bindText(plan.erase, 1, key);
        if (sqlite3_step(plan.erase) != SQLITE_DONE) {
            fail("delete " + std::string(file) + " \"" + std::string(key) + "\"");
        }
        removed = sqlite3_changes(m_db) > 0;
    });
    return removed;
}

} // namespace store
