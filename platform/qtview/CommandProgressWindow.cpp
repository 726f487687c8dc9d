#include "CommandProgressWindow.h"

#include <algorithm>

#include <QCloseEvent>
#include <QLabel>
#include <QHBoxLayout>
#include <QProgressBar>
#include <QPushButton>
#include <QVBoxLayout>

CommandProgressWindow::CommandProgressWindow(QWidget* parent)
    : QDialog(parent, Qt::Dialog | Qt::CustomizeWindowHint | Qt::WindowTitleHint)
{
    setWindowTitle(QStringLiteral("Calvarine"));
    setWindowModality(Qt::ApplicationModal);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(new QLabel(QStringLiteral("Création des fichiers sur le serveur…"), this));
    m_bar = new QProgressBar(this);
    m_bar->setMinimumWidth(360);
    layout->addWidget(m_bar);
    m_count = new QLabel(this);
    layout->addWidget(m_count);
    m_time = new QLabel(this);
    layout->addWidget(m_time);
    m_cancel = new QPushButton(QStringLiteral("&Annuler"), this);
    m_cancel->setObjectName(QStringLiteral("Annuler"));
    m_cancel->setAutoDefault(false);
    m_cancel->setDefault(false);
    connect(m_cancel, &QPushButton::clicked, this, [this] {
        m_cancelled = true;
        m_cancel->setEnabled(false);
        m_time->setText(QStringLiteral("Annulation en cours : aucun fichier ne sera publié…"));
    });
    auto* buttons = new QHBoxLayout;
    buttons->addStretch();
    buttons->addWidget(m_cancel);
    layout->addLayout(buttons);
    setProgress(0, 0, {});
}

void CommandProgressWindow::setProgress(int done, int total, std::chrono::steady_clock::duration elapsed)
{
    m_bar->setRange(0, std::max(total, 1));
    m_bar->setValue(std::clamp(done, 0, std::max(total, 1)));
    if (m_cancelled) {
        return; // the bar stands still while the command winds down
    }
    m_count->setText(total > 0 ? QStringLiteral("Bordereaux traités : %1 / %2").arg(done).arg(total)
                               : QStringLiteral("Bordereaux traités : %1").arg(done));
    // A rate judged on too little work jumps about: wait for some of it.
    const auto seconds = std::chrono::duration<double>(elapsed).count();
    if (total <= 0 || done <= 0 || (done * 20 < total && seconds < 2)) {
        m_time->setText(QStringLiteral("Temps restant : estimation en cours…"));
        return;
    }
    const double left = seconds / done * (total - done);
    m_time->setText(QStringLiteral("Temps restant : %1").arg(durationText(std::chrono::seconds(static_cast<long long>(left + 0.5)))));
}

QString CommandProgressWindow::countText() const
{
    return m_count->text();
}

QString CommandProgressWindow::timeText() const
{
    return m_time->text();
}

QString CommandProgressWindow::durationText(std::chrono::seconds left)
{
    const long long total = std::max<long long>(left.count(), 0);
    if (total < 60) {
        return QStringLiteral("environ %1 s").arg(std::max<long long>(total, 1));
    }
    return QStringLiteral("environ %1 min %2 s").arg(total / 60).arg(total % 60, 2, 10, QLatin1Char('0'));
}

void CommandProgressWindow::closeEvent(QCloseEvent* event)
{
    // Only the host closes it, by deleting it when the command has ended.
    event->ignore();
}
