#include "WidgetGestures.h"

// The operator through the real window: every action becomes the input events
// a keyboard and a mouse deliver to the widgets of the Qt view, and what the
// expectations read comes from the widgets. A view that fails to mirror the
// model, or that decides on its own what an input means, fails the scenario.
//
// Where the platform would take part, the host plays its part with the same
// events: the offscreen platform has no drag and drop, so the drop on the list
// under the release is delivered as drag-enter, drag-move and drop events; a
// focus move alone onto a list, a button or an option (whose click would act)
// is given as the window system gives it, by setFocus.

#include <QAction>
#include <QApplication>
#include <QClipboard>
#include <QComboBox>
#include <QDrag>
#include <QDropEvent>
#include <QLineEdit>
#include <QListView>
#include <QMenu>
#include <QMessageBox>
#include <QMimeData>
#include <QMouseEvent>
#include <QPushButton>
#include <QRadioButton>
#include <QTest>
#include <QVBoxLayout>

#include "LongMessageBox.h"
#include "QtHostServices.h"
#include "ScreenListModel.h"
#include "ScreenView.h"
#include "ScriptHost.h"

namespace script {

namespace {

Qt::MouseButton qtButton(std::int16_t button)
{
    return button == 2 ? Qt::RightButton : button == 4 ? Qt::MiddleButton : Qt::LeftButton;
}

} // namespace

WidgetGestures::WidgetGestures(ScreenModel& screen, ScriptHost& host)
    : Gestures(screen, host)
    , m_window(std::make_unique<QWidget>())
{
    m_window->setWindowTitle(QStringLiteral("Calvarine"));
    auto* layout = new QVBoxLayout(m_window.get());
    layout->setContentsMargins(0, 0, 0, 0);
    m_view = new ScreenView(screen, m_window.get());
    layout->addWidget(m_view);
    m_hostField = new QLineEdit(m_window.get());
    layout->addWidget(m_hostField);
    m_view->setDragRunner([this](QDrag& drag) { deliverDrop(drag); });
    m_menus.setDialogParent(m_window.get());
    m_host.setPopupShower([this](Control& menu) { showPopup(menu); });
    m_dialogs.setDialogParent(m_window.get());
    m_host.setMessageShower([this](const std::string& text, int style, const std::string& title) {
        std::string line = m_dialogs.show(text, style, title);
        settle();
        return line;
    });
    // The focus starts outside the screen's controls, as in the model.
    m_hostField->setFocus();
    m_window->show();
    m_window->activateWindow();
    if (!QTest::qWaitForWindowActive(m_window.get(), 2000)) {
        throw std::runtime_error("the window of the view could not be made active");
    }
    settle();
}

WidgetGestures::~WidgetGestures()
{
    m_host.setPopupShower({});
    m_host.setMessageShower({});
    m_menu.reset();
    // The view observes the screen model, which outlives it.
    m_window.reset();
}

void WidgetGestures::settle()
{
    QCoreApplication::processEvents();
    // A pop-up that closed leaves the offscreen platform's activation on it;
    // a window system gives it back to the window beneath.
    if (!QApplication::activePopupWidget() && !QApplication::activeModalWidget() && QApplication::activeWindow() != m_window.get()) {
        m_window->activateWindow();
        QCoreApplication::processEvents();
    }
}

// ---- Reach, pop-up, focus ------------------------------------------------------

bool WidgetGestures::canReach(const Control& control) const
{
    switch (control.kind()) {
    case ControlKind::MenuEntry: {
        const QAction* action = actionOf(control);
        return action && action->isEnabled();
    }
    case ControlKind::UserControl:
        return m_view->isEnabled();
    default:
        break;
    }
    const QWidget* w = widgetOf(control);
    return w ? w->isEnabled() && w->isVisible() : Gestures::canReach(control);
}

QAction* WidgetGestures::actionOf(const Control& entry) const
{
    if (!popupOpen()) {
        return nullptr;
    }
    for (QAction* action : m_menu->actions()) {
        if (action->data().toString().toStdString() == entry.name()) {
            return action;
        }
    }
    return nullptr;
}

void WidgetGestures::showPopup(Control& menu)
{
    m_menu = m_menus.buildPopupMenu(menu);
    for (QAction* action : m_menu->actions()) {
        const std::string name = action->data().toString().toStdString();
        QObject::connect(action, &QAction::triggered, m_menu.get(), [this, name] {
            // The same choice as the desktop host's menu makes.
            m_host.closePopup();
            if (Control* entry = m_screen.find(name); entry && m_screen.canReach(*entry)) {
                m_screen.operatorClick(*entry);
            }
        });
    }
    m_menu->popup(m_view->mapToGlobal(QPoint(40, 40)));
}

void WidgetGestures::closePopup()
{
    if (popupOpen()) {
        QTest::keyClick(m_menu.get(), Qt::Key_Escape);
    }
    m_host.closePopup();
    settle();
}

void WidgetGestures::menu(Control& entry)
{
    QAction* action = actionOf(entry);
    if (!action) {
        return;
    }
    QTest::mouseClick(m_menu.get(), Qt::LeftButton, {}, m_menu->actionGeometry(action).center());
    settle();
}

void WidgetGestures::focus(Control* control)
{
    if (!control) {
        // To another control of the host's form.
        QTest::mouseClick(m_hostField, Qt::LeftButton, {}, QPoint(4, m_hostField->height() / 2));
        settle();
        return;
    }
    QWidget* w = widgetOf(*control);
    if (!w || hasFocus(*control)) {
        return;
    }
    auto* combo = qobject_cast<QComboBox*>(w);
    if (qobject_cast<QLineEdit*>(w) || (combo && combo->isEditable())) {
        QWidget* edit = combo ? combo->lineEdit() : w;
        QTest::mouseClick(edit, Qt::LeftButton, {}, QPoint(4, edit->height() / 2));
    } else if (combo) {
        // A drop-down list opens when clicked; Escape closes it, the focus stays.
        QTest::mouseClick(combo, Qt::LeftButton);
        if (combo->view()->isVisible()) {
            QTest::keyClick(combo->view(), Qt::Key_Escape);
        }
    } else {
        w->setFocus(Qt::OtherFocusReason);
    }
    settle();
}

void WidgetGestures::focusForKeys(Control& control)
{
    if (!hasFocus(control)) {
        focus(&control);
    }
}

// ---- Keys -------------------------------------------------------------------

void WidgetGestures::typeCode(std::int16_t code)
{
    // Each code as the key that gives it: Enter, Backspace, Escape; Ctrl with a
    // letter for the other control codes (Ctrl+I gives a Tab that moves no
    // focus); any other character as a key that types it.
    QWidget* target = QApplication::focusWidget();
    if (!target) {
        return;
    }
    const auto c = static_cast<char32_t>(static_cast<std::uint16_t>(code));
    const QString text = QString::fromUcs4(&c, 1);
    switch (code) {
    case 8:
        QTest::sendKeyEvent(QTest::Click, target, Qt::Key_Backspace, text, Qt::NoModifier);
        break;
    case 13:
        QTest::sendKeyEvent(QTest::Click, target, Qt::Key_Return, text, Qt::NoModifier);
        break;
    case 27:
        QTest::sendKeyEvent(QTest::Click, target, Qt::Key_Escape, text, Qt::NoModifier);
        break;
    default:
        if (code >= 1 && code <= 26) {
            QTest::sendKeyEvent(QTest::Click, target, static_cast<Qt::Key>(Qt::Key_A + code - 1), text, Qt::ControlModifier);
        } else {
            const char32_t upper = text.toUpper().toUcs4().value(0, c);
            QTest::sendKeyEvent(QTest::Click, target, static_cast<Qt::Key>(upper), text, Qt::NoModifier);
        }
        break;
    }
}

void WidgetGestures::type(Control& control, char32_t code)
{
    focusForKeys(control);
    typeCode(static_cast<std::int16_t>(code));
    settle();
}

void WidgetGestures::key(Control& control, std::int16_t code)
{
    focusForKeys(control);
    typeCode(code);
    settle();
}

void WidgetGestures::selectAll(Control& control)
{
    focusForKeys(control);
    if (QWidget* target = QApplication::focusWidget()) {
        QTest::keyClick(target, Qt::Key_A, Qt::ControlModifier);
    }
    settle();
}

void WidgetGestures::paste(Control& control, const std::string& text)
{
    focusForKeys(control);
    QApplication::clipboard()->setText(QString::fromStdString(text));
    if (QWidget* target = QApplication::focusWidget()) {
        QTest::keyClick(target, Qt::Key_V, Qt::ControlModifier);
    }
    settle();
}

void WidgetGestures::pick(Control& combo, std::int16_t index)
{
    auto* box = qobject_cast<QComboBox*>(widgetOf(combo));
    if (!box) {
        return;
    }
    if (box->isEditable()) {
        focusForKeys(combo);
    }
    if (!box->view()->isVisible()) {
        if (box->isEditable() || hasFocus(combo)) {
            QTest::keyClick(box, Qt::Key_F4);
        } else {
            QTest::mouseClick(box, Qt::LeftButton);
        }
    }
    if (!box->view()->isVisible()) {
        // The focus move closed the combo (a LostFocus handler disabled it):
        // its list never opened, there is nothing to pick from.
        settle();
        return;
    }
    // In the open list: to the first entry, down to the one wanted, Enter.
    QAbstractItemView* list = box->view();
    QTest::keyClick(list, Qt::Key_Home);
    for (std::int16_t i = 0; i < index; ++i) {
        QTest::keyClick(list, Qt::Key_Down);
    }
    QTest::keyClick(list, Qt::Key_Return);
    settle();
}

// ---- Mouse --------------------------------------------------------------------

void WidgetGestures::click(Control& control)
{
    QWidget* w = widgetOf(control);
    if (!w) {
        return;
    }
    // An option takes the click on its circle and its caption, at the left.
    const QPoint at = qobject_cast<QRadioButton*>(w) ? QPoint(6, w->height() / 2) : w->rect().center();
    QTest::mouseClick(w, Qt::LeftButton, {}, at);
    settle();
}

QPoint WidgetGestures::rowCentre(QListView& list, int row) const
{
    const QModelIndex index = list.model()->index(row, 0);
    list.scrollTo(index); // the operator scrolls to the line first
    return list.visualRect(index).center();
}

void WidgetGestures::clickList(Control& control, std::int16_t index)
{
    QListView* list = listOf(control);
    if (!list || !list->model()) {
        return;
    }
    QTest::mouseClick(list->viewport(), Qt::LeftButton, {}, rowCentre(*list, index));
    settle();
}

void WidgetGestures::dblClickList(Control& control, std::int16_t index)
{
    QListView* list = listOf(control);
    if (!list || !list->model()) {
        return;
    }
    // As the window system delivers a double click: press, release, the
    // second press as a double click, release.
    const QPoint at = rowCentre(*list, index);
    QTest::mouseClick(list->viewport(), Qt::LeftButton, {}, at);
    QTest::mouseDClick(list->viewport(), Qt::LeftButton, {}, at);
    QTest::mouseRelease(list->viewport(), Qt::LeftButton, {}, at);
    settle();
}

std::optional<QPoint> WidgetGestures::freePlace(QWidget& w) const
{
    if (auto* list = qobject_cast<QListView*>(&w)) {
        QWidget* viewport = list->viewport();
        const auto below = [&]() -> std::optional<QPoint> {
            for (int y = viewport->height() - 1; y > 0; --y) {
                if (!list->indexAt(QPoint(4, y)).isValid()) {
                    return QPoint(4, y);
                }
            }
            return std::nullopt;
        };
        if (const auto place = below()) {
            return place;
        }
        // A list longer than it shows: the operator scrolls to its end, where
        // the last line leaves a strip of the list free.
        list->scrollToBottom();
        return below();
    }
    for (int y = w.height() - 3; y > 2; y -= 5) {
        for (int x = 3; x < w.width() - 2; x += 5) {
            if (!w.childAt(x, y)) {
                return QPoint(x, y);
            }
        }
    }
    return std::nullopt;
}

void WidgetGestures::mouseDown(Control& control, std::int16_t button)
{
    QWidget* w = control.kind() == ControlKind::UserControl ? m_view : widgetOf(control);
    if (!w) {
        return;
    }
    // The press itself moves the focus to a control that takes it.
    QWidget* receiver = w;
    QPoint at = w->rect().center();
    if (control.kind() == ControlKind::UserControl || control.kind() == ControlKind::Frame || control.kind() == ControlKind::ListBox) {
        const auto place = freePlace(*w);
        if (!place) {
            throw std::runtime_error(control.name() + " has no free place to press on");
        }
        at = *place;
        if (auto* list = qobject_cast<QListView*>(w)) {
            receiver = list->viewport();
        }
    }
    QTest::mousePress(receiver, qtButton(button), {}, at);
    // A press is no click: the button is released off a button or an option.
    const bool clickable = control.kind() == ControlKind::CommandButton || control.kind() == ControlKind::OptionButton;
    QTest::mouseRelease(receiver, qtButton(button), {}, clickable ? QPoint(-4, -4) : at);
    // A drop-down list that the press opened is closed again, the focus stays.
    if (auto* combo = qobject_cast<QComboBox*>(w); combo && combo->view()->isVisible()) {
        QTest::keyClick(combo->view(), Qt::Key_Escape);
    }
    settle();
}

void WidgetGestures::drag(Control& source, std::int16_t row, Control& target)
{
    QWidget* from = widgetOf(source);
    QWidget* to = widgetOf(target);
    if (!from || !to) {
        return;
    }
    QWidget* receiver = from;
    QPoint at = from->rect().center();
    if (auto* list = qobject_cast<QListView*>(from)) {
        receiver = list->viewport();
        if (row == -2) {
            row = static_cast<std::int16_t>(list->currentIndex().row());
        }
        if (row >= 0 && list->model()) {
            at = rowCentre(*list, row);
        } else if (const auto place = freePlace(*list)) {
            at = *place;
        } else {
            throw std::runtime_error(source.name() + " has no free place to press on");
        }
    }
    m_dropTarget = to;
    QTest::mousePress(receiver, Qt::LeftButton, {}, at);
    // Past the drag distance; a drag armed by the press begins here and the
    // drop runs where the mouse is released.
    // The move goes to the pressed widget with the button held, as the window
    // system sends it there, also when code run by the press (a wait state)
    // cost the widget the toolkit's grab of the mouse.
    const QPoint moved = at + QPoint(QApplication::startDragDistance() + 2, 0);
    QMouseEvent move(QEvent::MouseMove, QPointF(moved), QPointF(receiver->mapToGlobal(moved)), Qt::NoButton, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(receiver, &move);
    // The button is released over the target; the pressed widget holds the mouse.
    const QPoint over = to->mapTo(m_window.get(), to->rect().center());
    QTest::mouseRelease(receiver, Qt::LeftButton, {}, receiver->mapFrom(m_window.get(), over));
    m_dropTarget = nullptr;
    settle();
}

void WidgetGestures::deliverDrop(QDrag& drag)
{
    auto* list = qobject_cast<QListView*>(m_dropTarget);
    if (!list) {
        return; // released over no list: nothing takes the drop
    }
    QWidget* viewport = list->viewport();
    const QPoint at = viewport->rect().center();
    QDragEnterEvent enter(at, Qt::MoveAction, drag.mimeData(), Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(viewport, &enter);
    if (!enter.isAccepted()) {
        return;
    }
    QDragMoveEvent move(at, Qt::MoveAction, drag.mimeData(), Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(viewport, &move);
    QDropEvent drop(QPointF(at), Qt::MoveAction, drag.mimeData(), Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(viewport, &drop);
}

std::unique_ptr<Gestures> makeWidgetGestures(ScreenModel& screen, ScriptHost& host)
{
    return std::make_unique<WidgetGestures>(screen, host);
}

} // namespace script
