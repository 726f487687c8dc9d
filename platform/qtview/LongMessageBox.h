#pragma once

#include <functional>

#include <QDialog>
#include <QMessageBox>
#include <QString>

class QPlainTextEdit;
class QPushButton;

// A message box for texts too long for QMessageBox, which grows with its text
// until its buttons leave the screen: the first line stands as the heading, the
// rest in a read-only text area (scrollable, selectable, copyable), and the
// dialog never grows beyond the screen it opens on, so OK stays in reach.
//
// For the list of generated files, addCopyButton copies the listed names and
// addOpenFolderButton opens their folder; neither closes the box.
class LongMessageBox : public QDialog {
public:
    LongMessageBox(QMessageBox::Icon icon, const QString& title, const QString& text, QWidget* parent = nullptr);

    QMessageBox::Icon icon() const { return m_icon; }
    // The whole text, lines separated by '\n'.
    QString text() const { return m_text; }
    QPlainTextEdit* body() const { return m_body; }
    QPushButton* okButton() const { return m_ok; }
    // A paragraph under the text, from the host rather than the one who wrote the text.
    void setNote(const QString& note);
    QString note() const;

    // "Copier la liste": the lines of the body, without their " - " bullets.
    QPushButton* addCopyButton();
    // "Ouvrir le dossier FUSION": calls open.
    QPushButton* addOpenFolderButton(std::function<void()> open);

    // The size that shows the whole text, bounded by the available screen.
    QSize sizeHint() const override;

protected:
    void showEvent(QShowEvent* event) override;

private:
    bool m_sized = false;
    QMessageBox::Icon m_icon;
    QString m_text;
    QPlainTextEdit* m_body = nullptr;
    class QLabel* m_note = nullptr;
    QPushButton* m_ok = nullptr;
    class QDialogButtonBox* m_buttons = nullptr;
};
