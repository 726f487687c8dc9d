#include "PgEngine.h"

#include <algorithm>
#include <libpq-fe.h>

#include "PgSchema.h"
#include "database/DbaDynArray.h"
#include "database/DbaError.h"

namespace store {

using pg::cell;

void PgEngine::noticeChange(std::string_view payload)
{
    if (payload.size() > m_schema.size() && payload.starts_with(m_schema) && payload[m_schema.size()] == '.') {
        const auto table = payload.substr(m_schema.size() + 1);
        if (table == "calvarine#dict") {
            m_dictionaries.clear();
        } else {
            m_cache.erase(std::string(table));
        }
    }
}

void PgEngine::forgetAll()
{
    m_knownFiles.clear();
    m_dictionaries.clear();
    m_cache.clear();
    // A file found too large may have shrunk meanwhile: try it again.
    m_largeFiles.clear();
}

void PgEngine::forget(std::string_view file)
{
    if (const auto found = m_cache.find(std::string(file)); found != m_cache.end()) {
        m_cache.erase(found);
    }
}

std::optional<std::string> PgEngine::read(std::string_view file, std::string_view key)
{
    requireFile(file, "read " + std::string(file));
    flush(file);
    const std::string stored(key);
    // The cache holds committed records only: inside a transaction read the server.
    if (!m_db->inTransaction() && m_cacheLimit > 0 && !m_uncachedFiles.contains(file) && !m_largeFiles.contains(file)) {
        m_db->drainNotifications();
        auto found = m_cache.find(std::string(file));
        if (found == m_cache.end()) {
            const std::string limit = std::to_string(m_cacheLimit + 1);
            auto result = m_db->runPrepared("SELECT key, record FROM " + quoteIdent(file) + " LIMIT $1::text::bigint", {limit},
                "read " + std::string(file));
            const int rows = PQntuples(result.get());
            if (static_cast<std::size_t>(rows) > m_cacheLimit) {
                m_largeFiles.emplace(file);
            } else {
                CachedFile cached;
                cached.records.reserve(static_cast<std::size_t>(rows));
                for (int row = 0; row < rows; ++row) {
                    cached.records.emplace(std::string(cell(result.get(), row, 0)), std::string(cell(result.get(), row, 1)));
                }
                found = m_cache.emplace(std::string(file), std::move(cached)).first;
            }
        }
        if (found != m_cache.end()) {
            const auto record = found->second.records.find(stored);
            if (record == found->second.records.end()) {
                return std::nullopt;
            }
            return record->second;
        }
    }
    auto result = m_db->runPrepared("SELECT record FROM " + quoteIdent(file) + " WHERE key = $1::bytea", {stored},
        "read " + std::string(file) + " \"" + std::string(key) + "\"");
    if (PQntuples(result.get()) == 0) {
        return std::nullopt;
    }
    return std::string(cell(result.get(), 0, 0));
}

} // namespace store
