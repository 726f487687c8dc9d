#include <gtest/gtest.h>

#include <signal.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QDialog>
#include <QLineEdit>
#include <QListView>
#include <QProcess>
#include <QPrintPreviewWidget>
#include <QPushButton>
#include <QRadioButton>
#include <QSettings>
#include <QSpinBox>
#include <QTableView>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include "CupsJob.h"
#include "HostWindow.h"
#include "Journal.h"
#include "JournalDialog.h"
#include "PrintingMenu.h"
#include "Rights.h"
#include "ScreenView.h"
#include "Fixtures.h"
#include "Store.h"
#include "TestHost.h"
#include "shell/Ctr_Calvarine.h"
#include "shell/Variable.h"

namespace fs = std::filesystem;

namespace {

const fs::path kCups = CALVARINE_CUPS_DIR;

std::string readFile(const fs::path& file)
{
    std::ifstream in(file);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// Runs a CUPS administration command against the private server.
void cupsCommand(const QString& program, const QStringList& arguments)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, arguments);
    ASSERT_TRUE(process.waitForFinished(30000));
    ASSERT_EQ(process.exitCode(), 0) << program.toStdString() << ": " << process.readAll().toStdString();
}

// What a poppler tool prints about a PDF.
std::string pdfTool(const QString& program, QStringList arguments, const fs::path& pdf)
{
    arguments << QString::fromStdString(pdf.string());
    if (program == QStringLiteral("pdftotext")) {
        arguments << QStringLiteral("-");
    }
    QProcess process;
    process.start(program, arguments);
    process.waitForFinished(30000);
    return process.readAllStandardOutput().toStdString();
}

std::string pdfText(const fs::path& pdf) { return pdfTool(QStringLiteral("pdftotext"), {}, pdf); }

// An operator at the window, printing on paper through a private CUPS server
// (scripts/cups-server, started by the ctest fixture) whose default queue
// keeps every job it is given as out/job-<id>.pdf.
class PaperTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (fs::exists(kCups / "unavailable")) {
            GTEST_SKIP() << "no CUPS server for the paper tests: " << readFile(kCups / "unavailable");
        }
        ASSERT_TRUE(fs::exists(kCups / "server")) << "the cups_server fixture did not run";
        server = QString::fromStdString(readFile(kCups / "server")).trimmed();
        qputenv("CUPS_SERVER", server.toUtf8());
        qputenv("XDG_DATA_HOME", QFile::encodeName(dir.path()));
        QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, dir.path() + QStringLiteral("/config"));

        store = store::Store::create(root() / "calvarine.db");
        std::ifstream fixture(CALVARINE_TEST_FIXTURES "/statements.jsonl");
        store::importJsonLines(*store, fixture, "statements.jsonl");
        store->write("DROITS", DatabaseRights::key("operateur", "CALVARINE"), "2");
        window = std::make_unique<HostWindow>(store, HostWindow::Options{"operateur", std::nullopt, "calvarine.db"},
            [this](QtHostServices::Setup setup) {
                auto made = std::make_unique<TestHost>(std::move(setup));
                host = made.get();
                return made;
            });
        window->show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(window.get()));
        ASSERT_TRUE(window->start());
        ASSERT_TRUE(host->boxes.empty()) << host->boxes.front().text;
    }

    void TearDown() override
    {
        window.reset();
        Variable::AideEnLigne.reset();
        qunsetenv("CUPS_SERVER");
    }

    fs::path root() const { return dir.path().toStdString(); }
    Control& control(const char* name) { return window->control().Controls().get(name); }
    template <class W>
    W* widget(const char* name) { return qobject_cast<W*>(window->view().widget(name)); }

    // Entity 001, activity P, then the third and the first statement, in that order.
    std::vector<std::string> selectTwoStatements()
    {
        auto* code = widget<QLineEdit>("Txt_Entite");
        code->setFocus();
        QTest::keyClicks(code, "001");
        QTest::mouseClick(widget<QRadioButton>("Opt_Prest"), Qt::LeftButton);
        auto* possible = widget<QListView>("Lst_OrgaPos");
        for (int row : {2, 0}) {
            QTest::mouseDClick(possible->viewport(), Qt::LeftButton, Qt::NoModifier,
                possible->visualRect(possible->model()->index(row, 0)).center());
        }
        std::vector<std::string> invoices;
        Control& codes = control("Lst_CodeOrgaSel");
        for (std::int16_t i = 0; i < codes.listCount(); ++i) {
            std::string invoice = codes.list(i).substr(4, 10);
            invoice.erase(invoice.find_last_not_of(' ') + 1);
            invoices.push_back(invoice);
        }
        EXPECT_EQ(invoices.size(), 2u);
        return invoices;
    }

    void printOnPaper()
    {
        QTest::mouseClick(widget<QRadioButton>("Opt_Papier"), Qt::LeftButton);
        QTest::mouseClick(widget<QPushButton>("Cmd_Imprimer"), Qt::LeftButton);
    }

    // The jobs the queue has written, by name.
    static std::vector<std::string> jobs()
    {
        std::vector<std::string> names;
        std::error_code error;
        for (const auto& entry : fs::directory_iterator(kCups / "out", error)) {
            if (entry.path().extension() == ".pdf") {
                names.push_back(entry.path().filename().string());
            }
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    // The job id the status line names, once the queue's backend has written it.
    fs::path printedJob()
    {
        const QString status = window->paperStatus();
        EXPECT_TRUE(status.startsWith(QStringLiteral("Travail n° "))) << status.toStdString();
        const int id = status.mid(11).section(QLatin1Char(' '), 0, 0).toInt();
        const fs::path job = kCups / "out" / ("job-" + std::to_string(id) + ".pdf");
        for (int i = 0; i < 100 && !fs::exists(job); ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return job;
    }

    // A run that printed nothing: told in the operator's words (a warning; a
    // cancel is information), never as a handler's error.
    void expectRefused(const std::vector<std::string>& jobsBefore, const std::string& reason,
        QMessageBox::Icon icon = QMessageBox::Warning)
    {
        ASSERT_FALSE(host->boxes.empty()) << "the failure reaches the operator";
        const std::string text = host->boxes.back().text;
        EXPECT_NE(text.find(reason), std::string::npos) << text;
        EXPECT_EQ(host->boxes.back().icon, icon) << text;
        EXPECT_EQ(text.find("Erreur dans"), std::string::npos) << text;
        EXPECT_EQ(text.find(".."), std::string::npos) << text;
        EXPECT_NE(text.find("La sélection est gardée"), std::string::npos) << text;
        EXPECT_TRUE(window->paperStatus().startsWith(QStringLiteral("Rien n'a été imprimé"))) << window->paperStatus().toStdString();
        // Nothing printed, nothing kept elsewhere, and the selection is still there to print again.
        EXPECT_EQ(jobs(), jobsBefore);
        EXPECT_FALSE(fs::exists(root() / "calvarine" / "spool"));
        EXPECT_EQ(control("Lst_CodeOrgaSel").listCount(), 2);
        host->boxes.clear();
    }

    QTemporaryDir dir;
    QString server;
    std::shared_ptr<store::Store> store;
    TestHost* host = nullptr;
    std::unique_ptr<HostWindow> window;
};

TEST_F(PaperTest, ThePrinterChoiceIsRememberedAndGoesWithTheJob)
{
    answerDialog(QStringLiteral("ChoixImprimante"), [](QDialog& dialog) {
        auto* printer = dialog.findChild<QComboBox*>(QStringLiteral("Imprimante"));
        ASSERT_NE(printer, nullptr);
        const int index = printer->findData(QStringLiteral("calvarine-pdf"));
        ASSERT_GE(index, 0) << "the printers of the server are offered";
        printer->setCurrentIndex(index);
        dialog.findChild<QSpinBox*>(QStringLiteral("Copies"))->setValue(2);
        dialog.findChild<QCheckBox*>(QStringLiteral("RectoVerso"))->setChecked(true);
        dialog.accept();
    });
    window->printing().printerAction()->trigger();
    const PaperChoice remembered = PrintingMenu(*window).choice();
    EXPECT_EQ(remembered.printer, "calvarine-pdf");
    EXPECT_EQ(remembered.copies, 2);
    EXPECT_TRUE(remembered.duplex);

    // Cancelling the dialog keeps what was chosen.
    answerDialog(QStringLiteral("ChoixImprimante"), [](QDialog& dialog) {
        dialog.findChild<QSpinBox*>(QStringLiteral("Copies"))->setValue(7);
        dialog.reject();
    });
    window->printing().printerAction()->trigger();
    EXPECT_EQ(window->printing().choice().copies, 2);

    selectTwoStatements();
    printOnPaper();
    ASSERT_TRUE(host->boxes.empty()) << host->boxes.front().text;
    const fs::path job = printedJob();
    ASSERT_TRUE(fs::exists(job));
    const std::string options = readFile(fs::path(job).replace_extension(".options"));
    EXPECT_NE(options.find("copies=2"), std::string::npos) << options;
    EXPECT_NE(options.find("sides=two-sided-long-edge"), std::string::npos) << options;
}

// A confirmed run is one job on the default queue, the statements in the selection's order.
// Above the threshold set in Fichier ▸ Imprimante… a paper run waits for the
// operator, who is told its pages and printer: Enter cancels, Imprimer sends.
// The preview is confirmation enough.
TEST_F(PaperTest, ALongRunIsConfirmedNamingItsPagesAndPrinter)
{
    PaperChoice choice = window->printing().choice();
    choice.printer = "calvarine-pdf";
    choice.copies = 2;
    choice.confirmAbove = 3;
    window->printing().remember(choice);
    const auto invoices = selectTwoStatements();
    const auto before = jobs();
    QString asked;
    answerDialog(QStringLiteral("ConfirmationImpression"), [&asked](QDialog& box) {
        asked = static_cast<QMessageBox&>(box).text();
        QTest::keyClick(&box, Qt::Key_Return);
    });
    printOnPaper();
    EXPECT_EQ(asked, QStringLiteral("Ce travail compte 2 pages, à imprimer sur l'imprimante « calvarine-pdf » en 2 exemplaires, soit 4 pages.\n\n"
                                    "Lancer l'impression ?"));
    expectRefused(before, "Impression annulée : rien n'a été imprimé.", QMessageBox::Information);

    answerDialog(QStringLiteral("ConfirmationImpression"), [](QDialog& box) {
        auto* print = box.findChild<QPushButton*>();
        for (QPushButton* button : box.findChildren<QPushButton*>()) {
            if (button->text() == QStringLiteral("&Imprimer")) {
                print = button;
            }
        }
        print->click();
    });
    printOnPaper();
    ASSERT_TRUE(host->boxes.empty()) << host->boxes.front().text;
    EXPECT_TRUE(fs::exists(printedJob()));

    // Four pages is not above four; nor is a run confirmed in the preview asked again.
    choice.confirmAbove = 4;
    window->printing().remember(choice);
    EXPECT_EQ(selectTwoStatements(), invoices);
    printOnPaper();
    ASSERT_TRUE(host->boxes.empty()) << host->boxes.front().text;
    EXPECT_TRUE(fs::exists(printedJob()));
    choice.confirmAbove = 1;
    window->printing().remember(choice);
    window->printing().previewAction()->setChecked(true);
    answerDialog(QStringLiteral("ApercuAvantImpression"), [](QDialog& dialog) { dialog.accept(); });
    EXPECT_EQ(selectTwoStatements(), invoices);
    printOnPaper();
    ASSERT_TRUE(host->boxes.empty()) << host->boxes.front().text;
    EXPECT_TRUE(fs::exists(printedJob()));
}

TEST_F(PaperTest, ThePreviewLetsTheOperatorConfirmOrCancel)
{
    window->printing().previewAction()->setChecked(true);
    const auto invoices = selectTwoStatements();
    const auto before = jobs();

    int pages = 0;
    answerDialog(QStringLiteral("ApercuAvantImpression"), [&pages](QDialog& dialog) {
        auto* preview = dialog.findChild<QPrintPreviewWidget*>();
        pages = preview ? preview->pageCount() : -1;
        dialog.reject();
    });
    printOnPaper();
    EXPECT_EQ(pages, 2) << "one page per statement";
    expectRefused(before, "Impression annulée dans l'aperçu : rien n'a été imprimé.", QMessageBox::Information);

    answerDialog(QStringLiteral("ApercuAvantImpression"), [](QDialog& dialog) { dialog.accept(); });
    printOnPaper();
    ASSERT_TRUE(host->boxes.empty()) << host->boxes.front().text;
    EXPECT_TRUE(window->paperStatus().contains(QStringLiteral(" : 2 bordereaux envoyés à l'imprimante calvarine-pdf")))
        << window->paperStatus().toStdString();
    const fs::path job = printedJob();
    ASSERT_TRUE(fs::exists(job)) << job;
    const std::string text = pdfText(job);
    const auto first = text.find(invoices[0]);
    ASSERT_NE(first, std::string::npos) << text;
    EXPECT_NE(text.find(invoices[1], first), std::string::npos) << "the statements come in the order of the selection";
    EXPECT_NE(text.find("DUPLICATA"), std::string::npos);
    // The screen is reset after a run that went through, and nothing is kept beside the printer.
    EXPECT_EQ(control("Lst_CodeOrgaSel").listCount(), 0);
    EXPECT_FALSE(fs::exists(root() / "calvarine" / "spool"));
}

TEST_F(PaperTest, AJobTheQueueHoldsIsSentEvenWhenItsStateCannotBeRead)
{
    // The server goes away once it holds the whole document, before the job's
    // state is read: the job is sent, its state unknown, and nothing says
    // that nothing was printed (a reprint would double the paper).
    const pid_t pid = std::stoi(readFile(kCups / "cupsd.pid"));
    belmontis::PaperOptions options;
    options.submitted = [pid](int) {
        kill(pid, SIGKILL);
        for (int i = 0; i < 100 && kill(pid, 0) == 0; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    };
    const QByteArray document = "%PDF-1.4\n1 0 obj<</Type/Catalog/Pages 2 0 R>>endobj 2 0 obj<</Type/Pages/Kids[]/Count 0>>endobj\n"
                                "trailer<</Root 1 0 R>>\n%%EOF\n";
    const auto job = belmontis::submitPdf(belmontis::choosePrinter({}), "Bordereaux 001P 202611", document, options);
    EXPECT_GT(job.id, 0);
    EXPECT_FALSE(job.unknownState.empty());
    EXPECT_NE(job.unknownState.find("n'a pas donné l'état du travail"), std::string::npos) << job.unknownState;

    cupsCommand(QStringLiteral(CALVARINE_CUPS_SCRIPT), {QStringLiteral("start"), QString::fromStdString(kCups.string())});
}

TEST_F(PaperTest, AJobNotTakenReachesTheOperatorWithTheReasonAndNothingIsLost)
{
    selectTwoStatements();
    const auto before = jobs();
    const QString queue = QStringLiteral("calvarine-pdf");

    // The queue refuses jobs.
    cupsCommand(QStringLiteral("cupsreject"), {QStringLiteral("-r"), QStringLiteral("maintenance"), queue});
    printOnPaper();
    // IPP's status in French, the server's own words kept as the detail.
    expectRefused(before, "l'imprimante calvarine-pdf a refusé le travail (création) : l'imprimante n'accepte pas de travaux pour le moment "
                          "(réponse du serveur ");
    cupsCommand(QStringLiteral("cupsaccept"), {queue});

    // A chosen printer that is gone.
    window->printing().remember({"imprimante-partie", 1, false});
    printOnPaper();
    expectRefused(before, "l'imprimante imprimante-partie n'existe pas : imprimante ou travail introuvable (réponse du serveur ");
    window->printing().remember({});

    // No printer at all.
    cupsCommand(QStringLiteral("lpadmin"), {QStringLiteral("-x"), queue});
    printOnPaper();
    expectRefused(before, "aucune imprimante");

    // The server frozen: it takes the connection and says nothing.
    const pid_t pid = std::stoi(readFile(kCups / "cupsd.pid"));
    ASSERT_EQ(kill(pid, SIGSTOP), 0);
    printOnPaper();
    kill(pid, SIGCONT);
    expectRefused(before, "ne répond pas : aucune réponse en 10 s");

    // The server stopped.
    ASSERT_EQ(kill(pid, SIGTERM), 0);
    for (int i = 0; i < 100 && kill(pid, 0) == 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    printOnPaper();
    expectRefused(before, "injoignable");

    // Back as it was for whatever runs next.
    cupsCommand(QStringLiteral(CALVARINE_CUPS_SCRIPT), {QStringLiteral("start"), QString::fromStdString(kCups.string())});
}

TEST_F(PaperTest, EveryPaperRunIsOneJournalEntryAndAJobsEndIsBroughtUpToDate)
{
    const auto invoices = selectTwoStatements();
    const QString queue = QStringLiteral("calvarine-pdf");
    cupsCommand(QStringLiteral("cupsreject"), {QStringLiteral("-r"), QStringLiteral("maintenance"), queue});
    printOnPaper();
    host->boxes.clear();
    cupsCommand(QStringLiteral("cupsaccept"), {queue});
    window->printing().previewAction()->setChecked(true);
    answerDialog(QStringLiteral("ApercuAvantImpression"), [](QDialog& dialog) { dialog.reject(); });
    printOnPaper();
    host->boxes.clear();
    window->printing().previewAction()->setChecked(false);
    window->printing().remember({"", 3, true});
    printOnPaper();
    ASSERT_TRUE(host->boxes.empty()) << host->boxes.front().text;
    const fs::path printed = printedJob();
    ASSERT_TRUE(fs::exists(printed)) << printed;

    store::Journal journal(*store);
    auto entries = journal.entries();
    ASSERT_EQ(entries.size(), 3u);
    for (const auto& entry : entries) {
        EXPECT_EQ(entry.output, store::JournalOutput::Paper);
        EXPECT_EQ(entry.user, "operateur");
        EXPECT_EQ(entry.entity + entry.activity + entry.period, "001P202611");
        ASSERT_EQ(entry.statements.size(), 2u);
        EXPECT_EQ(entry.statements[0].invoice, invoices[0]);
    }
    EXPECT_EQ(entries[0].outcome, store::JournalOutcome::Refused);
    EXPECT_NE(entries[0].reason.find("a refusé le travail"), std::string::npos) << entries[0].reason;
    EXPECT_EQ(entries[0].job, 0);
    EXPECT_EQ(entries[1].outcome, store::JournalOutcome::Cancelled);
    const auto& done = entries[2];
    EXPECT_EQ(done.outcome, store::JournalOutcome::Done);
    EXPECT_EQ(done.printer, "calvarine-pdf");
    EXPECT_EQ(done.copies, 3);
    EXPECT_TRUE(done.duplex);
    EXPECT_EQ(printed.filename().string(), "job-" + std::to_string(done.job) + ".pdf");
    EXPECT_EQ(done.printServer, belmontis::printServerName());
    // Job numbers are a server's own: another server's, or another machine's own server's, are not asked about.
    EXPECT_FALSE(belmontis::reachesJobsOf("127.0.0.1:1", done.host, done.host));
    EXPECT_FALSE(belmontis::reachesJobsOf(done.printServer, "autre-poste", done.host));

    // The queue's backend has written the job: CUPS says so once asked.
    bool completed = false;
    for (int i = 0; i < 200 && !completed; ++i) {
        journal.refreshJobStates([](const store::JournalEntry& entry) {
            return belmontis::jobStateKeywordOf(entry.printServer, entry.host, store::journalHostName(), entry.job);
        });
        completed = journal.entry(done.key)->jobState == "completed";
        if (!completed) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    }
    EXPECT_TRUE(completed) << journal.entry(done.key)->jobState;

    // The window's journal: the three runs, filtered by invoice, from the menu.
    ASSERT_TRUE(window->printing().journalAction()->isEnabled());
    int rows = -1;
    int filtered = -1;
    answerDialog(QStringLiteral("JournalReeditions"), [&](QDialog& dialog) {
        auto* table = dialog.findChild<QTableView*>(QStringLiteral("TableJournal"));
        auto* invoice = dialog.findChild<QLineEdit*>(QStringLiteral("FiltreFacture"));
        rows = table ? table->model()->rowCount() : -2;
        if (invoice) {
            QTest::keyClicks(invoice, QString::fromStdString(invoices[1]));
            filtered = table->model()->rowCount();
            QTest::keyClicks(invoice, QStringLiteral("X"));
            filtered += 10 * table->model()->rowCount();
        }
        dialog.reject();
    });
    window->printing().journalAction()->trigger();
    EXPECT_EQ(rows, 3);
    EXPECT_EQ(filtered, 3) << "every run names the invoice; none names it with an X after";
}

} // namespace
