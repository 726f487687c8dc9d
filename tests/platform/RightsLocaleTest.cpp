// The rights read from file DROITS, and the French date patterns.

#include <gtest/gtest.h>

#include <array>
#include <map>
#include <stdexcept>

#include "FrenchDates.h"
#include "MemoryDatabase.h"
#include "Rights.h"

namespace {

using testsupport::MemoryDatabase;

TEST(DatabaseRightsTest, ReadsTheLevelOfTheUserOnTheScreen)
{
    auto db = std::make_shared<MemoryDatabase>();
    db->files["DROITS"]["DUPONT*CALVARINE"] = "2";
    db->files["DROITS"]["DUPONT*AUTRE"] = " 3 \xFE" "ignored";
    db->files["DROITS"]["MARTIN*CALVARINE"] = "1";
    DatabaseRights rights(db, "DUPONT");
    EXPECT_EQ(rights.LireDroit("CALVARINE")->Niveau(), 2);
    EXPECT_EQ(rights.LireDroit("AUTRE")->Niveau(), 3);
    // The screen code is part of the key as given: no other user's, no other screen's.
    EXPECT_EQ(rights.LireDroit("calvarine")->Niveau(), 0);
    EXPECT_EQ(DatabaseRights(db, "MARTIN").LireDroit("CALVARINE")->Niveau(), 1);
}

TEST(DatabaseRightsTest, NoRecordOrNoFileGrantsNothingAndALevelNotANumberFails)
{
    auto db = std::make_shared<MemoryDatabase>();
    EXPECT_EQ(DatabaseRights(db, "DUPONT").LireDroit("CALVARINE")->Niveau(), 0);
    db->files["DROITS"];
    EXPECT_EQ(DatabaseRights(db, "DUPONT").LireDroit("CALVARINE")->Niveau(), 0);
    db->files["DROITS"]["DUPONT*CALVARINE"] = "";
    EXPECT_EQ(DatabaseRights(db, "DUPONT").LireDroit("CALVARINE")->Niveau(), 0);
    db->files["DROITS"]["DUPONT*CALVARINE"] = "2X";
    EXPECT_THROW(DatabaseRights(db, "DUPONT").LireDroit("CALVARINE"), std::invalid_argument);
    EXPECT_THROW(DatabaseRights(nullptr, "DUPONT"), std::invalid_argument);
}

TEST(DatabaseRightsTest, ARightKeepsTheLevelItWasReadWith)
{
    auto db = std::make_shared<MemoryDatabase>();
    db->files["DROITS"]["DUPONT*CALVARINE"] = "2";
    DatabaseRights rights(db, "DUPONT");
    const auto right = rights.LireDroit("CALVARINE");
    db->files["DROITS"]["DUPONT*CALVARINE"] = "1";
    EXPECT_EQ(right->Niveau(), 2);
    EXPECT_EQ(rights.LireDroit("CALVARINE")->Niveau(), 1);
}

TEST(FrenchDatesTest, WritesAndReadsMonthNames)
{
    using Case = std::array<const char*, 3>; // date, pattern, expected
    for (const auto& [date, pattern, expected] : {Case{"01/11/2026", "mmmm yyyy", "novembre 2026"},
             Case{"01/02/2026", "mmmm yyyy", "février 2026"}, Case{"01/08/2026", "mmmm yyyy", "août 2026"},
             Case{"01/12/2025", "mmmm yyyy", "décembre 2025"}, Case{"1/3/2020", "dd/mm/yyyy", "01/03/2020"},
             Case{"NOVEMBRE 2026", "yyyymm", "202611"}, Case{"FÉVRIER 2026", "YYYYMM", "202602"},
             Case{"AOÛT 2026", "yyyymm", "202608"}, Case{"janvier 2017", "YYYYMM", "201701"},
             Case{"Décembre 1999", "yyyymm", "199912"}}) {
        EXPECT_EQ(FrenchDates::format(date, pattern), expected) << date << " as " << pattern;
    }
}

TEST(FrenchDatesTest, EveryMonthNameReadsBackToItsMonth)
{
    for (int month = 1; month <= 12; ++month) {
        const std::string date = "01/" + std::string(month < 10 ? "0" : "") + std::to_string(month) + "/2024";
        const std::string name = FrenchDates::format(date, "mmmm yyyy");
        EXPECT_EQ(FrenchDates::format(name, "yyyymm"), "2024" + date.substr(3, 2)) << name;
    }
}

TEST(FrenchDatesTest, ATextThatIsNotADateFails)
{
    EXPECT_THROW(FrenchDates::format("", "yyyymm"), std::invalid_argument);
    EXPECT_THROW(FrenchDates::format("NOVEMBER 2026", "yyyymm"), std::invalid_argument);
    EXPECT_THROW(FrenchDates::format("31/02/2026", "yyyymm"), std::invalid_argument);
    EXPECT_THROW(FrenchDates::format("202611", "yyyymm"), std::invalid_argument);
}

} // namespace
