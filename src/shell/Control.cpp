#include "shell/Control.h"

#include <algorithm>
#include <stdexcept>

#include "shell/HostServices.h"
#include "shell/ScreenModel.h"
#include "shell/Text.h"
#include "shell/Int16.h"

namespace {

const std::string kEmpty;

} // namespace

Control::Control(ScreenModel& screen, const ControlRow& row)
    : m_screen(screen)
    , m_row(&row)
    , m_name(row.name)
{
    const InitialValues initial = initialValues(row);
    m_enabled = initial.enabled;
    m_visible = initial.visible;
    m_value = initial.value;
    m_maxLength = initial.maxLength;
    m_sorted = initial.sorted;
    m_dropDownList = row.kind == ControlKind::ComboBox && initial.style == 2;
}

void Control::changed(Property property)
{
    for (auto* observer : m_screen.observers()) {
        observer->propertyChanged(*this, property);
    }
}

void Control::requireIndex(std::int16_t index, const char* member) const
{
    if (index < 0 || index >= listCount()) {
        throw std::out_of_range(m_name + "." + member + ": index " + std::to_string(index) + " is out of range");
    }
}

void Control::setEnabled(bool enabled)
{
    if (m_enabled != enabled) {
        m_enabled = enabled;
        changed(Property::Enabled);
        m_screen.passFocusIfLost();
    }
}

void Control::setVisible(bool visible)
{
    if (m_visible != visible) {
        m_visible = visible;
        changed(Property::Visible);
        m_screen.passFocusIfLost();
    }
}

void Control::setText(std::string_view text)
{
    if (m_dropDownList) {
        // A drop-down list shows its entries only: a text is taken as the entry it names.
        const auto it = std::find_if(m_items.begin(), m_items.end(), [&](const Item& item) { return item.text == text; });
        if (it == m_items.end()) {
            throw std::invalid_argument(m_name + ".Text: \"" + std::string(text) + "\" is not an entry of the list");
        }
    }
    if (m_text == text) {
        return;
    }
    // A new text drops a selection, as the line edit does.
    m_allSelected = false;
    m_text = std::string(text);
    if (kind() == ControlKind::ComboBox) {
        const auto it = std::find_if(m_items.begin(), m_items.end(), [&](const Item& item) { return item.text == m_text; });
        const std::int16_t index = it == m_items.end() ? -1 : CInt16(it - m_items.begin());
        if (index != m_listIndex) {
            m_listIndex = index;
            changed(Property::ListIndex);
        }
    }
    changed(Property::Text);
    raise(Event::Change);
}

void Control::setValue(bool value)
{
    if (!value) {
        if (m_value) {
            m_value = false;
            changed(Property::Value);
        }
        return;
    }
    if (m_value) {
        return;
    }
    for (std::int16_t i = 0; i < m_screen.count(); ++i) {
        Control& other = m_screen.at(i);
        if (&other != this && other.kind() == ControlKind::OptionButton && other.m_container == m_container && other.m_value) {
            other.m_value = false;
            other.changed(Property::Value);
        }
    }
    m_value = true;
    changed(Property::Value);
    raise(Event::Click);
}

const std::string& Control::list(std::int16_t index) const
{
    return index >= 0 && index < listCount() ? m_items[static_cast<std::size_t>(index)].text : kEmpty;
}

void Control::setListIndex(std::int16_t index)
{
    if (index < -1 || index >= listCount()) {
        throw std::out_of_range(m_name + ".ListIndex: index " + std::to_string(index) + " is out of range");
    }
    if (kind() == ControlKind::ComboBox) {
        m_listIndex = index;
        const std::string& entry = index < 0 ? kEmpty : m_items[static_cast<std::size_t>(index)].text;
        const bool textChanged = m_text != entry;
        m_allSelected = m_allSelected && !textChanged;
        m_text = entry;
        changed(Property::ListIndex);
        if (textChanged) {
            changed(Property::Text);
        }
        raise(Event::Click);
        return;
    }
    if (m_listIndex == index) {
        return;
    }
    m_listIndex = index;
    changed(Property::ListIndex);
    raise(Event::Click);
}

void Control::addItem(std::string_view text)
{
    if (m_items.size() >= 32767) {
        throw std::overflow_error(m_name + ".AddItem: the list is full");
    }
    auto at = m_items.end();
    if (m_sorted) {
        at = std::upper_bound(m_items.begin(), m_items.end(), text, [](std::string_view t, const Item& item) { return t < item.text; });
    }
    const auto index = CInt16(at - m_items.begin());
    for (auto* observer : m_screen.observers()) {
        observer->itemAboutToBeInserted(*this, index);
    }
    m_hashes.insert(m_hashes.begin() + index, hashOf(text));
    m_items.insert(at, Item{std::string(text)});
    m_newIndex = index;
    if (m_listIndex >= index) {
        ++m_listIndex;
    }
    for (auto* observer : m_screen.observers()) {
        observer->itemInserted(*this, index);
    }
}

void Control::removeItem(std::int16_t index)
{
    requireIndex(index, "RemoveItem");
    for (auto* observer : m_screen.observers()) {
        observer->itemAboutToBeRemoved(*this, index);
    }
    m_items.erase(m_items.begin() + index);
    m_hashes.erase(m_hashes.begin() + index);
    if (m_listIndex == index) {
        m_listIndex = -1;
    } else if (m_listIndex > index) {
        --m_listIndex;
    }
    for (auto* observer : m_screen.observers()) {
        observer->itemRemoved(*this, index);
    }
}

void Control::clear()
{
    for (auto* observer : m_screen.observers()) {
        observer->listAboutToBeCleared(*this);
    }
    m_items.clear();
    m_hashes.clear();
    m_listIndex = -1;
    m_newIndex = -1;
    // A combo's text goes with its entries; Clear raises no Change.
    if (kind() == ControlKind::ComboBox) {
        m_text.clear();
    }
    for (auto* observer : m_screen.observers()) {
        observer->listCleared(*this);
    }
}

std::size_t Control::hashOf(std::string_view text) noexcept
{
    return std::hash<std::string_view>{}(text);
}

std::int32_t Control::itemData(std::int16_t index) const
{
    return index >= 0 && index < listCount() ? m_items[static_cast<std::size_t>(index)].data : 0;
}

void Control::setItemData(std::int16_t index, std::int32_t data)
{
    requireIndex(index, "ItemData");
    m_items[static_cast<std::size_t>(index)].data = data;
    changed(Property::ItemData);
}

bool Control::selected(std::int16_t index) const
{
    return index >= 0 && index < listCount() && m_items[static_cast<std::size_t>(index)].selected;
}

void Control::setSelected(std::int16_t index, bool selected)
{
    requireIndex(index, "Selected");
    auto& item = m_items[static_cast<std::size_t>(index)];
    if (item.selected != selected) {
        item.selected = selected;
        changed(Property::Selected);
    }
}

void Control::setFocus()
{
    if (m_screen.m_focus && m_screen.m_focus != this) {
        m_screen.m_focus->operatorDeselect();
    }
    m_screen.m_focus = this;
    ++m_screen.m_focusMoves;
    for (auto* observer : m_screen.observers()) {
        observer->focusChanged(this);
    }
}

void Control::drag()
{
    m_screen.m_dragSource = this;
}

void Control::handle(Event event, std::string name, Handler handler)
{
    m_bindings[static_cast<int>(event)] = Binding{std::move(name), std::move(handler)};
}

bool Control::handles(Event event) const
{
    return static_cast<bool>(m_bindings[static_cast<int>(event)].handler);
}

void Control::raise(Event event, EventArgs& args)
{
    const Binding& binding = m_bindings[static_cast<int>(event)];
    if (!binding.handler) {
        return;
    }
    try {
        binding.handler(args);
    } catch (const std::exception& e) {
        m_screen.host().reportFailure(binding.name, e.what());
    }
}

void Control::raise(Event event)
{
    EventArgs args;
    raise(event, args);
}

void Control::operatorKey(std::int16_t code)
{
    EventArgs args;
    args.keyAscii = code;
    raise(Event::KeyPress, args);
    const std::int16_t key = args.keyAscii;
    if (key == 0 || key == 13 || key == 9) {
        return; // no text changes, so a whole-text selection stays as a text box keeps it
    }
    const bool replace = m_allSelected;
    m_allSelected = false;
    const bool editable = kind() == ControlKind::TextBox
        || (kind() == ControlKind::ComboBox && !m_dropDownList);
    if (!editable) {
        return;
    }
    if (key == 8) {
        setText(replace ? std::string() : Text::dropLast(m_text));
        return;
    }
    std::string next = replace ? Text::ChrW(key) : m_text + Text::ChrW(key);
    if (m_maxLength > 0 && Text::Len(next) > m_maxLength) {
        return;
    }
    setText(next);
}

void Control::operatorPaste(std::string_view text)
{
    m_allSelected = false;
    if (m_dropDownList) {
        return; // nothing can be typed or pasted into a drop-down list
    }
    setText(m_maxLength > 0 ? Text::Left(text, m_maxLength) : std::string(text));
}
