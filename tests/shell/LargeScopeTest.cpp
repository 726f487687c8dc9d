// A scope at the edge of the 16-bit counts: 32,767 statements fill the lists,
// one more fills nothing (the count fails its conversion). A fake database
// answers the control's few requests.

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>

#include "FakeHost.h"
#include "Rights.h"
#include "shell/Ctr_Calvarine.h"

namespace {

class FakeFile : public DbaFile {
public:
    FakeFile(std::string name, std::map<std::string, std::string> records)
        : m_name(std::move(name))
        , m_records(std::move(records))
    {
    }
    const std::string& name() const noexcept override { return m_name; }
    std::shared_ptr<DbaItem> ReadItem(std::string_view key) override
    {
        const auto it = m_records.find(std::string(key));
        if (it == m_records.end()) {
            throw DbaError(DbaError::Kind::NoRecord, m_name, "no record");
        }
        return std::make_shared<DbaItem>(shared_from_this(), it->first, it->second);
    }
    std::string DeleteItem(std::string_view key) override
    {
        m_records.erase(std::string(key));
        return {};
    }
    void writeRecord(std::string_view key, std::string_view record) override { m_records[std::string(key)] = record; }

private:
    std::string m_name;
    std::map<std::string, std::string> m_records;
};

class FakeDatabase : public DbaDatabase {
public:
    explicit FakeDatabase(int statements)
    {
        for (int i = 0; i < statements; ++i) {
            std::string invoice = std::to_string(i);
            m_archive += (i ? "\xFE" : "") + ("001P" + std::string(3 - std::to_string(i % 7).size(), '0') + std::to_string(i % 7)
                + "202611F" + std::string(9 - invoice.size(), '0') + invoice);
        }
    }
    std::shared_ptr<DbaFile> OpenFile(std::string_view name) override
    {
        std::map<std::string, std::string> records;
        if (name == "PERIODESPAIE") {
            records["1"] = "202611";
        } else if (name == "ASSOCIATION") {
            records["001"] = "AIDE A DOMICILE";
        }
        return std::make_shared<FakeFile>(std::string(name), records);
    }
    DbaDynArray Select(std::string_view request, std::string_view, std::int32_t&) override
    {
        if (request.find("AVEC 12") != std::string_view::npos) {
            return DbaDynArray("001P01");
        }
        if (request.find("ACTIVITES") != std::string_view::npos) {
            return DbaDynArray("001P01\xFDP");
        }
        return DbaDynArray(m_archive);
    }
    DbaDynArray Execute(std::string_view, std::string_view, std::int32_t&) override { return {}; }

private:
    std::string m_archive;
};

std::int16_t linesFor(int statements)
{
    FakeHost host;
    Ctr_Calvarine control(host);
    control.TheDatabase(std::make_shared<FakeDatabase>(statements));
    std::shared_ptr<SorbelaneDroits> rights = std::make_shared<FixedRights>(2);
    control.DroitsUtilisateur(rights);
    control.Init();
    ScreenModel& screen = control.Controls();
    screen.get("Txt_Entite").setText("001");
    EXPECT_TRUE(screen.get("Opt_Prest").value());
    EXPECT_EQ(screen.get("Lst_CodeOrgaPos").listCount(), screen.get("Lst_OrgaPos").listCount());
    EXPECT_EQ(screen.userControlEnabled(), true) << "the wait state comes down whatever happened";
    return screen.get("Lst_OrgaPos").listCount();
}

TEST(LargeScope, FillsExactly32767LinesAndNothingBeyond)
{
    EXPECT_EQ(linesFor(32767), 32767);
    EXPECT_EQ(linesFor(32768), 0);
}

} // namespace
