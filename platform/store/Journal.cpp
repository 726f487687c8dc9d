#include "Journal.h"

// The record of an entry, one attribute each:
//   1 time  2 user  3 host  4 entity  5 period  6 activity  7 output (PAPER,
//   FILES, PURGE)  8 printer  9 copies  10 duplex (1 or 0)  11 CUPS job
//   12 job state  13 folder  14 file names (one value each)  15 organisations
//   16 invoice numbers (one value per statement, in step with 15)  17 outcome
//   (DONE, REFUSED, CANCELLED)  18 reason  19 the CUPS server of the job
// The key is "<time with microseconds>.<host>.<random>": ordered by time, and
// two workstations writing in the same microsecond still differ.

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <random>
#include <stdexcept>

#include "SessionKeys.h"
#include "Store.h"
#include "database/DbaDynArray.h"
#include "database/DbaError.h"

namespace store {

namespace {

constexpr char kAttribute = DbaDynArray::kAttributeMark;
constexpr char kValue = DbaDynArray::kValueMark;
constexpr std::size_t kAttributes = 19;

// Text from outside (a printer's message, an exception) may hold any byte; a
// mark inside it would shift every attribute after it.
std::string clean(std::string_view text)
{
    std::string out(text);
    for (char& c : out) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0xFC && byte <= 0xFE) {
            c = '?';
        }
    }
    return out;
}

std::string joinValues(const std::vector<std::string>& values)
{
    std::string out;
    for (std::size_t i = 0; i < values.size(); ++i) {
        out += (i ? std::string(1, kValue) : std::string()) + clean(values[i]);
    }
    return out;
}

std::vector<std::string> splitValues(std::string_view attribute)
{
    std::vector<std::string> values;
    if (attribute.empty()) {
        return values;
    }
    for (const auto value : splitMarks(attribute, kValue)) {
        values.emplace_back(value);
    }
    return values;
}

const char* outputCode(JournalOutput output)
{
    switch (output) {
    case JournalOutput::Paper: return "PAPER";
    case JournalOutput::Files: return "FILES";
    case JournalOutput::Purge: return "PURGE";
    }
    return "FILES";
}

const char* outcomeCode(JournalOutcome outcome)
{
    switch (outcome) {
    case JournalOutcome::Done: return "DONE";
    case JournalOutcome::Refused: return "REFUSED";
    case JournalOutcome::Cancelled: return "CANCELLED";
    }
    return "DONE";
}

std::string trimmedRight(std::string_view text)
{
    const auto end = text.find_last_not_of(' ');
    return end == std::string_view::npos ? std::string() : std::string(text.substr(0, end + 1));
}

std::string utcText(std::chrono::system_clock::time_point when, bool micro)
{
    const std::time_t seconds = std::chrono::system_clock::to_time_t(when);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[40];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
    std::string out = text;
    if (micro) {
        const auto us = std::chrono::duration_cast<std::chrono::microseconds>(when.time_since_epoch()).count() % 1000000;
        char fraction[8];
        std::snprintf(fraction, sizeof fraction, ".%06lld", static_cast<long long>(us < 0 ? us + 1000000 : us));
        out += fraction;
    }
    return out + "Z";
}

std::string randomSuffix()
{
    std::random_device random;
    char text[16];
    std::snprintf(text, sizeof text, "%08x", random());
    return text;
}

} // namespace

bool JournalEntry::jobMayChange() const
{
    return output == JournalOutput::Paper && job > 0 && jobState != "completed" && jobState != "aborted" && jobState != "canceled";
}

std::string encodeJournalEntry(const JournalEntry& entry)
{
    std::vector<std::string> organisations;
    std::vector<std::string> invoices;
    for (const auto& statement : entry.statements) {
        organisations.push_back(statement.organisation);
        invoices.push_back(trimmedRight(statement.invoice));
    }
    const std::string fields[kAttributes] = {
        clean(entry.time),
        clean(entry.user),
        clean(entry.host),
        clean(entry.entity),
        clean(entry.period),
        clean(entry.activity),
        outputCode(entry.output),
        clean(entry.printer),
        entry.output == JournalOutput::Paper ? std::to_string(entry.copies) : std::string(),
        entry.output == JournalOutput::Paper ? (entry.duplex ? "1" : "0") : std::string(),
        entry.job > 0 ? std::to_string(entry.job) : std::string(),
        clean(entry.jobState),
        clean(entry.folder),
        joinValues(entry.files),
        joinValues(organisations),
        joinValues(invoices),
        outcomeCode(entry.outcome),
        clean(entry.reason),
        clean(entry.printServer),
    };
    std::string record;
    for (std::size_t i = 0; i < kAttributes; ++i) {
        record += (i ? std::string(1, kAttribute) : std::string()) + fields[i];
    }
    return record;
}

std::optional<JournalEntry> decodeJournalEntry(std::string_view key, std::string_view record)
{
    const auto fields = splitMarks(record, kAttribute);
    // Attributes after those known here (a later version's) are left unread.
    if (fields.size() < kAttributes) {
        return std::nullopt;
    }
    JournalEntry entry;
    entry.key = std::string(key);
    entry.time = std::string(fields[0]);
    entry.user = std::string(fields[1]);
    entry.host = std::string(fields[2]);
    entry.entity = std::string(fields[3]);
    entry.period = std::string(fields[4]);
    entry.activity = std::string(fields[5]);
    if (fields[6] == "PAPER") {
        entry.output = JournalOutput::Paper;
    } else if (fields[6] == "FILES") {
        entry.output = JournalOutput::Files;
    } else if (fields[6] == "PURGE") {
        entry.output = JournalOutput::Purge;
    } else {
        return std::nullopt;
    }
    entry.printer = std::string(fields[7]);
    entry.copies = fields[8].empty() ? 0 : std::atoi(std::string(fields[8]).c_str());
    entry.duplex = fields[9] == "1";
    entry.job = fields[10].empty() ? 0 : std::atoi(std::string(fields[10]).c_str());
    entry.jobState = std::string(fields[11]);
    entry.folder = std::string(fields[12]);
    entry.files = splitValues(fields[13]);
    const auto organisations = splitValues(fields[14]);
    const auto invoices = splitValues(fields[15]);
    for (std::size_t i = 0; i < std::max(organisations.size(), invoices.size()); ++i) {
        entry.statements.push_back({i < organisations.size() ? organisations[i] : std::string(),
            i < invoices.size() ? invoices[i] : std::string()});
    }
    if (fields[16] == "DONE") {
        entry.outcome = JournalOutcome::Done;
    } else if (fields[16] == "REFUSED") {
        entry.outcome = JournalOutcome::Refused;
    } else if (fields[16] == "CANCELLED") {
        entry.outcome = JournalOutcome::Cancelled;
    } else {
        return std::nullopt;
    }
    entry.reason = std::string(fields[17]);
    entry.printServer = std::string(fields[18]);
    return entry;
}

std::string journalOutputText(JournalOutput output)
{
    switch (output) {
    case JournalOutput::Paper: return "papier";
    case JournalOutput::Files: return "fichiers";
    case JournalOutput::Purge: return "purge";
    }
    return {};
}

std::string journalOutcomeText(JournalOutcome outcome)
{
    switch (outcome) {
    case JournalOutcome::Done: return "faite";
    case JournalOutcome::Refused: return "refusée";
    case JournalOutcome::Cancelled: return "annulée";
    }
    return {};
}

std::string journalJobStateText(std::string_view keyword)
{
    static constexpr std::pair<std::string_view, std::string_view> kStates[] = {
        {"pending", "en attente"},
        {"pending-held", "retenu"},
        {"processing", "en cours"},
        {"processing-stopped", "arrêté"},
        {"canceled", "annulé"},
        {"aborted", "abandonné"},
        {"completed", "terminé"},
        {"unknown", "état inconnu"},
    };
    for (const auto& [code, text] : kStates) {
        if (code == keyword) {
            return std::string(text);
        }
    }
    return std::string(keyword);
}

std::string journalHostName()
{
    return SessionKeys::hostName();
}

std::string journalHostOfSession(std::string_view session)
{
    return SessionKeys::hostOf(session).value_or(SessionKeys::hostName());
}

bool isJournalDay(std::string_view day)
{
    if (day.size() != 10 || day[4] != '-' || day[7] != '-') {
        return false;
    }
    for (const std::size_t i : {0, 1, 2, 3, 5, 6, 8, 9}) {
        if (day[i] < '0' || day[i] > '9') {
            return false;
        }
    }
    const int year = std::stoi(std::string(day.substr(0, 4)));
    const int month = std::stoi(std::string(day.substr(5, 2)));
    const int dayOfMonth = std::stoi(std::string(day.substr(8, 2)));
    const std::chrono::year_month_day date{std::chrono::year(year), std::chrono::month(static_cast<unsigned>(month)),
        std::chrono::day(static_cast<unsigned>(dayOfMonth))};
    return date.ok();
}

Journal::Journal(Store& store, Clock clock)
    : m_store(store)
    , m_clock(std::move(clock))
{
}

JournalEntry Journal::append(JournalEntry entry)
{
    const auto now = m_clock();
    if (entry.time.empty()) {
        entry.time = utcText(now, false);
    }
    if (entry.host.empty()) {
        entry.host = journalHostName();
    }
    // The clock's microseconds keep one host's entries of one second in the
    // order they were written; an entry given a time of its own (an import,
    // a test) is still ordered by that time when read.
    const std::string key = utcText(now, true) + "." + entry.host + "." + randomSuffix();
    entry.key = key;
    m_store.write(kJournalFile, key, encodeJournalEntry(entry));
    return entry;
}

void Journal::update(const JournalEntry& entry)
{
    if (!m_store.read(kJournalFile, entry.key)) {
        throw DbaError(DbaError::Kind::NoRecord, std::string("journal ") + kJournalFile, "no entry \"" + entry.key + "\"");
    }
    m_store.write(kJournalFile, entry.key, encodeJournalEntry(entry));
}

std::optional<JournalEntry> Journal::entry(std::string_view key)
{
    if (!m_store.fileExists(kJournalFile)) {
        return std::nullopt;
    }
    const auto record = m_store.read(kJournalFile, key);
    return record ? decodeJournalEntry(key, *record) : std::nullopt;
}

std::vector<JournalEntry> Journal::entries(const JournalFilter& filter)
{
    std::vector<JournalEntry> found;
    if (!m_store.fileExists(kJournalFile)) {
        return found;
    }
    const std::string invoice = trimmedRight(filter.invoice);
    m_store.forEachStored(kJournalFile, [&](std::string_view key, std::string_view record) {
        auto entry = decodeJournalEntry(key, record);
        if (!entry || (!filter.since.empty() && entry->time.substr(0, 10) < filter.since)
            || (!filter.user.empty() && entry->user != filter.user)) {
            return;
        }
        if (!invoice.empty() || !filter.organisation.empty()) {
            const bool named = std::any_of(entry->statements.begin(), entry->statements.end(), [&](const JournalStatement& s) {
                return (invoice.empty() || s.invoice == invoice) && (filter.organisation.empty() || s.organisation == filter.organisation);
            });
            if (!named) {
                return;
            }
        }
        found.push_back(std::move(*entry));
    });
    // Keys begin with the time, but an entry written with a time of its own may not.
    std::stable_sort(found.begin(), found.end(), [](const JournalEntry& a, const JournalEntry& b) { return a.time < b.time; });
    return found;
}

std::size_t Journal::refreshJobStates(const JobState& state, std::chrono::steady_clock::duration budget)
{
    const auto start = std::chrono::steady_clock::now();
    std::size_t written = 0;
    bool asked = false;
    auto all = entries();
    for (auto it = all.rbegin(); it != all.rend(); ++it) {
        JournalEntry& entry = *it;
        if (!entry.jobMayChange()) {
            continue;
        }
        if (asked && std::chrono::steady_clock::now() - start >= budget) {
            break;
        }
        asked = true;
        const auto now = state(entry);
        if (!now || *now == entry.jobState) {
            continue;
        }
        entry.jobState = *now;
        m_store.write(kJournalFile, entry.key, encodeJournalEntry(entry));
        ++written;
    }
    return written;
}

std::size_t Journal::purgeBefore(std::string_view day, std::string user, std::string host)
{
    if (!isJournalDay(day)) {
        throw std::invalid_argument("« " + std::string(day) + " » n'est pas une date AAAA-MM-JJ");
    }
    std::size_t removed = 0;
    m_store.transaction([&] {
        removed = 0;
        std::vector<std::string> keys;
        if (m_store.fileExists(kJournalFile)) {
            m_store.forEachStored(kJournalFile, [&](std::string_view key, std::string_view record) {
                const auto entry = decodeJournalEntry(key, record);
                if (entry && entry->time.substr(0, 10) < day) {
                    keys.emplace_back(key);
                }
            });
        }
        for (const auto& key : keys) {
            removed += m_store.remove(kJournalFile, key) ? 1 : 0;
        }
        JournalEntry purge;
        purge.user = std::move(user);
        purge.host = std::move(host);
        purge.output = JournalOutput::Purge;
        purge.reason = std::to_string(removed) + (removed > 1 ? " entrées antérieures au " : " entrée antérieure au ") + std::string(day)
            + (removed > 1 ? " supprimées" : " supprimée");
        append(std::move(purge));
    });
    return removed;
}

} // namespace store
