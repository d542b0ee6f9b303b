#include "ui/preview/previewgeometry.h"

#include <algorithm>

namespace orvane::PreviewGeometry {

QRectF fittedRect(std::int64_t imageW, std::int64_t imageH, QSizeF in)
{
    if (imageW < 1 || imageH < 1 || !(in.width() > 0) || !(in.height() > 0))
        return QRectF(0, 0, 0, 0);
    const double scale = std::min(in.width() / double(imageW), in.height() / double(imageH));
    const double width = double(imageW) * scale;
    const double height = double(imageH) * scale;
    return QRectF((in.width() - width) * 0.5, (in.height() - height) * 0.5, width, height);
}

QRectF mapFromImage(const QRectF& fitted, std::int64_t imageW, const QRectF& imageRect)
{
    if (!(fitted.width() > 0) || imageW < 1)
        return fitted;
    const double k = fitted.width() / double(imageW);
    return QRectF(fitted.x() + k * imageRect.x(), fitted.y() + k * imageRect.y(),
                  k * imageRect.width(), k * imageRect.height());
}

QRectF targetRect(const QRectF& fitted, std::int64_t imageW, const std::optional<PixelRect>& content)
{
    if (!content)
        return fitted;
    return mapFromImage(fitted, imageW,
                        QRectF(double(content->x), double(content->y),
                               double(content->width), double(content->height)));
}

QRectF localRect(const QRectF& shown, const QRectF& fitted)
{
    return QRectF(shown.x() - fitted.x(), shown.y() - fitted.y(), shown.width(), shown.height());
}

QList<QRectF> checkerboardSquares(QSizeF size)
{
    QList<QRectF> squares;
    if (!(size.width() > 0) || !(size.height() > 0))
        return squares;
    for (int row = 0; checkerSquare * row < size.height(); ++row) {
        const double y = checkerSquare * row;
        for (double x = (row % 2 == 0) ? 0.0 : checkerSquare; x < size.width(); x += 2 * checkerSquare)
            squares.append(QRectF(x, y, checkerSquare, checkerSquare));
    }
    return squares;
}

QList<QLineF> stripeLines(QSizeF size)
{
    QList<QLineF> lines;
    const double w = size.width();
    const double h = size.height();
    if (!(w > 0) || !(h > 0))
        return lines;
    // Counting steps instead of adding 10 repeatedly keeps x exact on large canvases.
    for (int i = 0; -h + stripeSpacing * i < w; ++i) {
        const double x = -h + stripeSpacing * i;
        lines.append(QLineF(x, 0, x + h, h));
    }
    return lines;
}

} // namespace orvane::PreviewGeometry
