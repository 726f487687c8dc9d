#include "database/Dba.h"

DbaClient::DbaClient(std::string userName, std::string session)
    : m_userName(std::move(userName))
    , m_session(std::move(session))
{
}

DbaItem::DbaItem(std::shared_ptr<DbaFile> file, std::string key, std::string text)
    : DbaDynArray(std::move(text))
    , m_file(std::move(file))
    , m_key(std::move(key))
{
}

void DbaItem::DBWrite()
{
    if (!m_file) {
        throw DbaError(DbaError::Kind::NotConnected, "DBWrite " + m_key, "the item belongs to no file");
    }
    m_file->writeRecord(m_key, text());
}

std::shared_ptr<DbaItem> DbaFile::NewItem(std::string_view key)
{
    return std::make_shared<DbaItem>(shared_from_this(), std::string(key));
}
