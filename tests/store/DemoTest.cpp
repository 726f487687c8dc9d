#include <gtest/gtest.h>
#include <sstream>

#include "Demo.h"
#include "Fixtures.h"
#include "StoreTestSupport.h"

namespace store::testing {
namespace {

TEST_P(StoreTest, DemoDataIsCompleteAndReproducible)
{
    DemoOptions options{600, 7, 40};
    options.user = "alice";
    std::size_t lastDone = 0;
    generateDemo(db(), options, [&](std::size_t done, std::size_t total) {
        EXPECT_EQ(total, 640u);
        lastDone = done;
    });
    EXPECT_EQ(lastDone, 640u);
    EXPECT_EQ(db().read("PERIODESPAIE", "1"), "202610");
    EXPECT_EQ(db().read("DROITS", "alice*CALVARINE"), "2");
    EXPECT_EQ(db().read("ORGPRISECHARGE", "097"), std::nullopt); // a code with statements but no record
    EXPECT_TRUE(db().fileExists("FACTURORG"));
    EXPECT_TRUE(db().fileExists("TEMPO"));

    // The big scope holds exactly the statements asked for it, sorted as the screen asks.
    const auto scope = db().select(R"(SSELECT ARCHIVEBORDCAISSE AVEC PeriodeArchive = "202610" AND AVEC 0 = "001P]" PAR SigleOrgaArchive PAR NumFactArchive)", "0 2 3");
    ASSERT_EQ(scope.DCount(), 40);
    for (std::int16_t i = 1; i < 40; ++i) {
        EXPECT_LE(scope.value(i, 2), scope.value(i + 1, 2));
        EXPECT_EQ(scope.value(i, 1).size(), 23u);
        EXPECT_EQ(scope.value(i, 1).substr(13), scope.value(i, 3)); // invoice at positions 14 to 23
    }
    // Entities with several activity types, one with a letter the screen ignores.
    const auto entities = db().select(R"(SSELECT ACTIVITES AVEC 12 = "P" OR = "M" OR = "I" PAR 0)");
    const auto all = db().select("SSELECT ACTIVITES");
    EXPECT_GT(entities.DCount(), 20);
    EXPECT_EQ(all.DCount(), entities.DCount() + 1);

    std::ostringstream first;
    store::exportJsonLines(db(), first);
    TestDatabase other(GetParam());
    auto again = other.connect();
    generateDemo(*again, options);
    std::ostringstream second;
    store::exportJsonLines(*again, second);
    EXPECT_EQ(first.str(), second.str());
}

} // namespace
} // namespace store::testing
