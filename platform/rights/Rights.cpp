#include "Rights.h"

#include <charconv>
#include <stdexcept>

#include "database/FileNames.h"

namespace {

std::int32_t parseLevel(const std::string& text, const std::string& key)
{
    const auto begin = text.find_first_not_of(' ');
    const auto end = text.find_last_not_of(' ');
    if (begin == std::string::npos) {
        return 0; // a record with no level grants nothing
    }
    std::int32_t level = 0;
    const char* first = text.data() + begin;
    const char* last = text.data() + end + 1;
    const auto [ptr, ec] = std::from_chars(first, last, level);
    if (ec != std::errc() || ptr != last) {
        throw std::invalid_argument("DROITS \"" + key + "\": level \"" + text + "\" is not a whole number");
    }
    return level;
}

} // namespace

DatabaseRights::DatabaseRights(std::shared_ptr<DbaDatabase> database, std::string userName)
    : m_database(std::move(database))
    , m_userName(std::move(userName))
{
    if (!m_database) {
        throw std::invalid_argument("DatabaseRights: no database");
    }
}

std::string DatabaseRights::key(const std::string& userName, const std::string& screenCode)
{
    return userName + "*" + screenCode;
}

std::shared_ptr<SorbelaneDroit> DatabaseRights::LireDroit(const std::string& screenCode)
{
    const std::string k = key(m_userName, screenCode);
    try {
        const auto item = m_database->OpenFile(FileNames::DROITS)->ReadItem(k);
        return std::make_shared<FixedRight>(parseLevel(item->attribute(1), k));
    } catch (const DbaError& e) {
        if (e.isNoRecord() || e.isNoFile()) {
            return std::make_shared<FixedRight>(0);
        }
        throw;
    }
}
