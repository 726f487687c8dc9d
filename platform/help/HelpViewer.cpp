#include "HelpViewer.h"

#include <algorithm>
#include <stdexcept>

#include <QCoreApplication>
#include <QDir>
#include <QEvent>
#include <QKeyEvent>
#include <QKeySequence>
#include <QScreen>
#include <QSettings>
#include <QShortcut>
#include <QStandardPaths>
#include <QTextBrowser>
#include <QUrl>

namespace help {

namespace {

constexpr const char* kSizeKey = "help/size";

// Keeps the size the operator gives the help window, for the next window, and
// closes it on Esc, which the text browser would otherwise take for itself.
class WindowKeeper : public QObject {
public:
    using QObject::QObject;

protected:
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        auto* window = qobject_cast<QWidget*>(watched);
        if (event->type() == QEvent::Resize && window && window->isVisible()) {
            QSettings().setValue(kSizeKey, window->size());
        }
        if (event->type() == QEvent::KeyPress && window && static_cast<QKeyEvent*>(event)->key() == Qt::Key_Escape
            && static_cast<QKeyEvent*>(event)->modifiers() == Qt::NoModifier) {
            window->close();
            return true;
        }
        return false;
    }
};

// Beside the screen's window where there is room, so that the operator reads
// while working; over it otherwise; always whole on the screen, however large
// the size remembered from another screen.
void place(QWidget& window, const QWidget* owner, QSize size)
{
    const QScreen* screen = owner ? owner->screen() : window.screen();
    if (!screen) {
        window.resize(size);
        return;
    }
    // Room is kept for the frame and title that the desktop adds.
    const QSize frame(16, 48);
    const QRect room = screen->availableGeometry();
    size = size.boundedTo(room.size() - frame);
    window.resize(size);
    QPoint at = room.center() - QPoint(size.width() / 2, size.height() / 2);
    if (owner) {
        const QRect beside = owner->window()->frameGeometry();
        at = beside.center() - QPoint(size.width() / 2, size.height() / 2);
        if (beside.right() + frame.width() + size.width() <= room.right()) {
            at = {beside.right() + 1, beside.top()};
        } else if (beside.left() - frame.width() - size.width() >= room.left()) {
            at = {beside.left() - frame.width() - size.width(), beside.top()};
        }
    }
    at.setX(std::clamp(at.x(), room.left(), room.right() + 1 - frame.width() - size.width()));
    at.setY(std::clamp(at.y(), room.top(), room.bottom() + 1 - frame.height() - size.height()));
    window.move(at);
}

} // namespace

HelpViewer::HelpViewer(std::vector<std::filesystem::path> searchPath, QWidget* owner)
    : m_searchPath(std::move(searchPath))
    , m_owner(owner)
{
}

HelpViewer::~HelpViewer()
{
    // The component may be kept until the process ends, past the application
    // object: a window still open by then is not ours to delete any more.
    if (m_window && QCoreApplication::instance()) {
        delete m_window;
    }
}

std::vector<std::filesystem::path> HelpViewer::defaultSearchPath()
{
    std::vector<std::filesystem::path> path;
    if (QCoreApplication::instance()) {
        const QDir bin(QCoreApplication::applicationDirPath());
        path.emplace_back(bin.absoluteFilePath(QStringLiteral("../" CALVARINE_INSTALL_DATADIR "/calvarine/help")).toStdString());
    }
    for (const QString& dir : QStandardPaths::locateAll(QStandardPaths::GenericDataLocation, QStringLiteral("calvarine/help"),
             QStandardPaths::LocateDirectory)) {
        path.emplace_back(dir.toStdString());
    }
    path.emplace_back(CALVARINE_SOURCE_HELP_DIR);
    return path;
}

std::filesystem::path HelpViewer::find(const std::string& page) const
{
    for (const auto& dir : m_searchPath) {
        std::error_code error;
        const auto candidate = dir / page;
        if (std::filesystem::is_regular_file(candidate, error)) {
            return std::filesystem::weakly_canonical(candidate, error);
        }
    }
    return {};
}

std::string HelpViewer::AfficherPage(std::string& page, std::string& mode, std::string& title)
{
    const std::filesystem::path name(page);
    if (page.empty() || name.has_parent_path() || name.filename() != name || page == "." || page == "..") {
        throw std::invalid_argument("nom de page d'aide incorrect : " + page);
    }
    if (mode != "P") {
        throw std::invalid_argument("mode d'affichage de l'aide inconnu : " + mode);
    }
    const std::filesystem::path file = find(page);
    if (file.empty()) {
        throw std::runtime_error("page d'aide introuvable : " + page);
    }
    if (!m_window) {
        m_window = new QTextBrowser(m_owner);
        m_window->setWindowFlag(Qt::Window);
        m_window->setAttribute(Qt::WA_DeleteOnClose);
        m_window->setOpenExternalLinks(true);
        const QSize remembered = QSettings().value(kSizeKey).toSize();
        place(*m_window, m_owner, remembered.isValid() && !remembered.isEmpty() ? remembered : QSize(640, 600));
        // Closed like any secondary window: Esc, or the desktop's close keys (Ctrl+W).
        QTextBrowser* window = m_window;
        new QShortcut(QKeySequence::Close, window, window, &QWidget::close, Qt::WindowShortcut);
        m_window->installEventFilter(new WindowKeeper(m_window));
    }
    // Its own title, so the operator tells it from the screen's window.
    m_window->setWindowTitle(QStringLiteral("Aide – %1").arg(QString::fromStdString(title)));
    m_window->setSource(QUrl::fromLocalFile(QString::fromStdString(file.string())));
    m_window->show();
    m_window->raise();
    m_window->activateWindow();
    return file.string();
}

} // namespace help
