#include "ui/theme.h"

namespace orvane::Theme {

namespace {
QColor withAlpha(QColor colour, double alpha)
{
    colour.setAlphaF(float(alpha));
    return colour;
}
} // namespace

QColor accent(const QPalette& palette) { return palette.color(QPalette::Highlight); }
QColor secondary(const QPalette& palette) { return withAlpha(palette.color(QPalette::WindowText), 0.55); }
QColor tertiary(const QPalette& palette) { return withAlpha(palette.color(QPalette::WindowText), 0.35); }
QColor quaternary(const QPalette& palette) { return withAlpha(palette.color(QPalette::WindowText), 0.15); }

QColor bar(const QPalette& palette)
{
    const QColor window = palette.color(QPalette::Window);
    // Darker on light themes, lighter on dark ones: always a shade apart.
    return window.lightness() > 128 ? window.darker(104) : window.lighter(118);
}

QColor orange() { return QColor(0xF0, 0x8A, 0x00); }
QColor green() { return QColor(0x2E, 0xA0, 0x43); }

QFont font(TextStyle style, const QFont& base)
{
    QFont font = base;
    const double size = base.pointSizeF() > 0 ? base.pointSizeF() : 10.0;
    switch (style) {
    case TextStyle::Title3:   font.setPointSizeF(size * 1.25); break;
    case TextStyle::Headline: font.setBold(true); break;
    case TextStyle::Callout:  font.setPointSizeF(size * 0.95); break;
    case TextStyle::Caption:  font.setPointSizeF(size * 0.85); break;
    case TextStyle::Caption2: font.setPointSizeF(size * 0.8); break;
    }
    return font;
}

} // namespace orvane::Theme
