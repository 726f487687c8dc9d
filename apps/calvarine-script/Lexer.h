#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace script {

// A line that is not a command of the scenario language.
class BadCommand : public std::runtime_error {
public:
    explicit BadCommand(const std::string& why) : std::runtime_error(why) {}
};

// A value written in a scenario: a Boolean (True, False), an integer, a string,
// a list of strings or integers, or a bare word (a control name, nothing, none).
struct Value {
    enum class Kind { Boolean, Integer, String, List, Word };

    Kind kind = Kind::Word;
    bool boolean = false;
    std::int64_t integer = 0;
    std::string text; // String and Word
    std::vector<Value> items;

    static Value of(bool b);
    static Value of(std::int64_t i);
    static Value of(std::string s);
    static Value word(std::string w);
    static Value list(std::vector<Value> items);

    // A list whose every item has kind item (an empty list is any list).
    bool isListOf(Kind item) const;
    // As a scenario writes it: True, 12, "text", ["a","b"], word.
    std::string format() const;

    friend bool operator==(const Value&, const Value&);
};

// Reads one scenario line from left to right. Every read skips blanks first and
// throws BadCommand when the next thing is not what was asked for.
class LineReader {
public:
    explicit LineReader(std::string_view line) : m_line(line) {}

    bool atEnd();
    void expectEnd();
    // A run of non-blank characters.
    std::string word();
    // The next word must be exactly w.
    void keyword(std::string_view w);
    // A string between double quotes, escapes decoded.
    std::string string();
    std::int64_t integer();
    bool boolean();
    // Any value, told apart by its first character.
    Value value();
    // What is left of the line, blanks trimmed.
    std::string_view rest();
    char peek();

private:
    void skipBlanks();
    Value list();

    std::string_view m_line;
    std::size_t m_pos = 0;
};

// n as a signed 16-bit integer, as the screen counts; BadCommand when it does not fit.
std::int16_t int16(std::int64_t n);

// The line without leading or trailing blanks.
std::string_view trimmed(std::string_view line);

} // namespace script
