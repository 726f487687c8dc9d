#include "ScreenView.h"

#include <algorithm>

#include <QApplication>
#include <QButtonGroup>
#include <QClipboard>
#include <QComboBox>
#include <QDrag>
#include <QFontDatabase>
#include <QGroupBox>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QMimeData>
#include <QMouseEvent>
#include <QPointer>
#include <QPushButton>
#include <QRadioButton>
#include <QSignalBlocker>
#include <QStyledItemDelegate>

#include "Pictures.h"
#include "ScreenListModel.h"

namespace {

constexpr auto kDragFormat = "application/x-calvarine-list";

// Selection is the Selected state of the screen model's entries, painted by
// the delegate; the view's own selection model stays empty, so nothing the view
// does on its own can select an entry.
class SelectedStateDelegate final : public QStyledItemDelegate {
public:
    using QStyledItemDelegate::QStyledItemDelegate;

protected:
    void initStyleOption(QStyleOptionViewItem* option, const QModelIndex& index) const override
    {
        QStyledItemDelegate::initStyleOption(option, index);
        option->state.setFlag(QStyle::State_Selected, index.data(ScreenListModel::SelectedRole).toBool());
    }
};

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

// The screen was drawn for a narrow sans-serif of 8.25 points; the first of
// these the machine has keeps the captions within their places.
QFont screenFont(QFont font)
{
    for (const char* family : {"MS Sans Serif", "Microsoft Sans Serif", "Tahoma", "Liberation Sans", "Arial", "DejaVu Sans Condensed"}) {
        if (QFontDatabase::hasFamily(QString::fromLatin1(family))) {
            font.setFamily(QString::fromLatin1(family));
            break;
        }
    }
    font.setPointSizeF(8.25);
    return font;
}

QFont fixedPitchFont()
{
    QFont font = QFontDatabase::hasFamily(QStringLiteral("Courier New")) ? QFont(QStringLiteral("Courier New"))
                                                                         : QFontDatabase::systemFont(QFontDatabase::FixedFont);
    font.setStyleHint(QFont::TypeWriter);
    font.setPointSizeF(8.25);
    return font;
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

// Sets a flag for the length of a scope.
class ScopedFlag {
public:
    explicit ScopedFlag(bool& flag)
        : m_flag(flag)
        , m_was(flag)
    {
        m_flag = true;
    }
    ~ScopedFlag() { m_flag = m_was; }
    ScopedFlag(const ScopedFlag&) = delete;
    ScopedFlag& operator=(const ScopedFlag&) = delete;

private:
    bool& m_flag;
    bool m_was;
};

} // namespace

ScreenView::ScreenView(ScreenModel& screen, QWidget* parent)
    : QWidget(parent)
    , m_screen(screen)
{
    build();
    // Registered after the item models, so that the combos are re-mirrored once
    // their models have told them of a change.
    m_screen.addObserver(this);
    m_focusWatch = connect(qApp, &QApplication::focusChanged, this, [this](QWidget*, QWidget* now) { focusMoved(now); });
}

ScreenView::~ScreenView()
{
    // ~QWidget still moves the focus about, when this is no view any more.
    disconnect(m_focusWatch);
    m_screen.removeObserver(this);
    if (m_waitCursor) {
        QApplication::restoreOverrideCursor();
    }
}

void ScreenView::build()
{
    setFont(screenFont(font()));
    setMinimumSize(toPixels(ScreenTable::kDesignWidth), toPixels(ScreenTable::kDesignHeight));
    setFocusPolicy(Qt::NoFocus);

    m_entries.resize(static_cast<std::size_t>(m_screen.count()));
    for (std::int16_t i = 0; i < m_screen.count(); ++i) {
        m_entries[static_cast<std::size_t>(i)].control = &m_screen.at(i);
        m_byControl.emplace(&m_screen.at(i), static_cast<std::size_t>(i));
    }
    // Frames first: the controls in a frame stand on its widget.
    for (const bool framesPass : {true, false}) {
        for (Entry& entry : m_entries) {
            if ((entry.control->kind() == ControlKind::Frame) != framesPass) {
                continue;
            }
            QWidget* parent = this;
            if (const Control* frame = entry.control->container(); frame && frame->kind() == ControlKind::Frame) {
                parent = entryOf(*frame)->widget;
            }
            entry.widget = makeWidget(entry, parent);
            if (!entry.widget) {
                continue;
            }
            const ControlSpec& spec = entry.control->spec();
            if (!entry.widget->testAttribute(Qt::WA_SetFont)) {
                // Set on each widget: a frame's style sheet would otherwise give
                // its options the application's font.
                entry.widget->setFont(font());
            }
            entry.widget->setGeometry(toPixels(spec.left), toPixels(spec.top), toPixels(spec.width), toPixels(spec.height));
            if (qobject_cast<QLabel*>(entry.widget)) {
                // A caption wider in this font than in the one drawn for runs on
                // rather than being cut.
                entry.widget->resize(std::max(entry.widget->width(), entry.widget->sizeHint().width()), entry.widget->height());
            }
            entry.widget->setObjectName(QString::fromStdString(entry.control->name()));
            m_byWidget.emplace(entry.widget, static_cast<std::size_t>(&entry - m_entries.data()));
        }
    }

    QWidget* previous = nullptr;
    for (Entry& entry : m_entries) { // the table is in TabIndex order
        if (!entry.widget) {
            continue;
        }
        connectInput(entry);
        entry.widget->installEventFilter(this);
        for (QWidget* inner : entry.widget->findChildren<QWidget*>(Qt::FindDirectChildrenOnly)) {
            if (!m_byWidget.contains(inner)) {
                inner->installEventFilter(this);
            }
        }
        if (entry.widget->focusPolicy() != Qt::NoFocus) {
            if (previous) {
                setTabOrder(previous, entry.widget);
            }
            previous = entry.widget;
        }
        syncAll(entry);
    }
    syncWaitState();
}

QWidget* ScreenView::makeWidget(Entry& entry, QWidget* parent)
{
    const Control& control = *entry.control;
    const ControlSpec& spec = control.spec();
    const InitialValues initial = initialValues(spec);
    const QString caption = QString::fromUtf8(spec.caption.data(), static_cast<qsizetype>(spec.caption.size()));

    auto setUpEdit = [](QLineEdit* edit) {
        // Every edit goes through the screen model; the line edit offers none of
        // its own (menu, drops, input method composition).
        edit->setContextMenuPolicy(Qt::NoContextMenu);
        edit->setAcceptDrops(false);
        edit->setAttribute(Qt::WA_InputMethodEnabled, false);
    };

    switch (control.kind()) {
    case ControlKind::TextBox: {
        auto* edit = new QLineEdit(parent);
        setUpEdit(edit);
        entry.edit = edit;
        return edit;
    }
    case ControlKind::ComboBox: {
        auto* combo = new QComboBox(parent);
        entry.model = new ScreenListModel(m_screen, control, combo);
        // A drop-down list (style 2) takes no text; the others are editable.
        if (initial.style != 2) {
            combo->setEditable(true);
            combo->setInsertPolicy(QComboBox::NoInsert);
            combo->setCompleter(nullptr);
            setUpEdit(combo->lineEdit());
            entry.edit = combo->lineEdit();
        }
        combo->setModel(entry.model);
        combo->setMaxVisibleItems(20);
        entry.combo = combo;
        return combo;
    }
    case ControlKind::ListBox: {
        auto* list = new QListView(parent);
        list->setUniformItemSizes(true);
        list->setSelectionMode(QAbstractItemView::NoSelection);
        list->setEditTriggers(QAbstractItemView::NoEditTriggers);
        list->setTextElideMode(Qt::ElideNone);
        list->setItemDelegate(new SelectedStateDelegate(list));
        list->setAcceptDrops(true);
        list->setContextMenuPolicy(Qt::NoContextMenu);
        if (initial.fixedFont) {
            list->setFont(fixedPitchFont());
        }
        entry.list = list;
        // A hidden list (the code lists) gets its item model once it shows: until
        // then it would only double the cost of filling the pair.
        if (control.visible()) {
            attachListModel(entry);
        }
        return list;
    }
    case ControlKind::CommandButton: {
        auto* button = new QPushButton(caption, parent);
        button->setAutoDefault(false);
        if (initial.hasPicture) {
            const auto direction = control.name() == "Cmd_PasseGauche" ? Pictures::Arrow::Up : Pictures::Arrow::Down;
            button->setIcon(QIcon(Pictures::arrow(direction, devicePixelRatioF())));
            button->setIconSize(QSize(16, 16));
        }
        return button;
    }
    case ControlKind::OptionButton: {
        auto* option = new QRadioButton(caption, parent);
        if (const Control* frame = control.container()) {
            if (Entry* frameEntry = entryOf(*frame); frameEntry && frameEntry->group) {
                frameEntry->group->addButton(option);
            }
        }
        return option;
    }
    case ControlKind::Frame: {
        auto* frame = new QGroupBox(caption, parent);
        // The caption sits on the frame's line, as the table's positions expect.
        frame->setStyleSheet(QStringLiteral("QGroupBox { border: 1px solid palette(mid); margin-top: 6px; }"
                                            "QGroupBox::title { subcontrol-origin: margin; left: 6px; padding: 0 2px; }"));
        entry.group = new QButtonGroup(frame);
        entry.group->setExclusive(true);
        return frame;
    }
    case ControlKind::Label: {
        auto* label = new QLabel(caption, parent);
        label->setAlignment(Qt::AlignLeft | Qt::AlignTop);
        return label;
    }
    case ControlKind::Sibling:
    case ControlKind::MenuEntry:
    case ControlKind::UserControl:
        return nullptr;
    }
    return nullptr;
}

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
            if (Entry* e = entryOf(*control)) {
                syncAll(*e);
                if (const Control* frame = control->container(); frame && control->kind() == ControlKind::OptionButton) {
                    for (Entry& other : m_entries) {
                        if (other.control->container() == frame) {
                            syncValue(other);
                        }
                    }
                }
            }
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

void ScreenView::attachListModel(Entry& entry)
{
    entry.model = new ScreenListModel(m_screen, *entry.control, entry.list);
    entry.list->setModel(entry.model);
    // The view must hear of changes after the item models do.
    const auto& observers = m_screen.observers();
    if (std::find(observers.begin(), observers.end(), static_cast<ScreenObserver*>(this)) != observers.end()) {
        m_screen.removeObserver(this);
        m_screen.addObserver(this);
    }
}

ScreenView::Entry* ScreenView::entryOf(const Control& control)
{
    const auto it = m_byControl.find(&control);
    return it == m_byControl.end() ? nullptr : &m_entries[it->second];
}

ScreenView::Entry* ScreenView::entryOfWidget(const QObject* object)
{
    for (; object && object != this; object = object->parent()) {
        if (const auto it = m_byWidget.find(object); it != m_byWidget.end()) {
            return &m_entries[it->second];
        }
    }
    return nullptr;
}

QWidget* ScreenView::widget(std::string_view name) const
{
    for (const Entry& entry : m_entries) {
        if (entry.control->name() == name) {
            return entry.widget;
        }
    }
    return nullptr;
}

ScreenListModel* ScreenView::listModel(std::string_view name) const
{
    for (const Entry& entry : m_entries) {
        if (entry.control->name() == name) {
            return entry.model;
        }
    }
    return nullptr;
}

// Mirroring: model → widgets.

void ScreenView::syncAll(Entry& entry)
{
    ScopedFlag mirroring(m_mirroring);
    entry.widget->setEnabled(entry.control->enabled());
    entry.widget->setHidden(!entry.control->visible());
    syncText(entry);
    syncListIndex(entry);
    syncValue(entry);
}

void ScreenView::sync(Entry& entry, Property property)
{
    // A widget disabled or hidden while it holds the focus hands it on: that is
    // the toolkit's doing, not the operator's, so it must not reach the model.
    ScopedFlag mirroring(m_mirroring);
    switch (property) {
    case Property::Enabled:
        entry.widget->setEnabled(entry.control->enabled());
        break;
    case Property::Visible:
        if (entry.list && !entry.model && entry.control->visible()) {
            attachListModel(entry);
        }
        entry.widget->setHidden(!entry.control->visible());
        break;
    case Property::Text:
        syncText(entry);
        break;
    case Property::Value:
        syncValue(entry);
        break;
    case Property::ListIndex:
        syncListIndex(entry);
        break;
    case Property::Selected:
    case Property::ItemData:
    case Property::List:
        // The item model repaints; a combo may have put an entry's text back in
        // its edit meanwhile.
        if (entry.combo) {
            syncListIndex(entry);
        }
        break;
    }
}

void ScreenView::syncText(Entry& entry)
{
    if (!entry.edit) {
        return;
    }
    const QString text = QString::fromStdString(entry.control->text());
    if (entry.edit->text() != text) {
        const QSignalBlocker blockEdit(entry.edit);
        entry.edit->setText(text);
    }
}

void ScreenView::syncListIndex(Entry& entry)
{
    const int index = entry.control->listIndex();
    if (entry.combo) {
        const QSignalBlocker blockCombo(entry.combo);
        if (entry.combo->currentIndex() != index) {
            entry.combo->setCurrentIndex(index);
        }
        syncText(entry);
    } else if (entry.list && entry.model) {
        const QModelIndex current = entry.model->index(index);
        if (entry.list->currentIndex() != current) {
            const QSignalBlocker blockSelection(entry.list->selectionModel());
            entry.list->setCurrentIndex(current);
            if (current.isValid()) {
                entry.list->scrollTo(current);
            }
        }
    }
}

void ScreenView::syncValue(Entry& entry)
{
    auto* option = qobject_cast<QRadioButton*>(entry.widget);
    if (!option || option->isChecked() == entry.control->value()) {
        return;
    }
    const QSignalBlocker blockOption(option);
    // An exclusive group cannot show none set, which the model allows.
    QButtonGroup* group = option->group();
    if (group) {
        group->setExclusive(false);
    }
    option->setChecked(entry.control->value());
    if (group) {
        group->setExclusive(true);
    }
}

void ScreenView::syncWaitState()
{
    ScopedFlag mirroring(m_mirroring);
    setEnabled(m_screen.userControlEnabled());
    const bool wait = m_screen.mousePointer() == 11;
    if (wait != m_waitCursor) {
        m_waitCursor = wait;
        if (wait) {
            QApplication::setOverrideCursor(Qt::WaitCursor);
        } else {
            QApplication::restoreOverrideCursor();
        }
    }
}

void ScreenView::propertyChanged(const Control& control, Property property)
{
    if (Entry* entry = entryOf(control); entry && entry->widget) {
        sync(*entry, property);
    }
}

void ScreenView::itemInserted(const Control& control, std::int16_t)
{
    // A combo picks an entry of its own when its first one arrives; a list
    // view's current index follows insertions as the model's ListIndex does.
    if (control.kind() == ControlKind::ComboBox) {
        if (Entry* entry = entryOf(control)) {
            syncListIndex(*entry);
        }
    }
}

void ScreenView::itemRemoved(const Control& control, std::int16_t)
{
    if (Entry* entry = entryOf(control); entry && entry->widget) {
        syncListIndex(*entry);
    }
}

void ScreenView::listCleared(const Control& control)
{
    if (Entry* entry = entryOf(control); entry && entry->widget) {
        syncListIndex(*entry);
    }
}

void ScreenView::focusChanged(const Control* focus)
{
    if (!focus) {
        return;
    }
    if (Entry* entry = entryOf(*focus); entry && entry->widget) {
        ScopedFlag mirroring(m_mirroring);
        entry->widget->setFocus(Qt::OtherFocusReason);
    }
}

void ScreenView::waitStateChanged()
{
    syncWaitState();
}

// Input: operator → model.

void ScreenView::focusMoved(QWidget* now)
{
    if (m_mirroring || !now || !isAncestorOf(now)) {
        return; // a dialog or another window took it: no control lost it
    }
    Entry* entry = entryOfWidget(now);
    if (entry && m_screen.canReach(*entry->control)) {
        m_screen.moveFocus(entry->control);
    }
}

Control* ScreenView::receiverOfPress(Control* control) const
{
    // A control that cannot take the mouse leaves the press to what holds it.
    for (Control* c = control; c; c = c->container()) {
        if (c->enabled() && c->visible()) {
            return c;
        }
    }
    return &m_screen.userControl();
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
    case QEvent::KeyPress: {
        Entry* entry = entryOfWidget(watched);
        if (!entry) {
            return false;
        }
        auto& key = *static_cast<QKeyEvent*>(event);
        if (entry->edit && watched == entry->edit) {
            return editKey(*entry, key);
        }
        if (entry->list && watched == entry->list) {
            return listKey(*entry, key);
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

bool ScreenView::mousePress(Entry* entry, QObject* watched, QMouseEvent& event)
{
    if (!m_screen.userControlEnabled()) {
        return true;
    }
    Control* target = receiverOfPress(entry->control);
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
    switch (event.type()) {
    case QEvent::MouseButtonPress: {
        const std::int16_t button = buttonNumber(mouse.button());
        m_press = Press{&list, at, entry.list->indexAt(at).row(), button == 1};
        m_screen.operatorMouseDown(list, button); // its handler may arm a drag
        if (button != 1) {
            m_screen.cancelDrag();
        }
        return true;
    }
    case QEvent::MouseButtonDblClick: {
        m_press.pending = false;
        const int row = entry.list->indexAt(at).row();
        if (mouse.button() == Qt::LeftButton && row >= 0 && row < list.listCount()) {
            m_screen.operatorDblClickList(list, static_cast<std::int16_t>(row));
        } else {
            m_screen.operatorMouseDown(list, buttonNumber(mouse.button()));
            m_screen.cancelDrag();
        }
        return true;
    }
    case QEvent::MouseMove:
        if (m_press.pending && m_press.list == &list && (mouse.buttons() & Qt::LeftButton)
            && (at - m_press.at).manhattanLength() >= QApplication::startDragDistance()) {
            m_press.pending = false;
            if (m_screen.dragSource() == &list) {
                startDrag(entry);
            }
        }
        return mouse.buttons() != Qt::NoButton;
    case QEvent::MouseButtonRelease: {
        if (!m_press.pending || m_press.list != &list || mouse.button() != Qt::LeftButton) {
            return true;
        }
        // Pressed and released without a drag: the rest of a click. MouseDown
        // was raised at the press already.
        m_press.pending = false;
        m_screen.cancelDrag();
        const int row = m_press.row;
        if (row >= 0 && row < list.listCount() && m_screen.canReach(list)) {
            const auto index = static_cast<std::int16_t>(row);
            list.setSelected(index, !list.selected(index));
            list.setListIndex(index);
        }
        return true;
    }
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
    Control& list = *entry.control;
    if (event.key() == Qt::Key_Tab || event.key() == Qt::Key_Backtab) {
        return false;
    }
    if (!m_screen.canReach(list) || list.listCount() == 0) {
        return true;
    }
    const int last = list.listCount() - 1;
    const int current = list.listIndex();
    int next = current;
    switch (event.key()) {
    case Qt::Key_Up:
        next = std::max(0, current - 1);
        break;
    case Qt::Key_Down:
        next = std::min(last, current + 1);
        break;
    case Qt::Key_Home:
        next = 0;
        break;
    case Qt::Key_End:
        next = last;
        break;
    case Qt::Key_Space:
        if (current >= 0) {
            list.setSelected(list.listIndex(), !list.selected(list.listIndex()));
        }
        return true;
    default:
        return true;
    }
    list.setListIndex(static_cast<std::int16_t>(next));
    return true;
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
    if (event.matches(QKeySequence::Paste)) {
        control.operatorPaste(QApplication::clipboard()->text().toStdString());
        syncText(entry);
        return true;
    }
    if (event.matches(QKeySequence::SelectAll)) {
        edit.selectAll();
        return true;
    }
    std::vector<std::int16_t> codes;
    switch (event.key()) {
    case Qt::Key_Return:
    case Qt::Key_Enter:
        codes.push_back(13);
        break;
    case Qt::Key_Backspace:
        codes.push_back(8);
        break;
    case Qt::Key_Escape:
        codes.push_back(27);
        break;
    default:
        if (!(event.modifiers() & (Qt::ControlModifier | Qt::AltModifier | Qt::MetaModifier))) {
            for (const char32_t code : event.text().toUcs4()) {
                if (code >= 0x20 && code <= 0x7FFF && code != 0x7F) {
                    codes.push_back(static_cast<std::int16_t>(code));
                }
            }
        }
        break;
    }
    for (const std::int16_t code : codes) {
        // The model knows a whole-text selection only; the edit's tells it.
        if (edit.hasSelectedText() && edit.selectedText() == edit.text()) {
            control.operatorSelectAll();
        }
        control.operatorKey(code);
        syncText(entry);
    }
    return true;
}
