#include "StatementData.h"

#include <algorithm>
#include <charconv>

#include "archive/Archive.h"
#include "database/Dba.h"
#include "database/FileNames.h"
#include "shell/Text.h"

namespace statements {

namespace {

std::vector<std::string> values(const DbaDynArray& record, std::int16_t attribute)
{
    std::vector<std::string> out;
    const std::string text = record.attribute(attribute);
    if (text.empty()) {
        return out;
    }
    for (const auto part : splitMarks(text, DbaDynArray::kValueMark)) {
        out.emplace_back(part);
    }
    return out;
}

std::int64_t number(std::string_view key, int attribute, std::size_t value, std::string_view text)
{
    // Amounts are archived as signed whole numbers; blanks around them are tolerated.
    while (!text.empty() && text.front() == ' ') {
        text.remove_prefix(1);
    }
    while (!text.empty() && text.back() == ' ') {
        text.remove_suffix(1);
    }
    if (text.empty()) {
        return 0;
    }
    std::int64_t result = 0;
    const char* first = text.data();
    if (*first == '+') {
        ++first;
    }
    const auto [end, ec] = std::from_chars(first, text.data() + text.size(), result);
    if (ec != std::errc() || end != text.data() + text.size()) {
        throw DbaError(DbaError::Kind::BadData, std::string(FileNames::ARCHIVEBORDCAISSE) + " " + std::string(key),
            "attribute " + std::to_string(attribute) + (value ? " value " + std::to_string(value) : std::string())
                + " is not a whole number: \"" + std::string(text) + "\"");
    }
    return result;
}

const std::string& at(const std::vector<std::string>& v, std::size_t i)
{
    static const std::string empty;
    return i < v.size() ? v[i] : empty;
}

Party readParty(DbaDatabase& db, const char* file, std::string code, int firstAddress, int lastAddress, bool withShortName)
{
    Party party;
    party.code = std::move(code);
    party.name = party.code;
    std::shared_ptr<DbaItem> item;
    try {
        item = db.OpenFile(file)->ReadItem(party.code);
    } catch (const DbaError& e) {
        if (!e.isNoRecord() && !e.isNoFile()) {
            throw;
        }
        return party;
    }
    if (auto name = item->attribute(1); !name.empty()) {
        party.name = std::move(name);
    }
    if (withShortName) {
        party.shortName = item->attribute(2);
    }
    for (int i = firstAddress; i <= lastAddress; ++i) {
        if (auto line = item->attribute(static_cast<std::int16_t>(i)); !line.empty()) {
            party.addressLines.push_back(std::move(line));
        }
    }
    return party;
}

} // namespace

StatementData parseArchiveRecord(std::string_view key, const DbaDynArray& record)
{
    StatementData data;
    data.key = std::string(key);
    auto fields = archive::parseKey(key);
    data.entity.code = std::move(fields.entity);
    data.entity.name = data.entity.code;
    data.activity = std::move(fields.letter);
    data.activityLabel = activityLabel(data.activity);
    data.organisation.code = std::move(fields.organisation);
    data.organisation.name = data.organisation.code;
    data.period = record.attribute(1);
    data.organisation.shortName = record.attribute(2);
    data.invoiceNumber = record.attribute(3);
    data.invoiceDate = record.attribute(4);

    const auto beneficiaries = values(record, 5);
    const auto fileNumbers = values(record, 6);
    const auto services = values(record, 7);
    const auto quantities = values(record, 8);
    const auto prices = values(record, 9);
    const auto amounts = values(record, 10);
    const std::size_t count = std::max({beneficiaries.size(), fileNumbers.size(), services.size(), quantities.size(),
        prices.size(), amounts.size()});
    data.lines.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        StatementLine line;
        line.beneficiary = at(beneficiaries, i);
        line.fileNumber = at(fileNumbers, i);
        line.service = at(services, i);
        line.quantityHundredths = number(key, 8, i + 1, at(quantities, i));
        line.unitPriceCents = number(key, 9, i + 1, at(prices, i));
        line.amountCents = number(key, 10, i + 1, at(amounts, i));
        data.lines.push_back(std::move(line));
    }
    data.totalCents = number(key, 11, 0, record.attribute(11));
    return data;
}

StatementFinder::StatementFinder(DbaDatabase& db, std::string period, std::string entity, std::string letter)
    : m_db(db)
    , m_period(std::move(period))
    , m_entity(std::move(entity))
    , m_letter(std::move(letter))
{
}

bool StatementFinder::exists(const std::string& key)
{
    if (!m_archive) {
        m_archive = m_db.OpenFile(FileNames::ARCHIVEBORDCAISSE);
    }
    try {
        m_archive->ReadItem(key);
        return true;
    } catch (const DbaError& error) {
        if (!error.isNoRecord()) {
            throw;
        }
        return false;
    }
}

std::vector<std::string> StatementFinder::find(std::string_view organisation, std::string_view invoice)
{
    const std::string scope = m_entity + m_letter + std::string(organisation) + m_period;
    if (const std::string key = scope + std::string(invoice); exists(key)) {
        return {key};
    }
    if (const auto width = static_cast<std::size_t>(archive::kInvoice.width); Text::Len(invoice) < static_cast<std::int32_t>(width)) {
        std::string padded(invoice);
        padded.append(width - static_cast<std::size_t>(Text::Len(invoice)), ' ');
        if (const std::string key = scope + padded; exists(key)) {
            return {key};
        }
    }
    const auto select = [&](const std::string& sentence) {
        std::int32_t status = 0;
        const DbaDynArray keys = m_db.Select(archive::keyRequest(sentence).text(), "", status);
        std::vector<std::string> found;
        const auto count = std::min<std::size_t>(keys.attributeCount(), INT16_MAX);
        for (std::size_t i = 1; i <= count; ++i) {
            found.push_back(keys.attribute(static_cast<std::int16_t>(i)));
        }
        return found;
    };
    const auto sentence = archive::statementSentence(m_period, m_entity, m_letter, organisation, invoice);
    if (!sentence) {
        return {};
    }
    if (auto found = select(*sentence); !found.empty()) {
        return found;
    }
    if (Text::Len(invoice) == archive::kInvoice.width) {
        return select(archive::keyBeginningSentence(m_period, scope + std::string(invoice)));
    }
    return {};
}

std::optional<std::string> findStatementKey(DbaDatabase& db, std::string_view period, std::string_view entity,
    std::string_view letter, std::string_view organisation, std::string_view invoice)
{
    StatementFinder finder(db, std::string(period), std::string(entity), std::string(letter));
    auto keys = finder.find(organisation, invoice);
    if (keys.empty()) {
        return std::nullopt;
    }
    return std::move(keys.front());
}

StatementData loadStatement(DbaDatabase& db, std::string_view key)
{
    const auto record = db.OpenFile(FileNames::ARCHIVEBORDCAISSE)->ReadItem(key);
    StatementData data = parseArchiveRecord(key, *record);
    const std::string shortName = data.organisation.shortName;
    data.entity = readParty(db, FileNames::ASSOCIATION, data.entity.code, 2, 4, false);
    data.organisation = readParty(db, FileNames::ORGPRISECHARGE, data.organisation.code, 3, 5, true);
    if (data.organisation.shortName.empty()) {
        data.organisation.shortName = shortName;
    }
    return data;
}

} // namespace statements
