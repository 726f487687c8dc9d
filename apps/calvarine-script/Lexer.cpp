#include "Lexer.h"

#include <charconv>

#include "Text.h"

namespace script {

namespace {

bool isBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

} // namespace

Value Value::of(bool b)
{
    Value v;
    v.kind = Kind::Boolean;
    v.boolean = b;
    return v;
}

Value Value::of(std::int64_t i)
{
    Value v;
    v.kind = Kind::Integer;
    v.integer = i;
    return v;
}

Value Value::of(std::string s)
{
    Value v;
    v.kind = Kind::String;
    v.text = std::move(s);
    return v;
}

Value Value::word(std::string w)
{
    Value v;
    v.kind = Kind::Word;
    v.text = std::move(w);
    return v;
}

Value Value::list(std::vector<Value> items)
{
    Value v;
    v.kind = Kind::List;
    v.items = std::move(items);
    return v;
}

bool Value::isListOf(Kind item) const
{
    if (kind != Kind::List) {
        return false;
    }
    for (const Value& v : items) {
        if (v.kind != item) {
            return false;
        }
    }
    return true;
}

std::string Value::format() const
{
    switch (kind) {
    case Kind::Boolean:
        return boolean ? "True" : "False";
    case Kind::Integer:
        return std::to_string(integer);
    case Kind::String:
        return quote(text);
    case Kind::Word:
        return text;
    case Kind::List: {
        std::string out = "[";
        for (std::size_t i = 0; i < items.size(); ++i) {
            out += (i ? "," : "") + items[i].format();
        }
        return out + "]";
    }
    }
    return {};
}

bool operator==(const Value& a, const Value& b)
{
    if (a.kind != b.kind) {
        return false;
    }
    switch (a.kind) {
    case Value::Kind::Boolean: return a.boolean == b.boolean;
    case Value::Kind::Integer: return a.integer == b.integer;
    case Value::Kind::String:
    case Value::Kind::Word: return a.text == b.text;
    case Value::Kind::List: return a.items == b.items;
    }
    return false;
}

void LineReader::skipBlanks()
{
    while (m_pos < m_line.size() && isBlank(m_line[m_pos])) {
        ++m_pos;
    }
}

bool LineReader::atEnd()
{
    skipBlanks();
    return m_pos >= m_line.size();
}

void LineReader::expectEnd()
{
    if (!atEnd()) {
        throw BadCommand("unexpected \"" + std::string(m_line.substr(m_pos)) + "\"");
    }
}

char LineReader::peek()
{
    skipBlanks();
    return m_pos < m_line.size() ? m_line[m_pos] : '\0';
}

std::string LineReader::word()
{
    skipBlanks();
    const std::size_t begin = m_pos;
    while (m_pos < m_line.size() && !isBlank(m_line[m_pos])) {
        ++m_pos;
    }
    if (begin == m_pos) {
        throw BadCommand("a word is missing");
    }
    return std::string(m_line.substr(begin, m_pos - begin));
}

void LineReader::keyword(std::string_view w)
{
    if (word() != w) {
        throw BadCommand("\"" + std::string(w) + "\" expected");
    }
}

std::string LineReader::string()
{
    if (peek() != '"') {
        throw BadCommand("a string is missing");
    }
    ++m_pos;
    std::string out;
    while (m_pos < m_line.size()) {
        const char c = m_line[m_pos++];
        if (c == '"') {
            return out;
        }
        if (c != '\\') {
            out += c;
            continue;
        }
        if (m_pos >= m_line.size()) {
            break;
        }
        switch (const char e = m_line[m_pos++]) {
        case '"': out += '"'; break;
        case '\\': out += '\\'; break;
        case 'r': out += '\r'; break;
        case 'n': out += '\n'; break;
        case 't': out += '\t'; break;
        default: throw BadCommand(std::string("unknown escape \\") + e);
        }
    }
    throw BadCommand("a string is not closed");
}

std::int64_t LineReader::integer()
{
    skipBlanks();
    std::size_t end = m_pos;
    while (end < m_line.size() && !isBlank(m_line[end]) && m_line[end] != ',' && m_line[end] != ']') {
        ++end;
    }
    std::int64_t value = 0;
    const char* first = m_line.data() + m_pos;
    const char* last = m_line.data() + end;
    const auto [ptr, ec] = std::from_chars(first, last, value);
    if (first == last || ec != std::errc() || ptr != last) {
        throw BadCommand("an integer is missing");
    }
    m_pos = end;
    return value;
}

bool LineReader::boolean()
{
    const std::string w = word();
    if (w == "True") {
        return true;
    }
    if (w == "False") {
        return false;
    }
    throw BadCommand("True or False expected");
}

Value LineReader::list()
{
    ++m_pos; // [
    std::vector<Value> items;
    if (peek() == ']') {
        ++m_pos;
        return Value::list({});
    }
    while (true) {
        items.push_back(peek() == '"' ? Value::of(string()) : Value::of(integer()));
        const char next = peek();
        ++m_pos;
        if (next == ']') {
            return Value::list(std::move(items));
        }
        if (next != ',') {
            throw BadCommand("a list is not closed");
        }
    }
}

Value LineReader::value()
{
    const char c = peek();
    if (c == '"') {
        return Value::of(string());
    }
    if (c == '[') {
        return list();
    }
    if (c == '-' || (c >= '0' && c <= '9')) {
        return Value::of(integer());
    }
    const std::string w = word();
    if (w == "True" || w == "False") {
        return Value::of(w == "True");
    }
    return Value::word(w);
}

std::string_view LineReader::rest()
{
    skipBlanks();
    const auto r = trimmed(m_line.substr(m_pos));
    m_pos = m_line.size();
    return r;
}

std::int16_t int16(std::int64_t n)
{
    if (n < INT16_MIN || n > INT16_MAX) {
        throw BadCommand("integer out of range");
    }
    return static_cast<std::int16_t>(n);
}

std::string_view trimmed(std::string_view line)
{
    while (!line.empty() && isBlank(line.front())) {
        line.remove_prefix(1);
    }
    while (!line.empty() && isBlank(line.back())) {
        line.remove_suffix(1);
    }
    return line;
}

} // namespace script
