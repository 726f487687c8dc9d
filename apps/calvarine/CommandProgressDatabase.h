#pragma once

#include <functional>
#include <memory>

#include "QtHostServices.h"
#include "database/Dba.h"

// The database as the host hands it to the control: the store itself, except
// that the host services learn when Execute begins and ends, so the progress a
// server command reports shows for exactly as long as the command runs.
class CommandProgressDatabase final : public DbaDatabase {
public:
    // begins: told as each server command begins, before it runs.
    CommandProgressDatabase(std::shared_ptr<DbaDatabase> database, QtHostServices& host, std::function<void()> begins = {})
        : m_database(std::move(database))
        , m_host(host)
        , m_begins(std::move(begins))
    {
    }

    std::shared_ptr<DbaFile> OpenFile(std::string_view name) override { return m_database->OpenFile(name); }
    DbaDynArray Select(std::string_view request, std::string_view options, std::int32_t& status) override
    {
        return m_database->Select(request, options, status);
    }
    DbaDynArray Execute(std::string_view request, std::string_view options, std::int32_t& status) override
    {
        struct Running {
            QtHostServices& host;
            ~Running() { host.endCommand(); }
        } running{m_host};
        if (m_begins) {
            m_begins();
        }
        m_host.beginCommand();
        return m_database->Execute(request, options, status);
    }

    const std::shared_ptr<DbaDatabase>& database() const { return m_database; }

private:
    std::shared_ptr<DbaDatabase> m_database;
    QtHostServices& m_host;
    std::function<void()> m_begins;
};
