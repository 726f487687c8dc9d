#include "HostWindow.h"

#include <regex>

#include <QCloseEvent>
#include <QDesktopServices>
#include <QUrl>
#include <QLayout>
#include <QStatusBar>

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
        return outcome::reissueNote(*told, m_watched->exchange(),
            m_store->path().empty() ? std::filesystem::path() : m_store->fusionDirectory());
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
    // line lives within its width: the right to print in full where it fits,
    // the last paper run in the room left, each cut short with its whole text
    // as tooltip.
    m_view->setFixedSize(m_view->minimumSize());
    m_rights = new StatusText(this);
    m_rights->setMaximumWidth(m_view->width() * 2 / 3);
    statusBar()->addWidget(m_rights);
    m_printing = new PrintingMenu(*this);
    connect(m_printing->journalAction(), &QAction::triggered, this, [this] { showJournal(); });
    m_paperStatus = new StatusText(this);
    m_paperStatus->setObjectName(QStringLiteral("StatutImpression"));
    m_paperStatus->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
    statusBar()->addWidget(m_paperStatus, 1);
    statusBar()->setSizeGripEnabled(false);
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
                    return HostedSibling::Choices{paper.printer, paper.copies, paper.duplex, m_printing->preview()};
                },
                [this](const std::string& done) { m_paperStatus->setFullText(QString::fromStdString(done)); });
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
        m_control->TheDatabase(std::make_shared<CommandProgressDatabase>(m_watched, *m_host));
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

void HostWindow::closeEvent(QCloseEvent* event)
{
    m_control->terminate();
    event->accept();
}
