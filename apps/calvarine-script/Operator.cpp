#include "Session.h"

#include "Gestures.h"
#include "Text.h"

// The operator's actions: each first checks that the operator can reach its
// controls, then acts through the gestures of the pass (the screen model's own
// gestures here, or real input on the widgets).

namespace script {

namespace {

bool takesFocus(const Control& control)
{
    switch (control.kind()) {
    case ControlKind::TextBox:
    case ControlKind::ComboBox:
    case ControlKind::ListBox:
    case ControlKind::CommandButton:
    case ControlKind::OptionButton:
        return true;
    default:
        return false;
    }
}

} // namespace

Control& Session::control(const std::string& name, bool userControl) const
{
    if (name == "UserControl" && !userControl) {
        throw BadCommand("UserControl is not allowed here");
    }
    Control* c = m_control->Controls().find(name);
    if (!c) {
        throw BadCommand("no control " + name);
    }
    return *c;
}

bool Session::operatorMay(std::initializer_list<const Control*> controls, bool menu)
{
    bool may = !m_control->terminated() && (!menu || m_gestures->popupOpen());
    for (const Control* c : controls) {
        may = may && m_gestures->canReach(*c);
    }
    if (!may) {
        m_events->push("REFUSED " + std::string(m_line));
        return false;
    }
    if (!menu) {
        m_gestures->closePopup();
    }
    return true;
}

bool Session::hasEntry(Control& list, std::int64_t index)
{
    const std::int16_t count = m_gestures->listCount(list);
    if (index >= 0 && index < count) {
        return true;
    }
    check(false, "an entry " + std::to_string(index) + " in " + list.name(), "ListCount " + std::to_string(count));
    return false;
}

void Session::focus(LineReader& r)
{
    Control& c = control(r.word());
    r.expectEnd();
    if (operatorMay({&c})) {
        m_gestures->focus(&c);
        settle();
    }
}

void Session::blur(LineReader& r)
{
    r.expectEnd();
    if (operatorMay({})) {
        m_gestures->focus(nullptr);
        settle();
    }
}

void Session::type(LineReader& r)
{
    Control& c = control(r.word());
    const std::string text = r.string();
    r.expectEnd();
    if (!operatorMay({&c})) {
        return;
    }
    for (const char32_t cp : codePoints(text)) {
        m_gestures->type(c, cp);
    }
    settle();
}

void Session::key(LineReader& r)
{
    Control& c = control(r.word());
    const std::int16_t code = int16(r.integer());
    r.expectEnd();
    if (!operatorMay({&c})) {
        return;
    }
    m_gestures->key(c, code);
    settle();
}

void Session::selectall(LineReader& r)
{
    Control& c = control(r.word());
    r.expectEnd();
    if (!operatorMay({&c})) {
        return;
    }
    m_gestures->selectAll(c);
    settle();
}

void Session::paste(LineReader& r)
{
    Control& c = control(r.word());
    const std::string text = r.string();
    r.expectEnd();
    if (!operatorMay({&c})) {
        return;
    }
    m_gestures->paste(c, text);
    settle();
}

void Session::pick(LineReader& r)
{
    Control& c = control(r.word());
    const std::int64_t index = r.integer();
    r.expectEnd();
    if (c.kind() != ControlKind::ComboBox) {
        throw BadCommand("pick needs a ComboBox");
    }
    if (!operatorMay({&c}) || !hasEntry(c, index)) {
        return;
    }
    m_gestures->pick(c, static_cast<std::int16_t>(index));
    settle();
}

void Session::click(LineReader& r)
{
    Control& c = control(r.word());
    if (c.kind() == ControlKind::ListBox) {
        const std::int64_t index = r.integer();
        r.expectEnd();
        if (!operatorMay({&c}) || !hasEntry(c, index)) {
            return;
        }
        m_gestures->clickList(c, static_cast<std::int16_t>(index));
    } else {
        r.expectEnd();
        if (c.kind() != ControlKind::CommandButton && c.kind() != ControlKind::OptionButton) {
            throw BadCommand("click needs a CommandButton, an OptionButton or a ListBox");
        }
        if (!operatorMay({&c})) {
            return;
        }
        m_gestures->click(c);
    }
    settle();
}

void Session::dblclick(LineReader& r)
{
    Control& c = control(r.word());
    const std::int64_t index = r.integer();
    r.expectEnd();
    if (c.kind() != ControlKind::ListBox) {
        throw BadCommand("dblclick needs a ListBox");
    }
    if (!operatorMay({&c}) || !hasEntry(c, index)) {
        return;
    }
    m_gestures->dblClickList(c, static_cast<std::int16_t>(index));
    settle();
}

void Session::drag(LineReader& r)
{
    // drag SRC TARGET presses on the source's current line (or on no line);
    // drag SRC N TARGET on its entry N.
    Control& source = control(r.word());
    std::optional<std::int64_t> row;
    if (r.peek() == '-' || (r.peek() >= '0' && r.peek() <= '9')) {
        row = r.integer();
    }
    Control& target = control(r.word());
    r.expectEnd();
    if (!operatorMay({&source, &target}) || (row && (source.kind() != ControlKind::ListBox || !hasEntry(source, *row)))) {
        return;
    }
    m_gestures->drag(source, row ? static_cast<std::int16_t>(*row) : std::int16_t{-2}, target);
    settle();
}

void Session::mousedown(LineReader& r)
{
    Control& c = control(r.word(), true);
    const std::int64_t button = r.integer();
    r.expectEnd();
    if (button != 1 && button != 2 && button != 4) {
        throw BadCommand("button 1, 2 or 4");
    }
    if (!operatorMay({&c})) {
        return;
    }
    m_gestures->mouseDown(c, static_cast<std::int16_t>(button));
    settle();
}

void Session::menu(LineReader& r)
{
    Control& c = control(r.word());
    r.expectEnd();
    if (c.kind() != ControlKind::MenuEntry) {
        throw BadCommand("menu needs a menu entry");
    }
    if (!operatorMay({&c}, true)) {
        return;
    }
    m_gestures->menu(c);
    settle();
}

// ---- On the model ---------------------------------------------------------------

bool Gestures::canReach(const Control& control) const
{
    if (control.kind() == ControlKind::MenuEntry && (!control.container() || control.container() != m_host.openPopup())) {
        return false;
    }
    return m_screen.canReach(control);
}

bool Gestures::popupOpen() const
{
    return m_host.popupOpen();
}

void Gestures::closePopup()
{
    m_host.closePopup();
}

void Gestures::takeFocus(Control& control)
{
    if (takesFocus(control)) {
        m_screen.moveFocus(&control);
    }
}

void Gestures::focus(Control* control)
{
    m_screen.moveFocus(control);
}

Control* Gestures::keysGoTo(Control& control)
{
    if (!takesFocus(control)) {
        return &control;
    }
    takeFocus(control);
    // A LostFocus handler that set the focus back keeps it: the keys go to the
    // control that has it, as the window sends them.
    return m_screen.focus();
}

void Gestures::type(Control& control, char32_t code)
{
    if (Control* target = keysGoTo(control)) {
        target->operatorKey(static_cast<std::int16_t>(code));
    }
}

void Gestures::key(Control& control, std::int16_t code)
{
    if (Control* target = keysGoTo(control)) {
        target->operatorKey(code);
    }
}

void Gestures::selectAll(Control& control)
{
    if (Control* target = keysGoTo(control)) {
        target->operatorSelectAll();
    }
}

void Gestures::paste(Control& control, const std::string& text)
{
    if (Control* target = keysGoTo(control)) {
        target->operatorPaste(text);
    }
}

void Gestures::pick(Control& combo, std::int16_t index)
{
    takeFocus(combo);
    if (!m_screen.canReach(combo)) {
        return; // the focus move closed it: the press finds it disabled
    }
    m_screen.operatorPick(combo, index);
}

void Gestures::click(Control& control)
{
    takeFocus(control);
    if (!m_screen.canReach(control)) {
        return; // the focus move closed it: the press finds it disabled
    }
    m_screen.operatorClick(control);
}

void Gestures::clickList(Control& list, std::int16_t index)
{
    takeFocus(list);
    if (!m_screen.canReach(list)) {
        return; // the focus move closed it: the press finds it disabled
    }
    m_screen.operatorClickList(list, index);
}

void Gestures::dblClickList(Control& list, std::int16_t index)
{
    // Two presses, each moving the focus: a LostFocus handler that put it back
    // after the first press does not keep it from the second.
    for (int press = 0; press < 2; ++press) {
        takeFocus(list);
        if (!m_screen.canReach(list)) {
            return; // the focus move closed it: the press finds it disabled
        }
    }
    m_screen.operatorDblClickList(list, index);
}

void Gestures::drag(Control& source, std::int16_t row, Control& target)
{
    takeFocus(source);
    if (Control& pressed = m_screen.receiverOfPress(source); &pressed != &source) {
        // The focus move closed the source: the press reaches what holds it,
        // and no drag begins.
        m_screen.operatorMouseDown(pressed, 1);
        return;
    }
    m_screen.operatorDrag(source, row, target);
}

void Gestures::mouseDown(Control& control, std::int16_t button)
{
    takeFocus(control);
    // The focus move may have closed the control (a LostFocus handler): the
    // press then reaches what holds it, as in the window.
    m_screen.operatorMouseDown(m_screen.receiverOfPress(control), button);
}

void Gestures::menu(Control& entry)
{
    m_host.closePopup();
    m_screen.operatorClick(entry);
}

} // namespace script
