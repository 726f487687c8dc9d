#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <QApplication>
#include <QComboBox>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QMimeData>
#include <QPushButton>
#include <QRadioButton>
#include <QTest>

#include "ScreenListModel.h"
#include "ScreenView.h"
#include "TestHost.h"
#include "shell/ScreenModel.h"

namespace {

// A bare screen model whose handlers record what they are raised with.
class ScreenViewTest : public ::testing::Test {
protected:
    ScreenViewTest()
    {
        for (const char* name : {"Txt_Entite", "Cbo_Entite"}) {
            for (Event event : {Event::Change, Event::KeyPress}) {
                screen.get(name).handle(event, name, [this, name, event](EventArgs&) {
                    log(std::string(name) + (event == Event::Change ? " Change" : " KeyPress"));
                });
            }
        }
        for (const char* name : {"Lst_OrgaPos", "Lst_OrgaSel"}) {
            Control& list = screen.get(name);
            list.handle(Event::Click, "Click", [this, name](EventArgs&) { log(std::string(name) + " Click"); });
            for (const char* line : {"CPAM    F1", "MGEN    F2", "CD94    F3"}) {
                list.addItem(line);
            }
        }
        screen.get("UserControl").handle(Event::MouseDown, "MouseDown", [this](EventArgs& a) {
            log("UserControl MouseDown " + std::to_string(a.button));
        });
        for (const char* name : {"Opt_Prest", "Opt_Mandat", "Opt_Inter"}) {
            screen.get(name).handle(Event::Click, "Click", [this, name](EventArgs&) { log(std::string(name) + " Click"); });
        }
        view.show();
        EXPECT_TRUE(QTest::qWaitForWindowExposed(&view));
    }

    void log(std::string line) { events.push_back(std::move(line)); }
    std::vector<std::string> takeEvents() { return std::exchange(events, {}); }

    template <class W>
    W* widget(const char* name) { return qobject_cast<W*>(view.widget(name)); }
    QWidget* viewport(const char* name) { return widget<QListView>(name)->viewport(); }
    QPoint rowCentre(const char* name, int row)
    {
        auto* list = widget<QListView>(name);
        return list->visualRect(list->model()->index(row, 0)).center();
    }
    void press(QWidget* target, QPoint at, Qt::MouseButton button = Qt::LeftButton)
    {
        QMouseEvent event(QEvent::MouseButtonPress, at, target->mapToGlobal(at), button, button, Qt::NoModifier);
        QApplication::sendEvent(target, &event);
    }
    void release(QWidget* target, QPoint at)
    {
        QMouseEvent event(QEvent::MouseButtonRelease, at, target->mapToGlobal(at), Qt::LeftButton, Qt::NoButton, Qt::NoModifier);
        QApplication::sendEvent(target, &event);
    }

    TestHost host;
    ScreenModel screen{host};
    ScreenView view{screen};
    std::vector<std::string> events;
};

TEST_F(ScreenViewTest, AHiddenListGetsItsItemModelOnceItShows)
{
    Control& codes = screen.get("Lst_CodeOrgaPos");
    codes.addItem("012 F1");
    EXPECT_EQ(view.listModel("Lst_CodeOrgaPos"), nullptr);
    codes.setVisible(true);
    ASSERT_NE(view.listModel("Lst_CodeOrgaPos"), nullptr);
    EXPECT_TRUE(view.widget("Lst_CodeOrgaPos")->isVisible());
    codes.addItem("045 F2");
    QCoreApplication::processEvents(); // appended lines reach the view together
    EXPECT_EQ(widget<QListView>("Lst_CodeOrgaPos")->model()->rowCount(), 2);
    codes.setListIndex(1);
    EXPECT_EQ(widget<QListView>("Lst_CodeOrgaPos")->currentIndex().row(), 1);
}

TEST_F(ScreenViewTest, ChangesMadeByProgramDoNotComeBackAsInput)
{
    screen.get("Txt_Entite").setText("001");
    screen.get("Cbo_Entite").addItem("AIDE A DOMICILE");
    screen.get("Cbo_Entite").setText("AIDE A DOMICILE");
    screen.get("Opt_Mandat").setValue(true);
    screen.get("Opt_Mandat").setValue(false); // no option of the frame set: the group shows none
    EXPECT_EQ(takeEvents(), (std::vector<std::string>{"Txt_Entite Change", "Cbo_Entite Change", "Opt_Mandat Click"}));
    EXPECT_EQ(widget<QLineEdit>("Txt_Entite")->text(), QStringLiteral("001"));
    EXPECT_EQ(widget<QComboBox>("Cbo_Entite")->currentIndex(), 0);
    for (const char* name : {"Opt_Prest", "Opt_Mandat", "Opt_Inter"}) {
        EXPECT_FALSE(widget<QRadioButton>(name)->isChecked()) << name;
    }
    screen.get("Lst_OrgaPos").setSelected(2, true);
    screen.get("Lst_OrgaPos").setListIndex(2);
    EXPECT_EQ(widget<QListView>("Lst_OrgaPos")->currentIndex().row(), 2);
    EXPECT_EQ(takeEvents(), (std::vector<std::string>{"Lst_OrgaPos Click"})); // the model's own event, once
}

TEST_F(ScreenViewTest, TheWaitStateDisablesTheScreenAndShowsTheWaitCursor)
{
    screen.setMousePointer(11);
    screen.setUserControlEnabled(false);
    EXPECT_FALSE(view.isEnabled());
    ASSERT_NE(QApplication::overrideCursor(), nullptr);
    EXPECT_EQ(QApplication::overrideCursor()->shape(), Qt::WaitCursor);
    press(&view, QPoint(300, 540), Qt::RightButton);
    QTest::keyClicks(widget<QLineEdit>("Txt_Entite"), "1");
    EXPECT_TRUE(takeEvents().empty());
    EXPECT_EQ(screen.get("Txt_Entite").text(), "");
    screen.setMousePointer(0);
    screen.setUserControlEnabled(true);
    EXPECT_TRUE(view.isEnabled());
    EXPECT_EQ(QApplication::overrideCursor(), nullptr);
}

TEST_F(ScreenViewTest, ControlsTheModelDisablesRefuseTheOperator)
{
    screen.get("Lst_OrgaPos").setEnabled(false);
    EXPECT_FALSE(view.widget("Lst_OrgaPos")->isEnabled());
    press(viewport("Lst_OrgaPos"), rowCentre("Lst_OrgaPos", 0));
    release(viewport("Lst_OrgaPos"), rowCentre("Lst_OrgaPos", 0));
    EXPECT_FALSE(screen.get("Lst_OrgaPos").selected(0));
    screen.get("Cdr_Activite").setEnabled(false);
    widget<QRadioButton>("Opt_Prest")->click();
    EXPECT_FALSE(screen.get("Opt_Prest").value());
    EXPECT_FALSE(widget<QRadioButton>("Opt_Prest")->isChecked());
}

TEST_F(ScreenViewTest, TheKeyboardReachesButtonsOptionsHelpAndTheMenu)
{
    screen.get("Cmd_Tous").handle(Event::Click, "Click", [this](EventArgs&) { log("Cmd_Tous Click"); });
    screen.get("Mnu_Sommaire").handle(Event::Click, "Click", [this](EventArgs&) { log("Mnu_Sommaire Click"); });
    view.activateWindow();
    ASSERT_TRUE(QTest::qWaitForWindowActive(&view));

    // Enter presses a focused button, as Space does.
    view.widget("Cmd_Tous")->setFocus();
    QTest::keyClick(view.widget("Cmd_Tous"), Qt::Key_Return);
    QTest::keyClick(view.widget("Cmd_Tous"), Qt::Key_Space);
    EXPECT_EQ(takeEvents(), (std::vector<std::string>{"Cmd_Tous Click", "Cmd_Tous Click"}));

    // F1 opens the help; Shift+F10 and the menu key the pop-up, as the right button does.
    QTest::keyClick(view.widget("Cmd_Tous"), Qt::Key_F1);
    QTest::keyClick(view.widget("Cmd_Tous"), Qt::Key_F10, Qt::ShiftModifier);
    QTest::keyClick(widget<QLineEdit>("Txt_Entite"), Qt::Key_Menu);
    EXPECT_EQ(takeEvents(), (std::vector<std::string>{"Mnu_Sommaire Click", "UserControl MouseDown 2", "UserControl MouseDown 2"}));

    // The arrows in an exclusive group choose the next option, left to right, round.
    screen.get("Cdr_Select").setEnabled(true);
    view.widget("Opt_Tous")->setFocus();
    QTest::keyClick(view.widget("Opt_Tous"), Qt::Key_Right);
    EXPECT_TRUE(screen.get("Opt_Org").value());
    EXPECT_FALSE(screen.get("Opt_Tous").value());
    EXPECT_EQ(screen.focus(), &screen.get("Opt_Org"));
    EXPECT_EQ(QApplication::focusWidget(), view.widget("Opt_Org"));
    QTest::keyClick(view.widget("Opt_Org"), Qt::Key_Left);
    QTest::keyClick(view.widget("Opt_Tous"), Qt::Key_Left);
    EXPECT_TRUE(screen.get("Opt_NumFact").value());
    EXPECT_TRUE(widget<QRadioButton>("Opt_NumFact")->isChecked());
}

TEST_F(ScreenViewTest, TabFollowsTabIndexLandsOnTheSetOptionAndGivesAListACurrentLine)
{
    view.activateWindow();
    ASSERT_TRUE(QTest::qWaitForWindowActive(&view));
    const auto tabFrom = [&](const char* name) {
        view.widget(name)->setFocus();
        QTest::keyClick(view.widget(name), Qt::Key_Tab);
        const Control* now = view.controlOf(QApplication::focusWidget());
        return now ? now->name() : std::string("none");
    };
    // TabIndex: Cbo_Entite 0, then the activity options (none set: each in turn), Txt_Entite 5.
    EXPECT_EQ(tabFrom("Cbo_Entite"), "Opt_Inter");
    EXPECT_EQ(tabFrom("Opt_Prest"), "Txt_Entite");
    // Into the edition group: its set option, then out of the group at once.
    EXPECT_EQ(tabFrom("Cmd_Sortir"), "Opt_Papier");
    screen.get("Cdr_Select").setEnabled(true);
    EXPECT_EQ(tabFrom("Opt_Papier"), "Opt_Tous");
    screen.get("Opt_Fichier").setValue(true);
    EXPECT_EQ(tabFrom("Cmd_Sortir"), "Opt_Fichier");

    // A list entered by Tab gets its first line as current: Space marks it at once.
    EXPECT_EQ(tabFrom("Cbo_Periode"), "Lst_OrgaPos");
    EXPECT_EQ(screen.get("Lst_OrgaPos").listIndex(), 0);
    // The focused control is framed, whatever the style draws.
    const auto* mark = view.findChild<QWidget*>(QStringLiteral("focus mark"));
    ASSERT_NE(mark, nullptr);
    EXPECT_TRUE(mark->isVisible());
    EXPECT_TRUE(mark->geometry().contains(view.widget("Lst_OrgaPos")->geometry()));
    QTest::keyClick(view.widget("Lst_OrgaPos"), Qt::Key_Space);
    EXPECT_TRUE(screen.get("Lst_OrgaPos").selected(0));
    QTest::keyClick(view.widget("Lst_OrgaPos"), Qt::Key_Down);
    QTest::keyClick(view.widget("Lst_OrgaPos"), Qt::Key_Space);
    EXPECT_TRUE(screen.get("Lst_OrgaPos").selected(1));
    EXPECT_EQ(screen.get("Lst_OrgaPos").listIndex(), 1);
}

} // namespace
