#include <gtest/gtest.h>

#include <QSettings>
#include <QTemporaryDir>
#include <QTest>
#include <QTextBrowser>

#include "HelpViewer.h"

namespace {

TEST(HelpViewerTest, ShowsTheScreensPageFromTheDefaultSearchPath)
{
    help::HelpViewer viewer(help::HelpViewer::defaultSearchPath());
    std::string page = "Calvarine.htm";
    std::string mode = "P";
    std::string title = "Calvarine";
    const std::string shown = viewer.AfficherPage(page, mode, title);
    EXPECT_EQ(std::filesystem::path(shown).filename(), "Calvarine.htm");
    ASSERT_NE(viewer.window(), nullptr);
    EXPECT_EQ(viewer.window()->windowTitle(), QStringLiteral("Aide – Calvarine"));
    EXPECT_TRUE(viewer.window()->toPlainText().contains(QStringLiteral("fichier graphique")));
    // Asked again, the same window shows it.
    QTextBrowser* first = viewer.window();
    viewer.AfficherPage(page, mode, title);
    EXPECT_EQ(viewer.window(), first);
}

TEST(HelpViewerTest, RefusesPagesOutsideItsFoldersAndUnknownModes)
{
    QTemporaryDir dir;
    help::HelpViewer viewer({dir.path().toStdString()});
    std::string mode = "P";
    std::string title = "Calvarine";
    std::string missing = "Calvarine.htm";
    EXPECT_THROW(viewer.AfficherPage(missing, mode, title), std::runtime_error);
    for (std::string bad : {"../Calvarine.htm", "/etc/passwd", "", ".."}) {
        EXPECT_THROW(viewer.AfficherPage(bad, mode, title), std::invalid_argument) << bad;
    }
    std::string page = "Calvarine.htm";
    std::string other = "X";
    EXPECT_THROW(viewer.AfficherPage(page, other, title), std::invalid_argument);
    EXPECT_EQ(viewer.window(), nullptr);
}

// The help window is a secondary window: Esc and Ctrl+W close it, and the next
// one opens at the size the operator gave the last.
TEST(HelpViewerTest, ClosesOnEscAndCtrlWAndRemembersItsSize)
{
    QTemporaryDir settings;
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, settings.path());
    help::HelpViewer viewer(help::HelpViewer::defaultSearchPath());
    std::string page = "Calvarine.htm";
    std::string mode = "P";
    std::string title = "Calvarine";
    const auto show = [&] {
        viewer.AfficherPage(page, mode, title);
        EXPECT_TRUE(QTest::qWaitForWindowActive(viewer.window()));
        return viewer.window();
    };

    QPointer<QTextBrowser> window = show();
    window->resize(500, 420);
    QTest::keyClick(window, Qt::Key_Escape);
    EXPECT_FALSE(window->isVisible());
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    EXPECT_TRUE(window.isNull()); // closed, and gone with it
    ASSERT_EQ(viewer.window(), nullptr);

    window = show();
    EXPECT_EQ(window->size(), QSize(500, 420));
    QTest::keyClick(window, Qt::Key_W, Qt::ControlModifier);
    EXPECT_FALSE(window->isVisible());
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    EXPECT_TRUE(window.isNull());

    // A size remembered from a larger screen: the window still opens whole on this one.
    QSettings().setValue("help/size", QSize(5000, 4000));
    window = show();
    EXPECT_TRUE(window->screen()->availableGeometry().contains(window->frameGeometry()))
        << window->frameGeometry().width() << "x" << window->frameGeometry().height();
    window->close();
}

} // namespace
