#include <atomic>
#include <fstream>
#include <future>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>
#include <sstream>

#include <sqlite3.h>

#include "ThrowsDbaError.h"
#include "StoreTestSupport.h"
#include "database/FileNames.h"

namespace store::testing {
namespace {

// A small archive: two entities, activities, organisations and statements.
constexpr const char* kFixture = R"(
{"dict": "ARCHIVEBORDCAISSE", "name": "PeriodeArchive", "attr": 1}
{"dict": "ARCHIVEBORDCAISSE", "name": "SigleOrgaArchive", "attr": 2}
{"dict": "ARCHIVEBORDCAISSE", "name": "NumFactArchive", "attr": 3}
{"dict": "ARCHIVEBORDCAISSE", "name": "Montant", "attr": 11, "justify": "R"}
{"dict": "ACTIVITES", "name": "Lettre", "attr": 12}
{"file": "ACTIVITES", "key": "001P01", "attrs": {"12": "P"}}
{"file": "ACTIVITES", "key": "001M02", "attrs": {"12": "M"}}
{"file": "ACTIVITES", "key": "002X01", "attrs": {"12": "X"}}
{"file": "ACTIVITES", "key": "003I01", "attrs": {"12": ["Z", "I"]}}
{"file": "ORGPRISECHARGE", "key": "010", "record": ["CAISSE PRIMAIRE", "CPAM"]}
{"file": "ARCHIVEBORDCAISSE", "key": "001P010202610F000000001", "record": ["202610", "CPAM", "F000000001", "", "", "", "", "", "", "", "1500"]}
{"file": "ARCHIVEBORDCAISSE", "key": "001P020202610F000000002", "record": ["202610", "ABC", "F000000002", "", "", "", "", "", "", "", "200"]}
{"file": "ARCHIVEBORDCAISSE", "key": "001P030202610F000000003", "record": ["202610", "CPAM", "F000000000", "", "", "", "", "", "", "", "-3"]}
{"file": "ARCHIVEBORDCAISSE", "key": "001P010202609F000000004", "record": ["202609", "CPAM", "F000000004"]}
{"file": "ARCHIVEBORDCAISSE", "key": "001M010202610F000000005", "record": ["202610", "CPAM", "F000000005"]}
{"file": "ARCHIVEBORDCAISSE", "key": "002P010202610F000000006", "record": ["202610", "CPAM", "F000000006"]}
{"file": "FACTURORG"}
)";

class Sentences : public StoreTest {
protected:
    Sentences() { load(kFixture); }
};

TEST_P(Sentences, StatementQueriesOfTheScreen)
{
    EXPECT_EQ(keys(R"(SSELECT ARCHIVEBORDCAISSE AVEC PeriodeArchive = "202610" AND AVEC 0 = "001P]" PAR SigleOrgaArchive PAR NumFactArchive)"),
        "001P020202610F000000002^001P030202610F000000003^001P010202610F000000001");
    EXPECT_EQ(keys(R"(SSELECT ARCHIVEBORDCAISSE AVEC PeriodeArchive = "202610" AND AVEC 0 = "001P]" PAR NumFactArchive)"),
        "001P030202610F000000003^001P010202610F000000001^001P020202610F000000002");
    EXPECT_EQ(keys(R"(SSELECT ARCHIVEBORDCAISSE AVEC PeriodeArchive = "202610" AND AVEC 0 = "001P010]" PAR NumFactArchive)"),
        "001P010202610F000000001");
    EXPECT_EQ(keys(R"(SSELECT ARCHIVEBORDCAISSE AVEC PeriodeArchive = "202610" AND AVEC 0 = "001P]" AND AVEC NumFactArchive = "F000000002" PAR NumFactArchive)"),
        "001P020202610F000000002");
}

TEST_P(Sentences, ValuesAreBoundNeverSpliced)
{
    EXPECT_EQ(keys(R"(SSELECT ACTIVITES AVEC 12 = "P' OR 1=1 --")"), "");
    EXPECT_EQ(keys(R"(SSELECT ACTIVITES AVEC Lettre = "'); DROP TABLE ACTIVITES; --")"), "");
    EXPECT_TRUE(db().fileExists("ACTIVITES"));
}

TEST_P(Sentences, SelectAndExecuteRequests)
{
    std::int32_t status = -1;
    const std::string request = std::string(R"(SSELECT ACTIVITES AVEC 0 = "001]")") + "\xFE" + "ACTIVITES" + "\xFE" + "0 12";
    EXPECT_EQ(marks(db().Select(request, "", status).text()), "001M02|M^001P01|P");
    EXPECT_EQ(status, 0);
    const std::string other = std::string(R"(SSELECT ACTIVITES)") + "\xFE" + "ASSOCIATION";
    EXPECT_THAT([&] { db().Select(other, "", status); }, ThrowsDbaError(DbaError::Kind::BadSentence));

    EXPECT_EQ(db().Execute("LOGIN", "", status).text(), "");
    serveOwnCommands(db()); // on a server: no worker beside this test
    std::vector<std::string> seen;
    db().registerCommand("ECHO", [&](CommandContext& context) {
        seen = context.arguments;
        EXPECT_TRUE(std::filesystem::is_directory(context.fusion));
        context.store.write("TEMPO", "OUT", "done");
    });
    db().Execute(std::string("P\xFE") + "ECHO 202610 001 P", "", status);
    EXPECT_EQ(seen, (std::vector<std::string>{"202610", "001", "P"}));
    EXPECT_EQ(db().read("TEMPO", "OUT"), "done");

    db().registerCommand("FAIL", [](CommandContext&) { throw std::runtime_error("disk full"); });
    EXPECT_THAT([&] { db().Execute(std::string("P\xFE") + "FAIL", "", status); }, ThrowsDbaError(DbaError::Kind::CommandFailed, "disk full"));
    db().unregisterCommand("ECHO");
    EXPECT_THAT([&] { db().Execute(std::string("P\xFE") + "ECHO", "", status); }, ThrowsDbaError(DbaError::Kind::CommandFailed));
    EXPECT_THAT([&] { db().Execute("DELETE", "", status); }, ThrowsDbaError(DbaError::Kind::CommandFailed));
}

struct BadSentence {
    const char* sentence;
    DbaError::Kind kind;
    const char* mentions; // a part of the error text: the word or its position
};

TEST_P(Sentences, MalformedSentencesNameTheWordAndPosition)
{
    const BadSentence cases[] = {
        {"", DbaError::Kind::BadSentence, "word 1"},
        {"SELECT ACTIVITES", DbaError::Kind::BadSentence, "\"SELECT\""},
        {"SSELECT", DbaError::Kind::BadSentence, "end of the sentence"},
        {"SSELECT NOFILE", DbaError::Kind::NoFile, "\"NOFILE\" at word 2 (column 9)"},
        {"SSELECT ACTIVITES AVEC", DbaError::Kind::BadSentence, "word 4"},
        {"SSELECT ACTIVITES AVEC 12 \"P\"", DbaError::Kind::BadSentence, "word 5 (column 27)"},
        {"SSELECT ACTIVITES AVEC 12 = P", DbaError::Kind::BadSentence, "\"P\""},
        {"SSELECT ACTIVITES AVEC 12 = \"P", DbaError::Kind::BadSentence, "never closed"},
        {"SSELECT ACTIVITES AVEC 12 = \"P\"x", DbaError::Kind::BadSentence, "word 6"},
        {"SSELECT ACTIVITES AVEC 12 = \"P\" AVEC 0 = \"1\"", DbaError::Kind::BadSentence, "expected \"AND\" at word 7"},
        {"SSELECT ACTIVITES AVEC 12 = \"P\" OR \"M\"", DbaError::Kind::BadSentence, "word 8"},
        {"SSELECT ACTIVITES AVEC Inconnu = \"P\"", DbaError::Kind::UnknownName, "\"Inconnu\" at word 4"},
        {"SSELECT ACTIVITES PAR Inconnu", DbaError::Kind::UnknownName, "word 4"},
        {"SSELECT ACTIVITES PAR", DbaError::Kind::BadSentence, "end of the sentence"},
        {"SSELECT ACTIVITES PAR 0 AVEC 12 = \"P\"", DbaError::Kind::BadSentence, "\"AVEC\""},
        {"SSELECT ACTIVITES AVEC 99999 = \"P\"", DbaError::Kind::BadSentence, "99999"},
        {"SSELECT ACTIVITES AVEC = = \"P\"", DbaError::Kind::BadSentence, "word 4"},
    };
    for (const auto& bad : cases) {
        EXPECT_THAT([&] { db().select(bad.sentence); }, ThrowsDbaError(bad.kind, bad.mentions)) << bad.sentence;
    }
    EXPECT_THAT([&] { db().select("SSELECT ACTIVITES", "0 x"); }, ThrowsDbaError(DbaError::Kind::BadSentence));
}

TEST_P(StoreTest, RecordsThroughFiles)
{
    db().createFile("TEMPO");
    auto tempo = db().OpenFile("TEMPO");
    EXPECT_THAT([&] { tempo->ReadItem("REQUETEBORDEXCEL"); }, ThrowsDbaError(DbaError::Kind::NoRecord));
    auto item = tempo->NewItem("REQUETEBORDEXCEL");
    item->setValue(1, 1, "010");
    item->setValue(1, 2, "F1");
    item->setValue(2, 1, "011");
    item->DBWrite();
    auto read = tempo->ReadItem("REQUETEBORDEXCEL");
    EXPECT_EQ(read->value(1, 2), "F1");
    EXPECT_EQ(read->DCount(), 2);
    EXPECT_EQ(tempo->DeleteItem("REQUETEBORDEXCEL"), "");
    EXPECT_EQ(tempo->DeleteItem("REQUETEBORDEXCEL"), "");
    EXPECT_THAT([&] { tempo->ReadItem("REQUETEBORDEXCEL"); }, ThrowsDbaError(DbaError::Kind::NoRecord));

    EXPECT_THAT([&] { db().OpenFile("ABSENT"); }, ThrowsDbaError(DbaError::Kind::NoFile));
    // Files outlive the store that opened them.
    m_store.reset();
    tempo->NewItem("K")->DBWrite();
    EXPECT_EQ(tempo->ReadItem("K")->text(), "");
}

TEST_P(StoreTest, IndexFollowsEveryWrite)
{
    load(R"({"dict": "F", "name": "N", "attr": 2})");
    db().write("F", "a", std::string("x\xFE" "v1\xFD" "v2"));
    EXPECT_EQ(keys(R"(SSELECT F AVEC N = "v2")"), "a");
    db().write("F", "a", std::string("x\xFE" "v3"));
    EXPECT_EQ(keys(R"(SSELECT F AVEC N = "v2")"), "");
    EXPECT_EQ(keys(R"(SSELECT F AVEC N = "v3")"), "a");
    EXPECT_EQ(keys(R"(SSELECT F AVEC N = "")"), "");
    db().write("F", "b", "only one attribute");
    EXPECT_EQ(keys(R"(SSELECT F AVEC N = "")"), "b"); // a missing attribute is one empty value
    EXPECT_TRUE(db().remove("F", "a"));
    EXPECT_FALSE(db().remove("F", "a"));
    EXPECT_EQ(keys(R"(SSELECT F AVEC N = "v3")"), "");
    // A name defined after the records indexes them.
    db().write("F", "c", std::string("\xFE\xFE" "late"));
    db().defineName("F", "Late", 3);
    EXPECT_EQ(keys(R"(SSELECT F AVEC Late = "late")"), "c");
    // A failed transaction leaves records and index as they were.
    EXPECT_THROW(db().transaction([&] {
        db().write("F", "d", std::string("\xFE\xFE" "late"));
        throw std::runtime_error("abandon");
    }),
        std::runtime_error);
    EXPECT_EQ(keys(R"(SSELECT F AVEC Late = "late")"), "c");
}

// A bulk load (COPY on PostgreSQL) leaves records and index as plain writes do:
// new keys, a key written twice, a key already there, a nested failure dropped;
// a load that fails loads nothing.
TEST_P(StoreTest, BulkLoadKeepsRecordsAndIndexInStep)
{
    load(R"({"dict": "F", "name": "N", "attr": 1})");
    db().write("F", "old", "v0");
    db().bulkLoad([&] {
        db().transaction([&] {
            db().write("F", "a", std::string("v1\xFD" "v2"));
            db().write("F", "b", "v1");
            db().write("F", "b", "v3");
            EXPECT_EQ(db().read("F", "b"), "v3");
            EXPECT_THROW(db().transaction([&] {
                db().write("F", "c", "v1");
                throw std::runtime_error("abandon");
            }),
                std::runtime_error);
            EXPECT_EQ(keys(R"(SSELECT F AVEC N = "v1")"), "a");
            db().write("F", "old", "v3");
            db().write("F", "d", "v2");
        });
    });
    EXPECT_EQ(keys(R"(SSELECT F AVEC N = "v3")"), "b^old");
    EXPECT_EQ(keys(R"(SSELECT F AVEC N = "v2")"), "a^d");
    EXPECT_EQ(keys(R"(SSELECT F AVEC N = "v0")"), "");
    EXPECT_EQ(db().read("F", "c"), std::nullopt);
    EXPECT_THROW(db().bulkLoad([&] {
        db().transaction([&] {
            db().write("F", "e", "v4");
            db().write("F", "old", "v4");
            throw std::runtime_error("abandon");
        });
    }),
        std::runtime_error);
    EXPECT_EQ(keys(R"(SSELECT F AVEC N = "v4")"), "");
    EXPECT_EQ(keys("SSELECT F"), "a^b^d^old");
}

// A key that a selection could not give back (empty, or holding a mark) is
// refused whichever way it comes, and nothing is written.
TEST_P(StoreTest, KeysThatCannotBeReadBackAreRefused)
{
    db().defineName("F", "Nom", 1);
    for (const std::string& key : {std::string(), std::string("a\xFE" "b"), std::string("a\xFD")}) {
        EXPECT_THAT([&] { db().write("F", key, "v"); }, ThrowsDbaError(DbaError::Kind::BadData)) << key;
        EXPECT_THAT([&] { db().OpenFile("F")->NewItem(key)->DBWrite(); }, ThrowsDbaError(DbaError::Kind::BadData)) << key;
    }
    EXPECT_THAT([&] { load(R"({"file": "F", "key": "", "record": ["v"]})"); }, ThrowsDbaError(DbaError::Kind::BadData));
    EXPECT_EQ(keys("SSELECT F"), "");
    EXPECT_EQ(keys(R"(SSELECT F AVEC Nom = "v")"), "");
}

// Names that differ only in case never share records or an index: the second is
// either kept apart (PostgreSQL) or refused, nothing written (SQLite).
TEST_P(StoreTest, NamesDifferingOnlyInCaseNeverShareStorage)
{
    load(R"({"file": "F", "key": "k", "record": ["upper"]})");
    const auto lowerFile = [&] { load(R"({"file": "f", "key": "k", "record": ["lower"]})"); };
    if (onServer()) {
        lowerFile();
        EXPECT_EQ(db().read("f", "k"), "lower");
    } else {
        EXPECT_THAT(lowerFile, ThrowsDbaError(DbaError::Kind::BadData, "\"F\""));
        EXPECT_FALSE(db().fileExists("f"));
        EXPECT_THAT([&] { db().select("SSELECT f"); }, ThrowsDbaError(DbaError::Kind::NoFile));
    }
    EXPECT_EQ(db().read("F", "k"), "upper");
    EXPECT_EQ(keys("SSELECT F"), "k");

    load(R"({"dict": "G", "name": "Nom", "attr": 1})");
    db().write("G", "a", std::string("alpha\xFE" "beta"));
    db().write("G", "b", std::string("beta\xFE" "alpha"));
    if (onServer()) {
        db().defineName("G", "NOM", 2);
        EXPECT_EQ(keys(R"(SSELECT G AVEC NOM = "alpha")"), "b");
    } else {
        EXPECT_THAT([&] { db().defineName("G", "NOM", 2); }, ThrowsDbaError(DbaError::Kind::BadData));
        EXPECT_THAT([&] { keys(R"(SSELECT G AVEC NOM = "alpha")"); }, ThrowsDbaError(DbaError::Kind::UnknownName));
        // The same name again is no collision.
        db().defineName("G", "Nom", 1);
    }
    EXPECT_EQ(keys(R"(SSELECT G AVEC Nom = "alpha")"), "a");
}

// TEMPO's working records are each session's own from the opening of the
// store: a host that declares nothing and registers no command keeps them apart.
TEST_P(StoreTest, SessionPrivateRecordsAreEachSessionsOwn)
{
    const auto workstation = [&](const std::string& session) {
        auto store = m_database.connect();
        store->setClient(std::make_shared<DbaClient>("OPERATEUR", session));
        return store;
    };
    auto first = workstation("poste-1");
    auto second = workstation("poste-2");
    first->write("TEMPO", "REQUETEBORDEXCEL", "010\xFD" "F1");
    second->write("TEMPO", "REQUETEBORDEXCEL", "020\xFD" "F2");
    EXPECT_EQ(first->OpenFile("TEMPO")->ReadItem("REQUETEBORDEXCEL")->text(), "010\xFD" "F1");
    EXPECT_EQ(second->read("TEMPO", "REQUETEBORDEXCEL"), "020\xFD" "F2");
    EXPECT_EQ(marks(first->select("SSELECT TEMPO", "0 1 0").text()), "REQUETEBORDEXCEL|010|F1|REQUETEBORDEXCEL");
    first->OpenFile("TEMPO")->DeleteItem("REQUETEBORDEXCEL");
    EXPECT_EQ(first->read("TEMPO", "REQUETEBORDEXCEL"), std::nullopt);
    EXPECT_EQ(second->read("TEMPO", "REQUETEBORDEXCEL"), "020\xFD" "F2");
    EXPECT_EQ(first->select("SSELECT TEMPO").text(), "");
    // A store without a session has one of its own; other files are shared.
    auto third = workstation("");
    EXPECT_EQ(third->read("TEMPO", "REQUETEBORDEXCEL"), std::nullopt);
    first->write("ORGPRISECHARGE", "010", "x");
    EXPECT_TRUE(eventually([&] { return second->read("ORGPRISECHARGE", "010") == "x"; }));
}

TEST_P(StoreTest, TwoConnectionsWriteAtOnce)
{
    load(R"({"dict": "F", "name": "N", "attr": 1})");
    auto other = m_database.connect();
    for (int i = 0; i < 50; ++i) {
        db().write("F", "a" + std::to_string(i), "same");
        other->write("F", "b" + std::to_string(i), "same");
    }
    // A transaction in one waits for none of the other's reads.
    db().transaction([&] {
        db().write("F", "c", "same");
        EXPECT_EQ(other->read("F", "c"), std::nullopt);
    });
    // On a server the other connection keeps small files in memory: the change
    // reaches it with the server's notification, a moment after the commit.
    EXPECT_TRUE(eventually([&] { return other->read("F", "c") == "same"; }));
    EXPECT_EQ(db().select(R"(SSELECT F AVEC N = "same")").DCount(), 101);
    // A name defined by the other connection is seen and kept in step here.
    other->defineName("F", "Deux", 2);
    db().write("F", "z", std::string("x\xFE" "y"));
    EXPECT_EQ(keys(R"(SSELECT F AVEC Deux = "y")"), "z");
    EXPECT_EQ(marks(other->select(R"(SSELECT F AVEC Deux = "y")").text()), "z");
}

TEST_P(StoreTest, ImportExportRoundTrip)
{
    load(kFixture);
    load(R"({"file": "ASSOCIATION", "key": "001", "record": ["AIDE A DOMICILE DU VAL", ["a", ["b1", "b2"], ""], "", "É ^|~ fin"]})");
    std::ostringstream first;
    store::exportJsonLines(db(), first);

    TestDatabase other(GetParam());
    auto copy = other.connect();
    std::istringstream in(first.str());
    store::importJsonLines(*copy, in, "export");
    std::ostringstream second;
    store::exportJsonLines(*copy, second);
    EXPECT_EQ(first.str(), second.str());
    EXPECT_EQ(marks(*copy->read("ASSOCIATION", "001")), "AIDE A DOMICILE DU VAL^a|b1~b2|^^É ^|~ fin");
    EXPECT_EQ(copy->files(), db().files());
    EXPECT_TRUE(copy->fileExists("FACTURORG"));
    EXPECT_EQ(marks(copy->select(R"(SSELECT ARCHIVEBORDCAISSE AVEC 0 = "001P]" AND AVEC PeriodeArchive = "202610" PAR Montant)", "11").text()),
        "-3^200^1500");

    std::ostringstream one;
    store::exportJsonLines(db(), one, {"ORGPRISECHARGE"});
    EXPECT_EQ(one.str(), "{\"file\":\"ORGPRISECHARGE\"}\n{\"file\":\"ORGPRISECHARGE\",\"key\":\"010\",\"record\":[\"CAISSE PRIMAIRE\",\"CPAM\"]}\n");
}

TEST_P(StoreTest, MalformedFixtureImportsNothingAndNamesTheLine)
{
    const char* broken[] = {
        "{\"file\": \"A\", \"key\": \"1\", \"record\": [\"x\"]}\n{\"file\": \"A\", \"key\": \"2\", \"record\": [\"y\"]",
        "{\"file\": \"A\", \"key\": \"1\", \"record\": [\"x\"]}\n{\"file\": \"A\", \"key\": \"2\", \"record\": [\"\xC3\xBE\", \"\xFE\"]}",
        "{\"file\": \"A\", \"key\": \"1\", \"record\": [\"x\"]}\n{\"file\": \"A\", \"key\": \"2\", \"attrs\": {\"0\": \"y\"}}",
        "{\"file\": \"A\", \"key\": \"1\", \"record\": [\"x\"]}\n{\"dict\": \"A\", \"name\": \"12\", \"attr\": 1}",
        "{\"file\": \"A\", \"key\": \"1\", \"record\": [\"x\"]}\n{\"file\": \"A\", \"key\": \"2\", \"record\": [{\"a\": 1}]}",
        "{\"file\": \"A\", \"key\": \"1\", \"record\": [\"x\"]}\n{\"file\": \"A\", \"key\": \"\"}",
        "{\"file\": \"A\", \"key\": \"1\", \"record\": [\"x\"]}\n{\"file\": \"A B\"}",
        "{\"file\": \"A\", \"key\": \"1\", \"record\": [\"x\"]}\n{\"file\": \"A\", \"key\": \"2\", \"recrod\": [\"y\"]}",
        "{\"file\": \"A\", \"key\": \"1\", \"record\": [\"x\"]}\n[1, 2]",
    };
    for (const auto* text : broken) {
        std::istringstream in(text);
        EXPECT_THAT([&] { store::importJsonLines(db(), in, "broken.jsonl"); }, ThrowsDbaError(DbaError::Kind::BadData, "broken.jsonl:2: ")) << text;
        EXPECT_FALSE(db().fileExists("A")) << text;
    }
    // The visible characters that stand for marks in scenarios are plain text here.
    load(R"({"file": "A", "key": "1", "record": ["^|~"]})");
    EXPECT_EQ(db().read("A", "1"), "^|~");
}

TEST(StoreOnSqlite, CreatingMakesTheFolderAndFusionStaysBeside)
{
    TempDir dir;
    const auto file = dir.path() / "a" / "b" / "fresh.db";
    auto nested = Store::create(file);
    EXPECT_TRUE(std::filesystem::exists(file));
    EXPECT_TRUE(nested->files().empty());
    EXPECT_EQ(nested->fusionDirectory(), dir.path() / "a" / "b" / "FUSION");
    EXPECT_FALSE(nested->read("NOFILE", "1").has_value());
    // The same database by its connection string; creating again opens it as it is.
    nested->write("F", "k", "v");
    EXPECT_EQ(Store::connect("sqlite:" + file.string())->read("F", "k"), "v");
    EXPECT_EQ(Store::connect(file.string())->read("F", "k"), "v");
    EXPECT_EQ(Store::create(file)->read("F", "k"), "v");
    EXPECT_FALSE(Store::isServerConnection("sqlite:/tmp/x.db"));
    EXPECT_TRUE(Store::isServerConnection("postgres://u@h/db"));
    EXPECT_EQ(withSchema("postgresql://u@h/db", "s1"), "postgresql://u@h/db?options=-csearch_path%3Ds1");
    EXPECT_EQ(withSchema("postgresql://u@h/db?port=5", "s1"), "postgresql://u@h/db?port=5&options=-csearch_path%3Ds1");
    // A schema belongs to a server: appended to a file's name it would name another file.
    EXPECT_THAT([&] { withSchema("x.db", "s1"); }, ThrowsDbaError(DbaError::Kind::NotConnected));
}

// Opening never creates, and says what is wrong and where.
TEST(StoreOnSqlite, OpeningRefusesWhatIsNotAnExistingDatabase)
{
    TempDir dir;
    const auto expectRefused = [](const std::filesystem::path& file, const std::string& cause) {
        EXPECT_THAT([&] { Store::open(file); }, ThrowsDbaError(DbaError::Kind::NotConnected, "open " + file.string() + ": ", cause));
    };
    expectRefused(dir.path() / "missing" / "x.db", "no such folder");
    EXPECT_FALSE(std::filesystem::exists(dir.path() / "missing"));
    expectRefused(dir.path() / "x.db", "no such database file");
    EXPECT_FALSE(std::filesystem::exists(dir.path() / "x.db"));
    expectRefused(dir.path(), "a folder");
    std::ofstream(dir.path() / "empty.db").flush();
    expectRefused(dir.path() / "empty.db", "empty file");
    std::ofstream(dir.path() / "text.db") << std::string(4096, 'x');
    expectRefused(dir.path() / "text.db", "not a database");
    // Neither is a file that is not a database overwritten by creating.
    EXPECT_THAT([&] { Store::create(dir.path() / "text.db"); }, ThrowsDbaError(DbaError::Kind::NotConnected));
    EXPECT_EQ(std::filesystem::file_size(dir.path() / "text.db"), 4096u);
    EXPECT_THAT([&] { Store::connect(""); }, ThrowsDbaError(DbaError::Kind::NotConnected));
}

// A file system without the shared memory of the write-ahead log (here: the
// library's dot-file locking, which has none) would leave a new database in
// rollback-journal mode, where readers and writers block each other: refused,
// saying why and leaving nothing behind.
TEST(StoreOnSqlite, AFileSystemWithoutTheWriteAheadLogIsRefused)
{
    TempDir dir;
    sqlite3_vfs* withoutShm = sqlite3_vfs_find("unix-dotfile");
    sqlite3_vfs* usual = sqlite3_vfs_find(nullptr);
    ASSERT_NE(withoutShm, nullptr);
    ASSERT_EQ(sqlite3_vfs_register(withoutShm, 1), SQLITE_OK);
    const auto file = dir.path() / "x.db";
    EXPECT_THAT([&] { Store::create(file); },
        ThrowsDbaError(DbaError::Kind::NotConnected, "cannot hold the write-ahead log", "\"delete\" journal mode"));
    sqlite3_vfs_register(usual, 1);
    EXPECT_FALSE(std::filesystem::exists(file));
    // Where the log can be kept, the same database is made.
    EXPECT_NO_THROW(Store::create(file));
}

// A database on read-only media is read (records, selections, an export's
// walk), and every write says plainly that it cannot be; a full disk says so too.
TEST(SmallDisk, ReadOnlyMediaAreReadAndAFullDiskSaysSo)
{
    SmallDisk disk("1m");
    if (!disk.mounted()) {
        GTEST_SKIP() << "mounting a tmpfs is not permitted here";
    }
    const auto file = disk.path() / "db.sqlite";
    {
        auto store = Store::create(file);
        store->defineName("F", "Nom", 1);
        store->write("F", "k", "v");
        // Filled up by another file: the write that finds no room says the disk is full.
        {
            std::ofstream filler(disk.path() / "filler", std::ios::binary);
            const std::string block(4096, 'x');
            while (filler.write(block.data(), static_cast<std::streamsize>(block.size())) && filler.flush()) {
            }
        }
        EXPECT_THAT([&] { store->write("F", "big", std::string(64 * 1024, 'x')); }, ThrowsDbaError(DbaError::Kind::Storage, "", "the disk is full"));
        std::filesystem::remove(disk.path() / "filler");
        EXPECT_EQ(store->read("F", "k"), "v");
    }
    ASSERT_TRUE(disk.makeReadOnly());
    auto store = Store::open(file);
    EXPECT_EQ(store->read("F", "k"), "v");
    EXPECT_EQ(store->select(R"(SSELECT F AVEC Nom = "v")").text(), "k");
    int records = 0;
    store->forEachStored("F", [&](std::string_view, std::string_view) { ++records; });
    EXPECT_EQ(records, 1);
    EXPECT_THAT([&] { store->write("F", "k", "w"); }, ThrowsDbaError(DbaError::Kind::Storage, "", "the database is read-only"));
    EXPECT_EQ(store->read("F", "k"), "v");
    // Making a database there is still refused.
    EXPECT_THAT([&] { Store::create(disk.path() / "new.sqlite"); }, ThrowsDbaError(DbaError::Kind::NotConnected));
}

// The reads of one operation share a read snapshot: another connection's
// writes meanwhile are neither blocked nor lost, a write of this connection ends
// the snapshot first (never "busy snapshot"), and an idle snapshot ends by itself.
TEST(StoreOnSqlite, AReadSnapshotBlocksNoWriterAndEndsBeforeAWrite)
{
    TempDir dir;
    const auto file = dir.path() / "db.sqlite";
    auto reader = Store::create(file);
    reader->write("F", "k", "v1");
    auto writer = Store::open(file);
    auto records = reader->OpenFile("F");
    std::atomic<bool> writing = true;
    auto writes = std::async(std::launch::async, [&] {
        for (int i = 0; i < 50; ++i) {
            writer->write("F", "w" + std::to_string(i), "x");
        }
        writer->write("F", "k", "v2");
        writing = false;
    });
    // Back-to-back reads keep one snapshot open all along the writes.
    int reads = 0;
    const auto started = std::chrono::steady_clock::now();
    while (writing && std::chrono::steady_clock::now() - started < std::chrono::seconds(30)) {
        EXPECT_NO_THROW(records->ReadItem("k"));
        ++reads;
    }
    // The reads stopped because the writes were done, not because time ran out.
    const bool writtenDuringReads = !writing;
    writes.get();
    EXPECT_TRUE(writtenDuringReads) << "the writer was held up by the reads";
    // A write ends the snapshot first: it commits, and the reads after it see everything.
    EXPECT_NO_THROW(reader->write("F", "mine", "y"));
    EXPECT_EQ(records->ReadItem("k")->text(), "v2");
    EXPECT_EQ(reader->select("SSELECT F").DCount(), 52);
    // A snapshot left idle ends by itself: another's later write shows without one of ours.
    writer->write("F", "k", "v3");
    EXPECT_TRUE(eventually([&] { return records->ReadItem("k")->text() == "v3"; }));
    EXPECT_GT(reads, 0);
}

// A load checks the free space beside the database before it writes anything.
TEST(SmallDisk, ALoadTooLargeForTheDiskIsRefusedBeforeItStarts)
{
    SmallDisk disk("2m");
    if (!disk.mounted()) {
        GTEST_SKIP() << "mounting a tmpfs is not permitted here";
    }
    auto store = Store::create(disk.path() / "db.sqlite");
    store->write("F", "k", "before");
    std::string lines;
    for (int i = 0; lines.size() < 1536 * 1024; ++i) {
        lines += R"({"file": "F", "key": ")" + std::to_string(i) + R"(", "record": [")" + std::string(100, 'x') + "\"]}\n";
    }
    bool loaded = false;
    const auto load = [&] {
        store->bulkLoad([&] {
            loaded = true;
            std::istringstream in(lines);
            store::importJsonLines(*store, in, "big.jsonl");
        }, lines.size());
    };
    EXPECT_THAT(load, ThrowsDbaError(DbaError::Kind::Storage, "not enough free space in " + disk.path().string()));
    EXPECT_FALSE(loaded);
    EXPECT_EQ(store->select("SSELECT F").text(), "k");
    // A load that fits goes through, and every commit is durable again after it.
    store->bulkLoad([&] { store::importJsonLine(*store, R"({"file": "F", "key": "small", "record": ["y"]})"); }, 100);
    EXPECT_EQ(store->read("F", "small"), "y");
}

// A read error in the middle of an input is not its end: nothing is imported.
TEST(StoreOnSqlite, AReadErrorInTheMiddleOfAnImportImportsNothing)
{
    class FailingMidway : public std::streambuf {
    public:
        explicit FailingMidway(std::string text)
            : m_text(std::move(text))
        {
            setg(m_text.data(), m_text.data(), m_text.data() + m_text.size());
        }

    protected:
        int_type underflow() override { throw std::ios_base::failure("input/output error"); }

    private:
        std::string m_text;
    };
    TempDir dir;
    auto store = Store::create(dir.path() / "db.sqlite");
    FailingMidway buffer("{\"file\": \"F\", \"key\": \"1\", \"record\": [\"x\"]}\n{\"file\": \"F\", \"key\": \"2\", \"rec");
    std::istream in(&buffer);
    EXPECT_THAT([&] { store::importJsonLines(*store, in, "cut.jsonl"); }, ThrowsDbaError(DbaError::Kind::Storage, "cut.jsonl:2: ", "read error"));
    EXPECT_FALSE(store->fileExists("F"));
}

// Readers never wait for a writer: opening takes no write lock, so a store
// opens and reads while another connection holds a long write transaction.
TEST(StoreOnSqlite, OpeningDuringAWriteTransactionNeitherWaitsNorWrites)
{
    TempDir dir;
    const auto file = dir.path() / "db.sqlite";
    auto writer = Store::create(file);
    writer->write("F", "k", "before");
    writer->transaction([&] {
        writer->write("F", "k", "during");
        const auto started = std::chrono::steady_clock::now();
        auto reader = Store::open(file);
        EXPECT_EQ(reader->read("F", "k"), "before");
        EXPECT_EQ(reader->select("SSELECT F").text(), "k");
        // The busy timeout is 10 s: a wait for the lock would show.
        EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5));
    });
    EXPECT_EQ(Store::open(file)->read("F", "k"), "during");
}

// TEMPO keeps no records of processes that ended without removing them (killed
// mid-run): the next command run on the database sweeps them, and only them.
TEST(StoreOnSqlite, RecordsOfProcessesThatEndedAreSweptByTheNextCommand)
{
    TempDir dir;
    const auto file = dir.path() / "db.sqlite";
    auto store = Store::create(file);
    store->registerCommand("RIEN", [](CommandContext&) {});
    store->write("TEMPO", "REQUETEBORDEXCEL", "mine");
    auto alive = Store::open(file);
    alive->write("TEMPO", "REQUETEBORDEXCEL", "alive");
    // Sessions a host names, and sessions of another host, are nobody's here to judge.
    auto named = Store::open(file);
    named->setClient(std::make_shared<DbaClient>("OPERATEUR", "poste-1"));
    named->write("TEMPO", "REQUETEBORDEXCEL", "named");
    store->write("TEMPO", "REQUETEBORDEXCEL@p1.1.elsewhere.0000abcd", "elsewhere");
    for (int run = 0; run < 3; ++run) {
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            auto dying = Store::open(file);
            dying->write("TEMPO", "REQUETEBORDEXCEL", "dead");
            dying->write("TEMPO", "BORDCAISSEEXCEL", "dead");
            ::_exit(0);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
    }
    const auto records = [&] {
        std::vector<std::string> texts;
        store->forEachStored("TEMPO", [&](std::string_view, std::string_view record) { texts.emplace_back(record); });
        std::sort(texts.begin(), texts.end());
        return texts;
    };
    ASSERT_EQ(records().size(), 10u);
    std::int32_t status = 0;
    store->Execute("P\xFE" "RIEN", "", status);
    EXPECT_EQ(records(), (std::vector<std::string>{"alive", "elsewhere", "mine", "named"}));
}

CALVARINE_BOTH_ENGINES(Sentences);
CALVARINE_BOTH_ENGINES(StoreTest);

} // namespace
} // namespace store::testing
