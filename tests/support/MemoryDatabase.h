#pragma once

// A database of plain records in memory, for the tests of what reads or
// writes a DbaDatabase without needing the store: files of records under
// keys, the requests that Select and Execute were given, and a way to answer
// Select.

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "database/Dba.h"

namespace testsupport {

class MemoryDatabase : public DbaDatabase {
public:
    using Records = std::map<std::string, std::string, std::less<>>;

    // The files and their records. OpenFile of a file not here fails with NoFile,
    // unless makesFile says yes to its name: it is then made empty.
    std::map<std::string, Records, std::less<>> files;
    std::function<bool(std::string_view name)> makesFile = [](std::string_view) { return false; };
    // Every request given to Select and Execute, in order.
    std::vector<std::string> requests;
    // What Select answers a request; nothing by default.
    std::function<DbaDynArray(std::string_view request)> answer = [](std::string_view) { return DbaDynArray(); };

    std::shared_ptr<DbaFile> OpenFile(std::string_view name) override
    {
        auto found = files.find(name);
        if (found == files.end()) {
            if (!makesFile(name)) {
                throw DbaError(DbaError::Kind::NoFile, "OpenFile", std::string(name));
            }
            found = files.emplace(std::string(name), Records()).first;
        }
        return std::make_shared<File>(found->first, found->second);
    }
    DbaDynArray Select(std::string_view request, std::string_view, std::int32_t&) override
    {
        requests.emplace_back(request);
        return answer(request);
    }
    DbaDynArray Execute(std::string_view request, std::string_view, std::int32_t&) override
    {
        requests.emplace_back(request);
        return {};
    }

private:
    // A view of one file's records; the database outlives the files it opens.
    class File : public DbaFile {
    public:
        File(const std::string& name, Records& records) : m_name(name), m_records(records) {}
        const std::string& name() const noexcept override { return m_name; }
        std::shared_ptr<DbaItem> ReadItem(std::string_view key) override
        {
            const auto it = m_records.find(key);
            if (it == m_records.end()) {
                throw DbaError(DbaError::Kind::NoRecord, "ReadItem", std::string(key));
            }
            return std::make_shared<DbaItem>(shared_from_this(), it->first, it->second);
        }
        std::string DeleteItem(std::string_view key) override
        {
            if (const auto it = m_records.find(key); it != m_records.end()) {
                m_records.erase(it);
            }
            return {};
        }
        void writeRecord(std::string_view key, std::string_view record) override { m_records.insert_or_assign(std::string(key), std::string(record)); }

    private:
        std::string m_name;
        Records& m_records;
    };
};

} // namespace testsupport
