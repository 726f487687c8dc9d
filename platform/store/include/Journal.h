#pragma once

// The journal of re-issues: one entry per re-issue of statements, on paper or as
// files in FUSION, kept in the database beside the archive so that every
// workstation's runs are in one place. An entry says when, who, from which
// workstation, for which entity, period and activity, where the output went
// (paper: printer, copies, duplex, the CUPS job and the state CUPS last gave;
// files: the folder and every file name), which statements, and the outcome
// (done, refused with the reason, cancelled).
//
// The entries are the records of the file JOURNALREEDITIONS (see kJournalFile):
// an ordinary file of the store, so that export, import and the move from one
// engine to another carry it with the rest, and a server command's entry
// commits in the command's own transaction. Keys begin with the time, so key
// order is the order of the runs. The journal is written by the platform (the
// server command, the printing control, calvarine-db); the screen only reads it.
//
// A Journal is a view on a Store; use it from the Store's thread. Every failure
// of the store is a DbaError.

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace store {

class Store;

inline constexpr const char* kJournalFile = "JOURNALREEDITIONS";

enum class JournalOutput { Paper, Files, Purge };
enum class JournalOutcome { Done, Refused, Cancelled };

struct JournalStatement {
    std::string organisation;
    std::string invoice; // as asked, trailing blanks removed
};

struct JournalEntry {
    std::string key;  // given by append()
    std::string time; // UTC, "YYYY-MM-DDTHH:MM:SSZ"; append() sets it when empty
    std::string user;
    std::string host; // the workstation that asked
    std::string entity;
    std::string period;   // yyyymm
    std::string activity; // P, M or I
    JournalOutput output = JournalOutput::Files;
    // Paper.
    std::string printer;
    int copies = 0;
    bool duplex = false;
    std::string printServer; // the CUPS server that numbered the job, as the workstation named it
    int job = 0;          // the CUPS job number; 0 when none was made
    std::string jobState; // the IPP keyword CUPS last gave ("pending", "completed"...); empty: not read
    // Files (and a paper run kept as a file): the folder and every file's name.
    std::string folder;
    std::vector<std::string> files;
    std::vector<JournalStatement> statements;
    JournalOutcome outcome = JournalOutcome::Done;
    std::string reason; // why refused or cancelled; for a purge, what it removed

    // True while CUPS may still change the job's state (not completed, aborted or cancelled).
    bool jobMayChange() const;
};

// What journal entries() lets through; an empty field lets everything through.
struct JournalFilter {
    std::string since;        // "YYYY-MM-DD": entries of that day (UTC) and later
    std::string user;         // exactly
    std::string invoice;      // an entry naming this invoice number (trailing blanks ignored)
    std::string organisation; // an entry naming this organisation code
};

class Journal {
public:
    using Clock = std::function<std::chrono::system_clock::time_point()>;
    // clock gives the time of the entries appended (tests give a fixed one).
    explicit Journal(Store& store, Clock clock = [] { return std::chrono::system_clock::now(); });

    // Writes entry as a new record and gives it as written: its key (unique
    // across processes and hosts), its time and host filled in when empty.
    // Inside Store::transaction, it commits or rolls back with the rest.
    JournalEntry append(JournalEntry entry);
    // Writes entry again under its key (a paper job's state brought up to date,
    // the outcome of a job CUPS threw out at once). Throws DbaError NoRecord when
    // the key has no entry.
    void update(const JournalEntry& entry);
    std::optional<JournalEntry> entry(std::string_view key);
    // The entries in the order of the runs, filtered. A record that is not a
    // journal entry (written by hand) is skipped.
    std::vector<JournalEntry> entries(const JournalFilter& filter = {});

    // Asks state(entry) for every paper entry whose job may still change, the
    // newest first, and writes those whose state changed: the number written.
    // state gives the IPP keyword, or nullopt when it cannot be read from here
    // (another print server, the server down: the entry is left as it is).
    // Once budget has passed no more is asked, so that a server that does not
    // answer costs one wait, not one per job; the rest keep their last state.
    using JobState = std::function<std::optional<std::string>(const JournalEntry& entry)>;
    std::size_t refreshJobStates(const JobState& state, std::chrono::steady_clock::duration budget = std::chrono::seconds(10));

    // Removes the entries of the runs before day ("YYYY-MM-DD", UTC) and, in the
    // same transaction, appends an entry of the purge itself by user on host.
    // The number removed. Throws std::invalid_argument for a malformed day.
    std::size_t purgeBefore(std::string_view day, std::string user, std::string host);

private:
    Store& m_store;
    Clock m_clock;
};

// The record of an entry and back (attributes as listed in Journal.cpp).
std::string encodeJournalEntry(const JournalEntry& entry);
// nullopt for a record that is not a journal entry.
std::optional<JournalEntry> decodeJournalEntry(std::string_view key, std::string_view record);

// In French, as the tools and the window show them.
std::string journalOutputText(JournalOutput output);
std::string journalOutcomeText(JournalOutcome outcome);
// An IPP job state keyword in French ("completed": "terminé"); the keyword itself when unknown.
std::string journalJobStateText(std::string_view keyword);

// This host's name, as the store's sessions hold it.
std::string journalHostName();
// The host of a workstation session of the store ("p<pid>.<start>.<host>.<random>"),
// or this host's name for a session of another form (a worker then journals the
// workstation's host, not its own).
std::string journalHostOfSession(std::string_view session);

// True for a day written "YYYY-MM-DD" that exists.
bool isJournalDay(std::string_view day);

} // namespace store
