#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "ComponentLoader.h"
#include "PlatformTestSupport.h"
#include "Fixtures.h"
#include "Store.h"
#include "shell/Components.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kClass = "Belmontis.Ctr_Belmontis";

class Belmontis : public ::testing::Test {
protected:
    void SetUp() override
    {
        testsupport::guiApplication();
        ASSERT_TRUE(m_dir.isValid());
        setenv("XDG_DATA_HOME", (root() / "data").c_str(), 1);

        m_store = store::Store::create(root() / "db" / "calvarine.db");
        std::ifstream fixture(CALVARINE_PLATFORM_TEST_DATA "/reissue.jsonl");
        store::importJsonLines(*m_store, fixture, "reissue.jsonl");
    }

    void TearDown() override { unsetenv("XDG_DATA_HOME"); }

    fs::path root() const { return testsupport::path(m_dir); }

    // The control from the build tree's library folder, as the application finds it.
    std::shared_ptr<LateBoundObject> create()
    {
        return components::ComponentLoader({fs::path(CALVARINE_BELMONTIS_LIBRARY).parent_path()}, {})
            .createLateBound(kClass, "libbelmontis.so", &m_host);
    }

    // The eleven members in the order the screen uses them.
    void edit(LateBoundObject& control, std::string text, const std::string& letter = "P", bool paper = true)
    {
        Variant base = std::static_pointer_cast<DbaDatabase>(m_store);
        Variant client = std::make_shared<DbaClient>("OPERATEUR");
        Variant periode = std::string("202611");
        Variant entite = std::string("001");
        Variant activite = letter;
        Variant libelle = std::string(letter == "P" ? "PRESTATAIRE" : "MANDATAIRE");
        Variant vrai = true;
        Variant faux = false;
        Variant papier = paper;
        control.setProperty("BaseEdition", base);
        control.setProperty("ClientEdition", client);
        control.setProperty("W_Periode", periode);
        control.setProperty("W_Entite", entite);
        control.setProperty("W_Activite", activite);
        control.setProperty("W_LibelleActivite", libelle);
        control.setProperty("W_DrapeauVrai", vrai);
        control.setProperty("W_DrapeauFaux", faux);
        control.setProperty("W_EntiteBis", entite);
        control.setProperty("W_Papier", papier);
        Variant selection = std::make_shared<DbaDynArray>(std::move(text));
        const Variant result = control.invoke("Editer_Bordereaux", {std::ref(selection)});
        EXPECT_TRUE(std::holds_alternative<std::monostate>(result));
    }

    void spoolTo(LateBoundObject& control, const fs::path& directory)
    {
        Variant spool = directory.string();
        control.setProperty("SpoolDirectory", spool);
    }

    static std::string entries(std::initializer_list<std::pair<const char*, const char*>> list)
    {
        std::string text;
        for (const auto& [organisation, invoice] : list) {
            if (!text.empty()) {
                text += DbaDynArray::kAttributeMark;
            }
            text += std::string(organisation) + DbaDynArray::kValueMark + invoice;
        }
        return text;
    }

    static std::vector<std::string> filesIn(const fs::path& directory)
    {
        std::vector<std::string> names;
        if (fs::exists(directory)) {
            for (const auto& entry : fs::directory_iterator(directory)) {
                names.push_back(entry.path().filename().string());
            }
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    QTemporaryDir m_dir;
    testsupport::RecordingHost m_host;
    std::shared_ptr<store::Store> m_store;
};

} // namespace

TEST_F(Belmontis, SpoolsTheSelectionAsOneJobAndReportsWhatIsMissing)
{
    auto control = create();
    const fs::path spool = root() / "spool";
    spoolTo(*control, spool);
    edit(*control, entries({{"013", "F77       "}, {"012", "ABSENT"}, {"012", "F000000123"}}));

    ASSERT_EQ(filesIn(spool), (std::vector<std::string>{"Bordereaux_001P_202611_1.pdf"}));
    const fs::path pdf = spool / "Bordereaux_001P_202611_1.pdf";
    EXPECT_EQ(testsupport::pdfPageCount(pdf), 2);
    const std::string text = testsupport::pdfText(pdf);
    EXPECT_LT(text.find("MUTUELLE DU DAUPHINÉ"), text.find("CAISSE PRIMAIRE DE L'ISÈRE")) << "order of the selection";
    EXPECT_NE(text.find("Total : 85,00 €"), std::string::npos);
    EXPECT_NE(text.find("Total : 54,35 €"), std::string::npos);
    EXPECT_NE(text.find("DUPLICATA"), std::string::npos);
    ASSERT_EQ(m_host.failures.size(), 1u);
    EXPECT_NE(m_host.failures[0].find("ABSENT"), std::string::npos) << m_host.failures[0];

    // A second job does not overwrite the first.
    edit(*control, entries({{"012", "F000000555"}}), "M");
    EXPECT_EQ(filesIn(spool), (std::vector<std::string>{"Bordereaux_001M_202611_1.pdf", "Bordereaux_001P_202611_1.pdf"}));
    edit(*control, entries({{"012", "F000000555"}}), "M");
    EXPECT_EQ(filesIn(spool).size(), 3u);
    EXPECT_NE(testsupport::pdfText(spool / "Bordereaux_001M_202611_1.pdf").find("BORDEREAU MANDATAIRE"), std::string::npos);
}

TEST_F(Belmontis, NotPaperGoesToTheDefaultSpool)
{
    auto control = create();
    edit(*control, entries({{"012", "F000000123"}}), "P", false);
    EXPECT_EQ(filesIn(root() / "data" / "calvarine" / "spool"), (std::vector<std::string>{"Bordereaux_001P_202611_1.pdf"}));
    EXPECT_TRUE(m_host.failures.empty());
}

TEST_F(Belmontis, AJobNotDoneFailsToTheCallerAMissingStatementIsToldToTheHost)
{
    auto control = create();
    spoolTo(*control, root() / "spool");
    Variant selection = std::make_shared<DbaDynArray>(entries({{"012", "F000000123"}}));
    EXPECT_THROW(control->invoke("Editer_Bordereaux", {std::ref(selection)}), std::runtime_error); // no database given
    EXPECT_TRUE(m_host.failures.empty());

    // A damaged statement is reported; the good one is printed all the same.
    edit(*control, entries({{"012", "F000000999"}, {"012", "F000000123"}}));
    EXPECT_EQ(m_host.failures.size(), 1u);
    EXPECT_EQ(filesIn(root() / "spool").size(), 1u);
    const Variant done = control->invoke("Compte_Rendu", {});
    EXPECT_EQ(std::get<std::string>(done), "Dossier " + (root() / "spool").string() + " : 1 bordereau enregistré dans Bordereaux_001P_202611_1.pdf");
    // Nothing found: nothing spooled, and the host hears of it.
    edit(*control, entries({{"099", "X"}}));
    EXPECT_EQ(filesIn(root() / "spool").size(), 1u);
    EXPECT_EQ(std::get<std::string>(control->invoke("Compte_Rendu", {})).rfind("Aucun bordereau imprimé", 0), 0u);

    // A spool folder that cannot be made: the run fails, naming it.
    std::ofstream(root() / "a-file") << "x";
    spoolTo(*control, root() / "a-file" / "spool");
    try {
        edit(*control, entries({{"012", "F000000123"}}));
        ADD_FAILURE() << "a job that could not be kept must fail";
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find((root() / "a-file").string()), std::string::npos) << e.what();
    }
}

TEST_F(Belmontis, ProcessesSpoolingIntoOneFolderEachKeepTheirFiles)
{
    // Several workstations print into the same folder at the same moment.
    constexpr int kProcesses = 4;
    constexpr int kRuns = 8;
    const fs::path spool = root() / "shared-spool";
    const QString database = QString::fromStdString((root() / "db" / "calvarine.db").string());
    std::vector<std::unique_ptr<QProcess>> children;
    for (int i = 0; i < kProcesses; ++i) {
        auto child = std::make_unique<QProcess>();
        child->setProcessChannelMode(QProcess::ForwardedErrorChannel);
        child->start(QStringLiteral(CALVARINE_SPOOL_CHILD),
            {QString::fromStdString(fs::path(CALVARINE_BELMONTIS_LIBRARY).parent_path().string()), database,
                QString::fromStdString(spool.string()), QString::number(kRuns)});
        children.push_back(std::move(child));
    }
    for (auto& child : children) {
        ASSERT_TRUE(child->waitForFinished(120000));
        EXPECT_EQ(child->exitStatus(), QProcess::NormalExit);
        EXPECT_EQ(child->exitCode(), 0);
    }
    const auto names = filesIn(spool);
    ASSERT_EQ(names.size(), static_cast<std::size_t>(kProcesses * kRuns)) << "a run's file was lost or one is left aside";
    for (int n = 1; n <= kProcesses * kRuns; ++n) {
        EXPECT_TRUE(fs::exists(spool / ("Bordereaux_001P_202611_" + std::to_string(n) + ".pdf"))) << n;
    }
    // Every file is a whole job, readable as the umask allows.
    for (const auto& name : names) {
        EXPECT_EQ(testsupport::pdfPageCount(spool / name), 1) << name;
        EXPECT_NE(fs::status(spool / name).permissions() & fs::perms::group_read, fs::perms::none) << name;
    }
}

TEST_F(Belmontis, WithoutAPrintServerAPaperRunFailsAndKeepsNothingAside)
{
    auto control = create();
    setenv("CUPS_SERVER", "127.0.0.1:9", 1); // nothing listens there
    try {
        edit(*control, entries({{"012", "F000000123"}}));
        ADD_FAILURE() << "a paper run with no print server must fail";
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find("injoignable"), std::string::npos) << e.what();
        EXPECT_NE(std::string(e.what()).find("127.0.0.1:9"), std::string::npos) << e.what();
    }
    unsetenv("CUPS_SERVER");
    EXPECT_FALSE(fs::exists(root() / "data" / "calvarine" / "spool")) << "no silent fallback to a file";
}
