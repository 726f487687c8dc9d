#include "ArchiveBordCaisseExcel.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <filesystem>
#include <optional>
#include <set>
#include <stdexcept>
#include <vector>

#include <QCryptographicHash>

#include "FusionBatch.h"
#include "Journal.h"
#include "StatementFiles.h"
#include "StatementData.h"
#include "StatementRenderer.h"
#include "archive/Archive.h"
#include "database/DbaError.h"
#include "database/FileNames.h"
#include "Store.h"

namespace server {

namespace {

namespace fs = std::filesystem;

bool isPeriod(std::string_view text)
{
    if (text.size() != 6) {
        return false;
    }
    for (const char c : text) {
        if (c < '0' || c > '9') {
            return false;
        }
    }
    const int month = (text[4] - '0') * 10 + (text[5] - '0');
    return month >= 1 && month <= 12;
}

std::string describe(const std::vector<std::string>& words)
{
    std::string text;
    for (const auto& w : words) {
        text += (text.empty() ? "" : " ") + w;
    }
    return text;
}

void checkSentence(const std::vector<std::string>& arguments)
{
    if (arguments.size() != 3) {
        throw std::invalid_argument(std::string(kArchiveBordCaisseExcel) + " expects a period, an entity and an activity letter, got \""
            + describe(arguments) + "\"");
    }
    if (!isPeriod(arguments[0])) {
        throw std::invalid_argument(std::string(kArchiveBordCaisseExcel) + ": \"" + arguments[0] + "\" is not a period yyyymm");
    }
    const std::string& entity = arguments[1];
    if (entity.empty() || entity.find_first_of("\"/") != std::string::npos) {
        throw std::invalid_argument(std::string(kArchiveBordCaisseExcel) + ": \"" + entity + "\" is not an entity code");
    }
    if (archive::activityLabel(arguments[2]).empty()) {
        throw std::invalid_argument(std::string(kArchiveBordCaisseExcel) + ": \"" + arguments[2] + "\" is not an activity letter (P, M or I)");
    }
}

// A period is known to the archive when the entity and activity have at least
// one statement there; the control only offers what it found that way.
void checkPeriodKnown(store::Store& store, const std::string& period, const std::string& entity, const std::string& letter)
{
    if (store.select(archive::scopeSentence(period, entity, letter, archive::Order::None)).attribute(1).empty()) {
        throw DbaError(DbaError::Kind::CommandFailed, kArchiveBordCaisseExcel,
            "nothing archived for period " + period + ", entity " + entity + ", activity " + letter,
            "l'archive n'a aucun bordereau de la période " + period + " pour l'entité " + entity + " et l'activité " + letter);
    }
}

// The entries that found no statement, for the log (English) or the operator.
std::string describeMissing(const std::vector<RequestEntry>& missing, bool forOperator)
{
    constexpr std::size_t kNamed = 10;
    std::string text;
    for (std::size_t i = 0; i < missing.size() && i < kNamed; ++i) {
        text += (i == 0 ? "" : ", ") + missing[i].organisation + " " + archive::trimmedRight(missing[i].invoice);
    }
    if (missing.size() > kNamed) {
        text += forOperator ? " et " + std::to_string(missing.size() - kNamed) + " autres" : " and " + std::to_string(missing.size() - kNamed) + " more";
    }
    if (!forOperator) {
        return std::to_string(missing.size()) + " statement(s) asked are not in the archive: " + text;
    }
    return missing.size() == 1 ? "le bordereau demandé n'est pas dans l'archive (organisme et facture : " + text + ")"
                               : std::to_string(missing.size()) + " bordereaux demandés ne sont pas dans l'archive (organisme et facture : " + text + ")";
}

// A range of entries rendered as a part: a drawn document's worth (see
// StatementFiles) for each render thread, so that it keeps them all busy.
constexpr std::size_t kEntriesPerThread = 64;

std::size_t entryNumber(const std::string& text)
{
    std::size_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (text.empty() || error != std::errc() || end != text.data() + text.size()) {
        throw std::invalid_argument(std::string(kArchiveBordCaisseExcelPart) + ": \"" + text + "\" is not a number of entries");
    }
    return number;
}

std::string partSentence(const std::vector<std::string>& arguments, std::size_t first, std::size_t count)
{
    return std::string(kArchiveBordCaisseExcelPart) + " " + describe(arguments) + " " + std::to_string(first) + " " + std::to_string(count);
}

// The files of the entries, in order. On a shared server, a request of at least
// two parts' worth is split: every range but the first is offered to the other
// workers, and whatever none of them has taken this worker renders itself.
std::vector<RenderedFile> renderRequest(store::CommandContext& context, std::span<const RequestEntry> entries)
{
    const int total = static_cast<int>(entries.size());
    int reported = 0;
    int doneHere = 0;
    int doneByParts = 0;
    const auto report = [&] {
        // Never backwards: a part retaken after its worker stopped reports again from 0.
        if (const int done = std::min(doneHere + doneByParts, total); done > reported) {
            reported = done;
            context.progress(reported, total);
        } else if (context.parts) {
            // Said again unchanged on a worker: where a worker asked to stop learns it.
            context.progress(reported, total);
        }
    };
    const auto renderHere = [&](std::size_t first, std::size_t count) {
        return renderEntries(context.store, context.arguments, entries.subspan(first, count), [&] {
            ++doneHere;
            report();
        });
    };
    const std::size_t perPart = kEntriesPerThread * statements::renderThreads();
    if (!context.parts || entries.size() < 2 * perPart) {
        return renderHere(0, entries.size());
    }

    struct Range {
        std::size_t first;
        std::size_t count;
        std::int64_t part = 0;
        std::optional<std::vector<RenderedFile>> files;
    };
    std::vector<Range> ranges{{0, perPart, 0, std::nullopt}};
    for (std::size_t first = perPart; first < entries.size(); first += perPart) {
        const std::size_t count = std::min(perPart, entries.size() - first);
        ranges.push_back({first, count, context.parts->offer(partSentence(context.arguments, first, count)), std::nullopt});
    }
    ranges.front().files = renderHere(0, perPart);
    // The other workers take the parts from the first on; meanwhile this one
    // renders, from the last, those that none of them has taken yet.
    for (auto range = ranges.rbegin(); range != ranges.rend() - 1; ++range) {
        if (context.parts->withdraw(range->part)) {
            range->files = renderHere(range->first, range->count);
        }
    }
    std::vector<RenderedFile> files;
    // The same statement asked in two ranges gives one file, at its first place.
    std::set<std::string> names;
    for (Range& range : ranges) {
        if (!range.files) {
            auto handed = context.parts->takeBack(range.part, [&](int partsDone) {
                doneByParts = partsDone;
                report();
            });
            range.files = handed ? std::move(*handed) : renderHere(range.first, range.count);
        }
        for (RenderedFile& file : *range.files) {
            if (names.insert(file.name).second) {
                files.push_back(std::move(file));
            }
        }
        range.files.reset();
    }
    doneByParts = total;
    report();
    return files;
}

// The journal's entry of this run, as far as its sentence and request tell it.
store::JournalEntry journalEntryOf(const store::CommandContext& context, const std::vector<RequestEntry>& entries)
{
    store::JournalEntry entry;
    entry.user = context.client ? context.client->userName() : std::string();
    // On a worker, the workstation that asked, not the server.
    entry.host = store::journalHostOfSession(context.client ? context.client->session() : std::string());
    const auto argument = [&](std::size_t i) { return i < context.arguments.size() ? context.arguments[i] : std::string(); };
    entry.period = argument(0);
    entry.entity = argument(1);
    entry.activity = argument(2);
    entry.output = store::JournalOutput::Files;
    entry.folder = context.fusion.string();
    for (const RequestEntry& asked : entries) {
        if (!asked.organisation.empty() || !asked.invoice.empty()) {
            entry.statements.push_back({asked.organisation, archive::trimmedRight(asked.invoice)});
        }
    }
    return entry;
}

void journalDone(store::CommandContext& context, const std::vector<RequestEntry>& entries, const std::vector<RenderedFile>& files)
{
    auto entry = journalEntryOf(context, entries);
    for (const RenderedFile& file : files) {
        entry.files.push_back(file.name);
    }
    store::Journal(context.store).append(std::move(entry));
}

void journalFailed(store::CommandContext& context, const store::CommandFailed& failure)
{
    std::vector<RequestEntry> entries;
    try {
        entries = requestEntries(context.store);
    } catch (const std::exception&) {
        // The request that cannot be read is part of why the run failed: the entry says so without it.
    }
    auto entry = journalEntryOf(context, entries);
    entry.outcome = failure.cancelled ? store::JournalOutcome::Cancelled : store::JournalOutcome::Refused;
    entry.reason = failure.reason.empty() ? failure.message : failure.reason;
    store::Journal(context.store).append(std::move(entry));
}

// Characters kept as they are in a file name: those that every file system and
// file manager takes, and no '~', which marks a name that carries a digest.
bool isPlain(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_' || c == '.'
        || c == '+' || c == '#' || c == '(' || c == ')' || c == '=' || c == ',';
}

// Beyond this the readable part of an invoice number is cut; the digest keeps it apart.
constexpr std::size_t kReadableInvoice = 40;

// The invoice number as the statement's key holds it: from its place to the
// end, whatever its width, so that statements the code line cannot tell apart
// still get names of their own.
std::string_view invoiceField(std::string_view key, std::string_view asked)
{
    const auto at = static_cast<std::size_t>(archive::kInvoice.position - 1);
    return key.size() > at ? key.substr(at) : asked;
}

// The entries of a request that find no statement.
std::vector<RequestEntry> missingEntries(store::Store& store, const std::vector<std::string>& arguments, std::span<const RequestEntry> entries)
{
    statements::StatementFinder finder(store, arguments[0], arguments[1], arguments[2]);
    std::vector<RequestEntry> missing;
    for (const RequestEntry& entry : entries) {
        if ((!entry.organisation.empty() || !entry.invoice.empty()) && finder.find(entry.organisation, entry.invoice).empty()) {
            missing.push_back(entry);
        }
    }
    return missing;
}

// Before the command runs, outside its transaction: an earlier run's result
// must never read as this run's, whatever becomes of this one.
void clearResult(store::CommandContext& context)
{
    context.store.remove(FileNames::TEMPO, Keys::BORDCAISSEEXCEL);
}

} // namespace

std::vector<RequestEntry> requestEntries(store::Store& store)
{
    const DbaDynArray request(store.read(FileNames::TEMPO, Keys::REQUETEBORDEXCEL).value_or(std::string()));
    // Beyond what a selection can hold (a signed 16-bit count) nothing is read.
    const std::size_t count = std::min<std::size_t>(request.attributeCount(), INT16_MAX);
    std::vector<RequestEntry> entries;
    entries.reserve(count);
    for (std::size_t i = 1; i <= count; ++i) {
        entries.push_back(archive::selectionEntry(request, static_cast<std::int16_t>(i)));
    }
    return entries;
}

std::string fusionFileName(std::string_view entity, std::string_view letter, std::string_view period,
    std::string_view organisation, std::string_view invoice)
{
    // A plain invoice number is as a key holds it: plain characters, then blanks
    // to ten characters. Anything else (other characters, another width) keeps
    // what it can read and adds a digest of the exact fields, so that two
    // statements never share a name.
    const std::string trimmed = archive::trimmedRight(invoice);
    bool plain = invoice.size() == static_cast<std::size_t>(archive::kInvoice.width) && !trimmed.empty();
    std::string name;
    const auto append = [&](std::string_view part, std::size_t cut) {
        for (std::size_t i = 0; i < part.size() && i < cut; ++i) {
            const char c = part[i];
            plain = plain && isPlain(c);
            name += isPlain(c) ? c : '_';
        }
        plain = plain && part.size() <= cut;
    };
    append(entity, 16);
    append(letter, 1);
    name += '_';
    append(period, 6);
    name += '_';
    append(organisation, 16);
    name += '_';
    append(trimmed, kReadableInvoice);
    if (!plain) {
        QCryptographicHash hash(QCryptographicHash::Sha256);
        for (const std::string_view part : {entity, letter, period, organisation, invoice}) {
            hash.addData(QByteArrayView(part.data(), static_cast<qsizetype>(part.size())));
            hash.addData(QByteArrayView("\x1f", 1));
        }
        name += '~';
        name += hash.result().toHex().left(12).toStdString();
    }
    return name + ".pdf";
}

std::vector<RenderedFile> renderEntries(store::Store& store, const std::vector<std::string>& arguments,
    std::span<const RequestEntry> entries, const std::function<void()>& advanced)
{
    const std::string& period = arguments[0];
    const std::string& entity = arguments[1];
    const std::string& letter = arguments[2];
    statements::StatementFinder finder(store, period, entity, letter);
    // Loaded here, on the thread that holds the store, while the render threads
    // draw the statements many to a document and cut them into one file each.
    // Documents as large as keeps every thread busy, up to the size that pays
    // best, never smaller than a part's share of a thread (kEntriesPerThread).
    const std::size_t threads = statements::renderThreads();
    const std::size_t perDocument
        = std::clamp((entries.size() + threads - 1) / threads, kEntriesPerThread, std::max(kEntriesPerThread, statements::kStatementsPerDocument));
    statements::StatementFiles pdfs(perDocument, static_cast<unsigned>(threads));
    std::vector<std::string> names;
    std::vector<std::size_t> entriesUpTo; // per statement: the entries looked at when it was found
    std::set<std::string> seen;
    std::size_t reported = 0;
    const auto report = [&](std::size_t drawn) {
        // An entry counts as done once its statement is drawn, or the one found before it.
        const std::size_t done = drawn > 0 ? entriesUpTo[drawn - 1] : 0;
        for (; advanced && reported < done; ++reported) {
            advanced();
        }
    };
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const RequestEntry& entry = entries[i];
        if (!entry.organisation.empty() || !entry.invoice.empty()) {
            // The same statement asked twice gives one file.
            for (const std::string& key : finder.find(entry.organisation, entry.invoice)) {
                if (seen.insert(key).second) {
                    pdfs.add(statements::loadStatement(store, key));
                    names.push_back(fusionFileName(entity, letter, period, entry.organisation, invoiceField(key, entry.invoice)));
                    entriesUpTo.push_back(i + 1);
                }
            }
        }
        report(pdfs.drawn());
    }
    auto bytes = pdfs.take(report);
    for (; advanced && reported < entries.size(); ++reported) {
        advanced();
    }
    std::vector<RenderedFile> files;
    files.reserve(names.size());
    for (std::size_t i = 0; i < names.size(); ++i) {
        files.push_back({std::move(names[i]), std::move(bytes[i])});
    }
    return files;
}

void archiveBordCaisseExcel(store::CommandContext& context, const PublishObserver& observer)
{
    checkSentence(context.arguments);
    statements::requireGuiApplication();
    store::Store& store = context.store;
    checkPeriodKnown(store, context.arguments[0], context.arguments[1], context.arguments[2]);
    sweepLeftovers(context.fusion, std::chrono::hours(1));

    const std::vector<RequestEntry> entries = requestEntries(store);
    context.progress(0, static_cast<int>(entries.size()));
    // Every statement asked gets its file, or the run fails saying which have none.
    if (const auto missing = missingEntries(store, context.arguments, entries); !missing.empty()) {
        throw DbaError(DbaError::Kind::CommandFailed, kArchiveBordCaisseExcel, describeMissing(missing, false), describeMissing(missing, true));
    }
    const auto files = renderRequest(context, entries);
    if (files.empty()) {
        journalDone(context, entries, files);
        return;
    }

    // Published only once everything is rendered; taken back if the result cannot be recorded.
    auto batch = std::make_shared<FusionBatch>(context.fusion, observer);
    try {
        for (const RenderedFile& file : files) {
            batch->stage(file.name, file.bytes);
        }
        batch->publish();
        DbaDynArray result;
        for (std::size_t i = 0; i < files.size(); ++i) {
            result.setAttribute(static_cast<std::int16_t>(i + 1), files[i].name);
        }
        // The result and the journal's entry commit together: a run that
        // succeeded is never missing from the journal.
        store.transaction([&] {
            store.write(FileNames::TEMPO, Keys::BORDCAISSEEXCEL, result.text());
            journalDone(context, entries, files);
        });
    } catch (const std::exception& failure) {
        const std::string left = batch->rollback();
        if (left.empty()) {
            throw;
        }
        throw std::runtime_error(failure.what() + ("; " + left));
    }
    if (context.settled) {
        // A worker's outcome commits after this returns: the earlier files are
        // kept (and the folder held) until it has, and put back if it cannot.
        *context.settled = [batch](bool committed) {
            if (committed) {
                batch->commit();
            } else {
                batch->rollback();
            }
        };
        return;
    }
    batch->commit();
}

void archiveBordCaisseExcelPart(store::CommandContext& context)
{
    if (!context.parts || !context.parts->isPart()) {
        throw std::invalid_argument(std::string(kArchiveBordCaisseExcelPart) + " runs only as a part of " + kArchiveBordCaisseExcel);
    }
    if (context.arguments.size() != 5) {
        throw std::invalid_argument(std::string(kArchiveBordCaisseExcelPart) + " expects a period, an entity, an activity letter, "
            + "a first entry and a number of entries, got \"" + describe(context.arguments) + "\"");
    }
    const std::vector<std::string> arguments(context.arguments.begin(), context.arguments.begin() + 3);
    checkSentence(arguments);
    const std::size_t first = entryNumber(context.arguments[3]);
    const std::size_t count = entryNumber(context.arguments[4]);
    statements::requireGuiApplication();
    const std::vector<RequestEntry> entries = requestEntries(context.store);
    if (first > entries.size() || count > entries.size() - first) {
        throw std::runtime_error(std::string(kArchiveBordCaisseExcelPart) + ": the request has " + std::to_string(entries.size())
            + " entries, not " + std::to_string(first) + " and " + std::to_string(count) + " more");
    }
    int done = 0;
    const int total = static_cast<int>(count);
    context.progress(done, total);
    const auto files = renderEntries(context.store, arguments, std::span(entries).subspan(first, count), [&] { context.progress(++done, total); });
    for (const RenderedFile& file : files) {
        context.parts->handBack(file.name, file.bytes);
    }
}

void registerArchiveBordCaisseExcel(store::Store& store)
{
    // A publication that a dead run left half done is completed or undone as
    // soon as a program that can run the command opens the database.
    sweepLeftovers(store.fusionDirectory(), std::chrono::seconds(0));
    // A failed run's entry is written once its work is undone (see registerCommand).
    store.registerCommand(kArchiveBordCaisseExcel, [](store::CommandContext& context) { archiveBordCaisseExcel(context); }, clearResult,
        journalFailed);
    store.registerCommand(kArchiveBordCaisseExcelPart, archiveBordCaisseExcelPart);
}

} // namespace server
