#include "shell/ScreenModel.h"

#include <algorithm>
#include <stdexcept>

#include "shell/HostServices.h"

namespace {

const ControlSpec kUserControlSpec{-1, "UserControl", ControlKind::UserControl, "", "", 0, 0,
    ScreenTable::kDesignWidth, ScreenTable::kDesignHeight, "", "MouseDown", ""};

} // namespace

ScreenModel::ScreenModel(HostServices& host)
    : m_host(host)
    , m_userControl(std::make_unique<Control>(*this, kUserControlSpec))
{
    for (const ControlSpec& spec : ScreenTable::controls()) {
        m_controls.push_back(std::make_unique<Control>(*this, spec));
    }
    for (auto& control : m_controls) {
        if (!control->spec().frame.empty()) {
            control->m_container = find(control->spec().frame);
        } else if (!control->spec().parentMenu.empty()) {
            control->m_container = find(control->spec().parentMenu);
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
}

bool ScreenModel::canReach(const Control& control) const
{
    if (control.kind() == ControlKind::MenuEntry) {
        return control.enabled();
    }
    if (!m_userControl->enabled()) {
        return false;
    }
    if (control.kind() == ControlKind::UserControl) {
        return true;
    }
    for (const Control* c = &control; c; c = c->container()) {
        if (!c->enabled() || !c->visible()) {
            return false;
        }
    }
    return true;
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
    operatorMouseDown(list, 1);
    // A press and release on the same place is a click: any drag it armed ends here.
    m_dragSource = nullptr;
    list.setSelected(index, !list.selected(index));
    list.setListIndex(index);
}

void ScreenModel::operatorDblClickList(Control& list, std::int16_t index)
{
    if (index < 0 || index >= list.listCount()) {
        throw std::out_of_range(list.name() + ": no entry " + std::to_string(index));
    }
    operatorMouseDown(list, 1);
    m_dragSource = nullptr;
    list.setSelected(index, true);
    list.setListIndex(index);
    list.raise(Event::DblClick);
}

void ScreenModel::operatorPick(Control& combo, std::int16_t index)
{
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
