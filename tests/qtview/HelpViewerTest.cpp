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

} // namespace
