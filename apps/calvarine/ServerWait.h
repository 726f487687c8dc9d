#pragma once

#include <chrono>

#include <QPointer>
#include <QProgressDialog>

#include "Store.h"

class QWidget;

// The window's side of a wait on a shared server that does not answer: after
// a second, a modal dialog says so and offers Annuler, which gives the wait up
// (the call then fails, and the operator reads why under the control's message).
// Lives on the interface thread, as the calls it is told of.
class ServerWait final : public store::ServerWaitObserver {
public:
    explicit ServerWait(QWidget* parent);
    ~ServerWait() override;

    void waiting(std::chrono::milliseconds waited) override;
    void waited() noexcept override;

    // The dialog while it shows; null otherwise.
    QProgressDialog* dialog() const { return m_dialog; }

private:
    QPointer<QWidget> m_parent;
    QPointer<QProgressDialog> m_dialog;
};
