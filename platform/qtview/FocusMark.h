#pragma once

#include <QPointer>
#include <QWidget>

// A frame drawn around the control that has the focus, over the view, so that
// the operator at the keyboard sees where a key will act whatever the style
// draws (some styles mark a focused list or button by one pale line only).
// It takes no mouse input and no focus.
class FocusMark final : public QWidget {
public:
    explicit FocusMark(QWidget* view);

    // Stands around target (a widget inside the view), or hides for none.
    void follow(QWidget* target);

protected:
    void paintEvent(QPaintEvent* event) override;
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void place();

    QPointer<QWidget> m_target;
};
