#include "Consistency.h"

namespace {

constexpr const char* kStatements = "ARCHIVEBORDCAISSE";
constexpr const char* kOrganisations = "ORGPRISECHARGE";
constexpr const char* kEntities = "ASSOCIATION";
constexpr const char* kActivities = "ACTIVITES";
constexpr std::size_t kKeyLength = 23;

std::string withoutTrailingBlanks(std::string_view text)
{
    const auto end = text.find_last_not_of(' ');
    return std::string(end == std::string_view::npos ? std::string_view() : text.substr(0, end + 1));
}

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
        if (key.size() != kKeyLength) {
            m_problems.push_back({where,
                "statement key " + quoted(key) + " is not entity (3), letter (1), organisation (3), period (6), invoice (10): "
                    + std::to_string(key.size()) + " characters"});
            return;
        }
        const std::string period = key.substr(7, 6);
        const std::string invoice = withoutTrailingBlanks(key.substr(13));
        if (attribute(1) != period) {
            m_problems.push_back({where, "statement " + quoted(key) + ": its key names period " + period
                    + " but attribute 1 (PeriodeArchive) holds " + quoted(attribute(1))});
        }
        if (withoutTrailingBlanks(attribute(3)) != invoice) {
            m_problems.push_back({where, "statement " + quoted(key) + ": its key names invoice " + quoted(invoice)
                    + " but attribute 3 (NumFactArchive) holds " + quoted(attribute(3))});
        }
        refer(kEntities, key.substr(0, 3), "entity " + key.substr(0, 3) + " of statement " + quoted(key), where);
        refer(kOrganisations, key.substr(4, 3), "organisation " + key.substr(4, 3) + " of statement " + quoted(key), where);
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
