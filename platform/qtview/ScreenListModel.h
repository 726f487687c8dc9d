#pragma once

#include <QAbstractListModel>

#include "shell/ScreenModel.h"

// The entries of one list box or combo box of the screen model, as a Qt item
// model. It holds no copy: data() reads the control, and the model's
// before/after notifications become begin/end calls, so a view over it stays
// in step without a widget per entry.
//
// Entries added at the end are announced together: a query that fills a list
// line by line would otherwise pay the views' bookkeeping (signals, persistent
// indexes, selection) once per line. Until then rowCount() stays at the lines
// already announced, which appending does not move. They are announced at the
// next turn of the event loop, before any other change of the list, or when
// publishAppended() is called (a view about to use the list's current line).
//
// Roles: Qt::DisplayRole and Qt::EditRole give the entry's text, Qt::UserRole
// its ItemData, SelectedRole its Selected state. The model is read-only: the
// operator changes the list through the screen model's gestures.
//
// The screen model must outlive this object.
class ScreenListModel final : public QAbstractListModel, private ScreenObserver {
public:
    static constexpr int SelectedRole = Qt::UserRole + 1;

    ScreenListModel(ScreenModel& screen, const Control& list, QObject* parent = nullptr);
    ~ScreenListModel() override;

    const Control& control() const noexcept { return m_list; }

    int rowCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role = Qt::DisplayRole) const override;
    Qt::ItemFlags flags(const QModelIndex& index) const override;

    // Announces the entries appended since the last announcement, if any.
    void publishAppended();

private:
    void itemAboutToBeInserted(const Control& control, std::int16_t index) override;
    void itemInserted(const Control& control, std::int16_t index) override;
    void itemAboutToBeRemoved(const Control& control, std::int16_t index) override;
    void itemRemoved(const Control& control, std::int16_t index) override;
    void listAboutToBeCleared(const Control& control) override;
    void listCleared(const Control& control) override;
    void propertyChanged(const Control& control, Property property) override;

    ScreenModel& m_screen;
    const Control& m_list;
    int m_rows = 0;                 // the rows the views know of
    bool m_appending = false;       // an insertion at the end is under way, not announced
    bool m_publishPosted = false;
};
