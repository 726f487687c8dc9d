#pragma once

#include <QLabel>

// One part of a status line that never widens its window: a text too long for
// the room it is given is cut with "…", and the whole of it becomes the
// tooltip. text() is what shows; fullText() what was set.
class StatusText : public QLabel {
public:
    explicit StatusText(QWidget* parent = nullptr);

    void setFullText(const QString& text);
    const QString& fullText() const { return m_full; }

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

protected:
    void resizeEvent(QResizeEvent* event) override;

private:
    void elide();

    QString m_full;
};
