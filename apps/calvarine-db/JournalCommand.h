#pragma once

// calvarine-db journal: the journal of re-issues read, filtered and written in
// text, CSV or JSON Lines; or purged before a day, the purge itself journaled.

#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "Journal.h"

namespace store {
class Store;
}

enum class JournalFormat { Text, Csv, Jsonl };

// Writes the entries in format: text for a person (one heading line per run,
// then its output, its statements and, when refused or cancelled, the
// reason), CSV with a heading row (RFC 4180 quoting, several values of a field
// separated by blanks), or one JSON object per line.
void writeJournal(std::ostream& out, const std::vector<store::JournalEntry>& entries, JournalFormat format);

// The command's arguments after "journal": its options, as the help says. The
// paper jobs still open are first brought up to date with jobState (the IPP
// keyword of an entry's job, nullopt when it cannot be read from here). Returns the exit status;
// throws std::invalid_argument for a mistake on the command line.
int journalCommand(store::Store& store, const std::vector<std::string>& args, const store::Journal::JobState& jobState);

// The help of the command, in French.
extern const char* const kJournalHelp;
