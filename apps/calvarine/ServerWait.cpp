#include "ServerWait.h"

#include <QCoreApplication>
#include <QProgressDialog>

#include "database/DbaError.h"

namespace {

// A wait shorter than this shows nothing.
constexpr std::chrono::milliseconds kShowAfter{1000};

} // namespace

ServerWait::ServerWait(QWidget* parent)
    : m_parent(parent)
{
}

ServerWait::~ServerWait()
{
    delete m_dialog.data();
}

void ServerWait::waiting(std::chrono::milliseconds waited)
{
    if (!m_dialog && waited >= kShowAfter) {
        m_dialog = new QProgressDialog(QStringLiteral("Le serveur de la base ne répond pas encore…"), QStringLiteral("Annuler"), 0, 0,
            m_parent);
        m_dialog->setWindowTitle(QStringLiteral("Attente du serveur"));
        m_dialog->setWindowModality(Qt::ApplicationModal);
        m_dialog->setMinimumDuration(0);
        m_dialog->show();
    }
    if (!m_dialog) {
        return;
    }
    // The dialog is modal: input meant for the form is dropped, not queued.
    QCoreApplication::processEvents();
    if (m_dialog->wasCanceled()) {
        throw DbaError(DbaError::Kind::Storage, "wait for the server", "given up by the operator",
            "l'attente du serveur de la base a été abandonnée");
    }
}

void ServerWait::waited() noexcept
{
    delete m_dialog.data();
}
