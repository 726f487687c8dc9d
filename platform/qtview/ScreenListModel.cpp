#include "ScreenListModel.h"

ScreenListModel::ScreenListModel(ScreenModel& screen, const Control& list, QObject* parent)
    : QAbstractListModel(parent)
    , m_screen(screen)
    , m_list(list)
{
    m_screen.addObserver(this);
}

ScreenListModel::~ScreenListModel()
{
    m_screen.removeObserver(this);
}

int ScreenListModel::rowCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : m_list.listCount();
}

QVariant ScreenListModel::data(const QModelIndex& index, int role) const
{
    if (!index.isValid() || index.parent().isValid() || index.column() != 0 || index.row() >= m_list.listCount()) {
        return {};
    }
    const auto row = static_cast<std::int16_t>(index.row());
    switch (role) {
    case Qt::DisplayRole:
    case Qt::EditRole:
        return QString::fromStdString(m_list.list(row));
    case Qt::UserRole:
        return m_list.itemData(row);
    case SelectedRole:
        return m_list.selected(row);
    default:
        return {};
    }
}

Qt::ItemFlags ScreenListModel::flags(const QModelIndex& index) const
{
    if (!index.isValid()) {
        return Qt::NoItemFlags;
    }
    // Selectable so that a combo box's drop-down lets the operator pick the entry.
    return Qt::ItemIsEnabled | Qt::ItemIsSelectable | Qt::ItemNeverHasChildren;
}

void ScreenListModel::itemAboutToBeInserted(const Control& control, std::int16_t index)
{
    if (&control == &m_list) {
        beginInsertRows({}, index, index);
    }
}

void ScreenListModel::itemInserted(const Control& control, std::int16_t)
{
    if (&control == &m_list) {
        endInsertRows();
    }
}

void ScreenListModel::itemAboutToBeRemoved(const Control& control, std::int16_t index)
{
    if (&control == &m_list) {
        beginRemoveRows({}, index, index);
    }
}

void ScreenListModel::itemRemoved(const Control& control, std::int16_t)
{
    if (&control == &m_list) {
        endRemoveRows();
    }
}

void ScreenListModel::listAboutToBeCleared(const Control& control)
{
    if (&control == &m_list) {
        beginResetModel();
    }
}

void ScreenListModel::listCleared(const Control& control)
{
    if (&control == &m_list) {
        endResetModel();
    }
}

void ScreenListModel::propertyChanged(const Control& control, Property property)
{
    if (&control != &m_list || m_list.listCount() == 0) {
        return;
    }
    // The screen model does not say which entry changed; the views repaint only
    // what shows, so one signal over the whole range costs little.
    switch (property) {
    case Property::Selected:
        emit dataChanged(index(0), index(m_list.listCount() - 1), {SelectedRole});
        break;
    case Property::ItemData:
        emit dataChanged(index(0), index(m_list.listCount() - 1), {Qt::UserRole});
        break;
    case Property::List:
        emit dataChanged(index(0), index(m_list.listCount() - 1), {Qt::DisplayRole, Qt::EditRole});
        break;
    default:
        break;
    }
}
