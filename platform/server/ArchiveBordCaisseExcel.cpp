#include "ArchiveBordCaisseExcel.h"

#include <filesystem>
#include <chrono>
#include <set>
#include <stdexcept>
#include <vector>

#include "FusionBatch.h"

#include "StatementFiles.h"
#include "StatementData.h"
#include "StatementRenderer.h"
#include "archive/Archive.h"
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
        throw std::invalid_argument(std::string(kArchiveBordCaisseExcel) + ": nothing archived for period " + period + ", entity "
            + entity + ", activity " + letter);
    }
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
    std::string name;
    name.append(entity).append(letter).append("_").append(period).append("_").append(organisation).append("_");
    name += archive::trimmedRight(invoice);
    for (char& c : name) {
        if (c == '/' || c == '\0') {
            c = '_';
        }
    }
    return name + ".pdf";
}

std::vector<RenderedFile> renderEntries(store::Store& store, const std::vector<std::string>& arguments,
    std::span<const RequestEntry> entries, const std::function<void()>& advanced)
{
    const std::string& period = arguments[0];
    const std::string& entity = arguments[1];
    const std::string& letter = arguments[2];
    // Loaded here, on the thread that holds the store, while the render threads
    // draw the statements many to a document and cut them into one file each.
    statements::StatementFiles pdfs;
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
            const auto key = statements::findStatementKey(store, period, entity, letter, entry.organisation, entry.invoice);
            std::string name = fusionFileName(entity, letter, period, entry.organisation, entry.invoice);
            // The same statement asked twice gives one file.
            if (key && seen.insert(name).second) {
                pdfs.add(statements::loadStatement(store, *key));
                names.push_back(std::move(name));
                entriesUpTo.push_back(i + 1);
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
    const int total = static_cast<int>(entries.size());
    int done = 0;
    context.progress(done, total);
    const auto files = renderEntries(store, context.arguments, entries, [&] { context.progress(++done, total); });
    if (files.empty()) {
        return;
    }

    // Published only once everything is rendered; taken back if the result cannot be recorded.
    FusionBatch batch(context.fusion, observer);
    for (const RenderedFile& file : files) {
        batch.stage(file.name, file.bytes);
    }
    batch.publish();
    DbaDynArray result;
    for (std::size_t i = 0; i < files.size(); ++i) {
        result.setAttribute(static_cast<std::int16_t>(i + 1), files[i].name);
    }
    store.write(FileNames::TEMPO, Keys::BORDCAISSEEXCEL, result.text());
    batch.commit();
}

void registerArchiveBordCaisseExcel(store::Store& store)
{
    store.registerCommand(kArchiveBordCaisseExcel, [](store::CommandContext& context) { archiveBordCaisseExcel(context); });
}

} // namespace server
