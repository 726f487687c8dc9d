#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// The string functions of the system's language on UTF-8 text: lengths and
// positions count characters (code points), positions from 1.
namespace Text {

std::int32_t Len(std::string_view s);
std::string Left(std::string_view s, std::int32_t n);
std::string Right(std::string_view s, std::int32_t n);
// n characters from position start (1-based); to the end when n < 0.
std::string Mid(std::string_view s, std::int32_t start, std::int32_t n = -1);
std::string UCase(std::string_view s);
std::string String(std::int32_t n, char c);
std::string Space(std::int32_t n);
// The character of a code point, as UTF-8.
std::string ChrW(std::int32_t codePoint);

// A text read as a 32-bit integer, as the language converts it: blanks around
// the digits are allowed, anything else fails (std::invalid_argument, or
// std::overflow_error beyond 32 bits).
std::int32_t CLng(std::string_view text);

// Drops the last character.
std::string dropLast(std::string_view s);

} // namespace Text
