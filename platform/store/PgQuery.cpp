#include "PgEngine.h"

#include <algorithm>

#include "PgSchema.h"
#include "database/DbaDynArray.h"
#include "database/DbaError.h"

namespace store {


namespace {

// A value written into the SQL as a bytea literal in hexadecimal (any byte is
// safe there): COPY takes no parameters. binds keeps the values for the tests.
std::string placeholder(std::vector<std::string>& binds, std::string value)
{
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string literal = "E'\\\\x";
    for (const unsigned char c : value) {
        literal += kDigits[c >> 4];
        literal += kDigits[c & 15];
    }
    binds.push_back(std::move(value));
    return literal + "'::bytea";
}

// SQL for "some alternative holds" on a bytea column.
std::string rangeTest(const std::string& column, const std::vector<sentence::Alternative>& alternatives, std::vector<std::string>& binds)
{
    std::string sql = "(";
    bool first = true;
    for (const auto& alternative : alternatives) {
        sql += first ? "" : " OR ";
        first = false;
        if (!alternative.prefix) {
            sql += column + " = " + placeholder(binds, alternative.value);
            continue;
        }
        sql += "(" + column + " >= " + placeholder(binds, alternative.value);
        const auto upper = sentence::prefixUpperBound(alternative.value);
        if (!upper.empty()) {
            sql += " AND " + column + " < " + placeholder(binds, upper);
        }
        sql += ")";
    }
    return sql + ")";
}

// What the client does after the server has answered: the conditions no index
// answers, and the sort.
struct Plan {
    CompiledQuery query;
    bool record = false;                 // column 1 is the record
    std::vector<Resolved> sorts;
    std::vector<std::pair<int, const sentence::Condition*>> residual; // attribute, condition
};

Plan plan(const sentence::Parsed& parsed, const std::vector<DictName>& names, const std::vector<int>& attributes)
{
    const ResolvedSentence resolved = resolveSentence(parsed, names);
    const auto& conditions = resolved.conditions;
    Plan out;
    out.sorts = resolved.sorts;
    const std::size_t driver = resolved.driver;
    auto allEqual = [&](std::size_t i) { return isEquality(parsed.conditions[i]); };

    auto& binds = out.query.binds;
    const std::string table = quoteIdent(parsed.file);
    // An equality on an indexed attribute that drives is a join with its index
    // table, walked in key order: the (value, key) index gives the rows sorted,
    // and a range on the key narrows that walk too. One value only, so that no
    // key comes twice.
    const bool joined = driver < conditions.size() && !conditions[driver].indexTable.empty()
        && parsed.conditions[driver].alternatives.size() == 1 && !parsed.conditions[driver].alternatives.front().prefix;
    std::string from = table + " AS t";
    std::string order = "t.key";
    std::vector<std::string> where;
    if (joined) {
        from = quoteIdent(conditions[driver].indexTable) + " AS x JOIN " + table + " AS t ON t.key = x.key";
        order = "x.key";
    }
    for (std::size_t i = 0; i < conditions.size(); ++i) {
        const auto& alts = parsed.conditions[i].alternatives;
        if (conditions[i].attribute == 0) {
            where.push_back(rangeTest("t.key", alts, binds));
            if (joined) {
                where.push_back(rangeTest("x.key", alts, binds));
            }
        } else if (joined && i == driver) {
            where.push_back(rangeTest("x.value", alts, binds));
        } else if (!conditions[i].indexTable.empty() && (i == driver || allEqual(i))) {
            // The index table answers it: the planner walks its (value, key) range
            // when it drives, or probes it per key otherwise.
            where.push_back("t.key IN (SELECT y.key FROM " + quoteIdent(conditions[i].indexTable) + " AS y WHERE "
                + rangeTest("y.value", alts, binds) + ")");
        } else {
            out.residual.emplace_back(conditions[i].attribute, &parsed.conditions[i]);
        }
    }

    // Sorts on attributes are done here, on the record: cheaper than taking the
    // attributes apart on the server.
    const bool sortsOnAttributes = std::any_of(out.sorts.begin(), out.sorts.end(), [](const Resolved& sort) { return sort.attribute > 0; });
    const bool wantRecord = !out.residual.empty() || sortsOnAttributes
        || std::any_of(attributes.begin(), attributes.end(), [](int a) { return a > 0; });
    std::string columns = "t.key";
    if (wantRecord) {
        columns += ", t.record";
        out.record = true;
    }
    out.query.sql = "SELECT " + columns + " FROM " + from;
    for (std::size_t i = 0; i < where.size(); ++i) {
        out.query.sql += (i ? " AND " : " WHERE ") + where[i];
    }
    // With a sort the client orders the rows itself, ties by key: an ORDER BY
    // here would make the server sort every record it sends (on disk, past
    // work_mem) only for the client to sort them again.
    if (out.sorts.empty()) {
        out.query.sql += " ORDER BY " + order;
    }
    out.query.readsRecord = wantRecord;
    return out;
}

} // namespace

CompiledQuery PgEngine::compile(const sentence::Parsed& parsed, const std::vector<int>& attributes)
{
    requireFile(parsed.file, "SSELECT " + parsed.file);
    return plan(parsed, dictionaryOf(parsed.file), attributes).query;
}

DbaDynArray PgEngine::select(const sentence::Parsed& parsed, const std::vector<int>& attributes)
{
    if (!fileExists(parsed.file)) {
        throw DbaError(DbaError::Kind::NoFile, "SSELECT " + parsed.file,
            "no file \"" + parsed.file + "\" at word " + std::to_string(parsed.fileWord.number) + " (column "
                + std::to_string(parsed.fileWord.column) + ")");
    }
    flush(parsed.file);
    const auto planned = plan(parsed, dictionaryOf(parsed.file), attributes);
    // Through COPY, each row as it arrives, keeping only what the answer needs:
    // the key, the sort values and the attributes asked. A result set would hold
    // every record at once (megabytes, allocated and freed by each query). With
    // its values written in, the sentence is also planned for them each time
    // (a generic plan of a wide range probes the records once per key).
    const std::size_t perRow = 1 + planned.sorts.size() + attributes.size();
    std::string kept;
    std::vector<std::pair<std::size_t, std::size_t>> spans; // offset and size in kept, perRow per row
    auto keep = [&](std::string_view value) {
        spans.emplace_back(kept.size(), value.size());
        kept.append(value);
    };
    m_db->copyOut("COPY (" + planned.query.sql + ") TO STDOUT (FORMAT binary)", "SSELECT " + parsed.file,
        [&](const std::vector<std::string_view>& fields) {
            const auto key = fields.at(0);
            const auto record = planned.record ? fields.at(1) : std::string_view();
            const bool wanted = std::all_of(planned.residual.begin(), planned.residual.end(), [&](const auto& test) {
                const auto attribute = sentence::attributeOf(record, test.first);
                return std::any_of(test.second->alternatives.begin(), test.second->alternatives.end(),
                    [&](const sentence::Alternative& a) { return sentence::anyValueMatches(attribute, a.value, a.prefix); });
            });
            if (!wanted) {
                return;
            }
            keep(key);
            for (const auto& sort : planned.sorts) {
                keep(sort.attribute == 0 ? key : sentence::attributeOf(record, sort.attribute));
            }
            for (const int attribute : attributes) {
                keep(attribute == 0 ? key : sentence::attributeOf(record, attribute));
            }
        });
    auto field = [&](std::size_t row, std::size_t k) {
        const auto& [offset, size] = spans[row * perRow + k];
        return std::string_view(kept).substr(offset, size);
    };
    std::vector<std::size_t> rows(spans.size() / perRow);
    for (std::size_t i = 0; i < rows.size(); ++i) {
        rows[i] = i;
    }
    if (!planned.sorts.empty()) {
        // Rows come in no particular order: ties are put in key order.
        std::sort(rows.begin(), rows.end(), [&](std::size_t a, std::size_t b) {
            for (std::size_t k = 0; k < planned.sorts.size(); ++k) {
                const auto x = field(a, 1 + k);
                const auto y = field(b, 1 + k);
                const int order = planned.sorts[k].justify == Justify::Right ? sentence::compareRight(x, y) : x.compare(y);
                if (order != 0) {
                    return order < 0;
                }
            }
            return field(a, 0) < field(b, 0);
        });
    }

    std::string out;
    bool first = true;
    for (const auto& row : rows) {
        if (!first) {
            out += DbaDynArray::kAttributeMark;
        }
        first = false;
        for (std::size_t k = 0; k < attributes.size(); ++k) {
            if (k) {
                out += DbaDynArray::kValueMark;
            }
            out += field(row, 1 + planned.sorts.size() + k);
        }
    }
    return DbaDynArray(std::move(out));
}

} // namespace store
