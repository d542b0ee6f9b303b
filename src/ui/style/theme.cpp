#include "ui/style/theme.h"

#include <cmath>

#include "ui/style/painting.h"

namespace orvane::Theme {

namespace {

double linear(double channel)
{
    return channel <= 0.04045 ? channel / 12.92 : std::pow((channel + 0.055) / 1.055, 2.4);
}

double luminance(const QColor& colour)
{
    return 0.2126 * linear(colour.redF()) + 0.7152 * linear(colour.greenF()) + 0.0722 * linear(colour.blueF());
}

} // namespace

QColor accent(const QPalette& palette) { return palette.color(QPalette::Highlight); }
QColor accentText(const QPalette& palette) { return readable(accent(palette), bar(palette)); }
QColor secondary(const QPalette& palette) { return Painting::withOpacity(palette.color(QPalette::WindowText), 0.62); }
QColor tertiary(const QPalette& palette) { return Painting::withOpacity(palette.color(QPalette::WindowText), 0.35); }
QColor quaternary(const QPalette& palette) { return Painting::withOpacity(palette.color(QPalette::WindowText), 0.15); }

QColor bar(const QPalette& palette)
{
    const QColor window = palette.color(QPalette::Window);
    // Darker on light themes, lighter on dark ones: always a shade apart.
    return window.lightness() > 128 ? window.darker(104) : window.lighter(118);
}

QColor badge(const QPalette& palette) { return Painting::over(quaternary(palette), bar(palette)); }
QColor badgeText(const QPalette& palette) { return readable(secondary(palette), badge(palette)); }

QColor selection(const QPalette& palette, QPalette::ColorGroup group, bool quiet)
{
    const QColor highlight = palette.color(group, QPalette::Highlight);
    const QColor shown = Painting::over(Painting::withOpacity(highlight, quiet ? 0.75 : 1.0), bar(palette));
    return readable(shown, palette.color(group, QPalette::HighlightedText));
}

QColor orange(const QPalette& palette) { return readable(QColor(0xF0, 0x8A, 0x00), bar(palette)); }
QColor green(const QPalette& palette) { return readable(QColor(0x2E, 0xA0, 0x43), bar(palette)); }

double contrast(const QColor& foreground, const QColor& background)
{
    const double a = luminance(Painting::over(foreground, background)) + 0.05;
    const double b = luminance(background) + 0.05;
    return a > b ? a / b : b / a;
}

QColor readable(const QColor& colour, const QColor& background, double minimumContrast)
{
    QColor shown = Painting::over(colour, background);
    if (contrast(shown, background) >= minimumContrast)
        return colour;
    // Lightness in small steps, hue and saturation kept: the orange of a
    // light theme becomes a burnt orange, not a brown of another hue.
    const bool darken = luminance(background) > 0.18;
    float h = 0, s = 0, l = 0, a = 0;
    shown.getHslF(&h, &s, &l, &a);
    for (int step = 0; step < 100 && contrast(shown, background) < minimumContrast; ++step) {
        l = darken ? std::max(0.0f, l - 0.01f) : std::min(1.0f, l + 0.01f);
        shown = QColor::fromHslF(h, s, l);
    }
    return shown;
}

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
