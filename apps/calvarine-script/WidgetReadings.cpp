#include "WidgetGestures.h"

// What the expectations read in the Qt pass: the widgets' own state, so that a
// view that fails to mirror the model fails the scenario. A list that has never
// shown has no item model yet: its entries are read from the model.

#include <QApplication>
#include <QComboBox>
#include <QCursor>
#include <QLineEdit>
#include <QListView>
#include <QRadioButton>

#include "ScreenListModel.h"
#include "ScreenView.h"

namespace script {

const QAbstractItemModel* WidgetGestures::itemsOf(const Control& c) const
{
    if (auto* combo = qobject_cast<QComboBox*>(widgetOf(c))) {
        return combo->model();
    }
    if (auto* list = listOf(c)) {
        return list->model();
    }
    return nullptr;
}

std::string WidgetGestures::text(const Control& c) const
{
    if (auto* edit = qobject_cast<QLineEdit*>(widgetOf(c))) {
        return edit->text().toStdString();
    }
    if (auto* combo = qobject_cast<QComboBox*>(widgetOf(c))) {
        return combo->currentText().toStdString();
    }
    return Gestures::text(c);
}

bool WidgetGestures::enabled(const Control& c) const
{
    // The control's own state, as the widget holds it: a widget is disabled
    // with its window too, which is UserControl's own.
    const QWidget* w = widgetOf(c);
    return w ? !w->testAttribute(Qt::WA_ForceDisabled) : Gestures::enabled(c);
}

bool WidgetGestures::visible(const Control& c) const
{
    const QWidget* w = widgetOf(c);
    return w ? !w->isHidden() : Gestures::visible(c);
}

bool WidgetGestures::value(const Control& c) const
{
    const auto* option = qobject_cast<QRadioButton*>(widgetOf(c));
    return option ? option->isChecked() : Gestures::value(c);
}

std::int16_t WidgetGestures::listIndex(const Control& c) const
{
    if (auto* combo = qobject_cast<QComboBox*>(widgetOf(c))) {
        return static_cast<std::int16_t>(combo->currentIndex());
    }
    if (auto* list = listOf(c); list && list->model()) {
        return static_cast<std::int16_t>(list->currentIndex().row());
    }
    return Gestures::listIndex(c);
}

std::int16_t WidgetGestures::listCount(const Control& c) const
{
    // A list that has never shown has no item model yet: its entries are the model's.
    const QAbstractItemModel* items = itemsOf(c);
    return items ? static_cast<std::int16_t>(items->rowCount()) : Gestures::listCount(c);
}

std::string WidgetGestures::item(const Control& c, std::int16_t i) const
{
    const QAbstractItemModel* items = itemsOf(c);
    return items ? items->index(i, 0).data().toString().toStdString() : Gestures::item(c, i);
}

bool WidgetGestures::selected(const Control& c, std::int16_t i) const
{
    const QAbstractItemModel* items = itemsOf(c);
    return items ? items->index(i, 0).data(ScreenListModel::SelectedRole).toBool() : Gestures::selected(c, i);
}

const Control* WidgetGestures::focus() const
{
    QWidget* w = QApplication::focusWidget();
    return w && m_view->isAncestorOf(w) ? m_view->controlOf(w) : nullptr;
}

std::int16_t WidgetGestures::mousePointer() const
{
    const QCursor* cursor = QApplication::overrideCursor();
    return cursor && cursor->shape() == Qt::WaitCursor ? 11 : 0;
}

} // namespace script
