#pragma once

#include <memory>
#include <string>

#include "EventLog.h"
#include "database/Dba.h"

namespace script {

// Decorators of a database and its files that, while logging is on, turn each
// operation the control makes into an event line (OPEN, SELECT, EXECUTE, READ,
// NEWITEM, WRITE, DELETE), then pass it on unchanged. Items read or made through
// a logging file are tied to it, so their DBWrite is logged too.
class LoggingDatabase : public DbaDatabase {
public:
    LoggingDatabase(std::shared_ptr<DbaDatabase> inner, std::shared_ptr<EventLog> events);

    void setLogging(bool on) noexcept { m_state->on = on; }
    bool logging() const noexcept { return m_state->on; }

    std::shared_ptr<DbaFile> OpenFile(std::string_view name) override;
    DbaDynArray Select(std::string_view request, std::string_view options, std::int32_t& status) override;
    DbaDynArray Execute(std::string_view request, std::string_view options, std::int32_t& status) override;

    // Shared by the database and the files it opened.
    struct State {
        std::shared_ptr<EventLog> events;
        bool on = false;
        void log(std::string line) const;
    };

private:
    std::shared_ptr<DbaDatabase> m_inner;
    std::shared_ptr<State> m_state;
};

class LoggingFile : public DbaFile {
public:
    LoggingFile(std::shared_ptr<DbaFile> inner, std::shared_ptr<LoggingDatabase::State> state);

    const std::string& name() const noexcept override { return m_inner->name(); }
    std::shared_ptr<DbaItem> ReadItem(std::string_view key) override;
    std::shared_ptr<DbaItem> NewItem(std::string_view key) override;
    std::string DeleteItem(std::string_view key) override;
    void writeRecord(std::string_view key, std::string_view record) override;

private:
    std::shared_ptr<DbaFile> m_inner;
    std::shared_ptr<LoggingDatabase::State> m_state;
};

} // namespace script
