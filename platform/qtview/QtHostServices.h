#pragma once

#include <functional>
#include <memory>
#include <string>

#include <QPointer>
#include <QWidget>

#include "shell/HostServices.h"

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
// Lives on the interface thread. The two exec hooks are the seams that tests
// use to answer dialogs and menus without a nested event loop.
class QtHostServices : public HostServices {
public:
    struct Setup {
        // Closes the form that carries the control. Called from inside a handler
        // of the control: it must not destroy the control before returning.
        std::function<void()> unloadForm;
        // Makes the help component; empty: the help fails with a message.
        std::function<std::shared_ptr<AideEnLigne>()> createHelp;
        // Reads and writes a date (see HostServices); empty: French dates.
        std::function<std::string(const std::string& text, const std::string& pattern)> formatDate;
    };

    explicit QtHostServices(Setup setup);

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

protected:
    // Shows the menu at the pointer; returns the action chosen, or null.
    virtual QAction* execMenu(QMenu& menu);
    // Shows the message box until the operator closes it.
    virtual void execMessageBox(QMessageBox& box);

private:
    Setup m_setup;
    QPointer<QWidget> m_parent;
};
