#include "PgEngine.h"

#include <algorithm>
#include <libpq-fe.h>

#include "PgQueue.h"
#include "PgSchema.h"
#include "database/DbaDynArray.h"
#include "database/DbaError.h"

namespace store {

using pg::cell;
using names::isPlainName;
using namespace pg; // the engine's table names

namespace {

std::uint64_t fnv1a(std::string_view a, std::string_view b = {})
{
    std::uint64_t hash = 14695981039346656037ull;
    for (const auto part : {a, std::string_view("\0", 1), b}) {
        for (const char c : part) {
            hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211ull;
        }
    }
    return hash;
}

// The index table of a name; a name too long for an identifier is shortened
// with a hash of the whole, so two names never share a table.
std::string indexTableName(std::string_view file, std::string_view name)
{
    std::string full = std::string(file) + "#" + std::string(name);
    if (full.size() <= kMaxIdentifier) {
        return full;
    }
    char hex[17];
    std::snprintf(hex, sizeof hex, "%016llx", static_cast<unsigned long long>(fnv1a(file, name)));
    return std::string(file.substr(0, 40)) + "#" + hex;
}

} // namespace

void PgEngine::setUpSchema()
{
    transaction([&] {
        m_db->runCommand(kSchemaLock, "schema");
        auto current = m_db->run("SELECT current_schema()::text, split_part(current_setting('search_path'), ',', 1)", {}, "schema");
        if (PQgetisnull(current.get(), 0, 0)) {
            // The first schema of the search path does not exist yet: a fresh one.
            std::string wanted(cell(current.get(), 0, 1));
            wanted.erase(0, wanted.find_first_not_of(' '));
            if (wanted.size() >= 2 && wanted.front() == '"' && wanted.back() == '"') {
                wanted = wanted.substr(1, wanted.size() - 2);
            }
            if (wanted.empty() || wanted == "$user") {
                throw DbaError(DbaError::Kind::Storage, "connect", "no schema to work in (search_path is empty)");
            }
            m_db->runCommand("CREATE SCHEMA IF NOT EXISTS " + quoteIdent(wanted), "schema");
            current = m_db->run("SELECT current_schema()::text", {}, "schema");
        }
        m_schema = std::string(cell(current.get(), 0, 0));
        auto present = m_db->run(PgCommandQueue::currentCheck(), {}, "schema");
        if (cell(present.get(), 0, 0) == std::string_view("\x01", 1)) {
            return;
        }
        // Made or brought up to date: everything below may run again.
        m_db->runCommand(R"(CREATE TABLE IF NOT EXISTS "calvarine#dict"(file text NOT NULL, name text NOT NULL, attr integer NOT NULL,
  justify text NOT NULL DEFAULT 'L', idx text NOT NULL DEFAULT '', PRIMARY KEY(file, name)))",
            "schema");
        m_db->runCommand(R"(CREATE OR REPLACE FUNCTION "calvarine#changed"() RETURNS trigger LANGUAGE plpgsql AS $f$
BEGIN
  PERFORM pg_notify('calvarine_changes', TG_TABLE_SCHEMA || '.' || TG_TABLE_NAME);
  RETURN NULL;
END $f$)",
            "schema");
        m_db->runCommand(R"(CREATE OR REPLACE TRIGGER "calvarine#changed" AFTER INSERT OR UPDATE OR DELETE OR TRUNCATE
  ON "calvarine#dict" FOR EACH STATEMENT EXECUTE FUNCTION "calvarine#changed"())",
            "schema");
        PgCommandQueue::createTables(*m_db);
    });
}

void PgEngine::checkFileName(std::string_view file) const
{
    if (!isPlainName(file) || file.size() > kMaxIdentifier || file.starts_with("pg_")) {
        throw DbaError(DbaError::Kind::BadData, "file \"" + std::string(file) + "\"", "not a valid file name");
    }
}

bool PgEngine::fileExists(std::string_view file)
{
    if (m_knownFiles.contains(file)) {
        return true;
    }
    if (!isPlainName(file) || file.size() > kMaxIdentifier) {
        return false;
    }
    auto result = m_db->runPrepared("SELECT 1 FROM pg_catalog.pg_tables WHERE schemaname = current_schema() AND tablename = $1::text",
        {file}, "file " + std::string(file));
    if (PQntuples(result.get()) > 0) {
        m_knownFiles.emplace(file);
        return true;
    }
    return false;
}

void PgEngine::createFile(std::string_view file)
{
    if (fileExists(file)) {
        return;
    }
    checkFileName(file);
    transaction([&] {
        m_db->runCommand(kSchemaLock, "create " + std::string(file));
        const auto table = quoteIdent(file);
        m_db->runCommand("CREATE TABLE IF NOT EXISTS " + table + "(key bytea PRIMARY KEY, record bytea NOT NULL)", "create " + std::string(file));
        m_db->runCommand("CREATE OR REPLACE TRIGGER \"calvarine#changed\" AFTER INSERT OR UPDATE OR DELETE OR TRUNCATE ON " + table
                + " FOR EACH STATEMENT EXECUTE FUNCTION \"calvarine#changed\"()",
            "create " + std::string(file));
    });
    m_knownFiles.emplace(file);
}

std::vector<std::string> PgEngine::files()
{
    auto result = m_db->runPrepared("SELECT tablename::text FROM pg_catalog.pg_tables WHERE schemaname = current_schema() "
                              "AND position('#' IN tablename) = 0 ORDER BY tablename COLLATE \"C\"",
        {}, "files");
    std::vector<std::string> names;
    for (int row = 0; row < PQntuples(result.get()); ++row) {
        names.emplace_back(cell(result.get(), row, 0));
    }
    return names;
}

const std::vector<DictName>& PgEngine::dictionaryOf(const std::string& file)
{
    m_db->drainNotifications();
    if (const auto found = m_dictionaries.find(file); found != m_dictionaries.end()) {
        return found->second;
    }
    auto result = m_db->runPrepared(std::string("SELECT name, attr::text, justify, idx FROM ") + kDictTable
            + " WHERE file = $1::text ORDER BY name COLLATE \"C\"",
        {file}, "dictionary of " + file);
    std::vector<DictName> names;
    for (int row = 0; row < PQntuples(result.get()); ++row) {
        DictName name;
        name.name = std::string(cell(result.get(), row, 0));
        name.attribute = std::stoi(std::string(cell(result.get(), row, 1)));
        name.justify = cell(result.get(), row, 2) == "R" ? Justify::Right : Justify::Left;
        name.indexTable = std::string(cell(result.get(), row, 3));
        names.push_back(std::move(name));
    }
    return m_dictionaries.emplace(file, std::move(names)).first->second;
}

std::vector<DictName> PgEngine::dictionary(std::string_view file)
{
    return dictionaryOf(std::string(file));
}

void PgEngine::defineName(std::string_view file, std::string_view name, int attribute, Justify justify)
{
    names::checkDictionaryName(file, name, attribute);
    const std::string context = "name " + std::string(name) + " of " + std::string(file);
    checkFileName(file);
    flush(file);
    transaction([&] {
        createFile(file);
        m_db->runCommand(kSchemaLock, context);
        const std::string fileName(file);
        m_dictionaries.erase(fileName);
        for (const auto& existing : dictionaryOf(fileName)) {
            if (existing.name == name && existing.attribute == attribute && existing.justify == justify) {
                return;
            }
        }
        const std::string index = attribute > 0 ? indexTableName(file, name) : std::string();
        m_db->runCommand("DROP TABLE IF EXISTS " + quoteIdent(indexTableName(file, name)), context);
        const std::string attr = std::to_string(attribute);
        m_db->run(std::string("INSERT INTO ") + kDictTable + "(file, name, attr, justify, idx) VALUES($1::text, $2::text, $3::text::integer, $4::text, $5::text) "
                + "ON CONFLICT (file, name) DO UPDATE SET attr = EXCLUDED.attr, justify = EXCLUDED.justify, idx = EXCLUDED.idx",
            {file, name, attr, justify == Justify::Right ? "R" : "L", index}, context);
        m_dictionaries.erase(fileName);
        if (!index.empty()) {
            m_db->runCommand("CREATE TABLE " + quoteIdent(index) + "(value bytea NOT NULL, key bytea NOT NULL, PRIMARY KEY(value, key))", context);
            DictName only;
            only.name = std::string(name);
            only.attribute = attribute;
            only.indexTable = index;
            const std::vector<DictName> names{only};
            std::vector<std::pair<std::string, std::string>> records;
            forEach(file, [&](std::string_view key, std::string_view record) { records.emplace_back(key, record); });
            for (const auto& [key, record] : records) {
                indexRecord(names, key, std::nullopt, record);
            }
        }
    });
    m_dictionaries.erase(std::string(file));
}

} // namespace store
