#pragma once

// An archived statement of ARCHIVEBORDCAISSE as plain data, with the entity and
// the organisation it was addressed to, ready to be laid out. Loading reads the
// database; everything after it works on this struct alone.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "archive/Archive.h"

class DbaDatabase;
class DbaDynArray;

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

// The key of the first statement that archive::statementSentence selects;
// nullopt when none. Throws DbaError when the query fails.
std::optional<std::string> findStatementKey(DbaDatabase& db, std::string_view period, std::string_view entity,
    std::string_view letter, std::string_view organisation, std::string_view invoice);

// Reads the statement under key and the records of its entity (ASSOCIATION) and
// organisation (ORGPRISECHARGE). A missing entity or organisation record leaves
// the party with its code as name and no address: the statement can still be
// re-issued. Throws DbaError (NoRecord for a missing statement).
StatementData loadStatement(DbaDatabase& db, std::string_view key);

} // namespace statements
