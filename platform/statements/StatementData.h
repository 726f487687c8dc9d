#pragma once

// An archived statement of ARCHIVEBORDCAISSE as plain data, with the entity and
// the organisation it was addressed to, ready to be laid out. Loading reads the
// database; everything after it works on this struct alone.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "archive/Archive.h"

class DbaDatabase;
class DbaDynArray;
class DbaFile;

namespace statements {

// A name and the lines of an address, as the statement shows them.
struct Party {
    std::string code;
    std::string name;
    std::string shortName;              // the organisation's sigle; empty for an entity
    std::vector<std::string> addressLines;
};

// One line of the table: amounts in cents, quantities in hundredths.
struct StatementLine {
    std::string beneficiary;
    std::string fileNumber;
    std::string service;
    std::int64_t quantityHundredths = 0;
    std::int64_t unitPriceCents = 0;
    std::int64_t amountCents = 0;
};

struct StatementData {
    std::string key;                    // key in ARCHIVEBORDCAISSE
    std::string activity;               // "P", "M" or "I"
    std::string activityLabel;          // "PRESTATAIRE", ... (see activityLabel())
    std::string period;                 // yyyymm
    std::string invoiceNumber;          // as archived
    std::string invoiceDate;            // yyyymmdd as archived
    Party entity;
    Party organisation;
    std::vector<StatementLine> lines;
    std::int64_t totalCents = 0;
};

// The activity's label and the invoice number without trailing blanks, as the
// archive's rules give them.
using archive::activityLabel;
using archive::trimmedRight;

// Builds the data from a key and its record (layout: 1 period, 2 sigle, 3 invoice
// number, 4 invoice date, 5 to 10 one value per line: beneficiary, file number,
// service, quantity, unit price, amount, 11 total). The lines are as many as the
// most values of attributes 5 to 10; a missing value is empty or 0. Entity and
// organisation carry only their codes (from the key) and the sigle.
// Throws DbaError BadData when a number is not a whole number.
StatementData parseArchiveRecord(std::string_view key, const DbaDynArray& record);

// Finds the statements of one scope (period, entity, activity letter) that a
// selection's entry (organisation code and invoice number, as its code line
// holds them) stands for. The archive key made of the scope and the entry is
// read first, as given and with the invoice number filled with blanks: one look-up
// whatever the number of statements of the organisation. Only when no such key
// exists (an archive imported leniently, whose keys do not follow the layout) is
// the archive queried: archive::statementSentence, then the keys that begin
// with the scope, the organisation and the entry's ten characters of invoice
// number (a longer invoice number, cut in the code line). Use from one thread.
class StatementFinder {
public:
    StatementFinder(DbaDatabase& db, std::string period, std::string entity, std::string letter);

    // Every statement the entry stands for, in key order; usually one, none
    // when the archive has none, several when the code line cannot tell them
    // apart. Throws DbaError when a look-up fails.
    std::vector<std::string> find(std::string_view organisation, std::string_view invoice);

private:
    bool exists(const std::string& key);

    DbaDatabase& m_db;
    std::shared_ptr<DbaFile> m_archive;
    std::string m_period;
    std::string m_entity;
    std::string m_letter;
};

// The first of StatementFinder::find; nullopt when none.
std::optional<std::string> findStatementKey(DbaDatabase& db, std::string_view period, std::string_view entity,
    std::string_view letter, std::string_view organisation, std::string_view invoice);

// Reads the statement under key and the records of its entity (ASSOCIATION) and
// organisation (ORGPRISECHARGE). A missing entity or organisation record leaves
// the party with its code as name and no address: the statement can still be
// re-issued. Throws DbaError (NoRecord for a missing statement).
StatementData loadStatement(DbaDatabase& db, std::string_view key);

} // namespace statements
