// The scenario host's own parts: the line reader, event matching, the logging
// database and the recorders of the sibling control and the help.

#include <gtest/gtest.h>

#include <map>

#include "EventLog.h"
#include "Lexer.h"
#include "LoggingDatabase.h"
#include "MemoryDatabase.h"
#include "ScriptHost.h"
#include "Text.h"
#include "ThrowsDbaError.h"

namespace script {
namespace {

TEST(LineReaderTest, ReadsWordsStringsIntegersBooleansAndLists)
{
    LineReader r(R"(  expect  Lst.List = ["A b", "\"q\"\\" , "x\r\ny\t"] -12 True [0,2] [] )");
    EXPECT_EQ(r.word(), "expect");
    EXPECT_EQ(r.word(), "Lst.List");
    r.keyword("=");
    const Value list = r.value();
    ASSERT_TRUE(list.isListOf(Value::Kind::String));
    ASSERT_EQ(list.items.size(), 3u);
    EXPECT_EQ(list.items[0].text, "A b");
    EXPECT_EQ(list.items[1].text, "\"q\"\\");
    EXPECT_EQ(list.items[2].text, "x\r\ny\t");
    EXPECT_EQ(r.integer(), -12);
    EXPECT_TRUE(r.boolean());
    const Value ints = r.value();
    EXPECT_TRUE(ints.isListOf(Value::Kind::Integer));
    EXPECT_EQ(ints.format(), "[0,2]");
    const Value empty = r.value();
    EXPECT_TRUE(empty.isListOf(Value::Kind::Integer) && empty.isListOf(Value::Kind::String));
    EXPECT_TRUE(r.atEnd());
    EXPECT_NO_THROW(r.expectEnd());
}

TEST(LineReaderTest, RejectsWhatIsNotThere)
{
    EXPECT_THROW(LineReader(R"("open)").string(), BadCommand);
    EXPECT_THROW(LineReader(R"("bad \q")").string(), BadCommand);
    EXPECT_THROW(LineReader("12x").integer(), BadCommand);
    EXPECT_THROW(LineReader("true").boolean(), BadCommand);
    EXPECT_THROW(LineReader("[1,2").value(), BadCommand);
    EXPECT_THROW(LineReader("[1 2]").value(), BadCommand);
    EXPECT_THROW(LineReader("").word(), BadCommand);
    EXPECT_THROW(LineReader("a b").keyword("b"), BadCommand);
    LineReader r("word trailing");
    r.word();
    EXPECT_THROW(r.expectEnd(), BadCommand);
}

TEST(LineReaderTest, RestKeepsTheLineAsWritten)
{
    LineReader r(R"(load   {"file": "A B", "key": "1"}   )");
    r.word();
    EXPECT_EQ(r.rest(), R"({"file": "A B", "key": "1"})");
    EXPECT_EQ(trimmed("  click Cmd_Sortir \t"), "click Cmd_Sortir");
}

TEST(LineReaderTest, IndicesAreSigned16Bit)
{
    EXPECT_EQ(int16(-32768), -32768);
    EXPECT_EQ(int16(32767), 32767);
    EXPECT_THROW(int16(32768), BadCommand);
    EXPECT_THROW(int16(-32769), BadCommand);
}

TEST(ValueTest, FormatsAsAScenarioWritesIt)
{
    EXPECT_EQ(Value::of(std::string("a\"b\\c\r\n")).format(), R"("a\"b\\c\r\n")");
    EXPECT_EQ(Value::of(false).format(), "False");
    EXPECT_EQ(Value::list({Value::of(std::string("A")), Value::of(std::string("B"))}).format(), R"(["A","B"])");
    EXPECT_EQ(Value::word("nothing").format(), "nothing");
    EXPECT_FALSE(Value::of(std::int64_t{1}) == Value::of(true));
    EXPECT_FALSE(Value::word("x") == Value::of(std::string("x")));
}

TEST(TextTest, WritesMarksAsTheScenarioDoes)
{
    EXPECT_EQ(showMarks("a\xFE" "b\xFD" "c\xFC" "d"), "a^b|c~d");
    EXPECT_EQ(showMarks("NOVEMBRE É"), "NOVEMBRE É");
}

TEST(EventLogTest, ComparesErrorLinesUpToTheColon)
{
    EXPECT_TRUE(EventLog::matches("ERROR Init:", "ERROR Init: no database was given"));
    EXPECT_TRUE(EventLog::matches("ERROR Init: anything", "ERROR Init: something else"));
    EXPECT_FALSE(EventLog::matches("ERROR Init:", "ERROR TheDatabase: x"));
    EXPECT_FALSE(EventLog::matches("ERROR Init:", "REFUSED Init: x"));
    EXPECT_TRUE(EventLog::matches("BEEP", "BEEP"));
    EXPECT_FALSE(EventLog::matches("BEEP", "BEEP "));

    EventLog log;
    log.push("A");
    log.push("B");
    EXPECT_EQ(log.take(), "A");
    EXPECT_EQ(log.take(), "B");
    EXPECT_FALSE(log.take());
}

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

TEST_F(LoggingDatabaseTest, FilesOpenedBeforeLoggingLogOnceItIsOn)
{
    auto file = db.OpenFile("PERIODESPAIE");
    inner->files["PERIODESPAIE"]["1"] = "202611";
    file->ReadItem("1");
    EXPECT_TRUE(events->empty());
    db.setLogging(true);
    // An item read earlier writes through the logging file too.
    auto item = file->ReadItem("1");
    db.setLogging(false);
    item->DBWrite();
    db.setLogging(true);
    item->DBWrite();
    EXPECT_EQ(drain(), (std::vector<std::string>{"READ PERIODESPAIE \"1\"", "WRITE PERIODESPAIE \"1\" \"202611\""}));
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
