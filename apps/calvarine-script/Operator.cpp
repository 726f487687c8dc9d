#include "Session.h"

// The operator's actions: each first checks that the operator can reach its
// controls, moves the focus as a click or a key would, then uses the screen
// model's own gestures.

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

// The code points of a UTF-8 text.
std::vector<char32_t> codePoints(std::string_view s)
{
    std::vector<char32_t> out;
    for (std::size_t i = 0; i < s.size();) {
        const auto c = static_cast<unsigned char>(s[i++]);
        int extra = c >= 0xF0 ? 3 : c >= 0xE0 ? 2 : c >= 0xC0 ? 1 : 0;
        char32_t cp = extra == 3 ? (c & 0x07) : extra == 2 ? (c & 0x0F) : extra == 1 ? (c & 0x1F) : c;
        for (; extra > 0 && i < s.size(); --extra) {
            cp = (cp << 6) | (static_cast<unsigned char>(s[i++]) & 0x3F);
        }
        out.push_back(cp);
    }
    return out;
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
    bool may = !m_control->terminated() && (!menu || m_host.popupOpen());
    for (const Control* c : controls) {
        may = may && m_control->Controls().canReach(*c);
    }
    if (!may) {
        m_events->push("REFUSED " + std::string(m_line));
        return false;
    }
    m_host.closePopup();
    return true;
}

void Session::takeFocus(Control& control)
{
    if (takesFocus(control)) {
        m_control->Controls().moveFocus(&control);
    }
}

bool Session::hasEntry(Control& list, std::int64_t index)
{
    if (index >= 0 && index < list.listCount()) {
        return true;
    }
    check(false, "an entry " + std::to_string(index) + " in " + list.name(),
        "ListCount " + std::to_string(list.listCount()));
    return false;
}

void Session::focus(LineReader& r)
{
    Control& c = control(r.word());
    r.expectEnd();
    if (operatorMay({&c})) {
        m_control->Controls().moveFocus(&c);
        settle();
    }
}

void Session::blur(LineReader& r)
{
    r.expectEnd();
    if (operatorMay({})) {
        m_control->Controls().moveFocus(nullptr);
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
    takeFocus(c);
    for (const char32_t cp : codePoints(text)) {
        c.operatorKey(static_cast<std::int16_t>(cp));
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
    takeFocus(c);
    c.operatorKey(code);
    settle();
}

void Session::selectall(LineReader& r)
{
    Control& c = control(r.word());
    r.expectEnd();
    if (!operatorMay({&c})) {
        return;
    }
    takeFocus(c);
    c.operatorSelectAll();
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
    takeFocus(c);
    c.operatorPaste(text);
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
    takeFocus(c);
    m_control->Controls().operatorPick(c, static_cast<std::int16_t>(index));
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
        takeFocus(c);
        m_control->Controls().operatorClickList(c, static_cast<std::int16_t>(index));
    } else {
        r.expectEnd();
        if (c.kind() != ControlKind::CommandButton && c.kind() != ControlKind::OptionButton) {
            throw BadCommand("click needs a CommandButton, an OptionButton or a ListBox");
        }
        if (!operatorMay({&c})) {
            return;
        }
        takeFocus(c);
        m_control->Controls().operatorClick(c);
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
    takeFocus(c);
    m_control->Controls().operatorDblClickList(c, static_cast<std::int16_t>(index));
    settle();
}

void Session::drag(LineReader& r)
{
    Control& source = control(r.word());
    Control& target = control(r.word());
    r.expectEnd();
    if (!operatorMay({&source, &target})) {
        return;
    }
    takeFocus(source);
    ScreenModel& screen = m_control->Controls();
    screen.operatorMouseDown(source, 1);
    screen.drop(target);
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
    takeFocus(c);
    m_control->Controls().operatorMouseDown(c, static_cast<std::int16_t>(button));
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
    m_control->Controls().operatorClick(c);
    settle();
}

} // namespace script
