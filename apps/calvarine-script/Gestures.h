#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "shell/ScreenModel.h"

namespace script {

class ScriptHost;

// How the operator's actions reach the screen, and how the screen is read back
// for the expectations: on the screen model itself, or through the widgets of
// the real window (see WidgetGestures). The Session checks the contract's
// rules around them (refusals, pop-ups, the end of the control).
class Gestures {
public:
    explicit Gestures(ScreenModel& screen) : m_screen(screen) {}
    virtual ~Gestures() = default;
    Gestures(const Gestures&) = delete;
    Gestures& operator=(const Gestures&) = delete;

    // Whether the operator can reach the control now.
    virtual bool canReach(const Control& control) const { return m_screen.canReach(control); }
    virtual bool popupOpen() const = 0;
    virtual void closePopup() = 0;

    virtual void focus(Control* control) = 0; // nullptr: the focus leaves the controls
    virtual void type(Control& control, char32_t code) = 0;
    virtual void key(Control& control, std::int16_t code) = 0;
    virtual void selectAll(Control& control) = 0;
    virtual void paste(Control& control, const std::string& text) = 0;
    virtual void pick(Control& combo, std::int16_t index) = 0;
    virtual void click(Control& control) = 0; // CommandButton, OptionButton
    virtual void clickList(Control& list, std::int16_t index) = 0;
    virtual void dblClickList(Control& list, std::int16_t index) = 0;
    // A press on row of source (-2: its current line), dragged and released over target.
    virtual void drag(Control& source, std::int16_t row, Control& target) = 0;
    virtual void mouseDown(Control& control, std::int16_t button) = 0;
    virtual void menu(Control& entry) = 0;

    // What the operator sees. By default, the model's own state.
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
};

// The operator's actions as the screen model's own gestures.
class ModelGestures final : public Gestures {
public:
    ModelGestures(ScreenModel& screen, ScriptHost& host) : Gestures(screen), m_host(host) {}

    bool popupOpen() const override;
    void closePopup() override;
    void focus(Control* control) override;
    void type(Control& control, char32_t code) override;
    void key(Control& control, std::int16_t code) override;
    void selectAll(Control& control) override;
    void paste(Control& control, const std::string& text) override;
    void pick(Control& combo, std::int16_t index) override;
    void click(Control& control) override;
    void clickList(Control& list, std::int16_t index) override;
    void dblClickList(Control& list, std::int16_t index) override;
    void drag(Control& source, std::int16_t row, Control& target) override;
    void mouseDown(Control& control, std::int16_t button) override;
    void menu(Control& entry) override;

private:
    // Focus moves to a control that takes it, as the operator's action does.
    void takeFocus(Control& control);

    ScriptHost& m_host;
};

// The operator's actions as real input events on the widgets of the Qt view,
// in a window of its own on the running QApplication (WidgetGestures.cpp).
std::unique_ptr<Gestures> makeWidgetGestures(ScreenModel& screen, ScriptHost& host);

} // namespace script
