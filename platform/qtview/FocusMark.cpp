#include "FocusMark.h"

#include <QEvent>
#include <QPainter>

namespace {

constexpr int kWidth = 2; // pixels of the frame, outside the control

} // namespace

FocusMark::FocusMark(QWidget* view)
    : QWidget(view)
{
    setObjectName(QStringLiteral("focus mark"));
    setAttribute(Qt::WA_TransparentForMouseEvents);
    setFocusPolicy(Qt::NoFocus);
    hide();
}

void FocusMark::follow(QWidget* target)
{
    if (m_target) {
        m_target->removeEventFilter(this);
    }
    m_target = target;
    if (!target) {
        hide();
        return;
    }
    target->installEventFilter(this); // it may move, hide or be disabled
    place();
}

void FocusMark::place()
{
    if (!m_target || !m_target->isVisible() || !m_target->hasFocus()) {
        hide();
        return;
    }
    const QRect around(m_target->mapTo(parentWidget(), QPoint(0, 0)), m_target->size());
    setGeometry(around.adjusted(-kWidth, -kWidth, kWidth, kWidth));
    raise();
    show();
    update();
}

bool FocusMark::eventFilter(QObject* watched, QEvent* event)
{
    if (watched == m_target) {
        switch (event->type()) {
        case QEvent::Move:
        case QEvent::Resize:
        case QEvent::Show:
        case QEvent::Hide:
        case QEvent::FocusIn:
        case QEvent::FocusOut:
        case QEvent::EnabledChange:
            place();
            break;
        default:
            break;
        }
    }
    return false;
}

void FocusMark::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    QPen pen(palette().color(QPalette::Highlight), kWidth);
    pen.setJoinStyle(Qt::MiterJoin);
    painter.setPen(pen);
    painter.drawRect(QRectF(rect()).adjusted(kWidth / 2.0, kWidth / 2.0, -kWidth / 2.0, -kWidth / 2.0));
}
