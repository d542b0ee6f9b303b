// The window's semantic colours and text styles, taken from the palette and
// the application font so that they follow the desktop's theme.
#pragma once

#include <QColor>
#include <QFont>
#include <QPalette>

namespace orvane::Theme {

/// The accent colour (the palette's Highlight), for fills, outlines and the
/// primary button.
QColor accent(const QPalette& palette);
/// The accent colour for text on the bar: the accent made dark (light theme)
/// or light (dark theme) enough to be read there.
QColor accentText(const QPalette& palette);
/// The text colour at decreasing opacity: 0.62 (text that must be read),
/// 0.35 and 0.15 (symbols and fills).
QColor secondary(const QPalette& palette);
QColor tertiary(const QPalette& palette);
QColor quaternary(const QPalette& palette);
/// The bar colour behind the header and the controls, a shade apart from the content.
QColor bar(const QPalette& palette);
/// The position badge's capsule on the bar (the quaternary grey over the
/// bar, opaque) and its text, readable on it.
QColor badge(const QPalette& palette);
QColor badgeText(const QPalette& palette);
/// The marked row of a list on the bar: the palette's Highlight (at 75 %
/// when quiet), opaque, darkened or lightened just enough for its
/// HighlightedText to be read on it.
QColor selection(const QPalette& palette, QPalette::ColorGroup group = QPalette::Active, bool quiet = false);
/// The warning and success colours of the status row, readable on the bar.
QColor orange(const QPalette& palette);
QColor green(const QPalette& palette);

/// The contrast ratio of two colours as the web's accessibility guidelines
/// define it, from 1 (equal) to 21 (black on white). A translucent foreground
/// is measured as it shows over the (opaque) background.
double contrast(const QColor& foreground, const QColor& background);
/// colour, moved toward black on a light background or toward white on a
/// dark one (keeping its hue) just until it reaches minimumContrast on
/// background; unchanged when it already does.
QColor readable(const QColor& colour, const QColor& background, double minimumContrast = 4.5);

enum class TextStyle { Title3, Headline, Callout, Caption, Caption2 };
/// The application font scaled for a text style (about 1.25, 1.0 bold, 0.95, 0.85, 0.8).
QFont font(TextStyle style, const QFont& base);

} // namespace orvane::Theme
