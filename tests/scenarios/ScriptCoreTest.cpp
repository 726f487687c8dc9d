// The scenario host's own parts: the logging
// database and the recorders of the sibling control and the help.

#include <gtest/gtest.h>

#include <map>

#include "EventLog.h"
#include "LoggingDatabase.h"
#include "MemoryDatabase.h"
#include "ScriptHost.h"
#include "ThrowsDbaError.h"

namespace script {
namespace {

class LoggingDatabaseTest : public ::testing::Test {
protected:
    // A database of plain records under the logging decorator: any file opens
    // but NONE, and every selection answers two keys.
    std::shared_ptr<testsupport::MemoryDatabase> inner = [] {
        auto db = std::make_shared<testsupport::MemoryDatabase>();
        db->makesFile = [](std::string_view name) { return name != "NONE"; };
        db->answer = [](std::string_view) { return DbaDynArray("K1\xFEK2"); };
        return db;
    }();
    std::shared_ptr<EventLog> events = std::make_shared<EventLog>();
    LoggingDatabase db{inner, events};

    std::vector<std::string> drain()
    {
        std::vector<std::string> out;
        while (auto e = events->take()) {
            out.push_back(*e);
        }
        return out;
    }
};

TEST_F(LoggingDatabaseTest, LogsEveryOperationWhileOnAndPassesItOn)
{
    db.setLogging(true);
    auto file = db.OpenFile("TEMPO");
    auto item = file->NewItem("REQ");
    item->setValue(1, 1, "012");
    item->setValue(1, 2, "F1");
    item->DBWrite();
    EXPECT_EQ(inner->files.at("TEMPO").at("REQ"), "012\xFD" "F1");
    EXPECT_EQ(file->ReadItem("REQ")->text(), "012\xFD" "F1");
    EXPECT_THAT([&] { file->ReadItem("NONE"); }, ThrowsDbaError(DbaError::Kind::NoRecord));
    file->DeleteItem("REQ");
    std::int32_t status = 0;
    EXPECT_EQ(db.Select("SSELECT X\xFEX\xFE" "0", "", status).text(), "K1\xFEK2");
    db.Execute("LOGIN", "", status);
    EXPECT_THAT([&] { db.OpenFile("NONE"); }, ThrowsDbaError(DbaError::Kind::NoFile));
    EXPECT_EQ(drain(), (std::vector<std::string>{
                           "OPEN TEMPO",
                           "NEWITEM TEMPO \"REQ\"",
                           "WRITE TEMPO \"REQ\" \"012|F1\"",
                           "READ TEMPO \"REQ\"",
                           "READ TEMPO \"NONE\" missing",
                           "DELETE TEMPO \"REQ\"",
                           "SELECT \"SSELECT X^X^0\"",
                           "EXECUTE \"LOGIN\"",
                           "OPEN NONE",
                       }));
}

TEST(RecorderTest, SiblingControlMembersBecomeEvents)
{
    auto events = std::make_shared<EventLog>();
    BelmontisRecorder belmontis(events);
    Variant db = std::shared_ptr<DbaDatabase>(std::make_shared<testsupport::MemoryDatabase>());
    Variant noClient = std::shared_ptr<DbaClient>();
    Variant period = std::string("202611");
    Variant flag = false;
    Variant selection = std::make_shared<DbaDynArray>("012\xFD" "F1\xFE" "101\xFD" "F5");
    belmontis.setProperty("BaseEdition", db);
    belmontis.setProperty("ClientEdition", noClient);
    belmontis.setProperty("W_Periode", period);
    belmontis.setProperty("W_DrapeauFaux", flag);
    belmontis.invoke("Editer_Bordereaux", {selection});
    EXPECT_EQ(*events->take(), "BELMONTIS BaseEdition database");
    EXPECT_EQ(*events->take(), "BELMONTIS ClientEdition nothing");
    EXPECT_EQ(*events->take(), "BELMONTIS W_Periode \"202611\"");
    EXPECT_EQ(*events->take(), "BELMONTIS W_DrapeauFaux False");
    EXPECT_EQ(*events->take(), "BELMONTIS Editer_Bordereaux \"012|F1^101|F5\"");
}

TEST(RecorderTest, HostServicesQueueWhatTheOperatorWouldSee)
{
    auto events = std::make_shared<EventLog>();
    ScriptHost host(events);
    host.msgBox("Texte \"cité\"\r\nligne", 48, "Message Trivalden");
    host.beep();
    host.reportFailure("Init", "no database");
    host.unloadForm();
    EXPECT_TRUE(host.takeUnloadRequest());
    EXPECT_FALSE(host.takeUnloadRequest());
    auto help = host.createHelp();
    help->Base(std::make_shared<testsupport::MemoryDatabase>());
    std::string page = "Calvarine.htm", mode = "P", title = "Calvarine";
    help->AfficherPage(page, mode, title);
    EXPECT_EQ(*events->take(), "MSGBOX 48 \"Message Trivalden\" \"Texte \"cité\"\r\nligne\"");
    EXPECT_EQ(*events->take(), "BEEP");
    EXPECT_EQ(*events->take(), "ERROR Init: no database");
    EXPECT_EQ(*events->take(), "UNLOAD");
    EXPECT_EQ(*events->take(), "HELP \"Calvarine.htm\" \"P\" \"Calvarine\" client=empty base=set");
    EXPECT_EQ(host.formatDate("01/08/2026", "mmmm yyyy"), "août 2026");
}

} // namespace
} // namespace script
