// The symbol images of the window: freedesktop icon names from the desktop's
// theme, with bundled drawings as the fallback so that every symbol shows on
// a machine without an icon theme.
#pragma once

#include <QColor>
#include <QIcon>
#include <QPixmap>

namespace orvane {

enum class Symbol {
    Photo,              ///< a photo in front of a second one: the empty window
    Warning,            ///< a filled triangle with an exclamation mark
    CheckCircle,        ///< a filled circle with a check mark
    DashedCircle,       ///< the low end of the tolerance slider
    DashedCircleFilled, ///< the high end of the tolerance slider
    ArrowRight,         ///< between the sizes before and after trimming
    Plus,
    Trash,
    Refresh,
};

namespace Symbols {

/// The themed icon (its "-symbolic" freedesktop name) or the bundled drawing.
/// Main thread only (needs the GUI application).
QIcon icon(Symbol symbol);

/// The symbol drawn in one colour, extent × extent logical pixels at the given
/// device pixel ratio. Monochrome like the desktop's symbolic icons, so that
/// the window can colour it (accent, secondary, orange, green).
QPixmap tinted(Symbol symbol, int extent, const QColor& colour, qreal devicePixelRatio);

} // namespace Symbols
} // namespace orvane
