#include "PrintingMenu.h"

#include <algorithm>
#include <memory>

#include <QAction>
#include <QCheckBox>
#include <QComboBox>
#include <QDialog>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QLabel>
#include <QMainWindow>
#include <QMenuBar>
#include <QSettings>
#include <QSpinBox>

#include "CupsJob.h"

namespace {

const QString kFichier = QStringLiteral("&Fichier");

QMenu& fileMenu(QMainWindow& window)
{
    for (QAction* action : window.menuBar()->actions()) {
        if (action->menu() && action->text() == kFichier) {
            return *action->menu();
        }
    }
    return *window.menuBar()->addMenu(kFichier);
}

// The user's own settings file (~/.config/calvarine/calvarine.conf).
std::unique_ptr<QSettings> userSettings()
{
    return std::make_unique<QSettings>(QSettings::NativeFormat, QSettings::UserScope, QStringLiteral("calvarine"), QStringLiteral("calvarine"));
}

} // namespace

PrintingMenu::PrintingMenu(QMainWindow& window)
    : QObject(&window)
    , m_window(window)
{
    QMenu& menu = fileMenu(window);
    m_menu = &menu;
    m_printer = menu.addAction(QStringLiteral("&Imprimante…"));
    m_printer->setObjectName(QStringLiteral("Imprimante"));
    connect(m_printer, &QAction::triggered, this, [this] { choosePrinter(); });
    m_preview = menu.addAction(QStringLiteral("&Aperçu avant impression"));
    m_preview->setObjectName(QStringLiteral("AperçuAvantImpression"));
    m_preview->setCheckable(true);
    menu.addSeparator();
    m_journal = menu.addAction(QStringLiteral("&Journal des rééditions…"));
    m_journal->setObjectName(QStringLiteral("JournalReeditions"));
    m_journal->setEnabled(false);
}

PaperChoice PrintingMenu::choice() const
{
    const auto stored = userSettings();
    PaperChoice choice;
    choice.printer = stored->value(QStringLiteral("impression/imprimante")).toString().toStdString();
    choice.copies = std::clamp(stored->value(QStringLiteral("impression/copies"), 1).toInt(), 1, 999);
    choice.duplex = stored->value(QStringLiteral("impression/rectoVerso"), false).toBool();
    choice.confirmAbove = std::clamp(stored->value(QStringLiteral("impression/seuilConfirmation"), PaperChoice::kDefaultConfirmAbove).toInt(), 0, 99999);
    return choice;
}

void PrintingMenu::remember(const PaperChoice& choice)
{
    const auto stored = userSettings();
    stored->setValue(QStringLiteral("impression/imprimante"), QString::fromStdString(choice.printer));
    stored->setValue(QStringLiteral("impression/copies"), choice.copies);
    stored->setValue(QStringLiteral("impression/rectoVerso"), choice.duplex);
    stored->setValue(QStringLiteral("impression/seuilConfirmation"), choice.confirmAbove);
}

bool PrintingMenu::preview() const
{
    return m_preview->isChecked();
}

void PrintingMenu::choosePrinter()
{
    const PaperChoice current = choice();
    QDialog dialog(&m_window);
    dialog.setObjectName(QStringLiteral("ChoixImprimante"));
    dialog.setWindowTitle(QStringLiteral("Imprimante"));

    auto* printer = new QComboBox(&dialog);
    printer->setObjectName(QStringLiteral("Imprimante"));
    printer->addItem(QStringLiteral("Imprimante par défaut du système"), QString());
    // Asked of the print server with a bounded wait: one that does not answer
    // is said in the dialog, which stays usable with the choices it has.
    QStringList names;
    QString unanswered;
    try {
        for (const std::string& name : belmontis::printerNames()) {
            names << QString::fromStdString(name);
        }
    } catch (const belmontis::PrintFailure& failure) {
        unanswered = QString::fromStdString(failure.what());
    }
    for (const QString& name : names) {
        printer->addItem(name, name);
    }
    // A remembered printer that is gone stays visible, so the choice is not lost silently.
    const QString wanted = QString::fromStdString(current.printer);
    if (!wanted.isEmpty() && !names.contains(wanted)) {
        printer->addItem(QStringLiteral("%1 (introuvable)").arg(wanted), wanted);
    }
    printer->setCurrentIndex(std::max(0, printer->findData(wanted)));

    auto* copies = new QSpinBox(&dialog);
    copies->setObjectName(QStringLiteral("Copies"));
    copies->setRange(1, 999);
    copies->setValue(current.copies);
    auto* duplex = new QCheckBox(QStringLiteral("Recto verso"), &dialog);
    duplex->setObjectName(QStringLiteral("RectoVerso"));
    duplex->setChecked(current.duplex);

    auto* threshold = new QSpinBox(&dialog);
    threshold->setObjectName(QStringLiteral("SeuilConfirmation"));
    threshold->setRange(0, 99999);
    threshold->setSingleStep(50);
    threshold->setSuffix(QStringLiteral(" pages"));
    threshold->setSpecialValueText(QStringLiteral("jamais"));
    threshold->setValue(current.confirmAbove);
    threshold->setToolTip(QStringLiteral("Une impression sur papier de plus de pages (exemplaires compris) est d'abord confirmée ; "
                                         "0 : jamais. L'aperçu avant impression tient lieu de confirmation."));

    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, &dialog);
    connect(buttons, &QDialogButtonBox::accepted, &dialog, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, &dialog, &QDialog::reject);
    auto* form = new QFormLayout(&dialog);
    if (!unanswered.isEmpty()) {
        auto* said = new QLabel(QStringLiteral("Liste des imprimantes incomplète : %1.").arg(unanswered), &dialog);
        said->setObjectName(QStringLiteral("ServeurImpression"));
        said->setWordWrap(true);
        form->addRow(said);
    }
    form->addRow(QStringLiteral("Imprimante :"), printer);
    form->addRow(QStringLiteral("Copies :"), copies);
    form->addRow(QString(), duplex);
    form->addRow(QStringLiteral("Confirmer au-delà de :"), threshold);
    form->addRow(buttons);

    if (dialog.exec() == QDialog::Accepted) {
        remember({printer->currentData().toString().toStdString(), copies->value(), duplex->isChecked(), threshold->value()});
    }
}
