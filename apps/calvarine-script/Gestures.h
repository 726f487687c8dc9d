#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "shell/ScreenModel.h"

namespace script {

class ScriptHost;

// How the operator's actions reach the screen, and how the screen is read back
// for the expectations. By default both go to the screen model itself: the
// actions as its operator gestures, the readings as its own state.
// WidgetGestures overrides them all to go through the widgets of the real
// window. The Session checks the contract's rules around them (refusals,
// pop-ups, the end of the control).
class Gestures {
public:
    Gestures(ScreenModel& screen, ScriptHost& host) : m_screen(screen), m_host(host) {}
    virtual ~Gestures() = default;
    Gestures(const Gestures&) = delete;
    Gestures& operator=(const Gestures&) = delete;

    // Whether the operator can reach the control now.
    // A menu entry only while the pop-up that shows it is open.
    virtual bool canReach(const Control& control) const;
    virtual bool popupOpen() const;
    virtual void closePopup();

    virtual void focus(Control* control); // nullptr: the focus leaves the controls
    virtual void type(Control& control, char32_t code);
    virtual void key(Control& control, std::int16_t code);
    virtual void selectAll(Control& control);
    virtual void paste(Control& control, const std::string& text);
    virtual void pick(Control& combo, std::int16_t index);
    virtual void click(Control& control); // CommandButton, OptionButton
    virtual void clickList(Control& list, std::int16_t index);
    virtual void dblClickList(Control& list, std::int16_t index);
    // A press on row of source (-2: its current line), dragged and released over target.
    virtual void drag(Control& source, std::int16_t row, Control& target);
    virtual void mouseDown(Control& control, std::int16_t button);
    virtual void menu(Control& entry);

    // What the operator sees.
    virtual std::string text(const Control& c) const { return c.text(); }
    virtual bool enabled(const Control& c) const { return c.enabled(); }
    virtual bool visible(const Control& c) const { return c.visible(); }
    virtual bool value(const Control& c) const { return c.value(); }
    virtual std::int16_t listIndex(const Control& c) const { return c.listIndex(); }
    virtual std::int16_t listCount(const Control& c) const { return c.listCount(); }
    virtual std::string item(const Control& c, std::int16_t i) const { return c.list(i); }
    virtual bool selected(const Control& c, std::int16_t i) const { return c.selected(i); }
    virtual const Control* focus() const { return m_screen.focus(); }
    virtual bool userControlEnabled() const { return m_screen.userControlEnabled(); }
    virtual std::int16_t mousePointer() const { return m_screen.mousePointer(); }

protected:
    ScreenModel& m_screen;
    ScriptHost& m_host;

private:
    // Focus moves to a control that takes it, as the operator's action does.
    void takeFocus(Control& control);
    // The focus moves to control before keys are given to it; the control the
    // keys then go to (the one that kept the focus, if a LostFocus handler put
    // it back there; none if nothing has it).
    Control* keysGoTo(Control& control);
};

// The operator's actions as real input events on the widgets of the Qt view,
// in a window of its own on the running QApplication (WidgetGestures.cpp).
std::unique_ptr<Gestures> makeWidgetGestures(ScreenModel& screen, ScriptHost& host);

} // namespace script
