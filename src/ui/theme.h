// The window's semantic colours and text styles, taken from the palette and
// the application font so that they follow the desktop's theme.
#pragma once

#include <QColor>
#include <QFont>
#include <QPalette>

namespace orvane::Theme {

/// The accent colour (the palette's Highlight).
QColor accent(const QPalette& palette);
/// The text colour at decreasing opacity: about 0.55, 0.35 and 0.15.
QColor secondary(const QPalette& palette);
QColor tertiary(const QPalette& palette);
QColor quaternary(const QPalette& palette);
/// The bar colour behind the header and the controls, a shade apart from the content.
QColor bar(const QPalette& palette);
QColor orange();
QColor green();

enum class TextStyle { Title3, Headline, Callout, Caption, Caption2 };
/// The application font scaled for a text style (about 1.25, 1.0 bold, 0.95, 0.85, 0.8).
QFont font(TextStyle style, const QFont& base);

} // namespace orvane::Theme
