#include "ArchiveBordCaisseExcel.h"

#include <unistd.h>

#include <filesystem>
#include <memory>
#include <set>
#include <stdexcept>
#include <vector>

#include <QTemporaryFile>

#include "StatementData.h"
#include "StatementRenderer.h"
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
    if (statements::activityLabel(arguments[2]).empty()) {
        throw std::invalid_argument(std::string(kArchiveBordCaisseExcel) + ": \"" + arguments[2] + "\" is not an activity letter (P, M or I)");
    }
}

// A period is known to the archive when the entity and activity have at least
// one statement there; the control only offers what it found that way.
void checkPeriodKnown(store::Store& store, const std::string& period, const std::string& entity, const std::string& letter)
{
    const std::string sentence = std::string("SSELECT ") + FileNames::ARCHIVEBORDCAISSE + " AVEC 0 = \"" + entity + letter
        + "]\" AND AVEC PeriodeArchive = \"" + period + "\"";
    if (store.select(sentence).attribute(1).empty()) {
        throw std::invalid_argument(std::string(kArchiveBordCaisseExcel) + ": nothing archived for period " + period + ", entity "
            + entity + ", activity " + letter);
    }
}

// A PDF being written under a hidden name in FUSION; removed unless published.
class StagedFile {
public:
    StagedFile(const fs::path& directory, fs::path target)
        : m_file(QString::fromStdString((directory / ".archivebordcaisse-XXXXXX.part").string()))
        , m_target(std::move(target))
    {
        if (!m_file.open()) {
            throw std::runtime_error("cannot create a file in " + directory.string() + ": " + m_file.errorString().toStdString());
        }
    }

    QIODevice& device() { return m_file; }

    // Flushes the bytes to disk so a renamed file is never a torn one.
    void finish()
    {
        if (!m_file.flush() || ::fsync(m_file.handle()) != 0) {
            throw std::runtime_error("cannot write " + m_target.string());
        }
        m_file.close();
    }

    void publish()
    {
        // rename(2) replaces a former file of that name in one step.
        fs::rename(m_file.fileName().toStdString(), m_target);
        m_file.setAutoRemove(false);
    }

    const fs::path& target() const { return m_target; }

private:
    QTemporaryFile m_file;
    fs::path m_target;
};

// Removes the files published so far unless the run is committed.
class PublishedFiles {
public:
    ~PublishedFiles()
    {
        if (m_committed) {
            return;
        }
        for (const auto& file : m_files) {
            std::error_code ignored;
            fs::remove(file, ignored);
        }
    }
    void add(fs::path file) { m_files.push_back(std::move(file)); }
    void commit() { m_committed = true; }

private:
    std::vector<fs::path> m_files;
    bool m_committed = false;
};

} // namespace

std::string fusionFileName(std::string_view entity, std::string_view letter, std::string_view period,
    std::string_view organisation, std::string_view invoice)
{
    std::string name;
    name.append(entity).append(letter).append("_").append(period).append("_").append(organisation).append("_");
    name += statements::trimmedRight(invoice);
    for (char& c : name) {
        if (c == '/' || c == '\0') {
            c = '_';
        }
    }
    return name + ".pdf";
}

void archiveBordCaisseExcel(store::CommandContext& context)
{
    checkSentence(context.arguments);
    const std::string& period = context.arguments[0];
    const std::string& entity = context.arguments[1];
    const std::string& letter = context.arguments[2];
    statements::requireGuiApplication();
    store::Store& store = context.store;
    checkPeriodKnown(store, period, entity, letter);

    const DbaDynArray request(store.read(FileNames::TEMPO, Keys::REQUETEBORDEXCEL).value_or(std::string()));
    std::vector<std::unique_ptr<StagedFile>> staged;
    std::vector<std::string> names;
    std::set<std::string> seen;
    const std::size_t count = request.attributeCount();
    for (std::size_t i = 1; i <= count; ++i) {
        const auto attribute = static_cast<std::int16_t>(std::min<std::size_t>(i, INT16_MAX));
        if (attribute != static_cast<std::int16_t>(i)) {
            break; // beyond what a selection can hold
        }
        const std::string organisation = request.value(attribute, 1);
        const std::string invoice = request.value(attribute, 2);
        if (organisation.empty() && invoice.empty()) {
            continue;
        }
        const auto key = statements::findStatementKey(store, period, entity, letter, organisation, invoice);
        if (!key) {
            continue;
        }
        std::string name = fusionFileName(entity, letter, period, organisation, invoice);
        if (!seen.insert(name).second) {
            continue; // the same statement asked twice gives one file
        }
        const statements::StatementData data = statements::loadStatement(store, *key);
        auto file = std::make_unique<StagedFile>(context.fusion, context.fusion / name);
        statements::renderPdf({&data, 1}, file->device(), QString::fromStdString(name));
        file->finish();
        staged.push_back(std::move(file));
        names.push_back(std::move(name));
    }
    if (names.empty()) {
        return;
    }

    PublishedFiles published;
    for (auto& file : staged) {
        file->publish();
        published.add(file->target());
    }
    DbaDynArray result;
    for (std::size_t i = 0; i < names.size(); ++i) {
        result.setAttribute(static_cast<std::int16_t>(i + 1), names[i]);
    }
    store.write(FileNames::TEMPO, Keys::BORDCAISSEEXCEL, result.text());
    published.commit();
}

void registerArchiveBordCaisseExcel(store::Store& store)
{
    // The request and the result are one workstation's: two re-issuing at once
    // must never read or delete each other's.
    store.setSessionPrivate(FileNames::TEMPO);
    store.registerCommand(kArchiveBordCaisseExcel, [](store::CommandContext& context) { archiveBordCaisseExcel(context); });
}

} // namespace server
