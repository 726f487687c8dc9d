#include "HostWindow.h"

#include <QCloseEvent>

#include "HelpViewer.h"
#include "Rights.h"
#include "ScreenView.h"
#include "Sibling.h"
#include "Store.h"
#include "ArchiveBordCaisseExcel.h"
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
    m_host = makeHost ? makeHost(std::move(setup)) : std::make_unique<QtHostServices>(std::move(setup));
    m_host->setDialogParent(this);

    m_control = std::make_unique<Ctr_Calvarine>(*m_host);
    m_view = new ScreenView(m_control->Controls(), this);
    setCentralWidget(m_view);
    setWindowTitle(QStringLiteral("Calvarine"));
    setFixedSize(m_view->minimumSize());

    server::registerArchiveBordCaisseExcel(*m_store);
}

HostWindow::~HostWindow()
{
    // The view observes the control's screen: it goes first.
    delete m_view;
    m_control->terminate();
}

bool HostWindow::start()
{
    const std::string where = "Init";
    try {
        auto client = std::make_shared<DbaClient>(m_options.user);
        m_store->setClient(client);
        std::shared_ptr<SorbelaneDroits> rights = std::make_shared<DatabaseRights>(m_store, m_options.user);

        // Without the sibling the screen still works; only paper runs fail, and
        // the operator is told why when it happens.
        try {
            // A registration the loader refuses is told once, and the installed library used.
            auto belmontis = createBelmontis(*m_host, applicationLibraryFolders(),
                [this](const std::string& refusal) { m_host->reportFailure("Ctr_Belmontis1", refusal); });
            if (m_options.printTo) {
                Variant spool = m_options.printTo->string();
                belmontis->setProperty("SpoolDirectory", spool);
            }
            m_control->Controls().get("Ctr_Belmontis1").setObject(std::move(belmontis));
        } catch (const std::exception& e) {
            m_host->reportFailure("Ctr_Belmontis1", e.what());
        }

        m_control->TheDatabase(m_store);
        m_control->TheClient(client);
        m_control->DroitsUtilisateur(rights);
        m_control->Init();
        return true;
    } catch (const std::exception& e) {
        m_host->reportFailure(where, e.what());
        return false;
    }
}

void HostWindow::closeEvent(QCloseEvent* event)
{
    m_control->terminate();
    event->accept();
}
