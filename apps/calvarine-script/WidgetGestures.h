#pragma once

#include <memory>
#include <optional>

#include <QMenu>
#include <QPoint>
#include <QWidget>

#include "DialogReader.h"
#include "Gestures.h"
#include "ScreenView.h"

class QAbstractItemModel;
class QAction;
class QDrag;
class QLineEdit;
class QListView;

namespace script {

// The operator through the real window: see WidgetGestures.cpp for the
// actions, WidgetReadings.cpp for what the expectations read.
class WidgetGestures final : public Gestures {
public:
    WidgetGestures(ScreenModel& screen, ScriptHost& host);
    ~WidgetGestures() override;

    bool canReach(const Control& control) const override;
    bool popupOpen() const override { return m_menu && m_menu->isVisible(); }
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

    std::string text(const Control& c) const override;
    bool enabled(const Control& c) const override;
    bool visible(const Control& c) const override;
    bool value(const Control& c) const override;
    std::int16_t listIndex(const Control& c) const override;
    std::int16_t listCount(const Control& c) const override;
    std::string item(const Control& c, std::int16_t i) const override;
    bool selected(const Control& c, std::int16_t i) const override;
    const Control* focus() const override;
    bool userControlEnabled() const override { return m_view->isEnabled(); }
    std::int16_t mousePointer() const override;

private:
    QWidget* widgetOf(const Control& c) const { return m_view->widget(c.name()); }
    QListView* listOf(const Control& c) const { return qobject_cast<QListView*>(widgetOf(c)); }
    // The item model a list shows, if it shows one yet.
    const QAbstractItemModel* itemsOf(const Control& c) const;
    QAction* actionOf(const Control& entry) const;
    bool hasFocus(const Control& control) const { return focus() == &control; }
    // Brings the focus to a control before keys go to it, as the operator
    // does: a click into a text, the window system's focus for the others.
    void focusForKeys(Control& control);
    void showPopup(Control& menu);
    void typeCode(std::int16_t code);
    QPoint rowCentre(QListView& list, int row) const;
    // A place on w that no child covers (the background of a frame or of the
    // screen), or the empty part of a list, on the list's viewport, which takes
    // the mouse; null when there is none.
    std::optional<QPoint> freePlace(QWidget& w) const;
    void deliverDrop(QDrag& drag);
    void settle();

    std::unique_ptr<QWidget> m_window;
    ScreenView* m_view = nullptr;
    QLineEdit* m_hostField = nullptr; // a control of the host's form, outside the screen
    QtHostServices m_menus{{}};
    DialogReader m_dialogs;
    std::unique_ptr<QMenu> m_menu;
    QWidget* m_dropTarget = nullptr;
};

} // namespace script
