#pragma once

// Fichier ▸ Journal des rééditions… : the journal of re-issues as a table,
// sortable by any column and filtered by invoice number and organisation,
// every part reachable from the keyboard (Alt+letter, Tab). Selecting a run
// shows all of it below the table; "Ouvrir le dossier" opens the folder of a
// file run, "État du travail" asks CUPS again for a paper job's state. The
// dialog only reads the journal, apart from the job states it brings up to
// date (see store::Journal::refreshJobStates).

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <QAbstractTableModel>
#include <QDialog>
#include <QSortFilterProxyModel>

#include "Journal.h"

class QLabel;
class QLineEdit;
class QPlainTextEdit;
class QPushButton;
class QTableView;

namespace store {
class Store;
}

// The entries as rows, one column per column of the table; the time shown in
// local time. Sorting uses Qt::UserRole (the time as written, numbers as numbers).
class JournalModel : public QAbstractTableModel {
public:
    enum Column { Time, User, Host, Scope, Output, Destination, Statements, Outcome, JobState, ColumnCount };

    explicit JournalModel(QObject* parent = nullptr);
    void setEntries(std::vector<store::JournalEntry> entries);
    const store::JournalEntry& entry(int row) const { return m_entries.at(static_cast<std::size_t>(row)); }

    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;

private:
    std::vector<store::JournalEntry> m_entries;
};

// Lets through the rows that name the invoice number and the organisation
// given (each a beginning, case ignored; empty: any).
class JournalFilterModel : public QSortFilterProxyModel {
public:
    explicit JournalFilterModel(QObject* parent = nullptr);
    void setInvoice(const QString& invoice);
    void setOrganisation(const QString& organisation);

protected:
    bool filterAcceptsRow(int sourceRow, const QModelIndex& sourceParent) const override;

private:
    QString m_invoice;
    QString m_organisation;
};

// The whole of one entry, in French, as the dialog shows it under the table.
QString journalEntryDetails(const store::JournalEntry& entry);

class JournalDialog : public QDialog {
public:
    using JobState = store::Journal::JobState;
    // openFolder is called with a file run's folder (the desktop opens it).
    JournalDialog(store::Store& store, JobState jobState, std::function<void(const QString&)> openFolder, QWidget* parent = nullptr);

    // Reads the journal again, the open paper jobs' states first brought up to date.
    void reload();
    JournalModel& model() { return *m_model; }
    JournalFilterModel& filter() { return *m_filter; }
    QTableView& table() { return *m_table; }

private:
    std::optional<store::JournalEntry> selected() const;
    void showSelected();

    store::Store& m_store;
    JobState m_jobState;
    std::function<void(const QString&)> m_openFolder;
    JournalModel* m_model = nullptr;
    JournalFilterModel* m_filter = nullptr;
    QTableView* m_table = nullptr;
    QLineEdit* m_invoice = nullptr;
    QLineEdit* m_organisation = nullptr;
    QPlainTextEdit* m_details = nullptr;
    QPushButton* m_openButton = nullptr;
    QPushButton* m_jobButton = nullptr;
    QLabel* m_count = nullptr;
};
