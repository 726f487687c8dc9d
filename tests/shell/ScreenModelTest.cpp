#include <gtest/gtest.h>

#include <stdexcept>

#include "FakeHost.h"
#include "shell/ScreenModel.h"

namespace {

class ScreenModelTest : public ::testing::Test {
protected:
    FakeHost host;
    ScreenModel screen{host};
    std::vector<std::string> log;

    void record(Control& control, Event event, const std::string& name)
    {
        control.handle(event, name, [this, name](EventArgs&) { log.push_back(name); });
    }
};

// Two boxes that copy each other's text: only the same-text rule ends the chain.
TEST_F(ScreenModelTest, MirroredTextChainEndsBySameTextRule)
{
    Control& code = screen.get("Txt_Entite");
    Control& name = screen.get("Cbo_Entite");
    int changes = 0;
    code.handle(Event::Change, "code", [&](EventArgs&) { ++changes; name.setText(code.text()); });
    name.handle(Event::Change, "name", [&](EventArgs&) { ++changes; code.setText(name.text()); });
    code.setText("ABC");
    EXPECT_EQ(changes, 2);
    EXPECT_EQ(name.text(), "ABC");
}

// A text raises Change and a list box Click only when the value changes; a
// combo's index raises Click every time, and never Change.
TEST_F(ScreenModelTest, AssignmentsRaiseTheirEventsOnlyWhenTheyShould)
{
    Control& box = screen.get("Txt_Entite");
    Control& list = screen.get("Lst_OrgaPos");
    Control& combo = screen.get("Cbo_Entite");
    for (Control* withItems : {&list, &combo}) {
        withItems->addItem("UN");
        withItems->addItem("DEUX");
    }
    record(box, Event::Change, "Text Change");
    record(list, Event::Click, "List Click");
    record(combo, Event::Change, "Combo Change");
    record(combo, Event::Click, "Combo Click");
    for (const char* text : {"00", "00", "001"}) {
        box.setText(text);
    }
    for (std::int16_t index : {1, 1, 0}) {
        list.setListIndex(index);
    }
    combo.setListIndex(1);
    combo.setListIndex(1);
    EXPECT_EQ(combo.text(), "DEUX");
    combo.clear(); // no Change either
    EXPECT_EQ(combo.text(), "");
    EXPECT_EQ(combo.listIndex(), -1);
    EXPECT_EQ(log, (std::vector<std::string>{"Text Change", "Text Change", "List Click", "List Click", "Combo Click", "Combo Click"}));
    EXPECT_THROW(list.setListIndex(2), std::out_of_range);
}

TEST_F(ScreenModelTest, OptionValueIsExclusiveWithinItsFrameOnly)
{
    Control& tous = screen.get("Opt_Tous");
    Control& org = screen.get("Opt_Org");
    Control& papier = screen.get("Opt_Papier");
    record(org, Event::Click, "Org");
    record(tous, Event::Click, "Tous");
    EXPECT_TRUE(tous.value());
    org.setValue(true);
    org.setValue(true);
    EXPECT_FALSE(tous.value());
    EXPECT_TRUE(papier.value()) << "another frame keeps its option";
    org.setValue(false);
    EXPECT_EQ(log, (std::vector<std::string>{"Org"}));
}

TEST_F(ScreenModelTest, SortedComboInsertsInTextOrderAndReportsNewIndex)
{
    Control& combo = screen.get("Cbo_Tri");
    combo.addItem("MUTUELLE");
    combo.addItem("CAISSE");
    EXPECT_EQ(combo.newIndex(), 0);
    combo.addItem("URSSAF");
    EXPECT_EQ(combo.newIndex(), 2);
    combo.setItemData(combo.newIndex(), 12);
    EXPECT_EQ(combo.list(1), "MUTUELLE");
    EXPECT_EQ(combo.itemData(2), 12);
    EXPECT_EQ(combo.itemData(1), 0);
    EXPECT_EQ(combo.list(7), "") << "reading beyond the end gives nothing";
}

TEST_F(ScreenModelTest, FailingHandlerIsReportedAndAssignmentReturns)
{
    Control& box = screen.get("Txt_Tri");
    box.handle(Event::Change, "Txt_tri_Change", [](EventArgs&) { throw std::runtime_error("boom"); });
    box.setText("1");
    EXPECT_EQ(box.text(), "1");
    EXPECT_EQ(host.events, (std::vector<std::string>{"ERROR Txt_tri_Change"}));
}

TEST_F(ScreenModelTest, TypingHonoursKeyAsciiMaxLengthBackspaceAndSelectAll)
{
    Control& box = screen.get("Txt_Tri");
    box.handle(Event::KeyPress, "k", [](EventArgs& a) {
        if (a.keyAscii == 'x') {
            a.keyAscii = 0;
        }
    });
    for (char c : std::string("1x2345")) {
        box.operatorKey(c);
    }
    EXPECT_EQ(box.text(), "123") << "dropped key and MaxLength 3";
    box.operatorKey(8);
    EXPECT_EQ(box.text(), "12");
    box.operatorKey(13);
    EXPECT_EQ(box.text(), "12");
    box.operatorSelectAll();
    box.operatorKey('9');
    EXPECT_EQ(box.text(), "9");
    box.operatorPaste("45678");
    EXPECT_EQ(box.text(), "456");
}

TEST_F(ScreenModelTest, TypingCountsCharactersNotBytes)
{
    Control& combo = screen.get("Cbo_Entite");
    combo.operatorKey(0xE9); // é
    combo.operatorKey('t');
    EXPECT_EQ(combo.text(), "\xC3\xA9t");
    combo.operatorKey(8);
    EXPECT_EQ(combo.text(), "\xC3\xA9");
}

TEST_F(ScreenModelTest, SetFocusInsideLostFocusWins)
{
    Control& code = screen.get("Txt_Entite");
    Control& combo = screen.get("Cbo_Entite");
    code.setFocus();
    code.handle(Event::LostFocus, "LostFocus", [&](EventArgs&) { code.setFocus(); });
    screen.moveFocus(&combo);
    EXPECT_EQ(screen.focus(), &code);
    code.handle(Event::LostFocus, "LostFocus", [](EventArgs&) {});
    screen.moveFocus(&combo);
    EXPECT_EQ(screen.focus(), &combo);
}

TEST_F(ScreenModelTest, ReachRequiresEnabledVisibleFramesAndUserControl)
{
    Control& org = screen.get("Opt_Org");
    EXPECT_FALSE(screen.canReach(org)) << "Cdr_Select starts disabled";
    screen.get("Cdr_Select").setEnabled(true);
    EXPECT_TRUE(screen.canReach(org));
    EXPECT_FALSE(screen.canReach(screen.get("Txt_Tri"))) << "hidden at start";
    screen.setUserControlEnabled(false);
    EXPECT_FALSE(screen.canReach(org));
}

TEST_F(ScreenModelTest, ClickOnListIsNotADropButDragIsOne)
{
    Control& pos = screen.get("Lst_OrgaPos");
    Control& sel = screen.get("Lst_OrgaSel");
    pos.addItem("a");
    pos.handle(Event::MouseDown, "down", [&](EventArgs&) { pos.drag(); });
    record(sel, Event::DragDrop, "DropSel");
    screen.operatorClickList(pos, 0);
    EXPECT_TRUE(pos.selected(0));
    screen.drop(sel);
    EXPECT_TRUE(log.empty());
    screen.operatorMouseDown(pos, 1);
    screen.drop(sel);
    EXPECT_EQ(log, (std::vector<std::string>{"DropSel"}));
}

} // namespace
