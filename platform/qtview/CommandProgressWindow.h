#pragma once

#include <chrono>

#include <QDialog>

class QLabel;
class QProgressBar;

// How far a server command has got while Execute runs it: the statements done
// out of the total, a bar, and the time left once the rate can be judged. The
// window is application-modal, so while it repaints no operator input reaches
// the screen or the form's menus; it cannot be closed by the operator (no close
// button, Esc ignored): it goes when the command ends.
class CommandProgressWindow : public QDialog {
public:
    explicit CommandProgressWindow(QWidget* parent = nullptr);

    // elapsed: since the command began.
    void setProgress(int done, int total, std::chrono::steady_clock::duration elapsed);

    QString countText() const;
    QString timeText() const;
    QProgressBar* bar() const { return m_bar; }

    // "environ 2 min 05 s"; for a time left.
    static QString durationText(std::chrono::seconds left);

    void reject() override {} // Esc: the command runs on

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    QLabel* m_count = nullptr;
    QLabel* m_time = nullptr;
    QProgressBar* m_bar = nullptr;
};
