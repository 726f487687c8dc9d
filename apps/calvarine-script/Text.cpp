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

} // namespace script
