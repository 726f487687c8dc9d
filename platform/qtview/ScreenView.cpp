#include "ScreenView.h"

#include <algorithm>
#include <cmath>

#include <QApplication>
#include <QButtonGroup>
#include <QComboBox>
#include <QFontDatabase>
#include <QGroupBox>
#include <QItemSelectionModel>
#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QPushButton>
#include <QRadioButton>
#include <QScreen>
#include <QStyle>
#include <QStyledItemDelegate>

#include "FocusMark.h"
#include "Pictures.h"
#include "ScreenListModel.h"

namespace {

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
    font.setPointSizeF(ScreenView::kDesignPointSize);
    return font;
}

QFont fixedPitchFont(qreal pointSize)
{
    // A family known to be fixed pitch, before the system's choice, which
    // fontconfig may resolve to a font that does not say it is.
    QFont font = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    for (const char* family : {"Courier New", "DejaVu Sans Mono", "Liberation Mono"}) {
        if (QFontDatabase::hasFamily(QString::fromLatin1(family))) {
            font = QFont(QString::fromLatin1(family));
            break;
        }
    }
    font.setStyleHint(QFont::TypeWriter);
    font.setPointSizeF(pointSize);
    return font;
}

int wholeDevicePixels(qreal ratio)
{
    for (int step = 1; step < 8; ++step) {
        const qreal device = step * ratio;
        if (std::abs(device - std::round(device)) < 1e-3) {
            return step;
        }
    }
    return 1; // a ratio with no small whole multiple: edges are left to the style
}

} // namespace

ScreenView::ScreenView(ScreenModel& screen, QWidget* parent)
    : QWidget(parent)
    , m_screen(screen)
{
    build();
    m_focusMark = new FocusMark(this);
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
    chooseScale();
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
            const ControlRow& spec = entry.control->row();
            if (!entry.widget->testAttribute(Qt::WA_SetFont)) {
                // Set on each widget: a frame's style sheet would otherwise give
                // its options the application's font.
                entry.widget->setFont(font());
            }
            entry.widget->setGeometry(toPixels(spec.left), toPixels(spec.top), toPixels(spec.width), toPixels(spec.height));
            if (qobject_cast<QLabel*>(entry.widget) || qobject_cast<QRadioButton*>(entry.widget)) {
                // A caption wider or taller in this font than in the one drawn for
                // runs on rather than being cut; it stays centred on its row.
                const QSize hint = entry.widget->sizeHint();
                QRect place = entry.widget->geometry();
                place.setWidth(std::max(place.width(), hint.width()));
                if (hint.height() > place.height()) {
                    place.adjust(0, -(hint.height() - place.height()) / 2, 0, 0);
                    place.setHeight(hint.height());
                }
                entry.widget->setGeometry(place);
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

void ScreenView::chooseScale()
{
    // The table was drawn at 15 twips a pixel for a font 13 pixels high, the
    // height of its smallest rows (options and labels, 195 twips). A taller
    // font, or a taller option circle, spreads the whole table in proportion.
    QFont screen = screenFont(font());
    const auto needed = [this](const QFont& f) {
        return std::max(QFontMetrics(f).height(), style()->pixelMetric(QStyle::PM_ExclusiveIndicatorHeight)) / 13.0;
    };
    double scale = std::max(1.0, needed(screen));
    // Nothing may leave the screen: room is kept for the window's title, frame
    // and status line, and where the screen is too small the table and its
    // font shrink together.
    // The window's bars shrink with the table (see shrink()): their room is
    // counted at the scale the table gets.
    if (const QScreen* where = QWidget::screen()) {
        m_step = wholeDevicePixels(where->devicePixelRatio());
        const QRect room = where->availableGeometry();
        const double fit = std::min((room.width() - kWindowChrome.width()) * 15.0 / ScreenTable::kDesignWidth,
            room.height() / (ScreenTable::kDesignHeight / 15.0 + kWindowChrome.height() / scale));
        if (fit < scale) {
            screen.setPointSizeF(screen.pointSizeF() * fit / scale);
            scale = fit;
        }
    }
    m_scale = scale;
    setFont(screen);
}

QWidget* ScreenView::makeWidget(Entry& entry, QWidget* parent)
{
    const Control& control = *entry.control;
    const ControlRow& spec = control.row();
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
        // The frame is one pixel, drawn like the frames' lines. At a fractional
        // scale factor it ends between two device pixels, and the viewport and
        // scroll bars inside it, rounded outwards to whole device pixels, would
        // paint over it: a pixel of padding keeps them off the line, filled
        // with the list's own background.
        list->setStyleSheet(QStringLiteral("QListView { border: 1px solid palette(mid); padding: %1px; }").arg(m_step > 1 ? 1 : 0));
        list->setBackgroundRole(QPalette::Base);
        list->setAutoFillBackground(true);
        if (initial.fixedFont) {
            list->setFont(fixedPitchFont(font().pointSizeF()));
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

void ScreenView::attachListModel(Entry& entry)
{
    entry.model = new ScreenListModel(m_screen, *entry.control, entry.list);
    entry.list->setModel(entry.model);
    // The list view makes a line current on its own when it takes the focus;
    // the current line is the model's ListIndex alone, so it goes back at once.
    // The mirrored changes come with the selection model's signals blocked.
    const Control* control = entry.control;
    connect(entry.list->selectionModel(), &QItemSelectionModel::currentChanged, this, [this, control] {
        if (Entry* e = entryOf(*control)) {
            syncListIndex(*e);
        }
    });
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
