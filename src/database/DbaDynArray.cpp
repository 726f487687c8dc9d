#include "database/DbaDynArray.h"

#include <stdexcept>

#include "database/DbaError.h"

namespace {

void requireIndex(int index, const char* what)
{
    if (index < 1) {
        throw DbaError(DbaError::Kind::BadIndex, "DbaDynArray", std::string(what) + " index " + std::to_string(index) + " is below 1");
    }
}

// Part n (1-based) of a text split at mark; "" beyond the end.
std::string_view part(std::string_view text, char mark, int n)
{
    std::size_t begin = 0;
    for (int k = 1; k < n; ++k) {
        const auto at = text.find(mark, begin);
        if (at == std::string_view::npos) {
            return {};
        }
        begin = at + 1;
    }
    const auto end = text.find(mark, begin);
    return text.substr(begin, end == std::string_view::npos ? std::string_view::npos : end - begin);
}

// Text with part n replaced, extended with empty parts when n is beyond the end.
std::string replacePart(std::string_view text, char mark, int n, std::string_view replacement)
{
    std::size_t begin = 0;
    int k = 1;
    for (; k < n; ++k) {
        const auto at = text.find(mark, begin);
        if (at == std::string_view::npos) {
            break;
        }
        begin = at + 1;
    }
    std::string out;
    if (k < n) {
        out.reserve(text.size() + static_cast<std::size_t>(n - k) + replacement.size());
        out.append(text);
        out.append(static_cast<std::size_t>(n - k), mark);
        out.append(replacement);
        return out;
    }
    const auto end = text.find(mark, begin);
    out.append(text.substr(0, begin));
    out.append(replacement);
    if (end != std::string_view::npos) {
        out.append(text.substr(end));
    }
    return out;
}

} // namespace

std::vector<std::string_view> splitMarks(std::string_view text, char mark)
{
    std::vector<std::string_view> parts;
    std::size_t begin = 0;
    for (;;) {
        const auto at = text.find(mark, begin);
        if (at == std::string_view::npos) {
            parts.push_back(text.substr(begin));
            return parts;
        }
        parts.push_back(text.substr(begin, at - begin));
        begin = at + 1;
    }
}

DbaDynArray::DbaDynArray(std::string text)
    : m_text(std::move(text))
{
}

void DbaDynArray::setText(std::string text)
{
    m_text = std::move(text);
    m_offsetsValid = false;
    m_offsets.clear();
}

void DbaDynArray::buildOffsets() const
{
    m_offsets.clear();
    if (!m_text.empty()) {
        m_offsets.push_back(0);
        for (std::size_t at = m_text.find(kAttributeMark); at != std::string::npos; at = m_text.find(kAttributeMark, at + 1)) {
            m_offsets.push_back(at + 1);
        }
    }
    m_offsetsValid = true;
}

std::size_t DbaDynArray::attributeCount() const
{
    if (!m_offsetsValid) {
        buildOffsets();
    }
    return m_offsets.size();
}

std::int16_t DbaDynArray::DCount() const
{
    const auto count = attributeCount();
    if (count > 32767) {
        throw std::overflow_error("DCount: " + std::to_string(count) + " attributes do not fit a 16-bit count");
    }
    return static_cast<std::int16_t>(count);
}

bool DbaDynArray::attributeRange(std::size_t i, std::size_t& begin, std::size_t& end) const
{
    if (!m_offsetsValid) {
        buildOffsets();
    }
    if (i < 1 || i > m_offsets.size()) {
        return false;
    }
    begin = m_offsets[i - 1];
    end = i < m_offsets.size() ? m_offsets[i] - 1 : m_text.size();
    return true;
}

std::string DbaDynArray::attribute(std::int16_t i) const
{
    std::size_t begin = 0;
    std::size_t end = 0;
    if (!attributeRange(static_cast<std::size_t>(i < 1 ? 0 : i), begin, end)) {
        return {};
    }
    return m_text.substr(begin, end - begin);
}

std::string DbaDynArray::value(std::int16_t i, std::int16_t j) const
{
    if (j < 1) {
        return {};
    }
    std::size_t begin = 0;
    std::size_t end = 0;
    if (!attributeRange(static_cast<std::size_t>(i < 1 ? 0 : i), begin, end)) {
        return {};
    }
    return std::string(part(std::string_view(m_text).substr(begin, end - begin), kValueMark, j));
}

std::string DbaDynArray::subvalue(std::int16_t i, std::int16_t j, std::int16_t k) const
{
    if (k < 1) {
        return {};
    }
    return std::string(part(value(i, j), kSubvalueMark, k));
}

void DbaDynArray::replaceAttribute(std::size_t i, std::string_view text)
{
    if (!m_offsetsValid) {
        buildOffsets();
    }
    const std::size_t count = m_offsets.size();
    if (i > count) {
        // Extend: the empty text counts as zero attributes, so writing attribute 1
        // of an empty array adds no mark before it.
        const std::size_t marks = count == 0 ? i - 1 : i - count;
        if (count == 0) {
            m_offsets.push_back(0);
        }
        for (std::size_t n = 0; n < marks; ++n) {
            m_text.push_back(kAttributeMark);
            m_offsets.push_back(m_text.size());
        }
        m_text.append(text);
        if (m_text.empty()) {
            m_offsets.clear(); // the empty text has no attribute
        }
        return;
    }
    const std::size_t begin = m_offsets[i - 1];
    const std::size_t end = i < count ? m_offsets[i] - 1 : m_text.size();
    m_text.replace(begin, end - begin, text);
    if (m_text.empty()) {
        m_offsets.clear();
        return;
    }
    const auto delta = static_cast<std::ptrdiff_t>(text.size()) - static_cast<std::ptrdiff_t>(end - begin);
    if (delta != 0) {
        for (std::size_t n = i; n < count; ++n) {
            m_offsets[n] = static_cast<std::size_t>(static_cast<std::ptrdiff_t>(m_offsets[n]) + delta);
        }
    }
}

void DbaDynArray::setAttribute(std::int16_t i, std::string_view text)
{
    requireIndex(i, "attribute");
    replaceAttribute(static_cast<std::size_t>(i), text);
}

void DbaDynArray::setValue(std::int16_t i, std::int16_t j, std::string_view text)
{
    requireIndex(i, "attribute");
    requireIndex(j, "value");
    replaceAttribute(static_cast<std::size_t>(i), replacePart(attribute(i), kValueMark, j, text));
}

void DbaDynArray::setSubvalue(std::int16_t i, std::int16_t j, std::int16_t k, std::string_view text)
{
    requireIndex(i, "attribute");
    requireIndex(j, "value");
    requireIndex(k, "subvalue");
    setValue(i, j, replacePart(value(i, j), kSubvalueMark, k, text));
}
