#pragma once

// A store in a fresh temporary folder, removed when the test ends.

#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <string>

#include "Store.h"

namespace store::testing {

class TempDir {
public:
    TempDir()
    {
        std::random_device random;
        m_path = std::filesystem::temp_directory_path() / ("calvarine-store-" + std::to_string(random()) + std::to_string(random()));
        std::filesystem::create_directories(m_path);
    }
    ~TempDir()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::filesystem::path& path() const { return m_path; }

private:
    std::filesystem::path m_path;
};

class StoreTest : public ::testing::Test {
protected:
    StoreTest()
        : m_store(Store::open(m_dir.path() / "test.db"))
    {
    }

    Store& db() { return *m_store; }
    std::filesystem::path dbPath() const { return m_dir.path() / "test.db"; }
    void load(const std::string& lines) { m_store->importJsonLine(lines, "test"); }

    // Marks written as in scenario files: ^ attribute, | value, ~ subvalue.
    static std::string marks(std::string text)
    {
        for (auto& c : text) {
            c = c == '\xFE' ? '^' : c == '\xFD' ? '|' : c == '\xFC' ? '~' : c;
        }
        return text;
    }
    std::string keys(const std::string& sentence, const std::string& attributes = "0")
    {
        return marks(m_store->select(sentence, attributes).text());
    }

    TempDir m_dir;
    std::shared_ptr<Store> m_store;
};

} // namespace store::testing
