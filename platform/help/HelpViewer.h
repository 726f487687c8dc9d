#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <QPointer>
#include <QTextBrowser>
#include <QWidget>

#include "shell/Components.h"


namespace help {

// The help component on Qt: AfficherPage shows a page of the help folder in a
// help window (a QTextBrowser, one per component, reused from call to call).
//
// Page names are plain file names ("Calvarine.htm"), looked up in each folder
// of the search path in turn. The mode "P" shows the page from its top; it is
// the only mode. The window is titled "Aide – <title>", closes on Esc and on the
// desktop's close keys (Ctrl+W), and keeps its size for the next time (QSettings
// "help/size"). The result is the path of the page shown.
//
// Failures are thrown: std::invalid_argument for a name that is not a plain
// file name or an unknown mode, std::runtime_error for a page found nowhere.
//
// The window is a child window of owner (may be null), so it goes with the
// host's form. Interface thread only.
class HelpViewer final : public AideEnLigne {
public:
    explicit HelpViewer(std::vector<std::filesystem::path> searchPath, QWidget* owner = nullptr);
    ~HelpViewer() override;

    // The installed help folder (<prefix>/share/calvarine/help beside the
    // application), the user's and system's data folders, then the source tree.
    static std::vector<std::filesystem::path> defaultSearchPath();

    void Client(std::shared_ptr<DbaClient> client) override { m_client = std::move(client); }
    void Base(std::shared_ptr<DbaDatabase> base) override { m_base = std::move(base); }
    std::string AfficherPage(std::string& page, std::string& mode, std::string& title) override;

    // Where a page lies; empty when it lies nowhere on the search path.
    std::filesystem::path find(const std::string& page) const;
    // The help window, once a page was shown.
    QTextBrowser* window() const { return m_window; }
    const std::shared_ptr<DbaClient>& client() const noexcept { return m_client; }
    const std::shared_ptr<DbaDatabase>& base() const noexcept { return m_base; }

private:
    std::vector<std::filesystem::path> m_searchPath;
    QPointer<QWidget> m_owner;
    QPointer<QTextBrowser> m_window;
    std::shared_ptr<DbaClient> m_client;
    std::shared_ptr<DbaDatabase> m_base;
};

} // namespace help
