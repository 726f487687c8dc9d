#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string_view>

// The screen as data: every control of the screen and the two menu entries, with
// their kinds, places and initial values. The screen model and the Qt view are
// both built from this one table.

enum class ControlKind : std::uint8_t {
    TextBox,
    ComboBox,
    ListBox,
    CommandButton,
    OptionButton,
    Frame,
    Label,
    Sibling,   // the sibling printing control, never shown
    MenuEntry,
    UserControl,
};

// A row of the screen table: one control as the screen's description gives it.
struct ControlRow {
    std::int16_t tabIndex;        // -1 for menu entries
    std::string_view name;
    ControlKind kind;
    std::string_view frame;       // "" when the control stands on the control itself
    std::string_view caption;
    int left, top, width, height; // twips, from the frame's corner when in a frame
    std::string_view initial;     // initial values as the screen's description gives them
    std::string_view events;      // handled events, blank-separated
    std::string_view parentMenu;  // menu entries: the entry they stand under
};

// The initial values of a control, read from ControlRow::initial.
struct InitialValues {
    bool enabled = true;
    bool visible = true;
    bool value = false;
    std::int16_t maxLength = 0;
    std::int16_t style = 0;       // ComboBox 2: drop-down list; CommandButton 1: graphical
    bool sorted = false;
    bool fixedFont = false;       // Courier New 8.25
    bool hasPicture = false;
};

InitialValues initialValues(const ControlRow& row);

namespace ScreenTable {

inline constexpr int kDesignWidth = 7575;  // twips
inline constexpr int kDesignHeight = 8445;
inline constexpr int kTwipsPerPixel = 15;

// Controls in TabIndex order, then the menu entries (Mnu_Aide, Mnu_Sommaire):
// the order of the Controls collection.
std::span<const ControlRow> controls();

const ControlRow* find(std::string_view name);

} // namespace ScreenTable
