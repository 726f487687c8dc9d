#include "ScreenListModel.h"

ScreenListModel::ScreenListModel(ScreenModel& screen, const Control& list, QObject* parent)
    : QAbstractListModel(parent)
    , m_screen(screen)
    , m_list(list)
    , m_rows(list.listCount())
{
    m_screen.addObserver(this);
}

ScreenListModel::~ScreenListModel()
{
    m_screen.removeObserver(this);
}

int ScreenListModel::rowCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : m_rows;
}

QVariant ScreenListModel::data(const QModelIndex& index, int role) const
{
    if (!index.isValid() || index.parent().isValid() || index.column() != 0 || index.row() >= m_rows) {
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

void ScreenListModel::publishAppended()
{
    const int count = m_list.listCount();
    if (m_rows >= count) {
        return;
    }
    beginInsertRows({}, m_rows, count - 1);
    m_rows = count;
    endInsertRows();
}

void ScreenListModel::itemAboutToBeInserted(const Control& control, std::int16_t index)
{
    if (&control != &m_list) {
        return;
    }
    if (index == m_list.listCount()) {
        // Rows already announced keep their places: the views hear of this
        // one with the others appended before the event loop turns again.
        m_appending = true;
        if (!m_publishPosted) {
            m_publishPosted = true;
            QMetaObject::invokeMethod(this, [this] {
                m_publishPosted = false;
                publishAppended();
            }, Qt::QueuedConnection);
        }
        return;
    }
    // Earlier appends first, so that index means the same on both sides.
    publishAppended();
    beginInsertRows({}, index, index);
}

void ScreenListModel::itemInserted(const Control& control, std::int16_t)
{
    if (&control != &m_list) {
        return;
    }
    if (m_appending) {
        m_appending = false;
        return;
    }
    ++m_rows;
    endInsertRows();
}

void ScreenListModel::itemAboutToBeRemoved(const Control& control, std::int16_t index)
{
    if (&control == &m_list) {
        publishAppended();
        beginRemoveRows({}, index, index);
    }
}

void ScreenListModel::itemRemoved(const Control& control, std::int16_t)
{
    if (&control == &m_list) {
        --m_rows;
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
        m_rows = 0;
        endResetModel();
    }
}

void ScreenListModel::propertyChanged(const Control& control, Property property)
{
    if (&control != &m_list) {
        return;
    }
    publishAppended();
    if (m_rows == 0) {
        return;
    }
    // The screen model does not say which entry changed; the views repaint only
    // what shows, so one signal over the whole range costs little.
    switch (property) {
    case Property::Selected:
        emit dataChanged(index(0), index(m_rows - 1), {SelectedRole});
        break;
    case Property::ItemData:
        emit dataChanged(index(0), index(m_rows - 1), {Qt::UserRole});
        break;
    case Property::List:
        emit dataChanged(index(0), index(m_rows - 1), {Qt::DisplayRole, Qt::EditRole});
        break;
    default:
        break;
    }
}
