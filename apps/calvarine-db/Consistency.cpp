#include "Consistency.h"

#include <algorithm>
#include <map>

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

void Consistency::add(Problem problem)
{
    m_found.emplace_back(m_records, std::move(problem));
}

void Consistency::unreadable(const std::string& where, const std::string& what)
{
    ++m_records;
    add({where, what, false, true});
}

void Consistency::record(
    const std::string& file, const std::string& key, const std::vector<std::string>& attributes, const std::string& where)
{
    ++m_records;
    const auto attribute = [&](std::size_t n) { return n <= attributes.size() ? attributes[n - 1] : std::string(); };
    bool empty = true;
    for (const auto& value : attributes) {
        empty = empty && value.empty();
    }
    if (empty) {
        add({where, "la fiche " + quoted(key) + " de " + file + " est vide (aucun attribut)"});
    }
    if (file == kOrganisations || file == kEntities) {
        m_seen.emplace(file, key);
    } else if (file == kActivities && key.size() >= 3) {
        refer(kEntities, key.substr(0, 3), "de l'activité " + quoted(key), where);
    } else if (file == kStatements) {
        if (!archive::hasKeyLength(key)) {
            add({where, "la clé de bordereau " + quoted(key) + " a " + std::to_string(Text::Len(key))
                    + " caractères, pas 23 (entité 3, lettre 1, organisme 3, période 6, facture 10)"});
            return;
        }
        const archive::Key fields = archive::parseKey(key);
        const std::string& period = fields.period;
        const std::string invoice = archive::trimmedRight(fields.invoice);
        if (attribute(1) != period) {
            add({where, "bordereau " + quoted(key) + " : sa clé dit la période " + period
                    + " mais l'attribut 1 (PeriodeArchive) contient " + quoted(attribute(1))});
        }
        if (archive::trimmedRight(attribute(3)) != invoice) {
            add({where, "bordereau " + quoted(key) + " : sa clé dit la facture " + quoted(invoice)
                    + " mais l'attribut 3 (NumFactArchive) contient " + quoted(attribute(3))});
        }
        refer(kEntities, fields.entity, "du bordereau " + quoted(key), where);
        refer(kOrganisations, fields.organisation, quoted(key), where);
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
        const bool organisation = file == kOrganisations;
        const std::string text = organisation ? what : "l'entité " + key + " " + what + " n'a pas de fiche dans " + file;
        m_pending.push_back({{file, key}, {where, text, organisation}});
        m_pendingAt.push_back(m_records);
    }
}

std::size_t Consistency::errors() const
{
    return static_cast<std::size_t>(std::count_if(m_problems.begin(), m_problems.end(), [](const Problem& p) { return !p.notice; }));
}

void Consistency::finish()
{
    // One notice per organisation without a record, where it is first named.
    std::map<std::string, std::size_t> notices; // organisation -> its notice in m_found
    std::map<std::string, std::size_t> naming;  // organisation -> statements naming it
    for (std::size_t i = 0; i < m_pending.size(); ++i) {
        auto& [name, problem] = m_pending[i];
        if (m_seen.contains(name)) {
            continue;
        }
        if (!problem.notice) {
            m_found.emplace_back(m_pendingAt[i], std::move(problem));
            continue;
        }
        if (++naming[name.second] == 1) {
            notices[name.second] = m_found.size();
            m_found.emplace_back(m_pendingAt[i], std::move(problem));
        }
    }
    for (const auto& [organisation, at] : notices) {
        const std::size_t count = naming[organisation];
        auto& problem = m_found[at].second;
        // what holds the key of the first statement naming it.
        problem.what = "l'organisme " + organisation + " n'a pas de fiche dans " + kOrganisations + " : "
            + (count == 1 ? "le bordereau " + problem.what + " le nomme (il est réédité sous son code)"
                          : std::to_string(count) + " bordereaux le nomment, dont " + problem.what + " (ils sont réédités sous son code)");
    }
    std::stable_sort(m_found.begin(), m_found.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    for (auto& [at, problem] : m_found) {
        m_problems.push_back(std::move(problem));
    }
    m_found.clear();
    m_pending.clear();
    m_pendingAt.clear();
}
