#pragma once

#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "shell/Control.h"
#include "shell/Int16.h"

class HostServices;

// Told of every change of the screen model, so that a view can mirror it.
// List changes are announced before and after they happen.
class ScreenObserver {
public:
    virtual ~ScreenObserver() = default;
    virtual void propertyChanged(const Control&, Property) {}
    virtual void itemAboutToBeInserted(const Control&, std::int16_t /*index*/) {}
    virtual void itemInserted(const Control&, std::int16_t /*index*/) {}
    virtual void itemAboutToBeRemoved(const Control&, std::int16_t /*index*/) {}
    virtual void itemRemoved(const Control&, std::int16_t /*index*/) {}
    virtual void listAboutToBeCleared(const Control&) {}
    virtual void listCleared(const Control&) {}
    virtual void focusChanged(const Control* /*focus*/) {}
    virtual void waitStateChanged() {} // UserControl.Enabled or Screen.MousePointer
};

// The whole screen: every control of the screen's table and the two menu
// entries (the Controls collection, in table order), the control itself
// (UserControl), the focus, the mouse pointer and a drag under way.
// Lives on the one interface thread; not thread-safe.
class ScreenModel {
public:
    explicit ScreenModel(HostServices& host);
    ScreenModel(const ScreenModel&) = delete;
    ScreenModel& operator=(const ScreenModel&) = delete;
    ~ScreenModel();

    HostServices& host() const noexcept { return m_host; }

    // The Controls collection: Count, access by index from 0.
    std::int16_t count() const { return CInt16(static_cast<long long>(m_controls.size())); }
    Control& at(std::int16_t index) const { return *m_controls.at(static_cast<std::size_t>(index)); }
    // A control by name, or UserControl; nullptr when there is none.
    Control* find(std::string_view name) const;
    Control& get(std::string_view name) const; // throws std::out_of_range
    Control& userControl() noexcept { return *m_userControl; }

    bool userControlEnabled() const noexcept { return m_userControl->enabled(); }
    void setUserControlEnabled(bool enabled);
    std::int16_t mousePointer() const noexcept { return m_mousePointer; }
    void setMousePointer(std::int16_t pointer);

    Control* focus() const noexcept { return m_focus; }
    // The focus moves to target (nullptr: nowhere). The control that had it runs
    // its LostFocus first; a SetFocus made by that handler wins over target.
    void moveFocus(Control* target);

    // Whether the operator can reach control: it and every frame around it are
    // Enabled and Visible, and UserControl.Enabled is True (menu entries: Enabled).
    bool canReach(const Control& control) const;

    // The control a mouse press on control reaches: a control that cannot take
    // the mouse (it or a frame around it disabled or hidden) leaves the press
    // to what holds it, up to UserControl.
    Control& receiverOfPress(Control& control);
    // Whether Tab stops at control: it takes the focus, stands open, and, for
    // an option, tabEntersAt it.
    bool isTabStop(const Control& control) const;
    // Tab enters an option group at its set option, or at any when none is set.
    bool tabEntersAt(const Control& option) const;

    // Drag and drop: Control::drag arms a drag from a source; a release over a
    // target drops there (DragDrop) only if one is armed.
    Control* dragSource() const noexcept { return m_dragSource; }
    void cancelDrag() noexcept { m_dragSource = nullptr; }
    void drop(Control& target);

    // Operator gestures, shared by every host: each decides what the operator's
    // action means, so that no host decides it on its own.
    void operatorMouseDown(Control& control, std::int16_t button);
    void operatorClick(Control& control);                 // CommandButton, OptionButton, menu entry
    void operatorClickList(Control& list, std::int16_t index);
    void operatorDblClickList(Control& list, std::int16_t index);
    void operatorPick(Control& combo, std::int16_t index);

    // The mouse on a list, step by step. A press raises MouseDown (its handler
    // may arm a drag). A release at the place of the press is a click: the
    // pressed line is toggled and becomes current. A move past the drag
    // distance instead begins the drag armed by the press; a line pressed that
    // was not marked gets marked as it leaves, so that the drop carries it. A
    // drag from a marked line carries the marked lines as they are.
    // row -1: the press was on no line.
    void operatorListPress(Control& list, std::int16_t button, std::int16_t row);
    void operatorListRelease(Control& list);
    // True if a drag begins; the host then runs it until the drop.
    bool operatorListDragStart(Control& list);
    // The second press of a double click: the line ends marked, then DblClick.
    void operatorListDoubleClick(Control& list, std::int16_t row);
    // A whole drag from row (or from the current line, -2) released over target.
    void operatorDrag(Control& source, std::int16_t row, Control& target);

    // Keys that are no characters. Returns whether the key meant something to
    // that control (the host then gives it to nothing else).
    enum class Key : std::uint8_t { Up, Down, Left, Right, Home, End, PageUp, PageDown, Space, Enter };
    bool operatorKeyDown(Control& control, Key key, std::int16_t pageSize = 1);
    // The focus came to control by the keyboard (Tab): a list gets a current
    // line, so that Space marks at once.
    void operatorTabbedInto(Control& control);
    // The help key: the help page at the screen's own topic.
    void operatorHelpKey();
    // The menu key (or Shift+F10): the pop-up menu, as the right button opens it.
    void operatorMenuKey();

    void addObserver(ScreenObserver* observer);
    void removeObserver(ScreenObserver* observer);
    const std::vector<ScreenObserver*>& observers() const noexcept { return m_observers; }

private:
    friend class Control;

    HostServices& m_host;
    std::vector<std::unique_ptr<Control>> m_controls;
    std::unique_ptr<Control> m_userControl;
    std::int16_t m_mousePointer = 0;
    Control* m_focus = nullptr;
    std::uint64_t m_focusMoves = 0;
    Control* m_dragSource = nullptr;
    struct Press {
        Control* list = nullptr;
        std::int16_t row = -1;
        bool pending = false; // pressed with the left button, neither released nor dragged
    };
    Press m_press;
    std::vector<ScreenObserver*> m_observers;

    // The toolkit's rule for a control that has the focus and can no longer hold
    // it (it or a frame around it was disabled or hidden): the focus passes to
    // the next control in TabIndex order that Tab would stop at, round to the
    // start, as SetFocus moves it (no LostFocus). A re-issue's reset thus
    // leaves it on the entity, never on "Sortir". The wait state is no such
    // case: the focus stays and comes back with the control.
    void passFocusIfLost();
    bool listKey(Control& list, Key key, std::int16_t pageSize);
    bool optionKey(Control& option, Key key);
};
