// The host's message boxes at every size, and a graphic run of 1,500 statements
// that shows its progress and ends with a box the operator can use.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>

#include <filesystem>

#include <QApplication>
#include <QClipboard>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QProgressDialog>
#include <QProgressBar>
#include <QPushButton>
#include <QScreen>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include "CommandProgressWindow.h"
#include "Demo.h"
#include "HostWindow.h"
#include "ScreenView.h"
#include "ServerWait.h"
#include "Store.h"
#include "TestHost.h"
#include "database/DbaDynArray.h"
#include "shell/Ctr_Calvarine.h"
#include "shell/Variable.h"

namespace fs = std::filesystem;

namespace {

QPushButton* buttonNamed(QDialog& box, const QString& text)
{
    for (auto* button : box.findChildren<QPushButton*>()) {
        if (button->text() == text) {
            return button;
        }
    }
    return nullptr;
}

// A box the operator can use: on the screen, OK inside it and visible.
void expectUsable(QDialog& box)
{
    const QRect screen = QGuiApplication::primaryScreen()->availableGeometry();
    EXPECT_LE(box.height(), screen.height());
    EXPECT_LE(box.width(), screen.width());
    QPushButton* ok = buttonNamed(box, QStringLiteral("OK"));
    if (!ok) {
        ok = buttonNamed(box, QStringLiteral("&OK"));
    }
    ASSERT_NE(ok, nullptr);
    EXPECT_TRUE(ok->isVisible());
    EXPECT_TRUE(box.rect().contains(QRect(ok->mapTo(&box, QPoint(0, 0)), ok->size())));
}

TEST(MessageBoxTest, ShortTextsStayPlainLongOnesScrollInsideTheScreen)
{
    TestHost host;
    int inspected = 0;
    host.inspect = [&](QDialog& box) {
        expectUsable(box);
        ++inspected;
    };
    host.msgBox("Vous devez sélectionner au moins un bordereau a rééditer.", 48, "Message Trivalden");
    ASSERT_EQ(host.boxes.size(), 1u);
    EXPECT_FALSE(host.boxes[0].scrolls);
    EXPECT_EQ(host.boxes[0].icon, QMessageBox::Warning);

    std::string text = "Première ligne :\r\n";
    for (int i = 0; i < 400; ++i) {
        text += " - ligne " + std::to_string(i) + "\r\n";
    }
    host.msgBox(text, 48, "Message TRIVALDEN");
    ASSERT_EQ(host.boxes.size(), 2u);
    EXPECT_TRUE(host.boxes[1].scrolls);
    EXPECT_EQ(host.boxes[1].title, "Message TRIVALDEN");
    EXPECT_EQ(inspected, 2);
    // Not a list of files: nothing to open.
    host.inspect = [](QDialog& box) { EXPECT_EQ(buttonNamed(box, QStringLiteral("Ouvrir le dossier FUSION")), nullptr); };
    host.msgBox(text, 48, "Message TRIVALDEN");
}

TEST(MessageBoxTest, TheHostsNoteStandsUnderTheControlsOwnTextWithTheWarningIcon)
{
    QtHostServices::Setup setup;
    setup.noteFor = [](const std::string&, int, const std::string&) { return std::string("Attention : aucun fichier n'a été créé."); };
    TestHost host(std::move(setup));
    QString informative;
    QString note;
    host.inspect = [&](QDialog& box) {
        if (auto* message = qobject_cast<QMessageBox*>(&box)) {
            informative = message->informativeText();
        } else if (auto* long_ = dynamic_cast<LongMessageBox*>(&box)) {
            note = long_->note();
        }
    };
    const std::string shortList = "Le fichier suivant a été généré dans le répertoire FUSION :\r\n - A.pdf";
    host.msgBox(shortList, 64, "Message TRIVALDEN");
    std::string longList = "Les fichiers suivants ont été générés dans le répertoire FUSION :\r\n";
    for (int i = 0; i < 40; ++i) {
        longList += " - F" + std::to_string(i) + ".pdf\r\n";
    }
    host.msgBox(longList, 64, "Message TRIVALDEN");
    ASSERT_EQ(host.boxes.size(), 2u);
    EXPECT_EQ(host.boxes[0].text, shortList); // the control's words, unchanged
    EXPECT_EQ(host.boxes[0].icon, QMessageBox::Warning);
    EXPECT_EQ(informative, QStringLiteral("Attention : aucun fichier n'a été créé."));
    EXPECT_TRUE(host.boxes[1].scrolls);
    EXPECT_EQ(host.boxes[1].icon, QMessageBox::Warning);
    EXPECT_EQ(note, QStringLiteral("Attention : aucun fichier n'a été créé."));
}

TEST(MessageBoxTest, AShortFileListOpensFusionToo)
{
    QTemporaryDir fusion;
    std::vector<fs::path> opened;
    bool desktopOpens = true;
    QtHostServices::Setup setup;
    setup.fusionDirectory = [&] { return fs::path(fusion.path().toStdString()); };
    setup.openFolder = [&](const fs::path& folder) {
        opened.push_back(folder);
        return desktopOpens;
    };
    TestHost host(std::move(setup));
    host.inspect = [](QDialog& box) {
        if (QPushButton* open = buttonNamed(box, QStringLiteral("Ouvrir le dossier FUSION"))) {
            open->click();
        }
    };
    const std::string list = "Le fichier suivant a été généré dans le répertoire FUSION :\r\n - 001P_202611_012_F1.pdf";
    host.msgBox(list, 64, "Message TRIVALDEN");
    ASSERT_EQ(host.boxes.size(), 1u);
    EXPECT_FALSE(host.boxes[0].scrolls);
    EXPECT_EQ(opened, std::vector<fs::path>{fusion.path().toStdString()});

    // No file manager on the workstation: the operator is told where the folder is.
    desktopOpens = false;
    host.msgBox(list, 64, "Message TRIVALDEN");
    ASSERT_EQ(host.boxes.size(), 3u);
    EXPECT_EQ(host.boxes[2].icon, QMessageBox::Warning);
    EXPECT_NE(host.boxes[2].text.find(fusion.path().toStdString()), std::string::npos) << host.boxes[2].text;
}

// The server command of the test stands in for the real one: it reports its
// progress per statement as the real one does and lists a file per statement,
// without the time that making 1,500 PDF files would take.
class GraphicRunTest : public ::testing::Test {
protected:
    GraphicRunTest()
    {
        qputenv("XDG_DATA_HOME", QFile::encodeName(dir.path()));
        store = store::Store::create(fs::path(dir.path().toStdString()) / "calvarine.db");
        store::DemoOptions demo(0, 7, 1500);
        demo.user = "operateur";
        store::generateDemo(*store, demo);
        window = std::make_unique<HostWindow>(store, HostWindow::Options{"operateur", {}, "calvarine.db"},
            [this](QtHostServices::Setup setup) {
                setup.openFolder = [this](const fs::path& folder) {
                    opened.push_back(folder);
                    return true;
                };
                auto made = std::make_unique<TestHost>(std::move(setup));
                host = made.get();
                return made;
            });
        window->show();
        EXPECT_TRUE(QTest::qWaitForWindowExposed(window.get()));
    }
    ~GraphicRunTest() override
    {
        window.reset();
        Variable::AideEnLigne.reset();
    }

    QTemporaryDir dir;
    std::shared_ptr<store::Store> store;
    TestHost* host = nullptr;
    std::unique_ptr<HostWindow> window;
    std::vector<fs::path> opened;
};

// Counts the paint events a widget receives.
class PaintCounter : public QObject {
public:
    int paints = 0;

protected:
    bool eventFilter(QObject*, QEvent* event) override
    {
        paints += event->type() == QEvent::Paint;
        return false;
    }
};

TEST_F(GraphicRunTest, FifteenHundredStatementsShowProgressAndEndInAUsableBox)
{
    ASSERT_TRUE(window->start());
    host->setCommandProgressTiming(std::chrono::milliseconds(0), std::chrono::milliseconds(0));
    PaintCounter counter;
    int seenAtHalf = 0;
    bool modalAtHalf = false;
    bool controlDisabledAtHalf = false;
    QString countAtHalf;
    store->registerCommand("ARCHIVEBORDCAISSEEXCEL", [&](store::CommandContext& context) {
        const std::string request = context.store.read("TEMPO", "REQUETEBORDEXCEL").value_or("");
        const int total = static_cast<int>(splitMarks(request, DbaDynArray::kAttributeMark).size());
        std::string names;
        for (int done = 1; done <= total; ++done) {
            const std::string name = "001P_202610_" + std::to_string(done) + ".pdf";
            names += (done > 1 ? std::string(1, DbaDynArray::kAttributeMark) : std::string()) + name;
            // Listed files are checked in FUSION: they must be there.
            std::ofstream(context.fusion / name) << "%PDF";
            context.progress(done, total);
            if (CommandProgressWindow* progress = host->commandProgressWindow(); progress && done == 1) {
                progress->installEventFilter(&counter);
            }
            if (done == total / 2) {
                CommandProgressWindow* progress = host->commandProgressWindow();
                seenAtHalf = progress && progress->isVisible();
                modalAtHalf = progress && QApplication::activeModalWidget() == progress;
                controlDisabledAtHalf = !window->control().Controls().userControlEnabled();
                countAtHalf = progress ? progress->countText() : QString();
                if (progress) {
                    progress->grab().save(QStringLiteral(CALVARINE_TEST_OUTPUT "/progress-at-half.png"));
                }
            }
            QTest::qWait(0);
        }
        context.store.write("TEMPO", "BORDCAISSEEXCEL", names);
    });

    auto& screen = window->control().Controls();
    auto& controls = screen;
    auto* code = qobject_cast<QLineEdit*>(window->view().widget("Txt_Entite"));
    ASSERT_NE(code, nullptr);
    code->setFocus();
    QTest::keyClicks(code, "001");
    screen.operatorClick(controls.get("Opt_Prest"));
    ASSERT_EQ(controls.get("Lst_OrgaPos").listCount(), 1500);
    screen.operatorClick(controls.get("Cmd_Tous"));
    screen.operatorClick(controls.get("Opt_Fichier"));

    bool usable = false;
    host->inspect = [&](QDialog& box) {
        expectUsable(box);
        box.grab().save(QStringLiteral(CALVARINE_TEST_OUTPUT "/file-list-box.png"));
        auto* body = box.findChild<QPlainTextEdit*>();
        ASSERT_NE(body, nullptr);
        EXPECT_EQ(body->toPlainText().count(QLatin1Char('\n')), 1499);
        QPushButton* copy = buttonNamed(box, QStringLiteral("Copier la liste"));
        ASSERT_NE(copy, nullptr);
        copy->click();
        EXPECT_TRUE(QApplication::clipboard()->text().startsWith(QStringLiteral("001P_202610_1.pdf\n001P_202610_2.pdf\n")));
        QPushButton* open = buttonNamed(box, QStringLiteral("Ouvrir le dossier FUSION"));
        ASSERT_NE(open, nullptr);
        open->click();
        EXPECT_TRUE(box.isVisible()); // the list stays for the operator
        usable = true;
    };
    screen.operatorClick(controls.get("Cmd_Imprimer"));

    EXPECT_TRUE(seenAtHalf);
    EXPECT_TRUE(modalAtHalf);
    EXPECT_TRUE(controlDisabledAtHalf);
    EXPECT_EQ(countAtHalf, QStringLiteral("Bordereaux traités : 750 / 1500"));
    EXPECT_GT(counter.paints, 1);
    EXPECT_EQ(host->commandProgressWindow(), nullptr); // gone with the command
    ASSERT_EQ(host->boxes.size(), 1u);
    EXPECT_TRUE(host->boxes[0].scrolls);
    EXPECT_EQ(host->boxes[0].icon, QMessageBox::Information);
    EXPECT_TRUE(usable);
    EXPECT_EQ(opened, std::vector<fs::path>{store->fusionDirectory()});
    EXPECT_TRUE(window->view().isEnabled());
}

// Annuler in the progress window ends the run at its next report: the files of
// the earlier run stay as they were, none of this one is published, and the
// operator reads why under the control's message and on the status line.
TEST_F(GraphicRunTest, AnnulerPublishesNothingAndSaysSo)
{
    ASSERT_TRUE(window->start());
    auto& screen = window->control().Controls();
    const auto fileRun = [&](std::initializer_list<std::int16_t> rows) {
        screen.moveFocus(&screen.get("Txt_Entite"));
        for (const char c : std::string("001")) {
            screen.get("Txt_Entite").operatorKey(c);
        }
        screen.operatorClick(screen.get("Opt_Prest"));
        for (const std::int16_t row : rows) {
            screen.operatorListDoubleClick(screen.get("Lst_OrgaPos"), row);
        }
        screen.operatorClick(screen.get("Opt_Fichier"));
        screen.operatorClick(screen.get("Cmd_Imprimer"));
    };
    const auto published = [&] {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(store->fusionDirectory())) {
            if (entry.path().extension() == ".pdf") {
                names.push_back(entry.path().filename().string());
            }
        }
        std::sort(names.begin(), names.end());
        return names;
    };
    fileRun({0});
    const auto before = published();
    ASSERT_EQ(before.size(), 1u);
    host->boxes.clear();

    host->setCommandProgressTiming(std::chrono::milliseconds(0), std::chrono::milliseconds(0));
    bool pressed = false;
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, &poll, [&] {
        if (CommandProgressWindow* progress = host->commandProgressWindow(); progress && !pressed) {
            pressed = true;
            EXPECT_FALSE(progress->cancelButton()->isDefault());
            QTest::keyClick(progress->cancelButton(), Qt::Key_Space);
            EXPECT_TRUE(progress->cancelled());
        }
    });
    poll.start(0);
    fileRun({1, 2, 3});
    poll.stop();
    ASSERT_TRUE(pressed) << "the progress window showed";
    EXPECT_EQ(host->commandProgressWindow(), nullptr);
    EXPECT_EQ(published(), before);
    ASSERT_EQ(host->boxes.size(), 1u);
    EXPECT_EQ(host->boxes[0].icon, QMessageBox::Warning) << host->boxes[0].text;
    EXPECT_TRUE(window->paperStatus().contains(QStringLiteral("aucun fichier généré"))) << window->paperStatus().toStdString();
    EXPECT_TRUE(window->paperStatus().contains(QStringLiteral("annulée par l'opérateur"))) << window->paperStatus().toStdString();
    EXPECT_TRUE(window->view().isEnabled());
}

TEST(CommandProgressWindowTest, EstimatesTheTimeLeftOnceTheRateIsKnown)
{
    using namespace std::chrono_literals;
    CommandProgressWindow window;
    window.setProgress(1, 1500, 100ms);
    EXPECT_EQ(window.timeText(), QStringLiteral("Temps restant : estimation en cours…"));
    window.setProgress(300, 1500, 3s);
    EXPECT_EQ(window.timeText(), QStringLiteral("Temps restant : environ 12 s"));
    window.setProgress(100, 1500, 10s);
    EXPECT_EQ(window.timeText(), QStringLiteral("Temps restant : environ 2 min 20 s"));
    EXPECT_EQ(window.bar()->value(), 100);
    EXPECT_EQ(window.bar()->maximum(), 1500);
}

} // namespace

TEST(ServerWaitTest, ShowsAfterASecondAndAnnulerGivesTheWaitUp)
{
    QWidget window;
    ServerWait wait(&window);
    wait.waiting(std::chrono::milliseconds(300));
    EXPECT_EQ(wait.dialog(), nullptr); // a short wait shows nothing
    wait.waiting(std::chrono::milliseconds(1100));
    ASSERT_NE(wait.dialog(), nullptr);
    EXPECT_TRUE(wait.dialog()->isModal());
    EXPECT_EQ(wait.dialog()->labelText(), QStringLiteral("Le serveur de la base ne répond pas encore…"));
    wait.waited();
    EXPECT_EQ(wait.dialog(), nullptr); // gone with the wait

    wait.waiting(std::chrono::milliseconds(1500));
    ASSERT_NE(wait.dialog(), nullptr);
    wait.dialog()->cancel();
    try {
        wait.waiting(std::chrono::milliseconds(1600));
        FAIL() << "Annuler did not give the wait up";
    } catch (const DbaError& e) {
        EXPECT_EQ(e.reason(), "l'attente du serveur de la base a été abandonnée");
    }
    wait.waited();
}

