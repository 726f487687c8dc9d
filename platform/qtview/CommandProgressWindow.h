#pragma once

#include <chrono>

#include <QDialog>

class QLabel;
class QProgressBar;
class QPushButton;

// How far a server command has got while Execute runs it: the statements done
// out of the total, a bar, the time left once the rate can be judged, and
// Annuler. The window is application-modal, so while it repaints no operator
// input reaches the screen or the form's menus; it cannot be closed (no close
// button, Esc ignored): it goes when the command ends. Annuler is never the
// default button, so that an Enter still held from "Imprimer" cancels nothing:
// it is pressed by the mouse, by Space, or by Alt+A. Once pressed, the window
// says that the run is being cancelled; the host ends the command at its next
// report (see cancelled()).
class CommandProgressWindow : public QDialog {
public:
    explicit CommandProgressWindow(QWidget* parent = nullptr);

    // elapsed: since the command began.
    void setProgress(int done, int total, std::chrono::steady_clock::duration elapsed);

    QString countText() const;
    QString timeText() const;
    QProgressBar* bar() const { return m_bar; }
    QPushButton* cancelButton() const { return m_cancel; }
    // Whether the operator pressed Annuler.
    bool cancelled() const noexcept { return m_cancelled; }

    // "environ 2 min 05 s"; for a time left.
    static QString durationText(std::chrono::seconds left);

    void reject() override {} // Esc: the command runs on

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    QLabel* m_count = nullptr;
    QLabel* m_time = nullptr;
    QProgressBar* m_bar = nullptr;
    QPushButton* m_cancel = nullptr;
    bool m_cancelled = false;
};
