#pragma once

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include <QAction>
#include <QMenu>
#include <QMessageBox>
#include <QApplication>
#include <QKeyEvent>
#include <QDialog>
#include <QTimer>

#include "LongMessageBox.h"
#include "QtHostServices.h"

// The Qt host services with their dialogs answered by the test: message boxes
// (short and long) are recorded, shown to inspect if the test asks, and closed
// at once; menus choose the entry queued (or none) and record what they offered.
class TestHost : public QtHostServices {
public:
    explicit TestHost(Setup setup = {})
        : QtHostServices(std::move(setup))
    {
    }

    struct Box {
        QMessageBox::Icon icon;
        std::string title;
        std::string text;
        bool scrolls = false; // a LongMessageBox
    };
    std::vector<Box> boxes;
    std::function<void(QDialog&)> inspect; // called with each box, shown
    bool closeByEnter = false;             // boxes run for real, each closed by the Enter key
    std::vector<std::vector<std::string>> menus; // the captions of each menu shown
    std::deque<std::string> menuChoices;         // entry names to choose, in turn
    std::vector<QPoint> menuPositions;           // where each menu was asked to open

protected:
    QAction* execMenu(QMenu& menu, const QPoint& at) override
    {
        menuPositions.push_back(at);
        std::vector<std::string> captions;
        QAction* chosen = nullptr;
        const std::string wanted = menuChoices.empty() ? std::string() : menuChoices.front();
        if (!menuChoices.empty()) {
            menuChoices.pop_front();
        }
        for (QAction* action : menu.actions()) {
            captions.push_back(action->text().toStdString());
            if (!wanted.empty() && action->data().toString().toStdString() == wanted && action->isEnabled()) {
                chosen = action;
            }
        }
        menus.push_back(captions);
        return chosen;
    }

    void execMessageBox(QMessageBox& box) override
    {
        boxes.push_back({box.icon(), box.windowTitle().toStdString(), box.text().toStdString()});
        closeByEnter ? pressEnterIn(box) : look(box);
    }

    void execLongMessageBox(LongMessageBox& box) override
    {
        boxes.push_back({box.icon(), box.windowTitle().toStdString(), box.text().toStdString(), true});
        closeByEnter ? pressEnterIn(box) : look(box);
    }

private:
    static void pressEnterIn(QDialog& box)
    {
        QTimer::singleShot(0, &box, [&box] {
            for (const auto type : {QEvent::KeyPress, QEvent::KeyRelease}) {
                QKeyEvent key(type, Qt::Key_Return, Qt::NoModifier, QStringLiteral("\r"));
                QApplication::sendEvent(&box, &key);
            }
        });
        box.exec();
    }

    void look(QDialog& box)
    {
        if (inspect) {
            box.show();
            inspect(box);
            box.hide();
        }
    }
};

// Answers the next modal dialog of that name as answer says, once it shows.
inline void answerDialog(const QString& name, std::function<void(QDialog&)> answer)
{
    auto* timer = new QTimer(qApp);
    QObject::connect(timer, &QTimer::timeout, timer, [timer, name, answer] {
        auto* dialog = qobject_cast<QDialog*>(QApplication::activeModalWidget());
        if (dialog && dialog->objectName() == name) {
            timer->deleteLater();
            timer->stop();
            answer(*dialog);
        }
    });
    timer->start(10);
}
