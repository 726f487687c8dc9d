#include "StatusText.h"

#include <QResizeEvent>

namespace {

// How much of text goes on a line of width: up to the last space that fits,
// or, for a word longer than the line, as many characters as fit.
qsizetype firstLineLength(const QString& text, const QFontMetrics& metrics, int width)
{
    qsizetype fits = -1;
    for (qsizetype space = text.indexOf(QLatin1Char(' ')); space > 0; space = text.indexOf(QLatin1Char(' '), space + 1)) {
        if (metrics.horizontalAdvance(text.left(space)) > width) {
            break;
        }
        fits = space;
    }
    if (fits > 0) {
        return fits;
    }
    qsizetype characters = 1;
    while (characters < text.size() && metrics.horizontalAdvance(text.left(characters + 1)) <= width) {
        ++characters;
    }
    return characters;
}

} // namespace

StatusText::StatusText(QWidget* parent, int lines)
    : QLabel(parent)
    , m_lines(std::max(1, lines))
{
    setTextFormat(Qt::PlainText);
    setWordWrap(false);
    setAlignment(Qt::AlignLeft | Qt::AlignTop);
}

void StatusText::setFullText(const QString& text)
{
    m_full = text;
    setAccessibleDescription(text);
    updateGeometry();
    elide();
}

QSize StatusText::sizeHint() const
{
    // The whole text on one line when there is room; the layout may give less.
    return {fontMetrics().horizontalAdvance(m_full) + 2 * margin() + 2, minimumSizeHint().height()};
}

QSize StatusText::minimumSizeHint() const
{
    return {fontMetrics().horizontalAdvance(QStringLiteral("…")) * 3,
        fontMetrics().lineSpacing() * (m_lines - 1) + fontMetrics().height() + 2 * margin() + 2};
}

void StatusText::resizeEvent(QResizeEvent* event)
{
    QLabel::resizeEvent(event);
    elide();
}

void StatusText::changeEvent(QEvent* event)
{
    QLabel::changeEvent(event);
    if (event->type() == QEvent::FontChange) {
        updateGeometry();
        elide();
    }
}

void StatusText::elide()
{
    const QFontMetrics metrics = fontMetrics();
    const int width = contentsRect().width();
    QStringList lines;
    QString rest = m_full;
    while (!rest.isEmpty() && static_cast<int>(lines.size()) < m_lines - 1 && metrics.horizontalAdvance(rest) > width) {
        const qsizetype cut = firstLineLength(rest, metrics, width);
        lines.append(rest.left(cut));
        rest = rest.mid(cut).trimmed();
    }
    if (!rest.isEmpty() || lines.isEmpty()) {
        lines.append(metrics.elidedText(rest, Qt::ElideRight, width));
    }
    const QString shown = lines.join(QLatin1Char('\n'));
    if (shown != text()) {
        setText(shown);
    }
    setToolTip(m_full);
}
