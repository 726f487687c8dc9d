#include "HostWindow.h"

#include <regex>

#include <QAction>
#include <QCloseEvent>
#include <QDesktopServices>
#include <QUrl>
#include <QLayout>
#include <QMenu>
#include <QMenuBar>
#include <QStatusBar>
#include <QVBoxLayout>

#include "CommandProgressDatabase.h"
#include "CupsJob.h"
#include "JournalDialog.h"
#include "HelpViewer.h"
#include "PrintingMenu.h"
#include "Rights.h"
#include "ScreenView.h"
#include "Sibling.h"
#include "StatusText.h"
#include "Store.h"
#include "ArchiveBordCaisseExcel.h"
#include "ReissueOutcome.h"
#include "ServerWait.h"
#include "WatchedDatabase.h"
#include "reissue/GraphicFilesMessage.h"
#include "shell/Ctr_Calvarine.h"

HostWindow::HostWindow(std::shared_ptr<store::Store> store, Options options, const HostFactory& makeHost)
    : m_store(std::move(store))
    , m_options(std::move(options))
{
    QtHostServices::Setup setup;
    // Unloading comes from inside a handler of the control: the form closes once
    // that handler has returned.
    setup.unloadForm = [this] { QMetaObject::invokeMethod(this, &QWidget::close, Qt::QueuedConnection); };
    setup.createHelp = [this] { return std::make_shared<help::HelpViewer>(help::HelpViewer::defaultSearchPath(), this); };
    // On a server the files are made where the workers run, which may be another
    // machine: only a database file's FUSION is surely this one's.
    setup.fusionDirectory = [this] { return m_store->path().empty() ? std::filesystem::path() : m_store->fusionDirectory(); };
    // The control's account of a graphic run is checked against what the
    // database calls gave and what FUSION holds; what does not hold is said.
    setup.noteFor = [this](const std::string& text, int style, const std::string& title) {
        const auto told = reissue::readGraphicMessage(text, style, title);
        if (!told || !m_watched) {
            return std::string();
        }
        const std::filesystem::path fusion = m_store->path().empty() ? std::filesystem::path() : m_store->fusionDirectory();
        std::string note = outcome::reissueNote(*told, m_watched->exchange(), fusion);
        setLastRun(fileRunStatus(*told, fusion, note));
        return note;
    };
    // A paper run that printed nothing is said in the operator's words.
    setup.explainFailure = [this](const std::string& where, const std::string& what) -> std::optional<QtHostServices::Explained> {
        const auto belmontis = m_belmontis.lock();
        if (where != "Cmd_Imprimer_Click" || !belmontis || belmontis->lastFailure().empty() || belmontis->lastFailure() != what) {
            return std::nullopt;
        }
        return paperFailure(what);
    };
    m_host = makeHost ? makeHost(std::move(setup)) : std::make_unique<QtHostServices>(std::move(setup));
    m_host->setDialogParent(this);

    m_control = std::make_unique<Ctr_Calvarine>(*m_host);
    m_view = new ScreenView(m_control->Controls(), this);
    setCentralWidget(m_view);
    setWindowTitle(QStringLiteral("Calvarine – %1 – %2")
                       .arg(QString::fromStdString(m_options.user), QString::fromStdString(m_options.database)));
    // The screen keeps its size; the bars around it add theirs, and the status
    // line lives within its width: the outcome of the last run on two lines
    // (its job number or folder first), the right to print below it, each cut
    // short where it must, with its whole text as tooltip and in Fichier ▸
    // Dernier résultat… for the keyboard.
    m_view->setFixedSize(m_view->minimumSize());
    m_printing = new PrintingMenu(*this);
    connect(m_printing->journalAction(), &QAction::triggered, this, [this] { showJournal(); });
    auto* lines = new QWidget(this);
    auto* column = new QVBoxLayout(lines);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(0);
    m_paperStatus = new StatusText(lines, 2);
    m_paperStatus->setObjectName(QStringLiteral("StatutImpression"));
    m_paperStatus->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Fixed);
    column->addWidget(m_paperStatus);
    m_rights = new StatusText(lines);
    m_rights->setObjectName(QStringLiteral("DroitImpression"));
    m_rights->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Fixed);
    column->addWidget(m_rights);
    statusBar()->addWidget(lines, 1);
    statusBar()->setSizeGripEnabled(false);
    QAction* last = m_printing->menu().addAction(QStringLiteral("&Dernier résultat…"));
    last->setObjectName(QStringLiteral("DernierResultat"));
    connect(last, &QAction::triggered, this, [this] { showLastRun(); });
    // Where the screen had to shrink to fit (a high scale factor on a small
    // screen), its menu and status line shrink alike.
    if (const qreal shrink = m_view->shrink(); shrink < 1.0) {
        QFont smaller = font();
        smaller.setPointSizeF(smaller.pointSizeF() * shrink);
        menuBar()->setFont(smaller);
        m_printing->menu().setFont(smaller);
        statusBar()->setFont(smaller);
    }
    layout()->setSizeConstraint(QLayout::SetFixedSize);

    server::registerArchiveBordCaisseExcel(*m_store);
}

HostWindow::~HostWindow()
{
    m_store->setCommandProgress({});
    m_store->setWaitObserver(nullptr);
    // The view observes the control's screen: it goes first.
    delete m_view;
    m_control->terminate();
}

bool HostWindow::start()
{
    try {
        auto client = std::make_shared<DbaClient>(m_options.user);
        m_store->setClient(client);
        m_store->setCommandProgress([this](int done, int total) { m_host->commandProgress(done, total); });
        m_serverWait = std::make_unique<ServerWait>(this);
        m_store->setWaitObserver(m_serverWait.get());
        std::shared_ptr<SorbelaneDroits> rights = std::make_shared<DatabaseRights>(m_store, m_options.user);

        // Without the sibling the screen still works; only paper runs fail, and
        // the operator is told why when it happens.
        try {
            // A registration the loader refuses is told once, and the installed library used.
            auto sibling = createBelmontis(*m_host, applicationLibraryFolders(),
                [this](const std::string& refusal) { m_host->reportFailure("Ctr_Belmontis1", refusal); });
            // The operator's printing choices go with every run; what it did comes back to the status line.
            auto belmontis = std::make_shared<HostedSibling>(
                std::move(sibling),
                [this] {
                    const PaperChoice paper = m_printing->choice();
                    return HostedSibling::Choices{paper.printer, paper.copies, paper.duplex, m_printing->preview(), paper.confirmAbove};
                },
                [this](const std::string& done) { setLastRun(QString::fromStdString(done)); });
            if (m_options.printTo) {
                Variant spool = m_options.printTo->string();
                belmontis->setProperty("SpoolDirectory", spool);
            }
            // The control reaches the database through watchers; the journal is written in the store itself.
            Variant journalBase = std::shared_ptr<DbaDatabase>(m_store);
            belmontis->setProperty("BaseJournal", journalBase);
            m_belmontis = belmontis;
            m_control->Controls().get("Ctr_Belmontis1").setObject(std::move(belmontis));
        } catch (const std::exception& e) {
            m_host->reportFailure("Ctr_Belmontis1", e.what());
        }

        m_watched = std::make_shared<outcome::WatchedDatabase>(m_store);
        // A file run begins with its server command: the last run's outcome goes.
        m_control->TheDatabase(std::make_shared<CommandProgressDatabase>(m_watched, *m_host, [this] { setLastRun({}); }));
        m_control->TheClient(client);
        m_control->DroitsUtilisateur(rights);
        m_control->Init();
    } catch (const std::exception& e) {
        m_startFailure = startFailureText(e);
        return false;
    }
    m_rights->setFullText(rightsText());
    // Reading the journal follows the right to print, as the control judged it.
    m_printing->journalAction()->setEnabled(m_control->Controls().get("Cmd_Imprimer").visible());
    return true;
}

void HostWindow::showJournal()
{
    try {
        const auto jobState = [](const store::JournalEntry& entry) {
            return belmontis::jobStateKeywordOf(entry.printServer, entry.host, store::journalHostName(), entry.job);
        };
        JournalDialog dialog(*m_store, jobState,
            [](const QString& folder) { QDesktopServices::openUrl(QUrl::fromLocalFile(folder)); }, this);
        dialog.exec();
    } catch (const std::exception& e) {
        m_host->reportFailure("Journal des rééditions", e.what());
    }
}

QtHostServices::Explained paperFailure(const std::string& what)
{
    // The sibling lives in a library of its own: its failures are told apart by their words.
    if (what.find("annulée dans l'aperçu") != std::string::npos) {
        return {QMessageBox::Information,
            QStringLiteral("Impression annulée dans l'aperçu : rien n'a été imprimé.\n\nLa sélection est gardée.")};
    }
    if (what.find("annulée avant l'envoi") != std::string::npos) {
        return {QMessageBox::Information, QStringLiteral("Impression annulée : rien n'a été imprimé.\n\nLa sélection est gardée.")};
    }
    QString why = QString::fromStdString(what);
    why.remove(QStringLiteral(" : rien n'a été imprimé"));
    return {QMessageBox::Warning,
        QStringLiteral("Rien n'a été imprimé : %1\n\nLa sélection est gardée : vous pouvez relancer l'impression, "
                       "au besoin sur une autre imprimante (Fichier ▸ Imprimante…).")
            .arg(why)};
}

QString HostWindow::rightsText() const
{
    // The control hid "Imprimer" itself if the right is not there: say so, and for whom.
    const bool canPrint = m_control->Controls().get("Cmd_Imprimer").visible();
    return QStringLiteral("Droit d'impression : %1 – utilisateur %2")
        .arg(canPrint ? QStringLiteral("oui") : QStringLiteral("non"), QString::fromStdString(m_options.user));
}

QString startFailureText(const std::exception& error)
{
    const auto* dba = dynamic_cast<const DbaError*>(&error);
    std::smatch match;
    if (dba) {
        const std::string& context = dba->context();
        if (dba->isNoFile() && std::regex_match(context, match, std::regex("OpenFile (.*)"))) {
            return QStringLiteral("Le fichier %1 n'existe pas dans cette base.").arg(QString::fromStdString(match[1]));
        }
        if (dba->isNoRecord() && std::regex_match(context, match, std::regex("ReadItem (\\S+) \"(.*)\""))) {
            return QStringLiteral("L'enregistrement « %1 » du fichier %2 est absent de cette base.")
                .arg(QString::fromStdString(match[2]), QString::fromStdString(match[1]));
        }
    }
    return QString::fromStdString(error.what());
}

QString HostWindow::paperStatus() const
{
    return m_paperStatus->fullText();
}

void HostWindow::setLastRun(const QString& text)
{
    m_paperStatus->setFullText(text);
}

void HostWindow::showLastRun()
{
    const QString text = m_paperStatus->fullText();
    m_host->msgBox(text.isEmpty() ? "Aucune édition n'a encore été faite depuis l'ouverture de Calvarine." : text.toStdString(), 64,
        "Dernier résultat");
}

QString fileRunStatus(const reissue::GraphicOutcome& told, const std::filesystem::path& fusion, const std::string& note)
{
    // The folder first, as for a paper run written to a folder; the
    // workstation of a shared server may not see it, and says whose it is.
    const QString folder = fusion.empty() ? QStringLiteral("Dossier FUSION du serveur")
                                          : QStringLiteral("Dossier FUSION %1").arg(QString::fromStdString(fusion.string()));
    if (told.failed || told.files.empty()) {
        QString why = QString::fromStdString(note).section(QLatin1Char('\n'), 0, 0).trimmed();
        return QStringLiteral("%1 : aucun fichier généré%2").arg(folder, why.isEmpty() ? QString() : QStringLiteral(" – ") + why);
    }
    const auto count = static_cast<qsizetype>(told.files.size());
    QString status = count == 1 ? QStringLiteral("%1 : 1 fichier généré, %2").arg(folder, QString::fromStdString(told.files.front()))
                                : QStringLiteral("%1 : %2 fichiers générés, de %3 à %4")
                                      .arg(folder)
                                      .arg(count)
                                      .arg(QString::fromStdString(told.files.front()), QString::fromStdString(told.files.back()));
    if (!note.empty()) {
        status += QStringLiteral(" – ") + QString::fromStdString(note).section(QLatin1Char('\n'), 0, 0).trimmed();
    }
    return status;
}

void HostWindow::closeEvent(QCloseEvent* event)
{
    m_control->terminate();
    event->accept();
}
