#pragma once

#include <string>

// Reads and writes dates as a French workstation does, for the host services'
// formatDate. The month names come from QLocale, not from a table of ours.
//
// Accepted texts: a day-first date "dd/mm/yyyy" (one or two digits for day and
// month), or a month name and a year, "novembre 2026", in any letter case
// ("NOVEMBRE 2026", "FÉVRIER 2026"); such a text stands for the first day of
// that month.
//
// A pattern is read case-insensitively: runs of d, m and y give the day, the
// month and the year ("d"/"dd", "m"/"mm"/"mmm"/"mmmm", "yy"/"yyyy"); any other
// character is copied. So "mmmm yyyy" gives "novembre 2026" and "yyyymm" or
// "YYYYMM" gives "202611".
//
// Stateless; safe to use from any thread.
class FrenchDates {
public:
    // Throws std::invalid_argument when text is not a date.
    static std::string format(const std::string& text, const std::string& pattern);
};
