#include "DatabaseChooser.h"

#include <filesystem>

#include <QDialogButtonBox>
#include <QFileDialog>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QVBoxLayout>

#include "Store.h"

DatabaseChooser::DatabaseChooser(const std::string& previous, QWidget* parent)
    : QDialog(parent)
{
    setWindowTitle(QStringLiteral("Ouvrir une base de données"));
    auto* explain = new QLabel(QStringLiteral("Un fichier de base de données, ou un serveur PostgreSQL :\n"
                                              "postgresql://utilisateur@hôte:port/base"),
        this);
    m_field = new QLineEdit(QString::fromStdString(previous), this);
    m_field->setObjectName(QStringLiteral("Base"));
    m_field->setClearButtonEnabled(true);
    m_field->setMinimumWidth(m_field->fontMetrics().horizontalAdvance(QLatin1Char('x')) * 60);
    m_field->selectAll();
    auto* browse = new QPushButton(QStringLiteral("Parcourir…"), this);
    browse->setAutoDefault(false);
    connect(browse, &QPushButton::clicked, this, &DatabaseChooser::browse);

    auto* buttons = new QDialogButtonBox(this);
    m_open = buttons->addButton(QStringLiteral("Ouvrir"), QDialogButtonBox::AcceptRole);
    m_open->setDefault(true);
    buttons->addButton(QStringLiteral("Annuler"), QDialogButtonBox::RejectRole);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    // Nothing typed opens nothing.
    const auto allowOpen = [this] { m_open->setEnabled(!m_field->text().trimmed().isEmpty()); };
    connect(m_field, &QLineEdit::textChanged, this, allowOpen);
    allowOpen();

    auto* row = new QHBoxLayout;
    row->addWidget(m_field, 1);
    row->addWidget(browse);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(explain);
    layout->addLayout(row);
    layout->addWidget(buttons);
}

std::string DatabaseChooser::connection() const
{
    return m_field->text().trimmed().toStdString();
}

void DatabaseChooser::browse()
{
    // From the folder of the file typed, if it names one.
    QString folder;
    if (const std::string typed = connection(); !typed.empty() && !store::Store::isServerConnection(typed)) {
        folder = QString::fromStdString(std::filesystem::path(typed).parent_path().string());
    }
    const QString chosen = QFileDialog::getOpenFileName(this, QStringLiteral("Ouvrir une base de données"), folder,
        QStringLiteral("Bases de données (*.db *.sqlite);;Tous les fichiers (*)"));
    if (!chosen.isEmpty()) {
        m_field->setText(chosen);
    }
}
