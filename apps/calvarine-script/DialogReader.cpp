#include "DialogReader.h"

#include <QCoreApplication>
#include <QMessageBox>
#include <QPushButton>
#include <QTest>

#include "LongMessageBox.h"

namespace script {

namespace {

// The style a message box shows: its icon's code, and 0 for OK alone.
int styleShown(QMessageBox::Icon icon, bool okAlone)
{
    const int iconCode = icon == QMessageBox::Critical ? 16
        : icon == QMessageBox::Question                ? 32
        : icon == QMessageBox::Warning                 ? 48
        : icon == QMessageBox::Information             ? 64
                                                       : 0;
    return iconCode + (okAlone ? 0 : 1);
}

std::string messageLine(int style, const QString& title, const std::string& text)
{
    return "MSGBOX " + std::to_string(style) + " \"" + title.toStdString() + "\" \"" + text + "\"";
}

} // namespace

std::string DialogReader::show(const std::string& text, int style, const std::string& title)
{
    m_text = text;
    m_line.clear();
    msgBox(text, style, title);
    return m_line;
}

void DialogReader::execMessageBox(QMessageBox& box)
{
    box.show();
    QCoreApplication::processEvents();
    m_line = messageLine(styleShown(box.icon(), box.standardButtons() == QMessageBox::Ok), box.windowTitle(), box.text().toStdString());
    if (QAbstractButton* ok = box.button(QMessageBox::Ok)) {
        QTest::mouseClick(ok, Qt::LeftButton);
    }
    box.hide();
    giveBackActivation();
}

void DialogReader::giveBackActivation()
{
    // As a window system does when a modal dialog closes, before the code
    // after it runs: the window beneath is active again.
    if (QWidget* window = dialogParent()) {
        window->activateWindow();
        QCoreApplication::processEvents();
    }
}

void DialogReader::execLongMessageBox(LongMessageBox& box)
{
    // Its lines are shown apart, the line breaks of the text as given are not:
    // the text is the host's; title, icon and buttons are the dialog's.
    box.show();
    QCoreApplication::processEvents();
    m_line = messageLine(styleShown(box.icon(), true), box.windowTitle(), m_text);
    QTest::mouseClick(box.okButton(), Qt::LeftButton);
    box.hide();
    giveBackActivation();
}

} // namespace script
