#include "shell/Text.h"

#include <clocale>
#include <stdexcept>
#include <cwctype>
#include <locale.h>

namespace {

bool isContinuation(unsigned char c)
{
    return (c & 0xC0) == 0x80;
}

// Byte offset of character n (0-based), or s.size() when beyond the end.
std::size_t offsetOf(std::string_view s, std::int32_t n)
{
    std::size_t i = 0;
    for (std::int32_t k = 0; k < n && i < s.size(); ++k) {
        ++i;
        while (i < s.size() && isContinuation(static_cast<unsigned char>(s[i]))) {
            ++i;
        }
    }
    return i;
}

char32_t decode(std::string_view s, std::size_t& i)
{
    const auto c = static_cast<unsigned char>(s[i++]);
    int extra = c >= 0xF0 ? 3 : c >= 0xE0 ? 2 : c >= 0xC0 ? 1 : 0;
    char32_t cp = extra == 3 ? (c & 0x07) : extra == 2 ? (c & 0x0F) : extra == 1 ? (c & 0x1F) : c;
    while (extra-- > 0 && i < s.size() && isContinuation(static_cast<unsigned char>(s[i]))) {
        cp = (cp << 6) | (static_cast<unsigned char>(s[i++]) & 0x3F);
    }
    return cp;
}

// Upper-casing follows Unicode through the C library's UTF-8 locale, which
// every glibc carries whatever locales are installed.
locale_t utf8Locale()
{
    static const locale_t locale = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(nullptr));
    return locale;
}

} // namespace

namespace Text {

std::int32_t Len(std::string_view s)
{
    std::int32_t n = 0;
    for (const char c : s) {
        if (!isContinuation(static_cast<unsigned char>(c))) {
            ++n;
        }
    }
    return n;
}

std::string Left(std::string_view s, std::int32_t n)
{
    return std::string(s.substr(0, offsetOf(s, n < 0 ? 0 : n)));
}

std::string Right(std::string_view s, std::int32_t n)
{
    const auto len = Len(s);
    return n >= len ? std::string(s) : std::string(s.substr(offsetOf(s, len - (n < 0 ? 0 : n))));
}

std::string Mid(std::string_view s, std::int32_t start, std::int32_t n)
{
    const auto begin = offsetOf(s, start < 1 ? 0 : start - 1);
    if (n < 0) {
        return std::string(s.substr(begin));
    }
    const auto rest = s.substr(begin);
    return std::string(rest.substr(0, offsetOf(rest, n)));
}

std::string UCase(std::string_view s)
{
    std::string out;
    out.reserve(s.size());
    const locale_t locale = utf8Locale();
    for (std::size_t i = 0; i < s.size();) {
        const auto c = static_cast<unsigned char>(s[i]);
        if (c < 0x80) {
            out.push_back(c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : static_cast<char>(c));
            ++i;
            continue;
        }
        const char32_t cp = decode(s, i);
        const auto upper = locale ? towupper_l(static_cast<wint_t>(cp), locale) : static_cast<wint_t>(cp);
        out += ChrW(static_cast<std::int32_t>(upper));
    }
    return out;
}

std::string String(std::int32_t n, char c)
{
    return n > 0 ? std::string(static_cast<std::size_t>(n), c) : std::string();
}

std::string Space(std::int32_t n)
{
    return String(n, ' ');
}

std::string ChrW(std::int32_t cp)
{
    std::string out;
    const auto u = static_cast<std::uint32_t>(cp);
    if (u < 0x80) {
        out.push_back(static_cast<char>(u));
    } else if (u < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (u >> 6)));
        out.push_back(static_cast<char>(0x80 | (u & 0x3F)));
    } else if (u < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (u >> 12)));
        out.push_back(static_cast<char>(0x80 | ((u >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (u & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (u >> 18)));
        out.push_back(static_cast<char>(0x80 | ((u >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((u >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (u & 0x3F)));
    }
    return out;
}

std::int32_t CLng(std::string_view text)
{
    std::size_t i = 0;
    while (i < text.size() && text[i] == ' ') {
        ++i;
    }
    bool negative = false;
    if (i < text.size() && (text[i] == '-' || text[i] == '+')) {
        negative = text[i] == '-';
        ++i;
    }
    const std::size_t digits = i;
    long long value = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        value = value * 10 + (text[i] - '0');
        if (value > 2147483648LL) {
            throw std::overflow_error("overflow: \"" + std::string(text) + "\" does not fit a 32-bit integer");
        }
    }
    const bool hasDigits = i > digits;
    while (i < text.size() && text[i] == ' ') {
        ++i;
    }
    if (!hasDigits || i != text.size()) {
        throw std::invalid_argument("type mismatch: \"" + std::string(text) + "\" is not a number");
    }
    value = negative ? -value : value;
    if (value > 2147483647LL) {
        throw std::overflow_error("overflow: \"" + std::string(text) + "\" does not fit a 32-bit integer");
    }
    return static_cast<std::int32_t>(value);
}

std::string dropLast(std::string_view s)
{
    const auto len = Len(s);
    return len == 0 ? std::string() : Left(s, len - 1);
}

} // namespace Text
