// A scope at the edge of the 16-bit counts: 32,767 statements fill the lists,
// one more fills nothing (the count fails its conversion).

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "FakeHost.h"
#include "MemoryDatabase.h"
#include "Rights.h"
#include "shell/Ctr_Calvarine.h"

namespace {

// The control's few requests answered: one period, one entity with one
// activity, and a scope of that many statements.
std::shared_ptr<testsupport::MemoryDatabase> databaseWith(int statements)
{
    std::string archive;
    for (int i = 0; i < statements; ++i) {
        std::string invoice = std::to_string(i);
        archive += (i ? "\xFE" : "") + ("001P" + std::string(3 - std::to_string(i % 7).size(), '0') + std::to_string(i % 7)
            + "202611F" + std::string(9 - invoice.size(), '0') + invoice);
    }
    auto db = std::make_shared<testsupport::MemoryDatabase>();
    db->makesFile = [](std::string_view) { return true; };
    db->files["PERIODESPAIE"]["1"] = "202611";
    db->files["ASSOCIATION"]["001"] = "AIDE A DOMICILE";
    db->answer = [archive](std::string_view request) {
        if (request.find("AVEC 12") != std::string_view::npos) {
            return DbaDynArray("001P01");
        }
        if (request.find("ACTIVITES") != std::string_view::npos) {
            return DbaDynArray("001P01\xFDP");
        }
        return DbaDynArray(archive);
    };
    return db;
}

std::int16_t linesFor(int statements)
{
    FakeHost host;
    Ctr_Calvarine control(host);
    control.TheDatabase(databaseWith(statements));
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
