#include "SqliteEngine.h"

// Sentences compiled to SQL on the store's tables and index tables, and run.

#include <algorithm>

#include "SqliteStatement.h"
#include "database/DbaDynArray.h"
#include "database/DbaError.h"

namespace store {

using sqlite::columnText;
using sqlite::Use;

namespace {

constexpr std::size_t kMaxCachedSentences = 64;

// SQL for "some alternative holds" on the key column.
std::string keyTest(const std::string& column, const sentence::Condition& condition, std::vector<std::string>& binds)
{
    std::string sql = "(";
    bool first = true;
    for (const auto& alternative : condition.alternatives) {
        sql += first ? "" : " OR ";
        first = false;
        if (!alternative.prefix) {
            binds.push_back(alternative.value);
            sql += column + " = ?" + std::to_string(binds.size());
            continue;
        }
        binds.push_back(alternative.value);
        sql += "(" + column + " >= ?" + std::to_string(binds.size());
        const auto upper = sentence::prefixUpperBound(alternative.value);
        if (!upper.empty()) {
            binds.push_back(upper);
            sql += " AND " + column + " < ?" + std::to_string(binds.size());
        }
        sql += ")";
    }
    return sql + ")";
}

std::string valueTest(const std::string& column, const sentence::Alternative& alternative, std::vector<std::string>& binds)
{
    sentence::Condition condition;
    condition.alternatives.push_back(alternative);
    return keyTest(column, condition, binds);
}

} // namespace

sqlite3_stmt* SqliteEngine::prepareSentence(const std::string& sql)
{
    if (const auto found = m_sentences.find(sql); found != m_sentences.end()) {
        return found->second.get();
    }
    // Only one sentence statement runs at a time, so dropping them all is safe.
    if (m_sentences.size() >= kMaxCachedSentences) {
        m_sentences.clear();
    }
    sqlite3_stmt* raw = nullptr;
    if (sqlite3_prepare_v3(m_db, sql.c_str(), static_cast<int>(sql.size()), SQLITE_PREPARE_PERSISTENT, &raw, nullptr) != SQLITE_OK) {
        fail("SSELECT");
    }
    return m_sentences.emplace(sql, StatementPtr(raw)).first->second.get();
}

CompiledQuery SqliteEngine::compile(const sentence::Parsed& parsed, bool wantRecord)
{
    if (!fileExists(parsed.file)) {
        throw DbaError(DbaError::Kind::NoFile, "SSELECT " + parsed.file,
            "no file \"" + parsed.file + "\" at word " + std::to_string(parsed.fileWord.number) + " (column "
                + std::to_string(parsed.fileWord.column) + ")");
    }
    refreshSchema();
    const auto& names = dictionaryOf(parsed.file);

    const ResolvedSentence resolved = resolveSentence(parsed, names);
    const auto& conditions = resolved.conditions;
    const auto& sorts = resolved.sorts;
    const std::size_t none = conditions.size();
    const std::size_t driver = resolved.driver;

    // A single key condition narrows an index driver's range as well.
    std::size_t pushedKey = none;
    if (driver != none && conditions[driver].attribute > 0) {
        for (std::size_t i = 0; i < conditions.size(); ++i) {
            if (conditions[i].attribute == 0 && parsed.conditions[i].alternatives.size() == 1) {
                pushedKey = i;
                break;
            }
        }
    }

    CompiledQuery query;
    auto& binds = query.binds;
    const std::string table = quoteIdent(parsed.file);
    std::string from;
    std::vector<std::string> where;
    std::string keyColumn = "t.key";
    if (driver != none && conditions[driver].attribute > 0) {
        const auto index = quoteIdent(conditions[driver].indexTable);
        const auto& alts = parsed.conditions[driver].alternatives;
        if (alts.size() == 1 && !alts.front().prefix) {
            // One value: walk the index range, then fetch each record by key. A
            // begins-with could meet several values of one record, so it goes below.
            from = index + " AS i CROSS JOIN " + table + " AS t";
            where.push_back(valueTest("i.value", alts.front(), binds));
            if (pushedKey != none) {
                where.push_back(keyTest("i.key", parsed.conditions[pushedKey], binds));
            }
            where.push_back("t.key = i.key");
            keyColumn = "i.key";
        } else {
            // A key may match more than one value, so gather distinct keys.
            from = table + " AS t";
            std::string in = "t.key IN (";
            for (std::size_t a = 0; a < alts.size(); ++a) {
                in += a ? " UNION SELECT key FROM " : "SELECT key FROM ";
                in += index + " WHERE " + valueTest("value", alts[a], binds);
                if (pushedKey != none) {
                    in += " AND " + keyTest("key", parsed.conditions[pushedKey], binds);
                }
            }
            where.push_back(in + ")");
        }
    } else {
        from = table + " AS t";
    }
    for (std::size_t i = 0; i < conditions.size(); ++i) {
        if (i == driver && conditions[i].attribute > 0) {
            continue;
        }
        if (i == pushedKey) {
            continue;
        }
        if (conditions[i].attribute == 0) {
            where.push_back(keyTest("t.key", parsed.conditions[i], binds));
            continue;
        }
        std::string test = "(";
        const auto& alts = parsed.conditions[i].alternatives;
        for (std::size_t a = 0; a < alts.size(); ++a) {
            binds.push_back(alts[a].value);
            test += (a ? " OR " : "") + std::string("calv_has(t.record, ") + std::to_string(conditions[i].attribute) + ", ?"
                + std::to_string(binds.size()) + (alts[a].prefix ? ", 1)" : ", 0)");
        }
        where.push_back(test + ")");
        query.readsRecord = true;
    }

    std::string order;
    bool endsOnKey = false;
    for (const auto& sort : sorts) {
        order += order.empty() ? "" : ", ";
        const std::string collate = sort.justify == Justify::Right ? " COLLATE calv_right" : "";
        if (sort.attribute == 0) {
            order += keyColumn + collate;
            endsOnKey = collate.empty();
        } else {
            order += "calv_attr(t.record, " + std::to_string(sort.attribute) + ")" + collate;
            endsOnKey = false;
            query.readsRecord = true;
        }
    }
    if (!endsOnKey) {
        order += (order.empty() ? "" : ", ") + keyColumn;
    }

    query.readsRecord = query.readsRecord || wantRecord;
    query.sql = "SELECT " + keyColumn + (wantRecord ? ", t.record" : "") + " FROM " + from;
    for (std::size_t i = 0; i < where.size(); ++i) {
        query.sql += (i ? " AND " : " WHERE ") + where[i];
    }
    query.sql += " ORDER BY " + order;
    return query;
}

DbaDynArray SqliteEngine::select(const sentence::Parsed& parsed, const std::vector<int>& attributes)
{
    const bool wantRecord = std::any_of(attributes.begin(), attributes.end(), [](int a) { return a > 0; });
    const auto hold = reading();
    const auto query = compile(parsed, wantRecord);

    sqlite3_stmt* statement = prepareSentence(query.sql);
    Use use(statement);
    for (std::size_t i = 0; i < query.binds.size(); ++i) {
        sqlite3_bind_text(statement, static_cast<int>(i + 1), query.binds[i].data(), static_cast<int>(query.binds[i].size()), SQLITE_STATIC);
    }
    std::string out;
    bool first = true;
    int rc;
    while ((rc = sqlite3_step(statement)) == SQLITE_ROW) {
        if (!first) {
            out += DbaDynArray::kAttributeMark;
        }
        first = false;
        const auto key = columnText(statement, 0);
        const auto record = wantRecord ? columnText(statement, 1) : std::string_view();
        for (std::size_t k = 0; k < attributes.size(); ++k) {
            if (k) {
                out += DbaDynArray::kValueMark;
            }
            out += attributes[k] == 0 ? key : sentence::attributeOf(record, attributes[k]);
        }
    }
    if (rc != SQLITE_DONE) {
        fail("SSELECT " + parsed.file);
    }
    return DbaDynArray(std::move(out));
}

} // namespace store
