#include "Engine.h"

#include <algorithm>
#include <iterator>

#include "database/DbaError.h"

namespace store::names {

namespace {

bool isReservedWord(std::string_view text)
{
    return text == "SSELECT" || text == "AVEC" || text == "AND" || text == "OR" || text == "PAR" || text == "=";
}

} // namespace

bool hasMark(std::string_view text)
{
    return text.find_first_of("\xFE\xFD\xFC") != std::string_view::npos;
}

// Names are words of a sentence and parts of table names: no blank, quote,
// mark, control character or '#'.
bool isPlainName(std::string_view name)
{
    if (name.empty() || name.size() > 128 || isReservedWord(name)) {
        return false;
    }
    return std::none_of(name.begin(), name.end(), [](char c) {
        const auto u = static_cast<unsigned char>(c);
        return u <= ' ' || u == 0x7F || c == '"' || c == '#' || u >= 0xFC;
    });
}

void checkKey(std::string_view key, std::string_view context)
{
    if (key.empty() || hasMark(key)) {
        throw DbaError(DbaError::Kind::BadData, std::string(context),
            key.empty() ? "a key cannot be empty" : "a key cannot hold a mark character");
    }
}

std::string writeContext(std::string_view file, std::string_view key)
{
    return "write " + std::string(file) + " \"" + std::string(key) + "\"";
}

void checkWrittenKey(std::string_view file, std::string_view key)
{
    if (key.empty() || hasMark(key)) {
        checkKey(key, writeContext(file, key));
    }
}

void checkDictionaryName(std::string_view file, std::string_view name, int attribute)
{
    const std::string context = "name " + std::string(name) + " of " + std::string(file);
    const bool digits = !name.empty() && std::all_of(name.begin(), name.end(), [](char c) { return c >= '0' && c <= '9'; });
    if (!isPlainName(name) || digits) {
        throw DbaError(DbaError::Kind::BadData, context, "not a valid dictionary name");
    }
    if (attribute < 0 || attribute > 32767) {
        throw DbaError(DbaError::Kind::BadData, context, "attribute " + std::to_string(attribute) + " out of range");
    }
}

} // namespace store::names

namespace store {

namespace {

// Beyond this many values in one sentence SQLite's own limits (expression depth,
// compound selects) would fail the statement; refuse it with a clear text first.
constexpr std::size_t kMaxAlternatives = 200;

} // namespace

void Engine::requireFile(std::string_view file, std::string_view context)
{
    if (!fileExists(file)) {
        throw DbaError(DbaError::Kind::NoFile, std::string(context), "no file " + std::string(file));
    }
}

IndexChange indexChange(std::optional<std::string_view> before, std::optional<std::string_view> after, int attribute)
{
    const auto valuesOf = [attribute](std::optional<std::string_view> record) {
        return record ? sentence::distinctValues(sentence::attributeOf(*record, attribute)) : std::vector<std::string_view>();
    };
    const auto old = valuesOf(before);
    const auto now = valuesOf(after);
    IndexChange change;
    std::set_difference(old.begin(), old.end(), now.begin(), now.end(), std::back_inserter(change.leaving));
    std::set_difference(now.begin(), now.end(), old.begin(), old.end(), std::back_inserter(change.entering));
    return change;
}

std::string quoteIdent(std::string_view name)
{
    std::string out = "\"";
    for (const char c : name) {
        if (c == '"') {
            out += '"';
        }
        out += c;
    }
    out += '"';
    return out;
}

bool isEquality(const sentence::Condition& condition)
{
    const auto& alts = condition.alternatives;
    return std::none_of(alts.begin(), alts.end(), [](const sentence::Alternative& a) { return a.prefix; });
}

ResolvedSentence resolveSentence(const sentence::Parsed& parsed, const std::vector<DictName>& names)
{
    auto resolve = [&](const sentence::Selector& selector) {
        Resolved resolved;
        if (selector.attribute >= 0) {
            resolved.attribute = selector.attribute;
            // A number also uses the index of a name that stands for it.
            for (const auto& name : names) {
                if (name.attribute == selector.attribute && !name.indexTable.empty()) {
                    resolved.indexTable = name.indexTable;
                    break;
                }
            }
            return resolved;
        }
        for (const auto& name : names) {
            if (name.name == selector.name) {
                resolved.attribute = name.attribute;
                resolved.justify = name.justify;
                resolved.indexTable = name.indexTable;
                return resolved;
            }
        }
        throw DbaError(DbaError::Kind::UnknownName, "SSELECT " + parsed.file,
            "unknown name \"" + selector.name + "\" at word " + std::to_string(selector.word.number) + " (column "
                + std::to_string(selector.word.column) + "): not in the dictionary of " + parsed.file);
    };

    ResolvedSentence out;
    std::size_t alternatives = 0;
    for (const auto& condition : parsed.conditions) {
        out.conditions.push_back(resolve(condition.selector));
        alternatives += condition.alternatives.size();
    }
    if (alternatives > kMaxAlternatives) {
        throw DbaError(DbaError::Kind::BadSentence, "SSELECT " + parsed.file,
            "too many values (" + std::to_string(alternatives) + ", at most " + std::to_string(kMaxAlternatives) + ")");
    }
    for (const auto& sort : parsed.sorts) {
        out.sorts.push_back(resolve(sort));
    }

    const auto& conditions = out.conditions;
    const std::size_t none = conditions.size();
    out.driver = none;
    for (std::size_t i = 0; i < none && out.driver == none; ++i) {
        if (conditions[i].attribute > 0 && !conditions[i].indexTable.empty() && isEquality(parsed.conditions[i])) {
            out.driver = i;
        }
    }
    for (std::size_t i = 0; i < none && out.driver == none; ++i) {
        if (conditions[i].attribute == 0) {
            out.driver = i;
        }
    }
    for (std::size_t i = 0; i < none && out.driver == none; ++i) {
        if (conditions[i].attribute > 0 && !conditions[i].indexTable.empty()) {
            out.driver = i;
        }
    }
    return out;
}

} // namespace store
