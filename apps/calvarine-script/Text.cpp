#include "Text.h"

#include "database/DbaDynArray.h"

namespace script {

std::string showMarks(std::string_view record)
{
    std::string out(record);
    for (char& c : out) {
        if (c == DbaDynArray::kAttributeMark) {
            c = '^';
        } else if (c == DbaDynArray::kValueMark) {
            c = '|';
        } else if (c == DbaDynArray::kSubvalueMark) {
            c = '~';
        }
    }
    return out;
}

std::string quote(std::string_view text)
{
    std::string out = "\"";
    for (const char c : text) {
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\r': out += "\\r"; break;
        case '\n': out += "\\n"; break;
        case '\t': out += "\\t"; break;
        default: out += c;
        }
    }
    return out + '"';
}

std::vector<char32_t> codePoints(std::string_view s)
{
    std::vector<char32_t> out;
    for (std::size_t i = 0; i < s.size();) {
        const auto c = static_cast<unsigned char>(s[i++]);
        int extra = c >= 0xF0 ? 3 : c >= 0xE0 ? 2 : c >= 0xC0 ? 1 : 0;
        char32_t cp = extra == 3 ? (c & 0x07) : extra == 2 ? (c & 0x0F) : extra == 1 ? (c & 0x1F) : c;
        for (; extra > 0 && i < s.size(); --extra) {
            cp = (cp << 6) | (static_cast<unsigned char>(s[i++]) & 0x3F);
        }
        out.push_back(cp);
    }
    return out;
}

} // namespace script
