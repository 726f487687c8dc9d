#pragma once

// The archive of statements, file ARCHIVEBORDCAISSE: the layout of its keys,
// the two lines by which the screen shows one statement (the statement line and
// the code line), and the query sentences that find statements. Every rule about
// them is written here and nowhere else: the control, the statement renderer,
// the server command, the printing control, the demo generator and the
// consistency check all go through these functions.
//
// Positions and widths count characters (code points of UTF-8 text), from 1, as
// the system's string functions do. Everything here is a pure function of its
// arguments: no database, no state, safe from any thread.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

class DbaDynArray;

namespace archive {

// ---- The key ---------------------------------------------------------------
//
//   positions  1-3   entity code
//              4     activity letter ("P", "M" or "I")
//              5-7   organisation code, three digits with leading zeros
//              8-13  period yyyymm
//              14-23 invoice number, filled with blanks to 10 characters

struct Field {
    std::int32_t position; // first position, from 1
    std::int32_t width;
};

inline constexpr Field kEntity{1, 3};
inline constexpr Field kLetter{4, 1};
inline constexpr Field kOrganisation{5, 3};
inline constexpr Field kPeriod{8, 6};
inline constexpr Field kInvoice{14, 10};
inline constexpr std::int32_t kKeyLength = 23;
// The layout in words, for messages about a key that does not follow it.
inline constexpr const char* kKeyLayout = "entity (3), letter (1), organisation (3), period (6), invoice (10)";

// The key's fields, each as the key holds it (the invoice number with its
// trailing blanks).
struct Key {
    std::string entity;
    std::string letter;
    std::string organisation;
    std::string period;
    std::string invoice;
};

// The field of a key; the part that is there when the key is shorter, "" when
// it ends before the field.
std::string field(std::string_view key, Field f);
inline std::string entityOf(std::string_view key) { return field(key, kEntity); }
inline std::string letterOf(std::string_view key) { return field(key, kLetter); }
inline std::string organisationOf(std::string_view key) { return field(key, kOrganisation); }
inline std::string periodOf(std::string_view key) { return field(key, kPeriod); }
inline std::string invoiceOf(std::string_view key) { return field(key, kInvoice); }

// All fields of a key (see field() for a short one).
Key parseKey(std::string_view key);

// The key of the fields: each one in its place, the invoice number filled with
// blanks to its width. Throws std::invalid_argument when a field does not have
// its width (the invoice number: more than 10 characters), which would shift
// every field after it.
std::string makeKey(const Key& key);

// Whether text has the length of a key, in characters.
bool hasKeyLength(std::string_view key);

// The invoice number without its trailing blanks, as statements and file names
// show it.
std::string trimmedRight(std::string_view text);

// "PRESTATAIRE", "MANDATAIRE", "INTERMEDIAIRE" for "P", "M", "I"; "" otherwise.
std::string activityLabel(std::string_view letter);

// ---- The lines of the screen's lists ---------------------------------------

// What stands in place of the name of an organisation that has no record.
inline constexpr const char* kNoOrganisation = "TAUX PRESTATION";
// The name fills columns 1 to 55, cut to 40 characters; the invoice number follows.
inline constexpr std::int32_t kNameColumns = 55;
inline constexpr std::int32_t kNameCut = 40;

// The statement line (the visible lists): the name, left-aligned and filled
// with blanks to 55 columns, cut to its first 40 characters (then exactly 15
// blanks) when longer; then the invoice number. For an organisation without a
// record the name is kNoOrganisation, which gives that text and 40 blanks.
std::string statementLine(std::string_view name, std::string_view invoice);

// The code line (the hidden lists) of a key: organisation code, one blank,
// invoice number, so positions 1-3 and 5-14.
std::string codeLine(std::string_view key);

// A code line cut back apart: the organisation code and the invoice number as
// the key held it.
struct CodeLine {
    std::string organisation;
    std::string invoice;
};
CodeLine parseCodeLine(std::string_view line);

// The selection handed on to a re-issue (the paper run's argument, the request
// record of the server command): one attribute per statement, value 1 the
// organisation code and value 2 the invoice number of its code line.
// Reading beyond the selection gives empty fields.
void setSelectionEntry(DbaDynArray& selection, std::int16_t attribute, const CodeLine& entry);
CodeLine selectionEntry(const DbaDynArray& selection, std::int16_t attribute);

// ---- Query sentences --------------------------------------------------------

// The dictionary of ARCHIVEBORDCAISSE: the names the sentences use for its
// attributes.
struct DictionaryName {
    const char* name;
    std::int16_t attribute;
};
inline constexpr DictionaryName kDictionary[] = {{"PeriodeArchive", 1}, {"SigleOrgaArchive", 2}, {"NumFactArchive", 3}};

// The order of a scope's keys.
enum class Order {
    None,
    ByInvoice,                       // PAR NumFactArchive
    ByOrganisationThenInvoice,       // PAR SigleOrgaArchive PAR NumFactArchive
};

// The statements of a period whose key begins with entity and letter:
//   SSELECT ARCHIVEBORDCAISSE AVEC PeriodeArchive = "<period>" AND AVEC 0 = "<entity><letter>]"
// followed by the order.
std::string scopeSentence(std::string_view period, std::string_view entity, std::string_view letter, Order order);

// The scope narrowed to the keys that go on with keyRest after the letter (an
// organisation code, or its beginning), by invoice number.
std::string organisationSentence(std::string_view period, std::string_view entity, std::string_view letter,
    std::string_view keyRest);

// The scope narrowed to one invoice number, exactly as given, by invoice number.
std::string invoiceSentence(std::string_view period, std::string_view entity, std::string_view letter,
    std::string_view invoice);

// The sentence that selects the statements of period whose key begins with
// keyBeginning (no double quote in either).
std::string keyBeginningSentence(std::string_view period, std::string_view keyBeginning);

// The sentence that finds one statement: key beginning with entity, letter and
// organisation, period and invoice number equal. An invoice number with
// trailing blanks (as a key holds it) also matches its trimmed form. nullopt
// when a value holds a double quote, which a sentence cannot carry.
std::optional<std::string> statementSentence(std::string_view period, std::string_view entity, std::string_view letter,
    std::string_view organisation, std::string_view invoice);

// The request passed to Select: the sentence, the file, and "0" (keys alone).
DbaDynArray keyRequest(std::string_view sentence);

} // namespace archive
