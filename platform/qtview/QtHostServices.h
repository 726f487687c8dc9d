#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <QMessageBox>
#include <QPointer>
#include <QWidget>

#include "shell/HostServices.h"

class CommandProgressWindow;
class LongMessageBox;
class QAction;
class QMenu;
class QMessageBox;

// The host services on Qt: message boxes with the icon of their style, the
// platform's beep, processing of pending events, the pop-up menu built from the
// menu entries of the screen, and failures reported in a message box.
//
// The wait state (wait cursor, control disabled) is shown by ScreenView, which
// observes the screen model. What depends on the application (unloading its
// form, the help viewer, dates) is handed in as functions.
//
// Message boxes grow with their text up to the screen, then scroll (see
// LongMessageBox); the list of generated files offers to open FUSION and to copy
// the names. While a server command runs, its progress shows in a window that
// repaints and keeps the operator's input away (see CommandProgressWindow).
//
// Lives on the interface thread. The exec hooks are the seams that tests use to
// answer dialogs and menus without a nested event loop.
class QtHostServices : public HostServices {
public:
    // A failure as the operator is told it.
    struct Explained {
        QMessageBox::Icon icon = QMessageBox::Critical;
        QString text;
    };

    struct Setup {
        // Closes the form that carries the control. Called from inside a handler
        // of the control: it must not destroy the control before returning.
        std::function<void()> unloadForm;
        // Makes the help component; empty: the help fails with a message.
        std::function<std::shared_ptr<AideEnLigne>()> createHelp;
        // Reads and writes a date (see HostServices); empty: French dates.
        std::function<std::string(const std::string& text, const std::string& pattern)> formatDate;
        // The folder FUSION as this workstation sees it; empty (or a folder that
        // does not exist here): the file list offers no folder to open.
        std::function<std::filesystem::path()> fusionDirectory;
        // Opens a folder in the desktop's file manager, and says whether the
        // desktop did; empty: QDesktopServices.
        std::function<bool(const std::filesystem::path&)> openFolder;
        // What the host adds under a message of the control (text, style, title),
        // in the box itself, with the warning icon; "" for nothing. Empty: nothing.
        std::function<std::string(const std::string& text, int style, const std::string& title)> noteFor;
        // Says a failure of a handler in the operator's words with its icon
        // (a paper run the operator cancelled is information, not an error);
        // nothing: "Erreur dans <handler>" with the critical icon.
        std::function<std::optional<Explained>(const std::string& where, const std::string& what)> explainFailure;
    };

    explicit QtHostServices(Setup setup);
    ~QtHostServices() override;

    // The window that dialogs and menus stand over; may be null.
    void setDialogParent(QWidget* parent) { m_parent = parent; }
    QWidget* dialogParent() const { return m_parent; }

    void msgBox(const std::string& text, int style, const std::string& title) override;
    void beep() override;
    void doEvents() override;
    void popupMenu(Control& menu) override;
    void unloadForm() override;
    std::string formatDate(const std::string& text, const std::string& pattern) override;
    std::shared_ptr<AideEnLigne> createHelp() override;
    void reportFailure(const std::string& where, const std::string& what) override;

    // The pop-up menu headed by menu: a section with its caption, then one
    // action per entry under it, enabled as the entry is. Each action's data is
    // the entry's name.
    std::unique_ptr<QMenu> buildPopupMenu(const Control& menu) const;
    // Where the pop-up menu opens, in global coordinates: at the pointer for
    // the right button, under the focused control for a key.
    QPoint menuPosition() const;

    // Around a server command that Execute runs: its progress (done statements
    // out of total) shows in a window once the command has run showAfter, and the
    // window repaints at most every repaintEvery; endCommand takes it away.
    void beginCommand();
    void commandProgress(int done, int total);
    void endCommand();
    void setCommandProgressTiming(std::chrono::milliseconds showAfter, std::chrono::milliseconds repaintEvery);
    // The progress window while it shows; null otherwise.
    CommandProgressWindow* commandProgressWindow() const;

    // A text that a QMessageBox would show taller than the screen or too wide.
    static bool isLongMessage(const std::string& text);
    // The control's message that lists the files generated in FUSION.
    static bool isFileList(const std::string& text, int style, const std::string& title);

protected:
    // Shows the menu at at; returns the action chosen, or null.
    virtual QAction* execMenu(QMenu& menu, const QPoint& at);
    // Shows the message box until the operator closes it.
    virtual void execMessageBox(QMessageBox& box);
    virtual void execLongMessageBox(LongMessageBox& box);

private:
    void openFusion();

    Setup m_setup;
    QPointer<QWidget> m_parent;
    QPointer<CommandProgressWindow> m_progress;
    bool m_inCommand = false;
    std::chrono::steady_clock::time_point m_commandStart;
    std::chrono::steady_clock::time_point m_lastRepaint;
    std::chrono::milliseconds m_showAfter{300};
    std::chrono::milliseconds m_repaintEvery{50};
};
