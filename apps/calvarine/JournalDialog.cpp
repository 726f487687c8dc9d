#include "JournalDialog.h"

#include <QDateTime>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QTableView>
#include <QVBoxLayout>

#include "Store.h"

namespace {

QString text(const std::string& s)
{
    return QString::fromStdString(s);
}

QString localTime(const std::string& utc)
{
    const QDateTime when = QDateTime::fromString(text(utc), Qt::ISODate);
    return when.isValid() ? when.toLocalTime().toString(QStringLiteral("dd/MM/yyyy HH:mm:ss")) : text(utc);
}

QString destination(const store::JournalEntry& entry)
{
    if (entry.output == store::JournalOutput::Paper && entry.files.empty()) {
        return entry.printer.empty() ? QStringLiteral("(imprimante par défaut)") : text(entry.printer);
    }
    return text(entry.folder);
}

QString statementsShort(const store::JournalEntry& entry)
{
    if (entry.statements.empty()) {
        return {};
    }
    const auto& first = entry.statements.front();
    QString shown = text(first.organisation + " " + first.invoice);
    if (entry.statements.size() > 1) {
        shown += QStringLiteral(" (+%1)").arg(entry.statements.size() - 1);
    }
    return shown;
}

QString jobText(const store::JournalEntry& entry)
{
    if (entry.output != store::JournalOutput::Paper || entry.job <= 0) {
        return entry.outcome == store::JournalOutcome::Done ? QString() : text(entry.reason);
    }
    return QStringLiteral("n° %1 : %2").arg(entry.job).arg(text(store::journalJobStateText(entry.jobState)));
}

} // namespace

JournalModel::JournalModel(QObject* parent)
    : QAbstractTableModel(parent)
{
}

void JournalModel::setEntries(std::vector<store::JournalEntry> entries)
{
    beginResetModel();
    m_entries = std::move(entries);
    endResetModel();
}

int JournalModel::rowCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : static_cast<int>(m_entries.size());
}

int JournalModel::columnCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : ColumnCount;
}

QVariant JournalModel::data(const QModelIndex& index, int role) const
{
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid)) {
        return {};
    }
    const auto& entry = m_entries[static_cast<std::size_t>(index.row())];
    if (role == Qt::UserRole) {
        switch (index.column()) {
        case Time: return text(entry.time);
        case Statements: return static_cast<int>(entry.statements.size());
        default: return data(index, Qt::DisplayRole);
        }
    }
    if (role == Qt::ToolTipRole && (index.column() == Destination || index.column() == JobState)) {
        return data(index, Qt::DisplayRole);
    }
    if (role != Qt::DisplayRole) {
        return {};
    }
    switch (index.column()) {
    case Time: return localTime(entry.time);
    case User: return text(entry.user);
    case Host: return text(entry.host);
    case Scope:
        return entry.output == store::JournalOutput::Purge ? QString() : text(entry.entity + entry.activity + " " + entry.period);
    case Output: return text(store::journalOutputText(entry.output));
    case Destination: return entry.output == store::JournalOutput::Purge ? text(entry.reason) : destination(entry);
    case Statements: return statementsShort(entry);
    case Outcome: return text(store::journalOutcomeText(entry.outcome));
    case JobState: return jobText(entry);
    default: return {};
    }
}

QVariant JournalModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole) {
        return {};
    }
    static const char* const kHeaders[ColumnCount] = {"Date", "Utilisateur", "Poste", "Entité, période", "Sortie",
        "Imprimante ou dossier", "Bordereaux", "Issue", "Travail ou motif"};
    return section >= 0 && section < ColumnCount ? QString::fromUtf8(kHeaders[section]) : QVariant();
}

JournalFilterModel::JournalFilterModel(QObject* parent)
    : QSortFilterProxyModel(parent)
{
    setSortRole(Qt::UserRole);
}

void JournalFilterModel::setInvoice(const QString& invoice)
{
    m_invoice = invoice.trimmed();
    invalidateFilter();
}

void JournalFilterModel::setOrganisation(const QString& organisation)
{
    m_organisation = organisation.trimmed();
    invalidateFilter();
}

bool JournalFilterModel::filterAcceptsRow(int sourceRow, const QModelIndex&) const
{
    if (m_invoice.isEmpty() && m_organisation.isEmpty()) {
        return true;
    }
    const auto* journal = static_cast<const JournalModel*>(sourceModel());
    for (const auto& statement : journal->entry(sourceRow).statements) {
        if (text(statement.invoice).startsWith(m_invoice, Qt::CaseInsensitive)
            && text(statement.organisation).startsWith(m_organisation, Qt::CaseInsensitive)) {
            return true;
        }
    }
    return false;
}

QString journalEntryDetails(const store::JournalEntry& entry)
{
    QStringList lines;
    lines << QStringLiteral("%1 – %2 sur le poste %3").arg(localTime(entry.time), text(entry.user), text(entry.host));
    if (entry.output == store::JournalOutput::Purge) {
        lines << QStringLiteral("Purge du journal : %1").arg(text(entry.reason));
        return lines.join(QLatin1Char('\n'));
    }
    lines << QStringLiteral("Entité %1, activité %2, période %3 – réédition %4, %5")
                 .arg(text(entry.entity), text(entry.activity), text(entry.period), text(store::journalOutputText(entry.output)),
                     text(store::journalOutcomeText(entry.outcome)));
    if (entry.output == store::JournalOutput::Paper && entry.files.empty()) {
        lines << QStringLiteral("Imprimante %1, %2 exemplaire(s), %3")
                     .arg(destination(entry))
                     .arg(entry.copies)
                     .arg(entry.duplex ? QStringLiteral("recto-verso") : QStringLiteral("recto"));
        if (entry.job > 0) {
            lines << QStringLiteral("Travail CUPS n° %1 : %2").arg(entry.job).arg(text(store::journalJobStateText(entry.jobState)));
        }
    }
    if (!entry.folder.empty()) {
        QStringList files;
        for (const auto& file : entry.files) {
            files << text(file);
        }
        lines << QStringLiteral("Dossier %1 : %2").arg(text(entry.folder), files.isEmpty() ? QStringLiteral("aucun fichier") : files.join(QStringLiteral(", ")));
    }
    QStringList statements;
    for (const auto& statement : entry.statements) {
        statements << text(statement.organisation + " " + statement.invoice);
    }
    lines << QStringLiteral("Bordereaux (%1) : %2").arg(entry.statements.size()).arg(statements.join(QStringLiteral(", ")));
    if (entry.outcome != store::JournalOutcome::Done) {
        lines << QStringLiteral("Motif : %1").arg(text(entry.reason));
    }
    return lines.join(QLatin1Char('\n'));
}

JournalDialog::JournalDialog(store::Store& store, JobState jobState, std::function<void(const QString&)> openFolder, QWidget* parent)
    : QDialog(parent)
    , m_store(store)
    , m_jobState(std::move(jobState))
    , m_openFolder(std::move(openFolder))
{
    setObjectName(QStringLiteral("JournalReeditions"));
    setWindowTitle(QStringLiteral("Journal des rééditions"));

    m_invoice = new QLineEdit(this);
    m_invoice->setObjectName(QStringLiteral("FiltreFacture"));
    m_invoice->setClearButtonEnabled(true);
    m_organisation = new QLineEdit(this);
    m_organisation->setObjectName(QStringLiteral("FiltreOrganisme"));
    m_organisation->setClearButtonEnabled(true);
    auto* invoiceLabel = new QLabel(QStringLiteral("&Facture :"), this);
    invoiceLabel->setBuddy(m_invoice);
    auto* organisationLabel = new QLabel(QStringLiteral("&Organisme :"), this);
    organisationLabel->setBuddy(m_organisation);
    m_count = new QLabel(this);
    auto* filters = new QHBoxLayout;
    filters->addWidget(invoiceLabel);
    filters->addWidget(m_invoice);
    filters->addWidget(organisationLabel);
    filters->addWidget(m_organisation);
    filters->addStretch(1);
    filters->addWidget(m_count);

    m_model = new JournalModel(this);
    m_filter = new JournalFilterModel(this);
    m_filter->setSourceModel(m_model);
    m_table = new QTableView(this);
    m_table->setObjectName(QStringLiteral("TableJournal"));
    m_table->setModel(m_filter);
    m_table->setSortingEnabled(true);
    m_table->sortByColumn(JournalModel::Time, Qt::DescendingOrder);
    m_table->setSelectionBehavior(QAbstractItemView::SelectRows);
    m_table->setSelectionMode(QAbstractItemView::SingleSelection);
    m_table->setEditTriggers(QAbstractItemView::NoEditTriggers);
    m_table->setTabKeyNavigation(false);
    m_table->verticalHeader()->hide();
    m_table->horizontalHeader()->setStretchLastSection(true);
    m_table->setWordWrap(false);
    auto* tableLabel = new QLabel(QStringLiteral("&Rééditions :"), this);
    tableLabel->setBuddy(m_table);

    m_details = new QPlainTextEdit(this);
    m_details->setObjectName(QStringLiteral("DetailJournal"));
    m_details->setReadOnly(true);
    m_details->setMaximumHeight(m_details->fontMetrics().lineSpacing() * 7);
    m_details->setTabChangesFocus(true);

    m_openButton = new QPushButton(QStringLiteral("Ouvrir le &dossier"), this);
    m_openButton->setObjectName(QStringLiteral("OuvrirDossier"));
    m_jobButton = new QPushButton(QStringLiteral("État du &travail"), this);
    m_jobButton->setObjectName(QStringLiteral("EtatTravail"));
    auto* reloadButton = new QPushButton(QStringLiteral("&Actualiser"), this);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close, this);
    buttons->addButton(m_openButton, QDialogButtonBox::ActionRole);
    buttons->addButton(m_jobButton, QDialogButtonBox::ActionRole);
    buttons->addButton(reloadButton, QDialogButtonBox::ActionRole);
    buttons->button(QDialogButtonBox::Close)->setText(QStringLiteral("&Fermer"));
    // Enter in a filter must not close the dialog.
    for (auto* button : buttons->buttons()) {
        if (auto* push = qobject_cast<QPushButton*>(button)) {
            push->setAutoDefault(false);
        }
    }

    auto* layout = new QVBoxLayout(this);
    layout->addLayout(filters);
    layout->addWidget(tableLabel);
    layout->addWidget(m_table, 1);
    layout->addWidget(m_details);
    layout->addWidget(buttons);
    setTabOrder(m_invoice, m_organisation);
    setTabOrder(m_organisation, m_table);
    setTabOrder(m_table, m_details);

    const auto refilter = [this] {
        m_filter->setInvoice(m_invoice->text());
        m_filter->setOrganisation(m_organisation->text());
        m_count->setText(QStringLiteral("%1 sur %2").arg(m_filter->rowCount()).arg(m_model->rowCount()));
        showSelected();
    };
    connect(m_invoice, &QLineEdit::textChanged, this, refilter);
    connect(m_organisation, &QLineEdit::textChanged, this, refilter);
    connect(m_table->selectionModel(), &QItemSelectionModel::currentRowChanged, this, [this] { showSelected(); });
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    connect(reloadButton, &QPushButton::clicked, this, [this, refilter] {
        reload();
        refilter();
    });
    connect(m_openButton, &QPushButton::clicked, this, [this] {
        if (const auto entry = selected(); entry && !entry->folder.empty()) {
            m_openFolder(text(entry->folder));
        }
    });
    connect(m_jobButton, &QPushButton::clicked, this, [this] {
        const auto entry = selected();
        if (!entry || entry->job <= 0) {
            return;
        }
        const auto state = m_jobState ? m_jobState(*entry) : std::nullopt;
        if (state && *state != entry->jobState) {
            auto updated = *entry;
            updated.jobState = *state;
            store::Journal(m_store).update(updated);
            const auto key = entry->key;
            reload();
            for (int row = 0; row < m_filter->rowCount(); ++row) {
                if (m_model->entry(m_filter->mapToSource(m_filter->index(row, 0)).row()).key == key) {
                    m_table->selectRow(row);
                }
            }
        }
        QMessageBox::information(this, QStringLiteral("État du travail"),
            state ? QStringLiteral("Travail n° %1 sur %2 : %3.")
                        .arg(entry->job)
                        .arg(text(entry->printer), text(store::journalJobStateText(*state)))
                  : QStringLiteral("L'état du travail n° %1 ne peut pas être lu d'ici (serveur d'impression %2 injoignable, "
                                   "d'un autre poste, ou travail oublié) ; dernier état connu : %3.")
                        .arg(entry->job)
                        .arg(text(entry->printServer), text(store::journalJobStateText(entry->jobState))));
    });
    connect(m_table, &QTableView::activated, this, [this] {
        if (const auto entry = selected(); entry && entry->job > 0) {
            m_jobButton->click();
        } else if (entry && !entry->folder.empty()) {
            m_openButton->click();
        }
    });

    reload();
    refilter();
    m_table->resizeColumnsToContents();
    resize(1100, 560);
}

void JournalDialog::reload()
{
    store::Journal journal(m_store);
    if (m_jobState) {
        try {
            journal.refreshJobStates(m_jobState);
        } catch (const std::exception&) {
            // A database open for reading only: the states as last written.
        }
    }
    m_model->setEntries(journal.entries());
    if (m_filter->rowCount() > 0) {
        m_table->selectRow(0);
    }
    showSelected();
}

std::optional<store::JournalEntry> JournalDialog::selected() const
{
    const QModelIndex current = m_table->currentIndex();
    if (!current.isValid()) {
        return std::nullopt;
    }
    return m_model->entry(m_filter->mapToSource(current).row());
}

void JournalDialog::showSelected()
{
    const auto entry = selected();
    m_details->setPlainText(entry ? journalEntryDetails(*entry) : QString());
    m_openButton->setEnabled(entry && !entry->folder.empty());
    m_jobButton->setEnabled(entry && entry->job > 0);
}
