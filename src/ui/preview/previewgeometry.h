// Geometry of the image preview, as plain functions: where the image sits in
// the view, where its content rectangle lands, and the shapes of the two
// background canvases. Sizes in layout points, y downwards.
#pragma once

#include <cstdint>
#include <optional>

#include <QLineF>
#include <QList>
#include <QRectF>
#include <QSizeF>

#include "engine/cropengine.h"

namespace orvane::PreviewGeometry {

/// Side of one checkerboard square, in points.
inline constexpr double checkerSquare = 16.0;
/// Horizontal distance between two diagonal stripes, in points.
inline constexpr double stripeSpacing = 10.0;

/// Where an image of imageW × imageH pixels sits when fitted into a view of
/// size `in`: scaled by the smaller of the two ratios (small images are
/// enlarged) and centred. The empty rectangle (0, 0, 0, 0) when the image has
/// a side below 1 or the view a side of 0 or less.
QRectF fittedRect(std::int64_t imageW, std::int64_t imageH, QSizeF in);

/// A rectangle in the image's pixel coordinates mapped into the view, for an
/// image of imageW pixels fitted at `fitted`. Fitted itself when fitted is
/// empty or imageW is below 1.
QRectF mapFromImage(const QRectF& fitted, std::int64_t imageW, const QRectF& imageRect);

/// The target rectangle: the content rectangle mapped into the view. The
/// fitted rectangle itself when there is no content rectangle or the fitted
/// rectangle has no width.
QRectF targetRect(const QRectF& fitted, std::int64_t imageW, const std::optional<PixelRect>& content);

/// The shown rectangle expressed relative to the fitted rectangle's top-left
/// corner (same size).
QRectF localRect(const QRectF& shown, const QRectF& fitted);

/// The dark squares of a checkerboard canvas of this size, row by row: row r
/// at y = 16 r starts at x = 0 for even r and x = 16 for odd r, every 32
/// points while x < width. Squares are 16 × 16 and may reach past the canvas
/// (the caller clips). None for an empty size.
QList<QRectF> checkerboardSquares(QSizeF size);

/// The diagonal stripes of a canvas of width w and height h: from (x, 0) to
/// (x + h, h) for x = −h, −h + 10, … while x < w. None for an empty size.
QList<QLineF> stripeLines(QSizeF size);

} // namespace orvane::PreviewGeometry
