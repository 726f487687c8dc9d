#include "Consistency.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <stdexcept>

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

// Fields of the temporary file of pending references: each a length then its bytes.
void put(std::FILE* file, std::string_view text)
{
    const std::uint64_t size = text.size();
    if (std::fwrite(&size, sizeof size, 1, file) != 1 || std::fwrite(text.data(), 1, text.size(), file) != text.size()) {
        throw std::runtime_error(std::string("fichier temporaire du contrôle : ") + std::strerror(errno));
    }
}

bool get(std::FILE* file, std::string& text)
{
    std::uint64_t size = 0;
    if (std::fread(&size, sizeof size, 1, file) != 1) {
        return false;
    }
    text.resize(size);
    if (std::fread(text.data(), 1, size, file) != size) {
        throw std::runtime_error("fichier temporaire du contrôle : lu en partie");
    }
    return true;
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
        referEntity(key.substr(0, 3), "de l'activité " + quoted(key), where);
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
        referEntity(fields.entity, "du bordereau " + quoted(key), where);
        referOrganisation(fields.organisation, key, where);
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

void Consistency::referEntity(const std::string& entity, const std::string& what, const std::string& where)
{
    if (known(kEntities, entity)) {
        return;
    }
    if (!m_entities) {
        m_entities.reset(std::tmpfile());
        if (!m_entities) {
            throw std::runtime_error(std::string("fichier temporaire du contrôle : ") + std::strerror(errno));
        }
    }
    std::FILE* file = m_entities.get();
    put(file, std::to_string(m_records));
    put(file, entity);
    put(file, what);
    put(file, where);
}

void Consistency::referOrganisation(const std::string& organisation, const std::string& statement, const std::string& where)
{
    if (known(kOrganisations, organisation)) {
        return;
    }
    auto& named = m_organisations[organisation];
    if (named.count++ == 0) {
        named = {m_records, where, statement, 1};
    }
}

std::size_t Consistency::errors() const
{
    return static_cast<std::size_t>(std::count_if(m_problems.begin(), m_problems.end(), [](const Problem& p) { return !p.notice; }));
}

void Consistency::finish()
{
    if (m_entities) {
        std::FILE* file = m_entities.get();
        if (std::fflush(file) != 0 || std::fseek(file, 0, SEEK_SET) != 0) {
            throw std::runtime_error(std::string("fichier temporaire du contrôle : ") + std::strerror(errno));
        }
        std::string at, entity, what, where;
        while (get(file, at) && get(file, entity) && get(file, what) && get(file, where)) {
            if (!m_seen.contains({kEntities, entity})) {
                m_found.emplace_back(std::stoull(at), Problem{where, "l'entité " + entity + " " + what + " n'a pas de fiche dans " + kEntities});
            }
        }
        m_entities.reset();
    }
    // One notice per organisation without a record, where it is first named.
    for (auto& [organisation, named] : m_organisations) {
        if (m_seen.contains({kOrganisations, organisation})) {
            continue;
        }
        const std::string statement = quoted(named.statement);
        m_found.emplace_back(named.at,
            Problem{named.where,
                "l'organisme " + organisation + " n'a pas de fiche dans " + kOrganisations + " : "
                    + (named.count == 1 ? "le bordereau " + statement + " le nomme (il est réédité sous son code)"
                                        : std::to_string(named.count) + " bordereaux le nomment, dont " + statement
                                            + " (ils sont réédités sous son code)"),
                true});
    }
    m_organisations.clear();
    std::stable_sort(m_found.begin(), m_found.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    for (auto& [at, problem] : m_found) {
        m_problems.push_back(std::move(problem));
    }
    m_found.clear();
}
