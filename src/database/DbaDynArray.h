#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// Multi-valued text: attributes numbered from 1, each holding values numbered
// from 1, each holding subvalues numbered from 1. The text is UTF-8; the marks
// that separate the levels are bytes that never occur in UTF-8, so no data can
// be mistaken for a mark.
//
// Reading beyond the end gives ""; writing beyond the end extends the text with
// empty attributes, values or subvalues. Indices are signed 16-bit, as the
// system counts; an index below 1 reads "" and fails to write (DbaError BadIndex).
//
// Reading attribute after attribute is cheap: the array keeps the offsets of its
// attributes, and appending at the end keeps them valid. Not thread-safe.
class DbaDynArray {
public:
    static constexpr char kAttributeMark = '\xFE';
    static constexpr char kValueMark = '\xFD';
    static constexpr char kSubvalueMark = '\xFC';

    DbaDynArray() = default;
    explicit DbaDynArray(std::string text);

    // The default member: the whole text.
    const std::string& text() const noexcept { return m_text; }
    void setText(std::string text);
    void assign(const DbaDynArray& other) { setText(other.m_text); }

    std::string attribute(std::int16_t i) const;
    std::string value(std::int16_t i, std::int16_t j) const;
    std::string subvalue(std::int16_t i, std::int16_t j, std::int16_t k) const;

    void setAttribute(std::int16_t i, std::string_view text);
    void setValue(std::int16_t i, std::int16_t j, std::string_view text);
    void setSubvalue(std::int16_t i, std::int16_t j, std::int16_t k, std::string_view text);

    // The number of attributes; 0 for the empty text. The count is signed 16-bit:
    // more than 32767 attributes fail the conversion (std::overflow_error).
    std::int16_t DCount() const;
    // The same count without the 16-bit limit, for engines and tools.
    std::size_t attributeCount() const;

    bool empty() const noexcept { return m_text.empty(); }
    friend bool operator==(const DbaDynArray& a, const DbaDynArray& b) { return a.m_text == b.m_text; }

private:
    // Byte range of attribute i (1-based) when it exists.
    bool attributeRange(std::size_t i, std::size_t& begin, std::size_t& end) const;
    void buildOffsets() const;
    void replaceAttribute(std::size_t i, std::string_view text);

    std::string m_text;
    // Start offsets of the attributes, valid when m_offsetsValid.
    mutable std::vector<std::size_t> m_offsets;
    mutable bool m_offsetsValid = false;
};

// Splits a text at a separator byte; "" gives one empty part.
std::vector<std::string_view> splitMarks(std::string_view text, char mark);
