#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <QMainWindow>

#include "QtHostServices.h"

class Ctr_Calvarine;
class HostedSibling;
class PrintingMenu;
class ScreenView;
class StatusText;

namespace reissue {
struct GraphicOutcome;
}
namespace outcome {
class WatchedDatabase;
}
namespace store {
class Store;
}

// The form that carries the control and plays its host: it hands over the
// database, the client and the rights, puts the sibling printing control on
// the form, calls Init, closes when the control unloads it, and terminates the
// control when it closes, whichever way.
//
// Its title names the user and the database; its status line tells whether the
// user may print. While a server command runs, the host services show its
// progress.
class HostWindow : public QMainWindow {
public:
    struct Options {
        std::string user;                             // for the client and the rights
        std::optional<std::filesystem::path> printTo; // paper runs as PDF files there
        std::string database;                         // as the title shows it
    };
    using HostFactory = std::function<std::unique_ptr<QtHostServices>(QtHostServices::Setup)>;

    // makeHost: the host services to use (tests answer dialogs through them).
    HostWindow(std::shared_ptr<store::Store> store, Options options, const HostFactory& makeHost = {});
    ~HostWindow() override;

    // Gives the control what it needs and calls Init. False when Init failed:
    // startFailure() then says why, in the operator's words, and the window is
    // of no more use (the control cannot start twice).
    bool start();
    const QString& startFailure() const { return m_startFailure; }
    // The status line's text about the user's right to print.
    QString rightsText() const;

    Ctr_Calvarine& control() const { return *m_control; }
    ScreenView& view() const { return *m_view; }
    QtHostServices& host() const { return *m_host; }
    PrintingMenu& printing() const { return *m_printing; }
    // The status line's part about the last run (paper or files); empty from
    // the moment the next run begins.
    QString paperStatus() const;
    // Fichier ▸ Journal des rééditions… (see JournalDialog).
    void showJournal();

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    void setLastRun(const QString& text);
    // Fichier ▸ Dernier résultat…: the last run's outcome whole, in a box.
    void showLastRun();

    std::shared_ptr<store::Store> m_store;
    // The database as the control reaches it, watched for the outcome of a re-issue.
    std::shared_ptr<outcome::WatchedDatabase> m_watched;
    // Shows a wait on a server that does not answer, with Annuler.
    std::unique_ptr<class ServerWait> m_serverWait;
    Options m_options;
    std::unique_ptr<QtHostServices> m_host;
    std::unique_ptr<Ctr_Calvarine> m_control;
    ScreenView* m_view = nullptr; // child widget, deleted before the control
    StatusText* m_rights = nullptr; // in the status bar
    QString m_startFailure;
    PrintingMenu* m_printing = nullptr; // child object
    std::weak_ptr<HostedSibling> m_belmontis; // the control holds it
    StatusText* m_paperStatus = nullptr; // in the status bar
};

// What an exception that stopped Init means for the operator: which file or
// record of the database is missing, in French; other failures as they read.
QString startFailureText(const std::exception& error);

// The status line after a file run: the folder FUSION (or that it is the
// server's), then how many files, the first and the last, and the first line
// of what the host noted under the message, if anything.
QString fileRunStatus(const reissue::GraphicOutcome& told, const std::filesystem::path& fusion, const std::string& note);

// A paper run that printed nothing (what the sibling threw) as the operator is
// told it: a preview cancelled is information, anything else a warning with
// the reason, and both say that the selection is kept.
QtHostServices::Explained paperFailure(const std::string& what);
