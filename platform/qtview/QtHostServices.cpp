#include "QtHostServices.h"

#include <stdexcept>

#include <QAction>
#include <QApplication>
#include <QCursor>
#include <QMenu>
#include <QMessageBox>

#include "FrenchDates.h"
#include "shell/ScreenModel.h"

namespace {

QMessageBox::Icon iconOfStyle(int style)
{
    switch (style & 0x70) {
    case 16:
        return QMessageBox::Critical;
    case 32:
        return QMessageBox::Question;
    case 48:
        return QMessageBox::Warning;
    case 64:
        return QMessageBox::Information;
    default:
        return QMessageBox::NoIcon;
    }
}

} // namespace

QtHostServices::QtHostServices(Setup setup)
    : m_setup(std::move(setup))
{
}

void QtHostServices::msgBox(const std::string& text, int style, const std::string& title)
{
    QMessageBox box(iconOfStyle(style), QString::fromStdString(title), QString::fromStdString(text), QMessageBox::Ok, m_parent);
    execMessageBox(box);
}

void QtHostServices::beep()
{
    QApplication::beep();
}

void QtHostServices::doEvents()
{
    QCoreApplication::processEvents();
}

std::unique_ptr<QMenu> QtHostServices::buildPopupMenu(const Control& menu) const
{
    auto popup = std::make_unique<QMenu>(m_parent);
    popup->setTitle(QString::fromStdString(std::string(menu.spec().caption)));
    popup->addSection(popup->title());
    const ScreenModel& screen = menu.screen();
    for (std::int16_t i = 0; i < screen.count(); ++i) {
        const Control& entry = screen.at(i);
        if (entry.kind() != ControlKind::MenuEntry || entry.container() != &menu) {
            continue;
        }
        QAction* action = popup->addAction(QString::fromStdString(std::string(entry.spec().caption)));
        action->setData(QString::fromStdString(entry.name()));
        action->setEnabled(entry.enabled());
    }
    return popup;
}

void QtHostServices::popupMenu(Control& menu)
{
    const auto popup = buildPopupMenu(menu);
    QAction* chosen = execMenu(*popup);
    if (!chosen) {
        return;
    }
    // The choice runs before PopupMenu returns, as the control expects.
    ScreenModel& screen = menu.screen();
    if (Control* entry = screen.find(chosen->data().toString().toStdString()); entry && screen.canReach(*entry)) {
        screen.operatorClick(*entry);
    }
}

QAction* QtHostServices::execMenu(QMenu& menu)
{
    return menu.exec(QCursor::pos());
}

void QtHostServices::execMessageBox(QMessageBox& box)
{
    box.exec();
}

void QtHostServices::unloadForm()
{
    if (m_setup.unloadForm) {
        m_setup.unloadForm();
    }
}

std::string QtHostServices::formatDate(const std::string& text, const std::string& pattern)
{
    return m_setup.formatDate ? m_setup.formatDate(text, pattern) : FrenchDates::format(text, pattern);
}

std::shared_ptr<AideEnLigne> QtHostServices::createHelp()
{
    if (!m_setup.createHelp) {
        throw std::runtime_error("l'aide en ligne n'est pas installée");
    }
    return m_setup.createHelp();
}

void QtHostServices::reportFailure(const std::string& where, const std::string& what)
{
    QMessageBox box(QMessageBox::Critical, QStringLiteral("Calvarine"),
        QStringLiteral("Erreur dans %1 :\n%2").arg(QString::fromStdString(where), QString::fromStdString(what)),
        QMessageBox::Ok, m_parent);
    execMessageBox(box);
}
