#pragma once

// Query sentences: the words, their parse, and the helpers that read attributes
// out of a stored record. Internal to the store (the engine, its tests, the fuzz
// target and the benchmark); nothing here touches the database.
//
// Grammar (words separated by blanks, values between double quotes, no escapes):
//
//   sentence  := "SSELECT" file { condition } { "PAR" selector }
//   condition := ["AND"] "AVEC" selector "=" value { "OR" "=" value }
//                ("AND" is required before every condition but the first)
//   selector  := attribute number (0 is the key) | dictionary name
//   value     := '"' text '"'   (a text ending in "]" means begins-with)

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace store::sentence {

// One word of a sentence, with where it stands (both 1-based) for error texts.
struct Word {
    std::string text;     // without the quotes when quoted
    bool quoted = false;
    int number = 0;       // word number
    std::size_t column = 0;
};

// The words of a sentence. Throws DbaError BadSentence for a quote left open or
// a quoted value glued to the next word.
std::vector<Word> split(std::string_view text);

// A selector as written: an attribute number, or a dictionary name to resolve.
struct Selector {
    int attribute = -1;   // >= 0 for a number
    std::string name;     // set for a dictionary name
    Word word;
};

struct Alternative {
    std::string value;    // without the trailing "]" when prefix
    bool prefix = false;
};

struct Condition {
    Selector selector;
    std::vector<Alternative> alternatives; // joined by OR; never empty
};

struct Parsed {
    std::string file;
    Word fileWord;
    std::vector<Condition> conditions;     // joined by AND
    std::vector<Selector> sorts;           // PAR clauses, in order
};

// Parses a sentence. Throws DbaError BadSentence naming the word and its position.
Parsed parse(std::string_view text);

// Parses the attributes to return ("0 12"); "" means "0". Throws BadSentence.
std::vector<int> parseAttributeList(std::string_view text);

// Attribute n (1-based) of a record, "" beyond the end; n = 0 is not an attribute.
std::string_view attributeOf(std::string_view record, int n);

// True when some value of the attribute equals value (prefix: begins with it).
// An empty attribute has one value, "".
bool anyValueMatches(std::string_view attribute, std::string_view value, bool prefix);

// The distinct values of an attribute, as the index tables hold them.
std::vector<std::string_view> distinctValues(std::string_view attribute);

// The smallest text greater than every text that begins with prefix; "" when
// there is none (prefix empty or all 0xFF bytes).
std::string prefixUpperBound(std::string_view prefix);

// Right-justified comparison: numbers ("-12.50") by exact value, whatever the
// process locale, before other texts, which are padded on the left; equal
// values then order by that padded text, so the order is total. Never throws
// nor allocates (it is the SQLite collation).
int compareRight(std::string_view a, std::string_view b) noexcept;

} // namespace store::sentence
