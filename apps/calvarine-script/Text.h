#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace script {

// A record text as scenarios write it: attribute mark ^, value mark |, subvalue mark ~.
std::string showMarks(std::string_view record);

// A string as a scenario writes it: between double quotes, with \" \\ \r \n \t.
std::string quote(std::string_view text);

// The code points of a UTF-8 text.
std::vector<char32_t> codePoints(std::string_view s);

} // namespace script
