#include "QtHostServices.h"

#include <stdexcept>

#include <QAction>
#include <QApplication>
#include <QCursor>
#include <QDesktopServices>
#include <QGuiApplication>
#include <QMenu>
#include <QMessageBox>
#include <QPushButton>
#include <QUrl>

#include "CommandProgressWindow.h"
#include "FrenchDates.h"
#include "database/DbaError.h"
#include "LongMessageBox.h"
#include "reissue/GraphicFilesMessage.h"
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

// Beyond this a QMessageBox grows past the screen (one line per file listed).
constexpr qsizetype kLongLines = 20;
constexpr qsizetype kLongChars = 2000;

} // namespace

QtHostServices::QtHostServices(Setup setup)
    : m_setup(std::move(setup))
{
}

QtHostServices::~QtHostServices()
{
    delete m_progress.data();
}

bool QtHostServices::isLongMessage(const std::string& text)
{
    const QString shown = QString::fromStdString(text);
    return shown.count(QLatin1Char('\n')) >= kLongLines || shown.size() > kLongChars;
}

bool QtHostServices::isFileList(const std::string& text, int style, const std::string& title)
{
    const auto told = reissue::readGraphicMessage(text, style, title);
    return told && !told->failed;
}

void QtHostServices::msgBox(const std::string& text, int style, const std::string& title)
{
    std::error_code error;
    const std::filesystem::path fusion = m_setup.fusionDirectory ? m_setup.fusionDirectory() : std::filesystem::path();
    const bool folder = isFileList(text, style, title) && !fusion.empty() && std::filesystem::is_directory(fusion, error);
    const QString note = QString::fromStdString(m_setup.noteFor ? m_setup.noteFor(text, style, title) : std::string());
    // A message that does not hold as it stands is a warning, whatever the control chose.
    const QMessageBox::Icon icon = note.isEmpty() ? iconOfStyle(style) : QMessageBox::Warning;
    if (!isLongMessage(text)) {
        QMessageBox box(icon, QString::fromStdString(title), QString::fromStdString(text), QMessageBox::Ok, m_parent);
        box.setInformativeText(note);
        if (isFileList(text, style, title)) {
            box.setTextInteractionFlags(Qt::TextSelectableByMouse);
        }
        if (folder) {
            // An action button closes a QMessageBox all the same; for a short list that is fine.
            QPushButton* open = box.addButton(QStringLiteral("Ouvrir le dossier FUSION"), QMessageBox::ActionRole);
            QObject::connect(open, &QPushButton::clicked, open, [this] { openFusion(); });
            box.setDefaultButton(QMessageBox::Ok);
        }
        execMessageBox(box);
        return;
    }
    LongMessageBox box(icon, QString::fromStdString(title), QString::fromStdString(text), m_parent);
    box.setNote(note);
    if (isFileList(text, style, title)) {
        box.addCopyButton();
        if (folder) {
            box.addOpenFolderButton([this] { openFusion(); });
        }
    }
    execLongMessageBox(box);
}

void QtHostServices::openFusion()
{
    const std::filesystem::path fusion = m_setup.fusionDirectory ? m_setup.fusionDirectory() : std::filesystem::path();
    const QString folder = QString::fromStdString(fusion.string());
    const bool opened = m_setup.openFolder ? m_setup.openFolder(fusion) : QDesktopServices::openUrl(QUrl::fromLocalFile(folder));
    if (opened) {
        return;
    }
    // A workstation without a file manager: the operator still learns where the files are.
    QWidget* over = QApplication::activeModalWidget() ? QApplication::activeModalWidget() : m_parent.data();
    QMessageBox box(QMessageBox::Warning, QStringLiteral("Calvarine"),
        QStringLiteral("Le dossier FUSION ne peut pas être ouvert : aucun gestionnaire de fichiers ne répond sur ce poste.\n"
                       "Les fichiers sont dans le dossier :\n%1")
            .arg(folder),
        QMessageBox::Ok, over);
    box.setTextInteractionFlags(Qt::TextSelectableByMouse);
    execMessageBox(box);
}

void QtHostServices::beginCommand()
{
    m_inCommand = true;
    m_commandStart = std::chrono::steady_clock::now();
    m_lastRepaint = m_commandStart;
}

void QtHostServices::commandProgress(int done, int total)
{
    if (!m_inCommand) {
        return;
    }
    const auto now = std::chrono::steady_clock::now();
    if (!m_progress) {
        // A short command shows no window at all.
        if (now - m_commandStart < m_showAfter) {
            return;
        }
        m_progress = new CommandProgressWindow(m_parent);
        m_progress->setProgress(done, total, now - m_commandStart);
        m_progress->show();
        m_lastRepaint = now - m_repaintEvery;
    }
    m_progress->setProgress(done, total, now - m_commandStart);
    if (now - m_lastRepaint >= m_repaintEvery || done >= total) {
        m_lastRepaint = now;
        // The window is modal: input meant for the form is dropped, not queued.
        QCoreApplication::processEvents();
    }
    if (m_progress && m_progress->cancelled()) {
        // Thrown through the command: run here, it fails and publishes
        // nothing; on a server, the store withdraws it and its parts.
        throw DbaError(DbaError::Kind::CommandFailed, "Execute", "cancelled by the operator",
            "la création des fichiers a été annulée par l'opérateur : aucun fichier n'a été publié");
    }
}

void QtHostServices::endCommand()
{
    m_inCommand = false;
    if (m_progress) {
        // Input that arrived since the last repaint still meets the modal window.
        QCoreApplication::processEvents();
        delete m_progress.data();
    }
}

void QtHostServices::setCommandProgressTiming(std::chrono::milliseconds showAfter, std::chrono::milliseconds repaintEvery)
{
    m_showAfter = showAfter;
    m_repaintEvery = repaintEvery;
}

CommandProgressWindow* QtHostServices::commandProgressWindow() const
{
    return m_progress;
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
    popup->setTitle(QString::fromStdString(std::string(menu.row().caption)));
    popup->addSection(popup->title());
    const ScreenModel& screen = menu.screen();
    for (std::int16_t i = 0; i < screen.count(); ++i) {
        const Control& entry = screen.at(i);
        if (entry.kind() != ControlKind::MenuEntry || entry.container() != &menu) {
            continue;
        }
        QAction* action = popup->addAction(QString::fromStdString(std::string(entry.row().caption)));
        action->setData(QString::fromStdString(entry.name()));
        action->setEnabled(entry.enabled());
    }
    return popup;
}

void QtHostServices::popupMenu(Control& menu)
{
    const auto popup = buildPopupMenu(menu);
    QAction* chosen = execMenu(*popup, menuPosition());
    if (!chosen) {
        return;
    }
    // The choice runs before PopupMenu returns, as the control expects.
    ScreenModel& screen = menu.screen();
    if (Control* entry = screen.find(chosen->data().toString().toStdString()); entry && screen.canReach(*entry)) {
        screen.operatorClick(*entry);
    }
}

QPoint QtHostServices::menuPosition() const
{
    // The right button opens the menu where it is pressed (it is still down
    // while the press is handled); a key (Shift+F10, the Menu key) opens it
    // under the control that has the focus, which may be far from the pointer.
    if (QGuiApplication::mouseButtons() != Qt::NoButton) {
        return QCursor::pos();
    }
    if (const QWidget* focus = QApplication::focusWidget(); focus && focus->isVisible()) {
        return focus->mapToGlobal(QPoint(0, focus->height()));
    }
    if (m_parent) {
        return m_parent->mapToGlobal(m_parent->rect().center());
    }
    return QCursor::pos();
}

QAction* QtHostServices::execMenu(QMenu& menu, const QPoint& at)
{
    return menu.exec(at);
}

void QtHostServices::execMessageBox(QMessageBox& box)
{
    box.exec();
}

void QtHostServices::execLongMessageBox(LongMessageBox& box)
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
    if (m_setup.explainFailure) {
        if (const auto explained = m_setup.explainFailure(where, what)) {
            QMessageBox box(explained->icon, QStringLiteral("Calvarine"), explained->text, QMessageBox::Ok, m_parent);
            execMessageBox(box);
            return;
        }
    }
    QMessageBox box(QMessageBox::Critical, QStringLiteral("Calvarine"),
        QStringLiteral("Erreur dans %1 :\n%2").arg(QString::fromStdString(where), QString::fromStdString(what)),
        QMessageBox::Ok, m_parent);
    execMessageBox(box);
}
