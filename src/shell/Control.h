#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "shell/ScreenTable.h"
#include "shell/Int16.h"

class ScreenModel;
class LateBoundObject;

// The events a control can raise, and what a handler receives with them.
enum class Event : std::uint8_t { Change, Click, DblClick, KeyPress, LostFocus, MouseDown, DragDrop };

struct EventArgs {
    std::int16_t keyAscii = 0; // KeyPress, by reference: 0 drops the key
    std::int16_t button = 0;   // MouseDown: 1 left, 2 right, 4 middle
    std::int16_t shift = 0;
    float x = 0;
    float y = 0;
};

// What a ScreenObserver is told has changed.
enum class Property : std::uint8_t { Text, Enabled, Visible, Value, ListIndex, Selected, ItemData, List };

// One control of the screen, with the members the logic relies on and the
// rules of assignment and events:
// - setText raises Change inside the assignment, and only when the text differs;
// - setListIndex on a combo gives Text the entry (no Change) and raises Click;
//   on a list box it raises Click only when the index changes;
// - setValue(true) on an option that was not set clears the others of its frame
//   and raises Click; setValue(false) raises nothing;
// - Clear raises no Change.
// A handler that throws is stopped there: the failure goes to the host services
// and the assignment that raised the event returns normally.
//
// Entries count from 0; ListIndex -1 is no entry. Reading an entry out of range
// gives "" (or 0, False); writing one throws std::out_of_range.
class Control {
public:
    Control(ScreenModel& screen, const ControlRow& row);
    Control(const Control&) = delete;
    Control& operator=(const Control&) = delete;

    const ControlRow& row() const noexcept { return *m_row; }
    const std::string& name() const noexcept { return m_name; }
    ControlKind kind() const noexcept { return m_row->kind; }
    Control* container() const noexcept { return m_container; }
    ScreenModel& screen() const noexcept { return m_screen; }

    bool enabled() const noexcept { return m_enabled; }
    void setEnabled(bool enabled);
    bool visible() const noexcept { return m_visible; }
    void setVisible(bool visible);

    // TextBox and ComboBox.
    const std::string& text() const noexcept { return m_text; }
    void setText(std::string_view text);
    std::int16_t maxLength() const noexcept { return m_maxLength; }

    // OptionButton.
    bool value() const noexcept { return m_value; }
    void setValue(bool value);

    // ListBox and ComboBox.
    std::int16_t listCount() const { return CInt16(static_cast<long long>(m_items.size())); }
    const std::string& list(std::int16_t index) const;
    std::int16_t listIndex() const noexcept { return m_listIndex; }
    void setListIndex(std::int16_t index);
    std::int16_t newIndex() const noexcept { return m_newIndex; }
    void addItem(std::string_view text);
    void removeItem(std::int16_t index);
    void clear();
    std::int32_t itemData(std::int16_t index) const;
    void setItemData(std::int16_t index, std::int32_t data);
    bool selected(std::int16_t index) const;
    void setSelected(std::int16_t index, bool selected);
    bool sorted() const noexcept { return m_sorted; }
    // Whether entry index holds text exactly. Each entry keeps a hash of its
    // text, so that a walk over a long list compares little but hashes.
    bool entryEquals(std::int16_t index, std::string_view text, std::size_t textHash) const
    {
        const auto i = static_cast<std::size_t>(index);
        return i < m_hashes.size() && m_hashes[i] == textHash && m_items[i].text == text;
    }
    static std::size_t hashOf(std::string_view text) noexcept;

    // Moves the focus here without raising LostFocus anywhere.
    void setFocus();
    // Begins a drag from this control.
    void drag();

    // The object behind a Sibling control.
    const std::shared_ptr<LateBoundObject>& object() const noexcept { return m_object; }
    void setObject(std::shared_ptr<LateBoundObject> object) { m_object = std::move(object); }

    // Handlers. name is the handler's own name, reported with its failures.
    using Handler = std::function<void(EventArgs&)>;
    void handle(Event event, std::string name, Handler handler);
    bool handles(Event event) const;
    // Raises event: runs its handler, if any, and stops a failure there.
    void raise(Event event, EventArgs& args);
    void raise(Event event);

    // Operator input, shared by every host. Each acts as the toolkit does when
    // the operator does it; none checks that the control can be reached.
    void operatorKey(std::int16_t code);       // KeyPress, then the edit it allows
    // The whole text selected; the selection ends with the next edit, a new
    // text, or the focus leaving the control, as a line edit's does.
    void operatorSelectAll() { m_allSelected = true; }
    void operatorDeselect() { m_allSelected = false; }
    void operatorPaste(std::string_view text); // cut to MaxLength, no KeyPress
    bool allSelected() const noexcept { return m_allSelected; }

private:
    struct Item {
        std::string text;
        std::int32_t data = 0;
        bool selected = false;
    };
    struct Binding {
        std::string name;
        Handler handler;
    };

    void changed(Property property);
    bool isList() const noexcept { return kind() == ControlKind::ListBox || kind() == ControlKind::ComboBox; }
    void requireIndex(std::int16_t index, const char* member) const;

    ScreenModel& m_screen;
    const ControlRow* m_row;
    std::string m_name;
    Control* m_container = nullptr;
    bool m_enabled;
    bool m_visible;
    bool m_value;
    std::int16_t m_maxLength;
    bool m_sorted;
    bool m_dropDownList; // a combo box of style 2: only its entries, nothing typed
    std::string m_text;
    std::vector<Item> m_items;
    std::vector<std::size_t> m_hashes; // hashes of the entries' texts, in step with m_items
    std::int16_t m_listIndex = -1;
    std::int16_t m_newIndex = -1;
    bool m_allSelected = false;
    std::shared_ptr<LateBoundObject> m_object;
    Binding m_bindings[7];

    friend class ScreenModel;
};
