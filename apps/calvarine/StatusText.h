#pragma once

#include <QLabel>

// One part of a status line that never widens its window: a text too long for
// the room it is given runs on to a second line where it has one (broken
// between words), and what is still too long is cut with "…". Its whole text is
// always the tooltip. text() is what shows; fullText() what was set.
//
// The part keeps the height of all its lines even when the text needs fewer,
// so that the window does not jump as texts come and go.
class StatusText : public QLabel {
public:
    explicit StatusText(QWidget* parent = nullptr, int lines = 1);

    void setFullText(const QString& text);
    const QString& fullText() const { return m_full; }

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

protected:
    void resizeEvent(QResizeEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    void elide();

    QString m_full;
    int m_lines = 1;
};
