#include "Pictures.h"

#include <QPainter>
#include <QPolygonF>

namespace Pictures {

namespace {

QPixmap canvas(int size, qreal dpr)
{
    QPixmap pixmap(qRound(size * dpr), qRound(size * dpr));
    pixmap.setDevicePixelRatio(dpr);
    pixmap.fill(Qt::transparent);
    return pixmap;
}

} // namespace

QPixmap arrow(Arrow direction, qreal dpr)
{
    QPixmap pixmap = canvas(16, dpr);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    painter.setBrush(QColor(0x1f, 0x3a, 0x93));
    // Drawn pointing down, then turned over for the upward arrow.
    if (direction == Arrow::Up) {
        painter.translate(0, 16);
        painter.scale(1, -1);
    }
    painter.drawRect(QRectF(5.5, 1.5, 5, 7));
    painter.drawPolygon(QPolygonF({QPointF(1.5, 8), QPointF(14.5, 8), QPointF(8, 14.5)}));
    return pixmap;
}

QPixmap dragPicture(qreal dpr)
{
    QPixmap pixmap = canvas(32, dpr);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    // A sheet with a few lines of text: a statement on its way to the other list.
    painter.setPen(QPen(QColor(0x40, 0x40, 0x40), 1));
    painter.setBrush(Qt::white);
    painter.drawRect(QRectF(6.5, 2.5, 19, 26));
    painter.setPen(QPen(QColor(0x1f, 0x3a, 0x93), 1.5));
    for (int line = 0; line < 5; ++line) {
        const qreal y = 8 + line * 4;
        painter.drawLine(QPointF(10, y), QPointF(line % 2 ? 18 : 22, y));
    }
    return pixmap;
}

} // namespace Pictures
