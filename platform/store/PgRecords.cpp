#include "PgEngine.h"

#include <algorithm>
#include <libpq-fe.h>

#include "PgSchema.h"
#include "database/DbaDynArray.h"
#include "database/DbaError.h"

namespace store {

using pg::cell;

void PgEngine::forEach(std::string_view file, const std::function<void(std::string_view, std::string_view)>& visit)
{
    requireFile(file, "read " + std::string(file));
    flush(file);
    // A cursor, so a large file never sits whole in memory; visit may use the
    // engine between batches.
    transaction([&] {
        m_db->runCommand("DECLARE \"calvarine#each\" NO SCROLL CURSOR FOR SELECT key, record FROM " + quoteIdent(file) + " ORDER BY key",
            "read " + std::string(file));
        while (true) {
            auto batch = m_db->run("FETCH 5000 FROM \"calvarine#each\"", {}, "read " + std::string(file));
            const int rows = PQntuples(batch.get());
            for (int row = 0; row < rows; ++row) {
                visit(cell(batch.get(), row, 0), cell(batch.get(), row, 1));
            }
            if (rows < 5000) {
                break;
            }
        }
        m_db->runCommand("CLOSE \"calvarine#each\"", "read " + std::string(file));
    });
}

void PgEngine::indexRecord(const std::vector<DictName>& names, std::string_view key, std::optional<std::string_view> before,
    std::optional<std::string_view> after)
{
    for (const auto& name : names) {
        if (name.indexTable.empty()) {
            continue;
        }
        const auto change = indexChange(before, after, name.attribute);
        const std::string table = quoteIdent(name.indexTable);
        for (const auto value : change.leaving) {
            m_db->runPrepared("DELETE FROM " + table + " WHERE value = $1::bytea AND key = $2::bytea", {value, key}, "index " + name.indexTable);
        }
        for (const auto value : change.entering) {
            m_db->runPrepared("INSERT INTO " + table + "(value, key) VALUES($1::bytea, $2::bytea) ON CONFLICT DO NOTHING", {value, key},
                "index " + name.indexTable);
        }
    }
}

void PgEngine::write(std::string_view file, std::string_view key, std::string_view record)
{
    if (keepForLoad(file, key, record)) {
        return;
    }
    const std::string context = names::writeContext(file, key);
    const std::string stored(key);
    const std::string upsert = "INSERT INTO " + quoteIdent(file)
        + "(key, record) VALUES($1::bytea, $2::bytea) ON CONFLICT (key) DO UPDATE SET record = EXCLUDED.record";
    forget(file);
    if (fileExists(file)) {
        const auto& names = dictionaryOf(std::string(file));
        if (std::none_of(names.begin(), names.end(), [](const DictName& n) { return !n.indexTable.empty(); })) {
            // One statement: atomic on its own.
            m_db->runPrepared(upsert, {stored, record}, context);
            noteChanged(file, 1);
            return;
        }
    }
    transaction([&] {
        createFile(file);
        noteChanged(file, 1);
        const auto names = dictionaryOf(std::string(file));
        // The index changes come from the record this write replaces, read under
        // the row's lock, so two writers of one key never leave the index astray.
        const std::string table = quoteIdent(file);
        auto inserted = m_db->runPrepared("INSERT INTO " + table + "(key, record) VALUES($1::bytea, $2::bytea) ON CONFLICT (key) DO NOTHING RETURNING 1",
            {stored, record}, context);
        if (PQntuples(inserted.get()) > 0) {
            indexRecord(names, stored, std::nullopt, record);
            return;
        }
        auto old = m_db->runPrepared("WITH old AS (SELECT record FROM " + table + " WHERE key = $1::bytea FOR UPDATE) UPDATE " + table
                + " AS t SET record = $2::bytea FROM old WHERE t.key = $1::bytea RETURNING old.record",
            {stored, record}, context);
        if (PQntuples(old.get()) == 0) {
            // Removed between the two statements: write it anew.
            m_db->runPrepared(upsert, {stored, record}, context);
            indexRecord(names, stored, std::nullopt, record);
            return;
        }
        indexRecord(names, stored, cell(old.get(), 0, 0), record);
    });
}

bool PgEngine::remove(std::string_view file, std::string_view key)
{
    if (!fileExists(file)) {
        return false;
    }
    const std::string stored(key);
    const std::string context = "delete " + std::string(file) + " \"" + std::string(key) + "\"";
    flush(file);
    forget(file);
    bool removed = false;
    transaction([&] {
        const auto names = dictionaryOf(std::string(file));
        auto old = m_db->runPrepared("DELETE FROM " + quoteIdent(file) + " WHERE key = $1::bytea RETURNING record", {stored}, context);
        if (PQntuples(old.get()) == 0) {
            return;
        }
        removed = true;
        noteChanged(file, 1);
        indexRecord(names, stored, cell(old.get(), 0, 0), std::nullopt);
    });
    return removed;
}

} // namespace store
