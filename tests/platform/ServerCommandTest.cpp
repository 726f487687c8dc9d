#include <gtest/gtest.h>

#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include <fstream>
#include <set>
#include <thread>

#include "ThrowsDbaError.h"
#include "ArchiveBordCaisseExcel.h"
#include "PlatformTestSupport.h"
#include "Fixtures.h"
#include "Store.h"
#include "database/FileNames.h"

namespace fs = std::filesystem;

namespace {

constexpr char A = DbaDynArray::kAttributeMark;
constexpr char V = DbaDynArray::kValueMark;

class ServerCommand : public ::testing::Test {
protected:
    void SetUp() override
    {
        testsupport::guiApplication();
        ASSERT_TRUE(m_dir.isValid());
        m_store = store::Store::create(testsupport::path(m_dir) / "db" / "calvarine.db");
        std::ifstream fixture(CALVARINE_PLATFORM_TEST_DATA "/reissue.jsonl");
        ASSERT_TRUE(fixture) << "fixture missing";
        store::importJsonLines(*m_store, fixture, "reissue.jsonl");
        server::registerArchiveBordCaisseExcel(*m_store);
        fs::create_directories(fusion());
    }

    fs::path fusion() const { return m_store->fusionDirectory(); }

    void request(const std::vector<std::pair<std::string, std::string>>& entries)
    {
        std::string text;
        for (const auto& [organisation, invoice] : entries) {
            if (!text.empty()) {
                text += A;
            }
            text += organisation + V + invoice;
        }
        m_store->write(FileNames::TEMPO, Keys::REQUETEBORDEXCEL, text);
    }

    // Runs the sentence as the control does: Execute with "P" and the sentence.
    void run(const std::string& sentence)
    {
        std::int32_t status = -1;
        m_store->Execute(std::string("P") + A + sentence, "", status);
    }

    std::vector<std::string> fusionFiles() const
    {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(fusion())) {
            names.push_back(entry.path().filename().string());
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    std::optional<std::string> result() { return m_store->read(FileNames::TEMPO, Keys::BORDCAISSEEXCEL); }

    // The command called as Execute calls it, with an observer of its publication.
    void runDirectly(const server::PublishObserver& observer)
    {
        store::CommandContext context{*m_store, fusion(), {"202611", "001", "P"}, nullptr};
        server::archiveBordCaisseExcel(context, observer);
    }

    void writeFormer(const std::string& name) const { std::ofstream(fusion() / name) << "former"; }

    static std::string contents(const fs::path& file)
    {
        std::ifstream in(file, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

    QTemporaryDir m_dir;
    std::shared_ptr<store::Store> m_store;
};

} // namespace

TEST_F(ServerCommand, WritesOnePdfPerStatementInRequestOrder)
{
    // The invoice number comes padded, as a key holds it; the file name drops the blanks.
    request({{"013", "F77       "}, {"012", "F000000123"}});
    run("ARCHIVEBORDCAISSEEXCEL 202611 001 P");

    const std::string first = "001P_202611_013_F77.pdf";
    const std::string second = "001P_202611_012_F000000123.pdf";
    EXPECT_EQ(result().value_or("<none>"), first + A + second);
    EXPECT_EQ(fusionFiles(), (std::vector<std::string>{second, first}));

    const std::string text = testsupport::pdfText(fusion() / second);
    for (const char* expected : {"DUPLICATA", "AIDE A DOMICILE DU VAL", "38000 GRENOBLE", "CAISSE PRIMAIRE DE L'ISÈRE",
             "novembre 2026", "F000000123", "DUPONT JEAN", "SOINS INFIRMIERS", "34,35 €", "Total : 54,35 €", "Page 1 / 1"}) {
        EXPECT_NE(text.find(expected), std::string::npos) << expected << " missing from: " << text;
    }
    // The October statement of the same invoice number is not this one.
    EXPECT_EQ(text.find("OCTOBRE SEUL"), std::string::npos);
    EXPECT_NE(testsupport::pdfText(fusion() / first).find("Total : 85,00 €"), std::string::npos);
}

TEST_F(ServerCommand, EntriesNotFoundFailTheRunNamingThemAndNoEarlierResultRemains)
{
    // An earlier run's result, left behind, must not read as this run's.
    m_store->write(FileNames::TEMPO, Keys::BORDCAISSEEXCEL, "001P_202611_013_F77.pdf");
    // Wrong activity, wrong invoice, an empty entry (skipped) beside a real statement.
    request({{"012", "F000000555"}, {"012", "NOPE"}, {"", ""}, {"013", "F77"}});
    try {
        run("ARCHIVEBORDCAISSEEXCEL 202611 001 P");
        FAIL() << "a run with statements not found succeeded";
    } catch (const DbaError& e) {
        EXPECT_EQ(e.kind(), DbaError::Kind::CommandFailed);
        EXPECT_EQ(e.reason(), "2 bordereaux demandés ne sont pas dans l'archive (organisme et facture : 012 F000000555, 012 NOPE)");
    }
    EXPECT_FALSE(result().has_value());
    EXPECT_TRUE(fusionFiles().empty());

    request({{"012", "NOPE"}});
    EXPECT_THAT([&] { run("ARCHIVEBORDCAISSEEXCEL 202611 001 P"); }, ThrowsDbaError(DbaError::Kind::CommandFailed));
    m_store->remove(FileNames::TEMPO, Keys::REQUETEBORDEXCEL);
    run("ARCHIVEBORDCAISSEEXCEL 202611 001 P");
    EXPECT_FALSE(result().has_value());
}

TEST_F(ServerCommand, StatementsTheCodeLineCannotTellApartEachGetAFile)
{
    // Keys made by a lenient import: an invoice number that is not filled to
    // ten characters beside one that is, "a/b" beside "a_b", a number longer
    // than the code line's ten characters, and control characters.
    const std::string scope = "001P013202611";
    const std::string record = std::string("202611") + A + "SIG" + A;
    const std::string longInvoice = "L123456789" + std::string(290, 'X');
    for (const std::string& invoice : {std::string("F1"), std::string("F1        "), std::string("a/b       "), std::string("a_b       "),
             longInvoice, std::string("T\tAB\x01     ")}) {
        m_store->write(FileNames::ARCHIVEBORDCAISSE, scope + invoice, record + invoice);
    }
    // The code lines, as the screen cuts them from the keys.
    request({{"013", "F1"}, {"013", "F1        "}, {"013", "a/b       "}, {"013", "a_b       "}, {"013", longInvoice.substr(0, 10)},
        {"013", "T\tAB\x01     "}});
    run("ARCHIVEBORDCAISSEEXCEL 202611 001 P");

    const DbaDynArray listed(result().value_or(""));
    ASSERT_EQ(listed.attributeCount(), 6u);
    std::set<std::string> names;
    for (std::int16_t i = 1; i <= 6; ++i) {
        const std::string name = listed.attribute(i);
        names.insert(name);
        EXPECT_LE(name.size(), 80u) << name;
        EXPECT_EQ(name.find_first_of(std::string("/\t\x01 ", 4)), std::string::npos) << name;
    }
    EXPECT_EQ(names.size(), 6u);
    EXPECT_EQ(fusionFiles().size(), 6u);
    EXPECT_TRUE(names.contains("001P_202611_013_F1.pdf"));
    EXPECT_TRUE(names.contains("001P_202611_013_a_b.pdf"));
}

TEST_F(ServerCommand, OtherActivityAndSameStatementTwice)
{
    request({{"012", "F000000555"}, {"012", "F000000555"}});
    run("ARCHIVEBORDCAISSEEXCEL 202611 001 M");
    EXPECT_EQ(result().value_or("<none>"), "001M_202611_012_F000000555.pdf");
    EXPECT_NE(testsupport::pdfText(fusion() / "001M_202611_012_F000000555.pdf").find("BORDEREAU MANDATAIRE"), std::string::npos);
}

TEST_F(ServerCommand, MalformedSentencesFailAndLeaveNothing)
{
    request({{"012", "F000000123"}});
    for (const char* sentence : {"ARCHIVEBORDCAISSEEXCEL", "ARCHIVEBORDCAISSEEXCEL 202611 001", "ARCHIVEBORDCAISSEEXCEL 202611 001 P X",
             "ARCHIVEBORDCAISSEEXCEL 202613 001 P", "ARCHIVEBORDCAISSEEXCEL 2026-1 001 P", "ARCHIVEBORDCAISSEEXCEL 11/2026 001 P",
             "ARCHIVEBORDCAISSEEXCEL 202611 001 X", "ARCHIVEBORDCAISSEEXCEL 202501 001 P"}) {
        EXPECT_THAT([&] { run(sentence); }, ThrowsDbaError(DbaError::Kind::CommandFailed)) << sentence;
        EXPECT_TRUE(fusionFiles().empty()) << sentence;
        EXPECT_FALSE(result().has_value()) << sentence;
    }
}

TEST_F(ServerCommand, FailureAfterPublishingPutsBackTheEarlierFiles)
{
    // An earlier run's good files under the same names, and one of another name.
    writeFormer("001P_202611_013_F77.pdf");
    writeFormer("001P_202611_012_F000000123.pdf");
    writeFormer("kept.pdf");
    request({{"013", "F77"}, {"012", "F000000123"}});
    // Every file renamed into place, then the run fails before its result is recorded.
    const auto failAtTheEnd = [](server::PublishStep step, std::size_t index) {
        if (step == server::PublishStep::Renamed && index == 2) {
            throw std::runtime_error("the result could not be written");
        }
    };
    EXPECT_THROW(runDirectly(failAtTheEnd), std::runtime_error);
    EXPECT_EQ(fusionFiles(), (std::vector<std::string>{"001P_202611_012_F000000123.pdf", "001P_202611_013_F77.pdf", "kept.pdf"}));
    for (const auto& name : fusionFiles()) {
        EXPECT_EQ(contents(fusion() / name), "former") << name;
    }
    EXPECT_FALSE(result().has_value());
}

TEST_F(ServerCommand, FilesFollowTheUmaskAndProgressIsReported)
{
    const mode_t former = ::umask(027);
    std::vector<std::pair<int, int>> progress;
    m_store->setCommandProgress([&](int done, int total) { progress.emplace_back(done, total); });
    request({{"013", "F77"}, {"", ""}, {"012", "F000000123"}});
    run("ARCHIVEBORDCAISSEEXCEL 202611 001 P");
    ::umask(former);
    m_store->setCommandProgress({});
    struct stat status {};
    ASSERT_EQ(::stat((fusion() / "001P_202611_013_F77.pdf").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0640u);
    EXPECT_EQ(progress, (std::vector<std::pair<int, int>>{{0, 3}, {1, 3}, {2, 3}, {3, 3}}));
}

TEST_F(ServerCommand, AnUnwritableFusionSaysWhy)
{
    fs::remove(fusion());
    std::ofstream(fusion()) << "not a folder";
    request({{"013", "F77"}});
    try {
        runDirectly({});
        FAIL() << "writing into a file succeeded";
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find("Not a directory"), std::string::npos) << e.what();
    }
}

TEST_F(ServerCommand, AFullDiskIsSaidPlainlyAndLeavesNothing)
{
    // FUSION on a small file system of its own, nearly full.
    const fs::path small = testsupport::path(m_dir) / "small";
    fs::create_directories(small);
    if (::mount("tmpfs", small.c_str(), "tmpfs", 0, "size=64k") != 0) {
        GTEST_SKIP() << "no tmpfs can be mounted here (" << std::strerror(errno) << ")";
    }
    struct Unmount {
        fs::path folder;
        ~Unmount() { ::umount2(folder.c_str(), MNT_DETACH); }
    } unmount{small};
    std::ofstream(small / "autre.pdf") << std::string(56 * 1024, 'x');
    m_store->setFusionDirectory(small);
    request({{"013", "F77"}, {"012", "F000000123"}});
    try {
        run("ARCHIVEBORDCAISSEEXCEL 202611 001 P");
        FAIL() << "a run on a full disk succeeded";
    } catch (const DbaError& e) {
        EXPECT_EQ(e.reason(), "le disque du dossier FUSION (" + small.string() + ") est plein") << e.what();
    }
    std::vector<std::string> left;
    for (const auto& entry : fs::directory_iterator(small)) {
        left.push_back(entry.path().filename().string());
    }
    EXPECT_EQ(left, (std::vector<std::string>{"autre.pdf"}));
    EXPECT_FALSE(result().has_value());
}

// Two workstations re-issue one scope at once; one of them fails once its files
// are in place. Whichever order they come in, the other's message names files
// that are all there, its own.
TEST_F(ServerCommand, TwoWorkstationsOnOneScopeWithOneFailing)
{
    const std::string shared = "001P_202611_012_F000000123.pdf";
    const std::string failingOnly = "001P_202611_013_F77.pdf";
    auto other = store::Store::open(m_store->path());
    server::registerArchiveBordCaisseExcel(*other);
    // The failing one asks for both statements, the other for one of them.
    request({{"013", "F77"}, {"012", "F000000123"}});
    other->write(FileNames::TEMPO, Keys::REQUETEBORDEXCEL, "012" + std::string(1, V) + "F000000123");
    for (int round = 0; round < 6; ++round) {
        writeFormer(shared);
        writeFormer(failingOnly);
        m_store->remove(FileNames::TEMPO, Keys::BORDCAISSEEXCEL);
        other->remove(FileNames::TEMPO, Keys::BORDCAISSEEXCEL);
        std::thread failing([&] {
            const auto failAtTheEnd = [](server::PublishStep step, std::size_t) {
                if (step == server::PublishStep::Published) {
                    throw std::runtime_error("its result could not be written");
                }
            };
            EXPECT_THROW(runDirectly(failAtTheEnd), std::runtime_error);
        });
        std::int32_t status = -1;
        if (round % 2 == 0) {
            failing.join();
        }
        other->Execute(std::string("P") + A + "ARCHIVEBORDCAISSEEXCEL 202611 001 P", "", status);
        if (round % 2 == 1) {
            failing.join();
        }
        EXPECT_EQ(other->read(FileNames::TEMPO, Keys::BORDCAISSEEXCEL).value_or("<none>"), shared) << round;
        EXPECT_EQ(testsupport::pdfPageCount(fusion() / shared), 1) << round;
        EXPECT_EQ(contents(fusion() / failingOnly), "former") << round;
        EXPECT_FALSE(result().has_value()) << round;
        EXPECT_EQ(fusionFiles(), (std::vector<std::string>{shared, failingOnly})) << round;
    }
}

TEST(FusionFileName, PlainNumbersReadAsTheyAreAndNoTwoStatementsShareAName)
{
    EXPECT_EQ(server::fusionFileName("001", "P", "202611", "012", "F12       "), "001P_202611_012_F12.pdf");
    const std::vector<std::string> invoices{"A/B       ", "A_B       ", "A_B", "F12", "F12 ", std::string(300, 'Z'), std::string(299, 'Z') + "Y",
        "A\nB       ", "A B       ", "A~B       ", "É1        "};
    std::set<std::string> names;
    for (const std::string& invoice : invoices) {
        const std::string name = server::fusionFileName("001", "I", "202611", "012", invoice);
        names.insert(name);
        EXPECT_TRUE(name.starts_with("001I_202611_012_")) << name;
        EXPECT_LE(name.size(), 16u + 40u + 13u + 4u) << name;
        for (const char c : name) {
            EXPECT_TRUE(std::isalnum(static_cast<unsigned char>(c)) || std::string_view("-_.~").find(c) != std::string_view::npos) << name;
        }
    }
    EXPECT_EQ(names.size(), invoices.size());
    EXPECT_TRUE(names.contains("001I_202611_012_A_B.pdf"));
}
