#include <gtest/gtest.h>

#include "Consistency.h"

namespace {

std::vector<std::string> whats(const Consistency& consistency)
{
    std::vector<std::string> out;
    for (const auto& problem : consistency.problems()) {
        out.push_back(problem.where + ": " + problem.what);
    }
    return out;
}

TEST(ConsistencyTest, AStatementsKeyMustAgreeWithItsPeriodAndInvoice)
{
    Consistency consistency([](const std::string&, const std::string&) { return true; });
    // Blank padding of the invoice in the key is no disagreement.
    consistency.record("ARCHIVEBORDCAISSE", "001P013202611F77       ", {"202611", "MDD", "F77"}, "a:1");
    consistency.record("ARCHIVEBORDCAISSE", "001P013202611F0000000001", {"202611", "MDD", "F0000000001"}, "a:2");
    consistency.record("ARCHIVEBORDCAISSE", "001P013202611F78       ", {"202612", "MDD", "F78"}, "a:3");
    consistency.record("ARCHIVEBORDCAISSE", "001P013202611F79       ", {"202611", "MDD", "F80"}, "a:4");
    consistency.record("ARCHIVEBORDCAISSE", "001P013202611F81       ", {"202611"}, "a:5");
    consistency.finish();
    const auto found = whats(consistency);
    ASSERT_EQ(found.size(), 4u) << testing::PrintToString(found);
    EXPECT_NE(found[0].find("a:2: statement key \"001P013202611F0000000001\" is not entity"), std::string::npos);
    EXPECT_NE(found[1].find("a:3: statement \"001P013202611F78       \": its key names period 202611"), std::string::npos);
    EXPECT_NE(found[2].find("a:4: statement \"001P013202611F79       \": its key names invoice \"F79\""), std::string::npos);
    EXPECT_NE(found[3].find("a:5:"), std::string::npos); // no attribute 3 at all
}

TEST(ConsistencyTest, ReferencesAreAnsweredByLaterRecordsOrByTheDatabaseAskedOnce)
{
    std::vector<std::string> asked;
    Consistency consistency([&](const std::string& file, const std::string& key) {
        asked.push_back(file + " " + key);
        return file == "ASSOCIATION" && key == "001";
    });
    consistency.record("ARCHIVEBORDCAISSE", "001P012202611F1        ", {"202611", "CPAM", "F1"}, "b:1");
    consistency.record("ARCHIVEBORDCAISSE", "001P012202611F2        ", {"202611", "CPAM", "F2"}, "b:2");
    consistency.record("ACTIVITES", "002P01", {"", "", "", "", "", "", "", "", "", "", "", "P"}, "b:3");
    consistency.record("ORGPRISECHARGE", "012", {"CAISSE", "CPAM"}, "b:4"); // comes after its statements
    consistency.record("ASSOCIATION", "003", {}, "b:5");
    consistency.finish();
    EXPECT_EQ(asked, (std::vector<std::string>{"ASSOCIATION 001", "ORGPRISECHARGE 012", "ASSOCIATION 002"}));
    const auto found = whats(consistency);
    ASSERT_EQ(found.size(), 2u) << testing::PrintToString(found);
    EXPECT_EQ(found[0], "b:5: ASSOCIATION \"003\" has no record (no attribute)");
    EXPECT_EQ(found[1], "b:3: entity 002 of activity \"002P01\" has no record in ASSOCIATION");
}

} // namespace
