// The screen model mirrored into the widgets: every change the model announces
// becomes the widget's state, with the widgets' own signals blocked so that a
// mirrored change never comes back to the model as operator input.

#include "ScreenView.h"

#include <QApplication>
#include <QButtonGroup>
#include <QComboBox>
#include <QLineEdit>
#include <QListView>
#include <QPushButton>
#include <QRadioButton>
#include <QSignalBlocker>

#include "FocusMark.h"
#include "ScreenListModel.h"
#include "ScopedFlag.h"

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
        if (entry.control->enabled() && m_screen.focus() == entry.control) {
            focusChanged(entry.control);
        }
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
    // The current line may be one the item model has not announced yet.
    if (entry.model) {
        entry.model->publishAppended();
    }
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
    syncTabStops(*entry.control);
}

void ScreenView::syncTabStops(const Control& option)
{
    // Tab enters a group where the model says; a click reaches any option. The
    // toolkit itself passes over what is disabled or hidden.
    for (Entry& other : m_entries) {
        if (other.widget && other.control->kind() == ControlKind::OptionButton && other.control->container() == option.container()) {
            other.widget->setFocusPolicy(m_screen.tabEntersAt(*other.control) ? Qt::StrongFocus : Qt::ClickFocus);
        }
    }
}

void ScreenView::syncWaitState()
{
    ScopedFlag mirroring(m_mirroring);
    setEnabled(m_screen.userControlEnabled());
    if (m_screen.userControlEnabled()) {
        // The toolkit takes the focus off a disabled widget, where the model
        // keeps it (or moved it meanwhile): it comes back with the screen.
        focusChanged(m_screen.focus());
    }
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
        // The focus left the screen's controls; one the view gave back while a
        // LostFocus handler ran (the wait state) must leave too.
        if (QWidget* now = QApplication::focusWidget(); now && isAncestorOf(now)) {
            ScopedFlag mirroring(m_mirroring);
            now->clearFocus();
        }
        return;
    }
    if (Entry* entry = entryOf(*focus); entry && entry->widget && !entry->widget->hasFocus() && entry->widget->isEnabled()) {
        ScopedFlag mirroring(m_mirroring);
        entry->widget->setFocus(Qt::OtherFocusReason);
    }
}

void ScreenView::waitStateChanged()
{
    syncWaitState();
}
