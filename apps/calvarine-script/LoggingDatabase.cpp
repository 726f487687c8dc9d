#include "LoggingDatabase.h"

#include "Text.h"

namespace script {

void LoggingDatabase::State::log(std::string line) const
{
    if (on) {
        events->push(std::move(line));
    }
}

LoggingDatabase::LoggingDatabase(std::shared_ptr<DbaDatabase> inner, std::shared_ptr<EventLog> events)
    : m_inner(std::move(inner))
    , m_state(std::make_shared<State>(State{std::move(events)}))
{
}

std::shared_ptr<DbaFile> LoggingDatabase::OpenFile(std::string_view name)
{
    m_state->log("OPEN " + std::string(name));
    return std::make_shared<LoggingFile>(m_inner->OpenFile(name), m_state);
}

DbaDynArray LoggingDatabase::Select(std::string_view request, std::string_view options, std::int32_t& status)
{
    m_state->log("SELECT \"" + showMarks(request) + "\"");
    return m_inner->Select(request, options, status);
}

DbaDynArray LoggingDatabase::Execute(std::string_view request, std::string_view options, std::int32_t& status)
{
    m_state->log("EXECUTE \"" + showMarks(request) + "\"");
    return m_inner->Execute(request, options, status);
}

LoggingFile::LoggingFile(std::shared_ptr<DbaFile> inner, std::shared_ptr<LoggingDatabase::State> state)
    : m_inner(std::move(inner))
    , m_state(std::move(state))
{
}

std::shared_ptr<DbaItem> LoggingFile::ReadItem(std::string_view key)
{
    const std::string line = "READ " + name() + " \"" + std::string(key) + "\"";
    std::shared_ptr<DbaItem> item;
    try {
        item = m_inner->ReadItem(key);
    } catch (const DbaError& e) {
        m_state->log(e.isNoRecord() ? line + " missing" : line);
        throw;
    }
    m_state->log(line);
    return std::make_shared<DbaItem>(shared_from_this(), std::string(key), item->text());
}

std::shared_ptr<DbaItem> LoggingFile::NewItem(std::string_view key)
{
    m_state->log("NEWITEM " + name() + " \"" + std::string(key) + "\"");
    return std::make_shared<DbaItem>(shared_from_this(), std::string(key));
}

std::string LoggingFile::DeleteItem(std::string_view key)
{
    m_state->log("DELETE " + name() + " \"" + std::string(key) + "\"");
    return m_inner->DeleteItem(key);
}

void LoggingFile::writeRecord(std::string_view key, std::string_view record)
{
    m_state->log("WRITE " + name() + " \"" + std::string(key) + "\" \"" + showMarks(record) + "\"");
    m_inner->writeRecord(key, record);
}

} // namespace script
