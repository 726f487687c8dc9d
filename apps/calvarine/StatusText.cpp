#include "StatusText.h"

#include <QResizeEvent>

StatusText::StatusText(QWidget* parent)
    : QLabel(parent)
{
    setTextFormat(Qt::PlainText);
    setWordWrap(false);
}

void StatusText::setFullText(const QString& text)
{
    m_full = text;
    updateGeometry();
    elide();
}

QSize StatusText::sizeHint() const
{
    // The whole text when there is room; the layout may give less.
    return {fontMetrics().horizontalAdvance(m_full) + 2 * margin() + 2, QLabel::sizeHint().height()};
}

QSize StatusText::minimumSizeHint() const
{
    return {fontMetrics().horizontalAdvance(QStringLiteral("…")) * 3, QLabel::minimumSizeHint().height()};
}

void StatusText::resizeEvent(QResizeEvent* event)
{
    QLabel::resizeEvent(event);
    elide();
}

void StatusText::elide()
{
    const QString shown = fontMetrics().elidedText(m_full, Qt::ElideRight, contentsRect().width());
    if (shown != text()) {
        setText(shown);
    }
    setToolTip(shown == m_full ? QString() : m_full);
}
