#include "shell/ScreenModel.h"

#include <algorithm>
#include <stdexcept>

#include "shell/HostServices.h"
#include "shell/Int16.h"

namespace {

const ControlRow kUserControlRow{-1, "UserControl", ControlKind::UserControl, "", "", 0, 0,
    ScreenTable::kDesignWidth, ScreenTable::kDesignHeight, "", "MouseDown", ""};

} // namespace

ScreenModel::ScreenModel(HostServices& host)
    : m_host(host)
    , m_userControl(std::make_unique<Control>(*this, kUserControlRow))
{
    for (const ControlRow& row : ScreenTable::controls()) {
        m_controls.push_back(std::make_unique<Control>(*this, row));
    }
    for (auto& control : m_controls) {
        if (!control->row().frame.empty()) {
            control->m_container = find(control->row().frame);
        } else if (!control->row().parentMenu.empty()) {
            control->m_container = find(control->row().parentMenu);
        }
    }
}

ScreenModel::~ScreenModel() = default;

Control* ScreenModel::find(std::string_view name) const
{
    if (name == "UserControl") {
        return m_userControl.get();
    }
    for (const auto& control : m_controls) {
        if (control->name() == name) {
            return control.get();
        }
    }
    return nullptr;
}

Control& ScreenModel::get(std::string_view name) const
{
    Control* control = find(name);
    if (!control) {
        throw std::out_of_range("no control named " + std::string(name));
    }
    return *control;
}

void ScreenModel::setMousePointer(std::int16_t pointer)
{
    if (m_mousePointer != pointer) {
        m_mousePointer = pointer;
        for (auto* observer : m_observers) {
            observer->waitStateChanged();
        }
    }
}

void ScreenModel::moveFocus(Control* target)
{
    Control* previous = m_focus;
    if (previous == target) {
        return;
    }
    const auto movesBefore = m_focusMoves;
    // A text's selection ends when the focus leaves it, before its LostFocus
    // runs, even if that handler brings the focus back.
    if (previous) {
        previous->operatorDeselect();
    }
    if (previous && previous->handles(Event::LostFocus)) {
        previous->raise(Event::LostFocus);
    }
    if (m_focusMoves != movesBefore) {
        return; // the handler put the focus somewhere itself
    }
    m_focus = target;
    ++m_focusMoves;
    for (auto* observer : m_observers) {
        observer->focusChanged(target);
    }
    // The handler may have disabled or hidden the control the focus went to
    // (the entity's LostFocus closes the period until an activity is chosen):
    // it passes on as from any control that can no longer hold it.
    passFocusIfLost();
}

namespace {

// Enabled and Visible, with every frame around it; UserControl aside.
bool standsOpen(const Control& control)
{
    for (const Control* c = &control; c; c = c->container()) {
        if (!c->enabled() || !c->visible()) {
            return false;
        }
    }
    return true;
}

} // namespace

bool ScreenModel::canReach(const Control& control) const
{
    if (control.kind() == ControlKind::MenuEntry) {
        return control.enabled();
    }
    if (!m_userControl->enabled()) {
        return false;
    }
    return control.kind() == ControlKind::UserControl || standsOpen(control);
}

Control& ScreenModel::receiverOfPress(Control& control)
{
    for (Control* c = &control; c; c = c->container()) {
        if (c->enabled() && c->visible()) {
            return *c;
        }
    }
    return *m_userControl;
}

bool ScreenModel::isTabStop(const Control& control) const
{
    switch (control.kind()) {
    case ControlKind::TextBox:
    case ControlKind::ComboBox:
    case ControlKind::ListBox:
    case ControlKind::CommandButton:
        return standsOpen(control);
    case ControlKind::OptionButton:
        return standsOpen(control) && tabEntersAt(control);
    default:
        return false;
    }
}

bool ScreenModel::tabEntersAt(const Control& option) const
{
    return option.value() || std::none_of(m_controls.begin(), m_controls.end(), [&](const auto& other) {
        return other->kind() == ControlKind::OptionButton && other->container() == option.container() && other->value();
    });
}

void ScreenModel::passFocusIfLost()
{
    if (!m_focus || m_focus == m_userControl.get() || standsOpen(*m_focus)) {
        return;
    }
    const auto at = std::find_if(m_controls.begin(), m_controls.end(), [&](const auto& c) { return c.get() == m_focus; });
    if (at == m_controls.end()) {
        return;
    }
    const auto from = static_cast<std::size_t>(at - m_controls.begin());
    Control* next = nullptr;
    for (std::size_t step = 1; step < m_controls.size() && !next; ++step) {
        Control& candidate = *m_controls[(from + step) % m_controls.size()];
        if (isTabStop(candidate)) {
            next = &candidate;
        }
    }
    m_focus->operatorDeselect();
    m_focus = next;
    ++m_focusMoves;
    for (auto* observer : m_observers) {
        observer->focusChanged(next);
    }
}

void ScreenModel::drop(Control& target)
{
    if (!m_dragSource) {
        return;
    }
    m_dragSource = nullptr;
    target.raise(Event::DragDrop);
}

void ScreenModel::operatorMouseDown(Control& control, std::int16_t button)
{
    m_dragSource = nullptr;
    if (button == 1) {
        control.operatorDeselect(); // a left press in a text places the caret
    }
    EventArgs args;
    args.button = button;
    control.raise(Event::MouseDown, args);
}

void ScreenModel::operatorClick(Control& control)
{
    switch (control.kind()) {
    case ControlKind::OptionButton:
        control.setValue(true);
        break;
    default:
        control.raise(Event::Click);
        break;
    }
}

void ScreenModel::operatorClickList(Control& list, std::int16_t index)
{
    if (index < 0 || index >= list.listCount()) {
        throw std::out_of_range(list.name() + ": no entry " + std::to_string(index));
    }
    operatorListPress(list, 1, index);
    operatorListRelease(list);
}

void ScreenModel::operatorDblClickList(Control& list, std::int16_t index)
{
    if (index < 0 || index >= list.listCount()) {
        throw std::out_of_range(list.name() + ": no entry " + std::to_string(index));
    }
    operatorMouseDown(list, 1);
    m_dragSource = nullptr;
    m_press = {};
    list.setSelected(index, true);
    list.setListIndex(index);
    list.raise(Event::DblClick);
}

void ScreenModel::operatorListPress(Control& list, std::int16_t button, std::int16_t row)
{
    m_press = Press{&list, row, button == 1};
    operatorMouseDown(list, button);
    if (button != 1) {
        m_dragSource = nullptr; // only the left button drags
    }
}

void ScreenModel::operatorListRelease(Control& list)
{
    const Press press = m_press;
    m_press = {};
    // A press and release on the same place is a click: any drag it armed ends here.
    m_dragSource = nullptr;
    if (!press.pending || press.list != &list || press.row < 0 || press.row >= list.listCount()) {
        return;
    }
    list.setSelected(press.row, !list.selected(press.row));
    list.setListIndex(press.row);
}

bool ScreenModel::operatorListDragStart(Control& list)
{
    const Press press = m_press;
    m_press = {};
    if (!press.pending || press.list != &list || m_dragSource != &list) {
        m_dragSource = nullptr;
        return false;
    }
    if (press.row >= 0 && press.row < list.listCount() && !list.selected(press.row)) {
        list.setSelected(press.row, true);
        list.setListIndex(press.row);
    }
    return m_dragSource == &list;
}

void ScreenModel::operatorListDoubleClick(Control& list, std::int16_t row)
{
    m_press = {};
    m_dragSource = nullptr;
    if (row < 0 || row >= list.listCount()) {
        return;
    }
    list.setSelected(row, true);
    list.setListIndex(row);
    list.raise(Event::DblClick);
}

void ScreenModel::operatorDrag(Control& source, std::int16_t row, Control& target)
{
    if (row == -2) {
        row = source.listIndex();
    }
    if (source.kind() != ControlKind::ListBox) {
        operatorMouseDown(source, 1);
        drop(target);
        return;
    }
    operatorListPress(source, 1, row);
    if (operatorListDragStart(source)) {
        drop(target);
    }
}

void ScreenModel::operatorPick(Control& combo, std::int16_t index)
{
    // The entry picked is written into the edit anew, even the same one: a
    // selection there ends.
    combo.operatorDeselect();
    combo.setListIndex(index);
}

void ScreenModel::addObserver(ScreenObserver* observer)
{
    m_observers.push_back(observer);
}

void ScreenModel::removeObserver(ScreenObserver* observer)
{
    m_observers.erase(std::remove(m_observers.begin(), m_observers.end(), observer), m_observers.end());
}

void ScreenModel::setUserControlEnabled(bool enabled)
{
    if (m_userControl->enabled() != enabled) {
        m_userControl->setEnabled(enabled);
        for (auto* observer : m_observers) {
            observer->waitStateChanged();
        }
    }
}

bool ScreenModel::operatorKeyDown(Control& control, Key key, std::int16_t pageSize)
{
    switch (control.kind()) {
    case ControlKind::ListBox:
        return listKey(control, key, pageSize);
    case ControlKind::OptionButton:
        return optionKey(control, key);
    case ControlKind::CommandButton:
        // Enter presses a focused button as Space does.
        if (key == Key::Enter || key == Key::Space) {
            operatorClick(control);
            return true;
        }
        return false;
    default:
        return false;
    }
}

bool ScreenModel::listKey(Control& list, Key key, std::int16_t pageSize)
{
    const std::int16_t count = list.listCount();
    const std::int16_t current = list.listIndex();
    std::int16_t next = current;
    switch (key) {
    case Key::Up:
    case Key::Left:
        next = CInt16(std::max(0, current - 1));
        break;
    case Key::Down:
    case Key::Right:
        next = CInt16(std::min(count - 1, current + 1));
        break;
    case Key::PageUp:
        next = CInt16(std::max(0, current - std::max<int>(1, pageSize)));
        break;
    case Key::PageDown:
        next = CInt16(std::min(count - 1, current + std::max<int>(1, pageSize)));
        break;
    case Key::Home:
        next = 0;
        break;
    case Key::End:
        next = CInt16(count - 1);
        break;
    case Key::Space:
        // Space marks the current line; with none yet, the first line becomes current.
        if (count == 0) {
            return true;
        }
        next = current < 0 ? std::int16_t{0} : current;
        list.setSelected(next, !list.selected(next));
        list.setListIndex(next);
        return true;
    case Key::Enter:
        return false;
    }
    if (count > 0) {
        list.setListIndex(next);
    }
    return true;
}

bool ScreenModel::optionKey(Control& option, Key key)
{
    int step = 0;
    switch (key) {
    case Key::Up:
    case Key::Left:
        step = -1;
        break;
    case Key::Down:
    case Key::Right:
        step = 1;
        break;
    case Key::Space:
        operatorClick(option);
        return true;
    default:
        return false;
    }
    // The options of the frame as the operator sees them, left to right, top to
    // bottom; the arrows go round among those that can be reached.
    std::vector<Control*> group;
    for (const auto& c : m_controls) {
        if (c->kind() == ControlKind::OptionButton && c->container() == option.container() && (c.get() == &option || canReach(*c))) {
            group.push_back(c.get());
        }
    }
    std::sort(group.begin(), group.end(), [](const Control* a, const Control* b) {
        return std::pair(a->row().top, a->row().left) < std::pair(b->row().top, b->row().left);
    });
    const auto at = std::find(group.begin(), group.end(), &option) - group.begin();
    const auto size = static_cast<std::ptrdiff_t>(group.size());
    Control* next = group[static_cast<std::size_t>((at + step + size) % size)];
    moveFocus(next);
    if (m_focus == next) {
        operatorClick(*next);
    }
    return true;
}

void ScreenModel::operatorTabbedInto(Control& control)
{
    if (control.kind() == ControlKind::ListBox && control.listIndex() < 0 && control.listCount() > 0) {
        control.setListIndex(0);
    }
}

void ScreenModel::operatorHelpKey()
{
    // The help entry of the pop-up menu shows the screen's own page; the key
    // reaches it whether or not the menu has been opened.
    if (Control* entry = find("Mnu_Sommaire"); entry && userControlEnabled()) {
        entry->raise(Event::Click);
    }
}

void ScreenModel::operatorMenuKey()
{
    if (userControlEnabled()) {
        operatorMouseDown(*m_userControl, 2);
    }
}
