#pragma once

// The host's printing menu, beside the screen (outside the control):
// Fichier ▸ Imprimante… chooses the printer, the number of copies, duplex and
// the number of pages beyond which a paper run is confirmed, remembered per user; Fichier ▸ Aperçu avant impression is a switch that makes
// paper runs open a print preview first, where the operator confirms or
// cancels; Fichier ▸ Journal des rééditions… opens the journal (the host
// connects it, and enables it only for a user who may print). The sibling printing control receives these choices before each run
// (see HostedSibling in Sibling.h).

#include <string>

#include <QObject>

class QAction;
class QDialog;
class QMainWindow;
class QMenu;

struct PaperChoice {
    std::string printer; // empty: the print server's default
    int copies = 1;
    bool duplex = false;
    // A paper run of more pages than this (copies included) is confirmed
    // first, naming its pages and printer; 0: never.
    int confirmAbove = kDefaultConfirmAbove;
    static constexpr int kDefaultConfirmAbove = 200;
};

class PrintingMenu : public QObject {
public:
    // Adds the entries to the window's "Fichier" menu (made if missing).
    explicit PrintingMenu(QMainWindow& window);

    // The operator's choice, as remembered (QSettings, group "impression").
    PaperChoice choice() const;
    void remember(const PaperChoice& choice);
    bool preview() const;

    QAction* printerAction() const { return m_printer; }
    // The window's "Fichier" menu, where these entries are.
    QMenu& menu() const { return *m_menu; }
    QAction* previewAction() const { return m_preview; }
    QAction* journalAction() const { return m_journal; }

    // Opens the printer dialog ("ChoixImprimante": combo box "Imprimante",
    // spin box "Copies", check box "RectoVerso", spin box "SeuilConfirmation")
    // and remembers what the operator accepts.
    void choosePrinter();

private:
    QMainWindow& m_window;
    QMenu* m_menu = nullptr;
    QAction* m_printer = nullptr;
    QAction* m_preview = nullptr;
    QAction* m_journal = nullptr;
};
