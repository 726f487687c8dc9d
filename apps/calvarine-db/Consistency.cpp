#include "Consistency.h"

#include "archive/Archive.h"
#include "database/FileNames.h"
#include "shell/Text.h"

namespace {

constexpr const char* kStatements = FileNames::ARCHIVEBORDCAISSE;
constexpr const char* kOrganisations = FileNames::ORGPRISECHARGE;
constexpr const char* kEntities = FileNames::ASSOCIATION;
constexpr const char* kActivities = FileNames::ACTIVITES;

std::string quoted(std::string_view text)
{
    return "\"" + std::string(text) + "\"";
}

} // namespace

Consistency::Consistency(Exists exists)
    : m_exists(std::move(exists))
{
}

void Consistency::record(
    const std::string& file, const std::string& key, const std::vector<std::string>& attributes, const std::string& where)
{
    const auto attribute = [&](std::size_t n) { return n <= attributes.size() ? attributes[n - 1] : std::string(); };
    bool empty = true;
    for (const auto& value : attributes) {
        empty = empty && value.empty();
    }
    if (empty) {
        m_problems.push_back({where, file + " " + quoted(key) + " has no record (no attribute)"});
    }
    if (file == kOrganisations || file == kEntities) {
        m_seen.emplace(file, key);
    } else if (file == kActivities && key.size() >= 3) {
        refer(kEntities, key.substr(0, 3), "entity " + key.substr(0, 3) + " of activity " + quoted(key), where);
    } else if (file == kStatements) {
        if (!archive::hasKeyLength(key)) {
            m_problems.push_back({where,
                "statement key " + quoted(key) + " is not " + archive::kKeyLayout + ": "
                    + std::to_string(Text::Len(key)) + " characters"});
            return;
        }
        const archive::Key fields = archive::parseKey(key);
        const std::string& period = fields.period;
        const std::string invoice = archive::trimmedRight(fields.invoice);
        if (attribute(1) != period) {
            m_problems.push_back({where, "statement " + quoted(key) + ": its key names period " + period
                    + " but attribute 1 (PeriodeArchive) holds " + quoted(attribute(1))});
        }
        if (archive::trimmedRight(attribute(3)) != invoice) {
            m_problems.push_back({where, "statement " + quoted(key) + ": its key names invoice " + quoted(invoice)
                    + " but attribute 3 (NumFactArchive) holds " + quoted(attribute(3))});
        }
        refer(kEntities, fields.entity, "entity " + fields.entity + " of statement " + quoted(key), where);
        refer(kOrganisations, fields.organisation, "organisation " + fields.organisation + " of statement " + quoted(key), where);
    }
}

bool Consistency::known(const std::string& file, const std::string& key)
{
    const auto name = std::make_pair(file, key);
    if (m_seen.contains(name)) {
        return true;
    }
    if (!m_exists) {
        return false;
    }
    const auto [found, added] = m_looked.try_emplace(name, false);
    if (added) {
        found->second = m_exists(file, key);
    }
    return found->second;
}

void Consistency::refer(const std::string& file, const std::string& key, const std::string& what, const std::string& where)
{
    if (!known(file, key)) {
        // It may still come later in the same input.
        m_pending.push_back({{file, key}, {where, what + " has no record in " + file}});
    }
}

void Consistency::finish()
{
    for (auto& [name, problem] : m_pending) {
        if (!m_seen.contains(name)) {
            m_problems.push_back(std::move(problem));
        }
    }
    m_pending.clear();
}
