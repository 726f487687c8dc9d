#include "archive/Archive.h"

#include <stdexcept>

#include "database/DbaDynArray.h"
#include "database/FileNames.h"
#include "shell/Text.h"

namespace archive {

namespace {

constexpr std::string_view kByInvoice = " PAR NumFactArchive";
constexpr std::string_view kByOrganisationThenInvoice = " PAR SigleOrgaArchive PAR NumFactArchive";

std::string_view orderText(Order order)
{
    switch (order) {
    case Order::ByInvoice:
        return kByInvoice;
    case Order::ByOrganisationThenInvoice:
        return kByOrganisationThenInvoice;
    case Order::None:
        break;
    }
    return {};
}

// Every sentence on the archive begins the same way: the period, then the
// beginning of the key (the closing bracket asks for keys that begin so).
std::string sentenceBeginning(std::string_view period, std::string_view keyBeginning)
{
    std::string sentence = "SSELECT ";
    sentence += FileNames::ARCHIVEBORDCAISSE;
    sentence += " AVEC PeriodeArchive = \"";
    sentence.append(period);
    sentence += "\" AND AVEC 0 = \"";
    sentence.append(keyBeginning);
    sentence += "]\"";
    return sentence;
}

std::string invoiceEquals(std::string_view invoice)
{
    return " AND AVEC NumFactArchive = \"" + std::string(invoice) + '"';
}

void requireWidth(std::string_view value, Field f, const char* what)
{
    if (Text::Len(value) != f.width) {
        throw std::invalid_argument(std::string("archive key: the ") + what + " \"" + std::string(value) + "\" is not "
            + std::to_string(f.width) + " characters long");
    }
}

} // namespace

std::string field(std::string_view key, Field f)
{
    return Text::Mid(key, f.position, f.width);
}

Key parseKey(std::string_view key)
{
    return {entityOf(key), letterOf(key), organisationOf(key), periodOf(key), invoiceOf(key)};
}

std::string makeKey(const Key& key)
{
    requireWidth(key.entity, kEntity, "entity code");
    requireWidth(key.letter, kLetter, "activity letter");
    requireWidth(key.organisation, kOrganisation, "organisation code");
    requireWidth(key.period, kPeriod, "period");
    const auto invoiceLength = Text::Len(key.invoice);
    if (invoiceLength > kInvoice.width) {
        throw std::invalid_argument("archive key: the invoice number \"" + key.invoice + "\" is longer than "
            + std::to_string(kInvoice.width) + " characters");
    }
    return key.entity + key.letter + key.organisation + key.period + key.invoice + Text::Space(kInvoice.width - invoiceLength);
}

bool hasKeyLength(std::string_view key)
{
    return Text::Len(key) == kKeyLength;
}

std::string trimmedRight(std::string_view text)
{
    const auto end = text.find_last_not_of(' ');
    return end == std::string_view::npos ? std::string() : std::string(text.substr(0, end + 1));
}

std::string activityLabel(std::string_view letter)
{
    if (letter == "P") {
        return "PRESTATAIRE";
    }
    if (letter == "M") {
        return "MANDATAIRE";
    }
    if (letter == "I") {
        return "INTERMEDIAIRE";
    }
    return {};
}

std::string statementLine(std::string_view name, std::string_view invoice)
{
    const auto length = Text::Len(name);
    if (length > kNameCut) {
        return Text::Left(name, kNameCut) + Text::Space(kNameColumns - kNameCut) + std::string(invoice);
    }
    return std::string(name) + Text::Space(kNameColumns - length) + std::string(invoice);
}

std::string codeLine(std::string_view key)
{
    return organisationOf(key) + " " + invoiceOf(key);
}

CodeLine parseCodeLine(std::string_view line)
{
    // The code line is the key's two fields side by side, one blank between.
    return {Text::Mid(line, 1, kOrganisation.width), Text::Mid(line, kOrganisation.width + 2, kInvoice.width)};
}

void setSelectionEntry(DbaDynArray& selection, std::int16_t attribute, const CodeLine& entry)
{
    selection.setValue(attribute, 1, entry.organisation);
    selection.setValue(attribute, 2, entry.invoice);
}

CodeLine selectionEntry(const DbaDynArray& selection, std::int16_t attribute)
{
    return {selection.value(attribute, 1), selection.value(attribute, 2)};
}

std::string scopeSentence(std::string_view period, std::string_view entity, std::string_view letter, Order order)
{
    return sentenceBeginning(period, std::string(entity) + std::string(letter)) + std::string(orderText(order));
}

std::string organisationSentence(std::string_view period, std::string_view entity, std::string_view letter,
    std::string_view keyRest)
{
    return sentenceBeginning(period, std::string(entity) + std::string(letter) + std::string(keyRest)) + std::string(kByInvoice);
}

std::string invoiceSentence(std::string_view period, std::string_view entity, std::string_view letter,
    std::string_view invoice)
{
    return sentenceBeginning(period, std::string(entity) + std::string(letter)) + invoiceEquals(invoice) + std::string(kByInvoice);
}

std::string keyBeginningSentence(std::string_view period, std::string_view keyBeginning)
{
    return sentenceBeginning(period, keyBeginning);
}

std::optional<std::string> statementSentence(std::string_view period, std::string_view entity, std::string_view letter,
    std::string_view organisation, std::string_view invoice)
{
    for (const auto value : {period, entity, letter, organisation, invoice}) {
        if (value.find('"') != std::string_view::npos) {
            return std::nullopt;
        }
    }
    std::string sentence
        = sentenceBeginning(period, std::string(entity) + std::string(letter) + std::string(organisation)) + invoiceEquals(invoice);
    if (const auto trimmed = trimmedRight(invoice); trimmed.size() != invoice.size()) {
        sentence += " OR = \"" + trimmed + '"';
    }
    return sentence;
}

DbaDynArray keyRequest(std::string_view sentence)
{
    DbaDynArray request;
    request.setAttribute(1, sentence);
    request.setAttribute(2, FileNames::ARCHIVEBORDCAISSE);
    request.setAttribute(3, "0");
    return request;
}

} // namespace archive
