#pragma once

#include <algorithm>
#include <functional>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <QPoint>
#include <QSize>
#include <QWidget>

#include "shell/ScreenModel.h"

class FocusMark;
class QButtonGroup;
class QComboBox;
class QDrag;
class QLineEdit;
class QListView;
class ScreenListModel;

// The screen model on Qt Widgets: one widget per control of the screen's table,
// placed at its twips in proportion (see toPixels).
//
// The view adapts; it never decides. It mirrors every change of the model into
// the widgets at once, without the widgets' own signals coming back as operator
// input, and turns the operator's input into the model's gestures, which decide
// what the input means:
// - keys in a text box or editable combo go through Control::operatorKey (the
//   line edit never edits itself), paste through operatorPaste;
// - other keys of lists, buttons and options through operatorKeyDown; F1,
//   Shift+F10 and the menu key through operatorHelpKey and operatorMenuKey;
// - the focus moving between controls goes through ScreenModel::moveFocus (and
//   operatorTabbedInto when Tab brought it); to a widget of the host's window
//   outside the view, it leaves the screen's controls;
// - buttons, options and menu entries through operatorClick, combo picks
//   through operatorPick;
// - the mouse on a list through operatorListPress, then operatorListRelease
//   (a click) or, past the platform's drag distance, operatorListDragStart and
//   a drop on the list under the release;
// - any button pressed on the background (or on a control that cannot take it)
//   raises MouseDown of the frame or UserControl behind it.
// UserControl.Enabled False disables the whole view; Screen.MousePointer 11
// shows the wait cursor.
//
// The screen model must outlive the view.
class ScreenView : public QWidget, private ScreenObserver {
public:
    explicit ScreenView(ScreenModel& screen, QWidget* parent = nullptr);
    ~ScreenView() override;

    ScreenModel& screen() const noexcept { return m_screen; }
    // The widget that shows the control of that name; null for controls
    // without one (the sibling control, menu entries).
    QWidget* widget(std::string_view name) const;
    // The control whose widget is object or holds it; null for none.
    Control* controlOf(const QObject* object)
    {
        Entry* entry = entryOfWidget(object);
        return entry ? entry->control : nullptr;
    }
    // The item model behind a list box or combo box; null for a list that has
    // never been visible.
    ScreenListModel* listModel(std::string_view name) const;

    // Twips to the view's pixels: 15 to a pixel, spread for the font and the
    // option circles of the style, shrunk to fit the screen (see chooseScale),
    // on the nearest multiple of pixelStep().
    int toPixels(int twips) const { return m_step * static_cast<int>(twips * m_scale / 15.0 / m_step + 0.5); }
    // The fewest logical pixels that make whole device pixels at the screen's
    // ratio: 1 at 1 or 2, 2 at 1.5, 4 at 1.25 or 1.75. A widget whose edge falls
    // between two device pixels loses the one-pixel line drawn there (its clip
    // is rounded to device pixels, the line is not), so every place and size
    // of the screen is a multiple of it; a window puts the view on it too.
    int pixelStep() const noexcept { return m_step; }
    double scale() const noexcept { return m_scale; }
    // What a window around the view needs besides it: title, frame, status line.
    static constexpr QSize kWindowChrome{24, 112};
    // The size the screen's font was drawn for, in points.
    static constexpr qreal kDesignPointSize = 8.25;
    // How far the screen's font was shrunk to fit the screen (1: not at all);
    // the bars around it are shrunk alike, so that the window reads at one scale.
    qreal shrink() const { return std::min<qreal>(1.0, font().pointSizeF() / kDesignPointSize); }

    // Runs a drag that a list began, until it is dropped or given up; by
    // default QDrag::exec. Tests replace it to drop without a nested event loop.
    using DragRunner = std::function<void(QDrag&)>;
    void setDragRunner(DragRunner runner) { m_runDrag = std::move(runner); }

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;
    bool event(QEvent* event) override;

private:
    struct Entry {
        Control* control = nullptr;
        QWidget* widget = nullptr;
        QLineEdit* edit = nullptr;       // text boxes and editable combos
        QComboBox* combo = nullptr;
        QListView* list = nullptr;
        ScreenListModel* model = nullptr;
        QButtonGroup* group = nullptr;   // frames: their options
    };
    struct Press {
        Control* list = nullptr;
        QPoint at;
        bool pending = false;            // pressed with the left button, neither released nor dragged yet
    };

    void build();
    void chooseScale();
    QWidget* makeWidget(Entry& entry, QWidget* parent);
    void connectInput(Entry& entry);
    void attachListModel(Entry& entry);
    Entry* entryOf(const Control& control);
    Entry* entryOfWidget(const QObject* object);

    void sync(Entry& entry, Property property);
    void syncAll(Entry& entry);
    void syncText(Entry& entry);
    void syncListIndex(Entry& entry);
    void syncValue(Entry& entry);
    void syncWaitState();
    void syncTabStops(const Control& option);

    bool mousePress(Entry* entry, QObject* watched, QMouseEvent& event);
    bool listMouse(Entry& entry, QEvent& event);
    bool listKey(Entry& entry, QKeyEvent& event);
    bool editKey(Entry& entry, QKeyEvent& event);
    bool buttonKey(Entry& entry, QKeyEvent& event);
    bool screenKey(QKeyEvent& event);
    void resyncButtons(const Control& control);
    bool dropEvent(Entry& entry, QEvent& event);
    void startDrag(Entry& entry);
    void focusMoved(QWidget* now);

    // ScreenObserver.
    void propertyChanged(const Control& control, Property property) override;
    void itemInserted(const Control& control, std::int16_t index) override;
    void itemRemoved(const Control& control, std::int16_t index) override;
    void listCleared(const Control& control) override;
    void focusChanged(const Control* focus) override;
    void waitStateChanged() override;

    ScreenModel& m_screen;
    std::vector<Entry> m_entries;
    std::unordered_map<const Control*, std::size_t> m_byControl;
    std::unordered_map<const QObject*, std::size_t> m_byWidget;
    Press m_press;
    FocusMark* m_focusMark = nullptr;
    DragRunner m_runDrag;
    double m_scale = 1.0;
    int m_step = 1;
    bool m_mirroring = false;
    bool m_waitCursor = false;
    QMetaObject::Connection m_focusWatch;
};
