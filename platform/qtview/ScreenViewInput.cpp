#include "ScreenView.h"

#include <optional>

// The operator's input: each mouse press, key and focus move becomes one of the
// screen model's gestures, which decides what it means.

#include <QAbstractButton>
#include <QApplication>
#include <QClipboard>
#include <QComboBox>
#include <QDrag>
#include <QKeyEvent>
#include <QLineEdit>
#include <QListView>
#include <QMimeData>
#include <QMouseEvent>
#include <QPointer>
#include <QPushButton>
#include <QRadioButton>

#include "FocusMark.h"
#include "Pictures.h"
#include "ScopedFlag.h"

namespace {

constexpr auto kDragFormat = "application/x-calvarine-list";

std::int16_t buttonNumber(Qt::MouseButton button)
{
    switch (button) {
    case Qt::RightButton:
        return 2;
    case Qt::MiddleButton:
        return 4;
    default:
        return 1;
    }
}

// Keys that move the caret or open a combo's list without editing any text:
// the line edit and the combo may handle them themselves.
bool isNavigationKey(int key)
{
    switch (key) {
    case Qt::Key_Left:
    case Qt::Key_Right:
    case Qt::Key_Home:
    case Qt::Key_End:
    case Qt::Key_Up:
    case Qt::Key_Down:
    case Qt::Key_PageUp:
    case Qt::Key_PageDown:
    case Qt::Key_F4:
    case Qt::Key_Tab:
    case Qt::Key_Backtab:
        return true;
    default:
        return false;
    }
}

// The model's name for a key that is no character, if it has one.
std::optional<ScreenModel::Key> modelKey(const QKeyEvent& event)
{
    if (event.modifiers() & (Qt::ControlModifier | Qt::AltModifier | Qt::MetaModifier)) {
        return std::nullopt;
    }
    using K = ScreenModel::Key;
    switch (event.key()) {
    case Qt::Key_Up:
        return K::Up;
    case Qt::Key_Down:
        return K::Down;
    case Qt::Key_Left:
        return K::Left;
    case Qt::Key_Right:
        return K::Right;
    case Qt::Key_Home:
        return K::Home;
    case Qt::Key_End:
        return K::End;
    case Qt::Key_PageUp:
        return K::PageUp;
    case Qt::Key_PageDown:
        return K::PageDown;
    case Qt::Key_Space:
        return K::Space;
    case Qt::Key_Return:
    case Qt::Key_Enter:
        return K::Enter;
    default:
        return std::nullopt;
    }
}

// The character codes a key gives a text box: Enter, Backspace and Escape by
// their codes, Ctrl with a letter the control code of that letter (Ctrl+I is
// a Tab that moves no focus), any other key the characters it types.
std::vector<std::int16_t> keyCodes(const QKeyEvent& event)
{
    switch (event.key()) {
    case Qt::Key_Return:
    case Qt::Key_Enter:
        return {13};
    case Qt::Key_Backspace:
        return {8};
    case Qt::Key_Escape:
        return {27};
    default:
        break;
    }
    const auto modifiers = event.modifiers() & (Qt::ControlModifier | Qt::AltModifier | Qt::MetaModifier);
    if (modifiers == Qt::ControlModifier && event.key() >= Qt::Key_A && event.key() <= Qt::Key_Z) {
        return {static_cast<std::int16_t>(event.key() - Qt::Key_A + 1)};
    }
    std::vector<std::int16_t> codes;
    if (!modifiers) {
        for (const char32_t code : event.text().toUcs4()) {
            if (code >= 0x20 && code <= 0x7FFF && code != 0x7F) {
                codes.push_back(static_cast<std::int16_t>(code));
            }
        }
    }
    return codes;
}

} // namespace

void ScreenView::connectInput(Entry& entry)
{
    Control* control = entry.control;
    // clicked and activated come from the operator only, never from a change
    // made by program, so the mirroring cannot feed back into the model.
    if (auto* button = qobject_cast<QAbstractButton*>(entry.widget)) {
        connect(button, &QAbstractButton::clicked, this, [this, control] {
            if (m_screen.canReach(*control)) {
                m_screen.operatorClick(*control);
            }
            // The button may have changed itself where the model did not.
            resyncButtons(*control);
        });
    }
    if (entry.combo) {
        connect(entry.combo, &QComboBox::activated, this, [this, control](int index) {
            if (m_screen.canReach(*control) && index >= -1 && index < control->listCount()) {
                m_screen.operatorPick(*control, static_cast<std::int16_t>(index));
            }
            if (Entry* e = entryOf(*control)) {
                syncListIndex(*e);
            }
        });
    }
}

void ScreenView::resyncButtons(const Control& control)
{
    Entry* entry = entryOf(control);
    if (!entry) {
        return;
    }
    syncAll(*entry);
    if (const Control* frame = control.container(); frame && control.kind() == ControlKind::OptionButton) {
        for (Entry& other : m_entries) {
            if (other.control->container() == frame) {
                syncValue(other);
            }
        }
    }
}

void ScreenView::focusMoved(QWidget* now)
{
    if (Entry* entry = now ? entryOfWidget(now) : nullptr) {
        m_focusMark->follow(entry->widget);
    } else {
        m_focusMark->follow(nullptr);
    }
    // In the wait state the operator moves no focus: what moves it then (the
    // view disabled, a message box closing) is the toolkit, and the focus comes
    // back where the model has it when the state ends.
    if (m_mirroring || !now || !m_screen.userControlEnabled()) {
        return;
    }
    if (!isAncestorOf(now)) {
        // Another widget of the same window (the host's own) took the focus: it
        // left the screen's controls. A dialog or another window takes nothing.
        if (now->window() == window() && window() != this) {
            m_screen.moveFocus(nullptr);
        }
        return;
    }
    Entry* entry = entryOfWidget(now);
    if (entry && m_screen.canReach(*entry->control)) {
        m_screen.moveFocus(entry->control);
    }
}

bool ScreenView::event(QEvent* event)
{
    if ((event->type() == QEvent::MouseButtonPress || event->type() == QEvent::MouseButtonDblClick) && m_screen.userControlEnabled()) {
        m_screen.operatorMouseDown(m_screen.userControl(), buttonNumber(static_cast<QMouseEvent*>(event)->button()));
        return true;
    }
    if (event->type() == QEvent::ContextMenu) {
        return true;
    }
    if (event->type() == QEvent::KeyPress && screenKey(*static_cast<QKeyEvent*>(event))) {
        return true;
    }
    return QWidget::event(event);
}

bool ScreenView::eventFilter(QObject* watched, QEvent* event)
{
    switch (event->type()) {
    case QEvent::MouseButtonPress:
    case QEvent::MouseButtonDblClick:
    case QEvent::MouseMove:
    case QEvent::MouseButtonRelease: {
        Entry* entry = entryOfWidget(watched);
        if (!entry) {
            return false;
        }
        auto& mouse = *static_cast<QMouseEvent*>(event);
        if (event->type() == QEvent::MouseButtonPress || event->type() == QEvent::MouseButtonDblClick) {
            return mousePress(entry, watched, mouse);
        }
        if (entry->list && watched == entry->list->viewport()) {
            return listMouse(*entry, *event);
        }
        return false;
    }
    case QEvent::ShortcutOverride:
    case QEvent::KeyPress: {
        Entry* entry = entryOfWidget(watched);
        if (!entry) {
            return false;
        }
        auto& key = *static_cast<QKeyEvent*>(event);
        if (event->type() == QEvent::ShortcutOverride) {
            // Every key a control of the screen takes is the model's, before
            // any shortcut of the window; but no text box types with Alt and a
            // key: those are the menus' mnemonics (Alt+F from any field).
            const auto held = key.modifiers() & (Qt::ControlModifier | Qt::AltModifier | Qt::MetaModifier);
            if (entry->edit && !isNavigationKey(key.key()) && held != Qt::AltModifier) {
                key.accept();
            }
            return false;
        }
        if (screenKey(key)) {
            return true;
        }
        // An editable combo hands its keys to its line edit itself: they are
        // taken here, where the combo gets them first.
        if (entry->edit && (watched == entry->edit || watched == entry->combo)) {
            return editKey(*entry, key);
        }
        if (entry->list && watched == entry->list) {
            return listKey(*entry, key);
        }
        if (watched == entry->widget && qobject_cast<QAbstractButton*>(entry->widget)) {
            return buttonKey(*entry, key);
        }
        return false;
    }
    case QEvent::KeyRelease: {
        // A button pressed by its key has been handled at the press.
        Entry* entry = entryOfWidget(watched);
        return entry && watched == entry->widget && qobject_cast<QAbstractButton*>(entry->widget)
            && static_cast<QKeyEvent*>(event)->key() == Qt::Key_Space;
    }
    case QEvent::FocusIn: {
        const auto reason = static_cast<QFocusEvent*>(event)->reason();
        Entry* entry = entryOfWidget(watched);
        if (!m_mirroring && entry && watched == entry->widget && (reason == Qt::TabFocusReason || reason == Qt::BacktabFocusReason)
            && m_screen.canReach(*entry->control)) {
            m_screen.moveFocus(entry->control);
            if (m_screen.focus() == entry->control) {
                m_screen.operatorTabbedInto(*entry->control);
            }
        }
        return false;
    }
    case QEvent::DragEnter:
    case QEvent::DragMove:
    case QEvent::Drop: {
        Entry* entry = entryOfWidget(watched);
        if (entry && entry->list && watched == entry->list->viewport()) {
            return dropEvent(*entry, *event);
        }
        return false;
    }
    case QEvent::ContextMenu:
        return true; // no control of the screen has a menu of its own
    default:
        return false;
    }
}

bool ScreenView::screenKey(QKeyEvent& event)
{
    // Keys of the whole screen, wherever the focus is: the help page, and the
    // pop-up menu that the right button opens.
    const auto modifiers = event.modifiers() & (Qt::ShiftModifier | Qt::ControlModifier | Qt::AltModifier | Qt::MetaModifier);
    if (event.key() == Qt::Key_F1 && !modifiers) {
        m_screen.operatorHelpKey();
        return true;
    }
    if ((event.key() == Qt::Key_F10 && modifiers == Qt::ShiftModifier) || (event.key() == Qt::Key_Menu && !modifiers)) {
        m_screen.operatorMenuKey();
        return true;
    }
    return false;
}

bool ScreenView::mousePress(Entry* entry, QObject* watched, QMouseEvent& event)
{
    if (!m_screen.userControlEnabled()) {
        return true;
    }
    Control* target = &m_screen.receiverOfPress(*entry->control);
    if (target != entry->control) {
        m_screen.operatorMouseDown(*target, buttonNumber(event.button()));
        return true;
    }
    switch (target->kind()) {
    case ControlKind::ListBox:
        if (watched == entry->list->viewport()) {
            return listMouse(*entry, event);
        }
        return event.button() != Qt::LeftButton; // its scroll bar
    case ControlKind::Frame:
    case ControlKind::Label:
        m_screen.operatorMouseDown(*target, buttonNumber(event.button()));
        return true;
    default:
        // Buttons, options, text boxes and combos take the left button as the
        // platform does (click, caret, drop-down); the others do nothing there.
        return event.button() != Qt::LeftButton;
    }
}

bool ScreenView::listMouse(Entry& entry, QEvent& event)
{
    auto& mouse = static_cast<QMouseEvent&>(event);
    Control& list = *entry.control;
    const QPoint at = mouse.position().toPoint();
    const auto rowAt = [&] {
        const int row = entry.list->indexAt(at).row();
        return static_cast<std::int16_t>(row >= 0 && row < list.listCount() ? row : -1);
    };
    switch (event.type()) {
    case QEvent::MouseButtonPress:
        m_press = Press{&list, at, mouse.button() == Qt::LeftButton};
        m_screen.operatorListPress(list, buttonNumber(mouse.button()), rowAt());
        return true;
    case QEvent::MouseButtonDblClick:
        m_press = Press{};
        if (mouse.button() == Qt::LeftButton) {
            m_screen.operatorListDoubleClick(list, rowAt());
        } else {
            m_screen.operatorListPress(list, buttonNumber(mouse.button()), rowAt());
        }
        return true;
    case QEvent::MouseMove:
        if (m_press.pending && m_press.list == &list && (mouse.buttons() & Qt::LeftButton)
            && (at - m_press.at).manhattanLength() >= QApplication::startDragDistance()) {
            m_press.pending = false;
            if (m_screen.operatorListDragStart(list)) {
                startDrag(entry);
            }
        }
        return mouse.buttons() != Qt::NoButton;
    case QEvent::MouseButtonRelease:
        if (m_press.pending && m_press.list == &list && mouse.button() == Qt::LeftButton && m_screen.canReach(list)) {
            m_screen.operatorListRelease(list);
        }
        m_press = Press{};
        return true;
    default:
        return false;
    }
}

void ScreenView::startDrag(Entry& entry)
{
    auto* drag = new QDrag(entry.list);
    auto* mime = new QMimeData;
    mime->setData(QString::fromLatin1(kDragFormat), QByteArray::fromStdString(entry.control->name()));
    drag->setMimeData(mime);
    drag->setPixmap(Pictures::dragPicture(devicePixelRatioF()));
    drag->setHotSpot(QPoint(16, 16));
    const QPointer<QDrag> guard(drag);
    if (m_runDrag) {
        m_runDrag(*drag);
    } else {
        drag->exec(Qt::MoveAction);
    }
    if (guard) {
        guard->deleteLater();
    }
    // Released anywhere but over a list: the drag ends with nothing dropped.
    m_screen.cancelDrag();
}

bool ScreenView::dropEvent(Entry& entry, QEvent& event)
{
    auto& drop = static_cast<QDropEvent&>(event);
    const bool ours = drop.mimeData() && drop.mimeData()->hasFormat(QString::fromLatin1(kDragFormat));
    if (!ours || !m_screen.canReach(*entry.control) || !m_screen.dragSource()) {
        drop.ignore();
        return true;
    }
    drop.acceptProposedAction();
    if (event.type() == QEvent::Drop) {
        m_screen.drop(*entry.control);
    }
    return true;
}

bool ScreenView::listKey(Entry& entry, QKeyEvent& event)
{
    const auto key = modelKey(event);
    if (!key) {
        return event.key() != Qt::Key_Tab && event.key() != Qt::Key_Backtab;
    }
    if (m_screen.canReach(*entry.control)) {
        const int rowHeight = std::max(1, entry.list->sizeHintForRow(0));
        m_screen.operatorKeyDown(*entry.control, *key, static_cast<std::int16_t>(std::max(1, entry.list->viewport()->height() / rowHeight)));
    }
    return true;
}

bool ScreenView::buttonKey(Entry& entry, QKeyEvent& event)
{
    const auto key = modelKey(event);
    if (!key || !m_screen.canReach(*entry.control)) {
        return false;
    }
    if (event.isAutoRepeat() && (*key == ScreenModel::Key::Enter || *key == ScreenModel::Key::Space)) {
        // One press, one click: an Enter still held after it closed a message
        // box must not go on to press the button that then has the focus.
        return true;
    }
    const bool taken = m_screen.operatorKeyDown(*entry.control, *key);
    resyncButtons(*entry.control);
    return taken;
}

bool ScreenView::editKey(Entry& entry, QKeyEvent& event)
{
    Control& control = *entry.control;
    QLineEdit& edit = *entry.edit;
    if (isNavigationKey(event.key())) {
        return false;
    }
    if (!m_screen.canReach(control)) {
        return true;
    }
    // The edit shows the model's selection after each key: a replacement that
    // leaves the text as it was must not leave the old selection standing.
    const auto syncSelection = [&] {
        if (control.allSelected()) {
            edit.selectAll();
        } else if (edit.hasSelectedText()) {
            edit.deselect();
            edit.setCursorPosition(static_cast<int>(edit.text().size()));
        }
    };
    if (event.matches(QKeySequence::Paste)) {
        control.operatorPaste(QApplication::clipboard()->text().toStdString());
        syncText(entry);
        syncSelection();
        return true;
    }
    if (event.matches(QKeySequence::SelectAll)) {
        edit.selectAll();
        return true;
    }
    for (const std::int16_t code : keyCodes(event)) {
        // The model knows a whole-text selection only; the edit's tells it.
        if (edit.hasSelectedText() && edit.selectedText() == edit.text()) {
            control.operatorSelectAll();
        } else {
            control.operatorDeselect();
        }
        control.operatorKey(code);
        syncText(entry);
        syncSelection();
    }
    return true;
}
