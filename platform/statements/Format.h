#pragma once

// French presentation of the numbers and dates of a statement.

#include <cstdint>

#include <QString>

namespace statements {

// "1 234,56 €" with no-break spaces (group separator and before the sign), so
// an amount never wraps inside a table cell.
QString formatEuros(std::int64_t cents);
// Hundredths as "12,50".
QString formatQuantity(std::int64_t hundredths);
// "202611" as "novembre 2026"; the text itself when it is not a period.
QString periodInWords(const QString& yyyymm);
// "20261215" as "15/12/2026"; the text itself when it is not a date.
QString formatDate(const QString& yyyymmdd);

} // namespace statements
