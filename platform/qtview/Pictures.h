#pragma once

#include <QPixmap>

// The pictures of the screen, drawn rather than shipped: the arrows of the two
// transfer buttons (16 by 16) and the picture that follows a drag between the
// lists (32 by 32). dpr is the device pixel ratio they are drawn for.
namespace Pictures {

enum class Arrow { Down, Up };

QPixmap arrow(Arrow direction, qreal dpr);
QPixmap dragPicture(qreal dpr);

} // namespace Pictures
