#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include <QApplication>
#include <QDrag>
#include <QLineEdit>
#include <QListView>
#include <QPushButton>
#include <QRadioButton>
#include <QTemporaryDir>
#include <QTest>
#include <QTextBrowser>

#include "CommandProgressDatabase.h"
#include "HelpViewer.h"
#include "HostWindow.h"
#include "Rights.h"
#include "ScreenView.h"
#include "Fixtures.h"
#include "Store.h"
#include "TestHost.h"
#include "shell/Ctr_Calvarine.h"
#include "shell/Variable.h"

namespace fs = std::filesystem;

namespace {

std::vector<std::string> filesIn(const fs::path& dir)
{
    std::vector<std::string> names;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(dir, error)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

// The operator at the real window, on the statements of the scenario fixture:
// every gesture goes through the widgets.
class StoryTest : public ::testing::Test {
protected:
    StoryTest()
    {
        // Component registrations go to a folder of the test's own.
        qputenv("XDG_DATA_HOME", QFile::encodeName(dir.path()));
        store = store::Store::create(root() / "calvarine.db");
        std::ifstream fixture(CALVARINE_TEST_FIXTURES "/statements.jsonl");
        store::importJsonLines(*store, fixture, "statements.jsonl");
        store->write("DROITS", DatabaseRights::key("operateur", "CALVARINE"), "2");
        window = std::make_unique<HostWindow>(store, HostWindow::Options{"operateur", root() / "spool", "calvarine.db"},
            [this](QtHostServices::Setup setup) {
                auto made = std::make_unique<TestHost>(std::move(setup));
                host = made.get();
                return made;
            });
        window->view().setDragRunner([this](QDrag& drag) { dropOnSelected(drag); });
        window->show();
        EXPECT_TRUE(QTest::qWaitForWindowExposed(window.get()));
    }

    ~StoryTest() override
    {
        window.reset();
        Variable::AideEnLigne.reset(); // the help component outlives the control by design
    }

    fs::path root() const { return dir.path().toStdString(); }
    Control& control(const char* name) { return window->control().Controls().get(name); }
    template <class W>
    W* widget(const char* name) { return qobject_cast<W*>(window->view().widget(name)); }
    QWidget* viewport(const char* name) { return widget<QListView>(name)->viewport(); }
    QPoint rowCentre(const char* name, int row)
    {
        auto* list = widget<QListView>(name);
        return list->visualRect(list->model()->index(row, 0)).center();
    }
    void screenshot(const char* name) { window->grab().save(QStringLiteral(CALVARINE_TEST_OUTPUT "/%1.png").arg(name)); }

    void chooseEntityAndActivity()
    {
        auto* code = widget<QLineEdit>("Txt_Entite");
        code->setFocus();
        QTest::keyClicks(code, "001");
        QTest::mouseClick(widget<QRadioButton>("Opt_Prest"), Qt::LeftButton);
    }

    void dropOnSelected(QDrag& drag)
    {
        QWidget* target = viewport("Lst_OrgaSel");
        QDragEnterEvent enter(QPoint(10, 10), Qt::MoveAction, drag.mimeData(), Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(target, &enter);
        QDropEvent drop(QPointF(10, 10), Qt::MoveAction, drag.mimeData(), Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(target, &drop);
    }

    QTemporaryDir dir;
    std::shared_ptr<store::Store> store;
    TestHost* host = nullptr;
    std::unique_ptr<HostWindow> window;
};

TEST_F(StoryTest, AnOperatorReissuesStatementsAsFilesAndOnPaper)
{
    ASSERT_TRUE(window->start());
    ASSERT_TRUE(host->boxes.empty()) << host->boxes.front().text;
    screenshot("screen-after-init");
    EXPECT_FALSE(control("Cbo_Periode").text().empty());
    EXPECT_FALSE(widget<QRadioButton>("Opt_Prest")->isEnabled());

    chooseEntityAndActivity();
    EXPECT_EQ(control("Txt_Entite").text(), "001");
    EXPECT_EQ(control("Cbo_Entite").text(), "AIDE A DOMICILE DU VAL");
    EXPECT_TRUE(control("Opt_Prest").value());
    ASSERT_EQ(control("Lst_OrgaPos").listCount(), 5);
    EXPECT_EQ(widget<QListView>("Lst_OrgaPos")->model()->rowCount(), 5);

    // A double click moves a line down; a drag moves the lines marked.
    QTest::mouseDClick(viewport("Lst_OrgaPos"), Qt::LeftButton, Qt::NoModifier, rowCentre("Lst_OrgaPos", 1));
    ASSERT_EQ(control("Lst_OrgaSel").listCount(), 1);
    QTest::mouseClick(viewport("Lst_OrgaPos"), Qt::LeftButton, Qt::NoModifier, rowCentre("Lst_OrgaPos", 3));
    EXPECT_EQ(control("Lst_OrgaSel").listCount(), 1); // a click alone drops nothing
    const QPoint from = rowCentre("Lst_OrgaPos", 3);
    QTest::mousePress(viewport("Lst_OrgaPos"), Qt::LeftButton, Qt::NoModifier, from);
    QMouseEvent moved(QEvent::MouseMove, from + QPoint(0, 20), viewport("Lst_OrgaPos")->mapToGlobal(from + QPoint(0, 20)),
        Qt::NoButton, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(viewport("Lst_OrgaPos"), &moved);
    ASSERT_EQ(control("Lst_OrgaSel").listCount(), 2);
    EXPECT_EQ(widget<QListView>("Lst_OrgaSel")->model()->rowCount(), 2);
    EXPECT_TRUE(widget<QPushButton>("Cmd_Imprimer")->isEnabled());
    screenshot("screen-with-lists");

    // As files, into FUSION.
    QTest::mouseClick(widget<QRadioButton>("Opt_Fichier"), Qt::LeftButton);
    QTest::mouseClick(widget<QPushButton>("Cmd_Imprimer"), Qt::LeftButton);
    const auto fusion = filesIn(root() / "FUSION");
    EXPECT_EQ(fusion.size(), 2u);
    ASSERT_FALSE(host->boxes.empty());
    EXPECT_EQ(host->boxes.back().icon, QMessageBox::Information);
    EXPECT_EQ(host->boxes.back().title, "Message TRIVALDEN");
    // The screen is back at its start, the period kept.
    EXPECT_EQ(control("Txt_Entite").text(), "");
    EXPECT_EQ(widget<QListView>("Lst_OrgaSel")->model()->rowCount(), 0);
    EXPECT_FALSE(widget<QRadioButton>("Opt_Prest")->isEnabled());

    // On paper, spooled as PDF.
    chooseEntityAndActivity();
    QTest::mouseClick(widget<QPushButton>("Cmd_Tous"), Qt::LeftButton);
    QTest::mouseClick(widget<QRadioButton>("Opt_Papier"), Qt::LeftButton);
    QTest::mouseClick(widget<QPushButton>("Cmd_Imprimer"), Qt::LeftButton);
    const auto spool = filesIn(root() / "spool");
    ASSERT_EQ(spool.size(), 1u);
    EXPECT_EQ(spool.front().rfind("Bordereaux_001P_", 0), 0u) << spool.front();
}

TEST_F(StoryTest, AnEnterTooManyAfterAReissueNeverClosesTheWindow)
{
    ASSERT_TRUE(window->start());
    host->closeByEnter = true;
    chooseEntityAndActivity();
    QTest::mouseClick(widget<QPushButton>("Cmd_Tous"), Qt::LeftButton);
    QTest::mouseClick(widget<QRadioButton>("Opt_Fichier"), Qt::LeftButton);
    // From the keyboard: Enter on "Imprimer", Enter on the list of files.
    widget<QPushButton>("Cmd_Imprimer")->setFocus(Qt::TabFocusReason);
    QTest::keyClick(widget<QPushButton>("Cmd_Imprimer"), Qt::Key_Return);
    ASSERT_EQ(host->boxes.size(), 1u);
    EXPECT_EQ(control("Txt_Entite").text(), "");

    // The focus went round to the entity, in the widgets as in the model.
    QWidget* entity = widget<QWidget>("Cbo_Entite");
    EXPECT_EQ(window->control().Controls().focus(), &control("Cbo_Entite"));
    ASSERT_NE(window->focusWidget(), nullptr);
    EXPECT_EQ(window->view().controlOf(window->focusWidget()), &control("Cbo_Entite"));
    // The Enter still held, then one more: a search, nothing closes.
    QKeyEvent held(QEvent::KeyPress, Qt::Key_Return, Qt::NoModifier, QStringLiteral("\r"), true);
    QApplication::sendEvent(window->focusWidget(), &held);
    QTest::keyClick(entity, Qt::Key_Return);
    // A held Enter reaching "Sortir" presses nothing either.
    QApplication::sendEvent(widget<QPushButton>("Cmd_Sortir"), &held);
    QCoreApplication::processEvents();
    EXPECT_TRUE(window->isVisible());
    EXPECT_FALSE(window->control().W_Sortir);
}

TEST_F(StoryTest, TheRightButtonOpensTheHelpAndSortirClosesTheForm)
{
    ASSERT_TRUE(window->start());
    host->menuChoices.push_back("Mnu_Sommaire");
    QTest::mousePress(&window->view(), Qt::RightButton, Qt::NoModifier, QPoint(300, 545));
    ASSERT_EQ(host->menus.size(), 1u);
    EXPECT_EQ(host->menus.front(), (std::vector<std::string>{"Aide", "Aide_TRIVALDEN"}));
    auto help = std::dynamic_pointer_cast<help::HelpViewer>(Variable::AideEnLigne);
    ASSERT_NE(help, nullptr);
    ASSERT_NE(help->window(), nullptr);
    EXPECT_TRUE(help->window()->isVisible());
    EXPECT_EQ(help->window()->windowTitle(), QStringLiteral("Aide – Calvarine"));
    EXPECT_TRUE(help->window()->toPlainText().contains(QStringLiteral("Organismes sélectionnés")));
    // The help reaches the store through what the host gave the control.
    auto given = std::dynamic_pointer_cast<CommandProgressDatabase>(help->base());
    ASSERT_NE(given, nullptr);
    EXPECT_EQ(given->database(), store);

    // A left press opens nothing.
    QTest::mousePress(&window->view(), Qt::LeftButton, Qt::NoModifier, QPoint(300, 545));
    EXPECT_EQ(host->menus.size(), 1u);

    QTest::mouseClick(widget<QPushButton>("Cmd_Sortir"), Qt::LeftButton);
    EXPECT_TRUE(window->isVisible()); // not inside the handler
    QCoreApplication::processEvents();
    EXPECT_FALSE(window->isVisible());
    EXPECT_TRUE(window->control().W_Sortir);
    EXPECT_TRUE(window->control().terminated());
}

TEST_F(StoryTest, ClosingTheWindowTerminatesTheControlWithoutSortir)
{
    ASSERT_TRUE(window->start());
    window->close();
    EXPECT_TRUE(window->control().terminated());
    EXPECT_FALSE(window->control().W_Sortir);
}

} // namespace
