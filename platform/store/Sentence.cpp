#include "Sentence.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>

#include "database/DbaDynArray.h"
#include "database/DbaError.h"

namespace store::sentence {

namespace {

bool isBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

[[noreturn]] void fail(std::string_view context, const std::string& detail)
{
    throw DbaError(DbaError::Kind::BadSentence, std::string(context), detail);
}

std::string where(const Word& word)
{
    return "at word " + std::to_string(word.number) + " (column " + std::to_string(word.column) + ")";
}

[[noreturn]] void unexpected(const Word& word, std::string_view expected)
{
    const std::string shown = word.quoted ? "\"" + word.text + "\"" : "\"" + word.text + "\"";
    fail("SSELECT", "expected " + std::string(expected) + " " + where(word) + ", found " + shown);
}

// Reads the words one by one and reports the position of the one that fails.
class Reader {
public:
    Reader(std::vector<Word> words, std::size_t length)
        : m_words(std::move(words))
        , m_length(length)
    {
    }

    bool atEnd() const { return m_next >= m_words.size(); }
    const Word& peek() const { return m_words[m_next]; }
    bool peekIs(std::string_view keyword) const { return !atEnd() && !peek().quoted && peek().text == keyword; }

    const Word& take(std::string_view expected)
    {
        if (atEnd()) {
            fail("SSELECT", "expected " + std::string(expected) + " at word " + std::to_string(m_words.size() + 1)
                    + " (column " + std::to_string(m_length + 1) + "), found the end of the sentence");
        }
        return m_words[m_next++];
    }

    void keyword(std::string_view keyword)
    {
        const Word& word = take("\"" + std::string(keyword) + "\"");
        if (word.quoted || word.text != keyword) {
            unexpected(word, "\"" + std::string(keyword) + "\"");
        }
    }

private:
    std::vector<Word> m_words;
    std::size_t m_length;
    std::size_t m_next = 0;
};

bool isReserved(std::string_view text)
{
    return text == "SSELECT" || text == "AVEC" || text == "AND" || text == "OR" || text == "PAR" || text == "=";
}

Selector readSelector(Reader& reader)
{
    const Word& word = reader.take("an attribute number or a dictionary name");
    if (word.quoted || isReserved(word.text)) {
        unexpected(word, "an attribute number or a dictionary name");
    }
    Selector selector;
    selector.word = word;
    const auto& text = word.text;
    if (std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        int number = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
        if (error != std::errc() || end != text.data() + text.size() || number > 32767) {
            fail("SSELECT", "attribute number " + text + " out of range " + where(word));
        }
        selector.attribute = number;
    } else {
        selector.name = text;
    }
    return selector;
}

Alternative readValue(Reader& reader)
{
    const Word& word = reader.take("a quoted value");
    if (!word.quoted) {
        unexpected(word, "a quoted value");
    }
    Alternative alternative;
    alternative.value = word.text;
    if (!alternative.value.empty() && alternative.value.back() == ']') {
        alternative.value.pop_back();
        alternative.prefix = true;
    }
    return alternative;
}

} // namespace

std::vector<Word> split(std::string_view text)
{
    std::vector<Word> words;
    std::size_t at = 0;
    while (at < text.size()) {
        if (isBlank(text[at])) {
            ++at;
            continue;
        }
        Word word;
        word.number = static_cast<int>(words.size()) + 1;
        word.column = at + 1;
        if (text[at] == '"') {
            const auto close = text.find('"', at + 1);
            if (close == std::string_view::npos) {
                fail("SSELECT", "the quote opened at word " + std::to_string(word.number) + " (column "
                        + std::to_string(word.column) + ") is never closed");
            }
            word.quoted = true;
            word.text = std::string(text.substr(at + 1, close - at - 1));
            at = close + 1;
            if (at < text.size() && !isBlank(text[at])) {
                fail("SSELECT", "a blank must follow the value at word " + std::to_string(word.number) + " (column "
                        + std::to_string(word.column) + ")");
            }
        } else {
            const auto begin = at;
            while (at < text.size() && !isBlank(text[at])) {
                ++at;
            }
            word.text = std::string(text.substr(begin, at - begin));
        }
        words.push_back(std::move(word));
    }
    return words;
}

Parsed parse(std::string_view text)
{
    Reader reader(split(text), text.size());
    Parsed parsed;
    reader.keyword("SSELECT");
    parsed.fileWord = reader.take("a file name");
    if (parsed.fileWord.quoted || isReserved(parsed.fileWord.text)) {
        unexpected(parsed.fileWord, "a file name");
    }
    parsed.file = parsed.fileWord.text;

    bool first = true;
    while (!reader.atEnd() && !reader.peekIs("PAR")) {
        if (!first) {
            reader.keyword("AND");
        }
        reader.keyword("AVEC");
        Condition condition;
        condition.selector = readSelector(reader);
        reader.keyword("=");
        condition.alternatives.push_back(readValue(reader));
        while (reader.peekIs("OR")) {
            reader.keyword("OR");
            reader.keyword("=");
            condition.alternatives.push_back(readValue(reader));
        }
        parsed.conditions.push_back(std::move(condition));
        first = false;
    }
    while (!reader.atEnd()) {
        reader.keyword("PAR");
        parsed.sorts.push_back(readSelector(reader));
    }
    return parsed;
}

std::vector<int> parseAttributeList(std::string_view text)
{
    std::vector<int> attributes;
    for (const auto& word : split(text)) {
        int number = -1;
        const auto [end, error] = std::from_chars(word.text.data(), word.text.data() + word.text.size(), number);
        if (word.quoted || error != std::errc() || end != word.text.data() + word.text.size() || number < 0 || number > 32767) {
            fail("attributes", "\"" + word.text + "\" is not an attribute number " + where(word));
        }
        attributes.push_back(number);
    }
    if (attributes.empty()) {
        attributes.push_back(0);
    }
    return attributes;
}

std::string_view attributeOf(std::string_view record, int n)
{
    if (n < 1) {
        return {};
    }
    std::size_t begin = 0;
    for (int k = 1; k < n; ++k) {
        const auto at = record.find(DbaDynArray::kAttributeMark, begin);
        if (at == std::string_view::npos) {
            return {};
        }
        begin = at + 1;
    }
    const auto end = record.find(DbaDynArray::kAttributeMark, begin);
    return record.substr(begin, end == std::string_view::npos ? std::string_view::npos : end - begin);
}

bool anyValueMatches(std::string_view attribute, std::string_view value, bool prefix)
{
    for (const auto candidate : splitMarks(attribute, DbaDynArray::kValueMark)) {
        if (prefix ? candidate.substr(0, value.size()) == value : candidate == value) {
            return true;
        }
    }
    return false;
}

std::vector<std::string_view> distinctValues(std::string_view attribute)
{
    auto values = splitMarks(attribute, DbaDynArray::kValueMark);
    std::sort(values.begin(), values.end());
    values.erase(std::unique(values.begin(), values.end()), values.end());
    return values;
}

std::string prefixUpperBound(std::string_view prefix)
{
    std::string bound(prefix);
    while (!bound.empty()) {
        auto& last = reinterpret_cast<unsigned char&>(bound.back());
        if (last != 0xFF) {
            ++last;
            return bound;
        }
        bound.pop_back();
    }
    return bound;
}

namespace {

// A plain decimal number: optional minus, digits, optional fraction.
bool isNumber(std::string_view text)
{
    std::size_t at = 0;
    if (at < text.size() && text[at] == '-') {
        ++at;
    }
    std::size_t digits = 0;
    while (at < text.size() && text[at] >= '0' && text[at] <= '9') {
        ++at;
        ++digits;
    }
    if (at < text.size() && text[at] == '.') {
        ++at;
        while (at < text.size() && text[at] >= '0' && text[at] <= '9') {
            ++at;
            ++digits;
        }
    }
    return digits > 0 && at == text.size();
}

// The value order of two plain decimal numbers (isNumber), read digit by digit:
// exact at any length, and independent of the process locale (a decimal comma
// there would stop a C library conversion at the point). Allocates nothing, as
// it runs inside the database library's collation callback.
int compareDecimal(std::string_view a, std::string_view b) noexcept
{
    struct Parts {
        bool negative = false;
        std::string_view whole;
        std::string_view fraction;
    };
    const auto split = [](std::string_view text) {
        Parts parts;
        if (!text.empty() && text.front() == '-') {
            parts.negative = true;
            text.remove_prefix(1);
        }
        const auto point = text.find('.');
        parts.whole = text.substr(0, point);
        parts.fraction = point == std::string_view::npos ? std::string_view() : text.substr(point + 1);
        parts.whole.remove_prefix(std::min(parts.whole.find_first_not_of('0'), parts.whole.size()));
        parts.fraction = parts.fraction.substr(0, parts.fraction.find_last_not_of('0') + 1);
        return parts;
    };
    const Parts x = split(a);
    const Parts y = split(b);
    const bool zeroX = x.whole.empty() && x.fraction.empty();
    const bool zeroY = y.whole.empty() && y.fraction.empty();
    // "-0" is zero; otherwise a negative number is below any other.
    const bool negativeX = x.negative && !zeroX;
    const bool negativeY = y.negative && !zeroY;
    if (negativeX != negativeY) {
        return negativeX ? -1 : 1;
    }
    int magnitude = 0;
    if (x.whole.size() != y.whole.size()) {
        magnitude = x.whole.size() < y.whole.size() ? -1 : 1;
    } else if (const int whole = x.whole.compare(y.whole); whole != 0) {
        magnitude = whole < 0 ? -1 : 1;
    } else if (const int fraction = x.fraction.compare(y.fraction); fraction != 0) {
        // Trailing zeros gone, the digits after the point compare as texts.
        magnitude = fraction < 0 ? -1 : 1;
    }
    return negativeX ? -magnitude : magnitude;
}

} // namespace

int compareRight(std::string_view a, std::string_view b) noexcept
{
    // Numbers come first, by value; the order must stay total for the sorter.
    const bool numberA = isNumber(a);
    const bool numberB = isNumber(b);
    if (numberA != numberB) {
        return numberA ? -1 : 1;
    }
    if (numberA) {
        if (const int byValue = compareDecimal(a, b); byValue != 0) {
            return byValue;
        }
    }
    // Pad the shorter text on the left with blanks, then compare bytes.
    const std::size_t width = std::max(a.size(), b.size());
    for (std::size_t i = 0; i < width; ++i) {
        const auto ca = static_cast<unsigned char>(i < width - a.size() ? ' ' : a[i - (width - a.size())]);
        const auto cb = static_cast<unsigned char>(i < width - b.size() ? ' ' : b[i - (width - b.size())]);
        if (ca != cb) {
            return ca < cb ? -1 : 1;
        }
    }
    return 0;
}

} // namespace store::sentence
