#include "Engine.h"

#include <algorithm>

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

} // namespace store::names
