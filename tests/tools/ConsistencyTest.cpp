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
    EXPECT_NE(found[0].find("a:2: la clé de bordereau \"001P013202611F0000000001\" a 24 caractères, pas 23"), std::string::npos);
    EXPECT_NE(found[1].find("a:3: bordereau \"001P013202611F78       \" : sa clé dit la période 202611"), std::string::npos);
    EXPECT_NE(found[2].find("a:4: bordereau \"001P013202611F79       \" : sa clé dit la facture \"F79\""), std::string::npos);
    EXPECT_NE(found[3].find("a:5:"), std::string::npos); // no attribute 3 at all
    EXPECT_EQ(consistency.errors(), 4u);
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
    consistency.record("ARCHIVEBORDCAISSE", "004P012202611F3        ", {"202611", "CPAM"}, "b:5"); // its entity comes later
    consistency.record("ARCHIVEBORDCAISSE", "005P012202611F4        ", {"202611", "CPAM", "F4"}, "b:6");
    consistency.record("ASSOCIATION", "003", {}, "b:7");
    consistency.record("ASSOCIATION", "004", {"AIDE"}, "b:8");
    consistency.finish();
    EXPECT_EQ(asked, (std::vector<std::string>{"ASSOCIATION 001", "ORGPRISECHARGE 012", "ASSOCIATION 002", "ASSOCIATION 004",
                         "ASSOCIATION 005"}));
    // In the order of the records, whenever each was found.
    EXPECT_EQ(whats(consistency), (std::vector<std::string>{
                                      "b:3: l'entité 002 de l'activité \"002P01\" n'a pas de fiche dans ASSOCIATION",
                                      "b:5: bordereau \"004P012202611F3        \" : sa clé dit la facture \"F3\" mais l'attribut 3 (NumFactArchive) contient \"\"",
                                      "b:6: l'entité 005 du bordereau \"005P012202611F4        \" n'a pas de fiche dans ASSOCIATION",
                                      "b:7: la fiche \"003\" de ASSOCIATION est vide (aucun attribut)",
                                  }));
}

TEST(ConsistencyTest, AnOrganisationWithoutARecordIsOneNoticeInItsPlace)
{
    Consistency consistency([](const std::string&, const std::string&) { return false; });
    consistency.record("ASSOCIATION", "001", {"AIDE"}, "c:1");
    consistency.record("ARCHIVEBORDCAISSE", "001P077202611F1        ", {"202611", "X", "F1"}, "c:2");
    consistency.unreadable("c:3", "pas du JSON");
    consistency.record("ARCHIVEBORDCAISSE", "001P077202611F2        ", {"202611", "X", "F2"}, "c:4");
    consistency.record("ARCHIVEBORDCAISSE", "001P078202611F3        ", {"202611", "Y", "F3"}, "c:5");
    consistency.record("ARCHIVEBORDCAISSE", "001P012202611F4        ", {"202611", "Y", "F4"}, "c:6");
    consistency.record("ORGPRISECHARGE", "012", {"CAISSE"}, "c:7");
    consistency.finish();
    EXPECT_EQ(whats(consistency), (std::vector<std::string>{
                                      "c:2: l'organisme 077 n'a pas de fiche dans ORGPRISECHARGE : 2 bordereaux le nomment, "
                                      "dont \"001P077202611F1        \" (ils sont réédités sous son code)",
                                      "c:3: pas du JSON",
                                      "c:5: l'organisme 078 n'a pas de fiche dans ORGPRISECHARGE : le bordereau "
                                      "\"001P078202611F3        \" le nomme (il est réédité sous son code)",
                                  }));
    EXPECT_EQ(consistency.errors(), 1u);
    EXPECT_EQ(consistency.notices(), 2u);
    EXPECT_TRUE(consistency.problems()[1].unreadable);
}

} // namespace
