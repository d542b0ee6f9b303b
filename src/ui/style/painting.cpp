#include "ui/style/painting.h"

#include <QFrame>
#include <QPalette>
#include <QWidget>

namespace orvane::Painting {

QColor withOpacity(QColor colour, double opacity)
{
    colour.setAlphaF(float(colour.alphaF() * opacity));
    return colour;
}

QColor over(const QColor& foreground, const QColor& background)
{
    const double a = foreground.alphaF();
    const auto blend = [a](double f, double b) { return float(f * a + b * (1.0 - a)); };
    return QColor::fromRgbF(blend(foreground.redF(), background.redF()), blend(foreground.greenF(), background.greenF()),
                            blend(foreground.blueF(), background.blueF()));
}

QColor mix(const QColor& from, const QColor& to, double t)
{
    const auto lerp = [t](float a, float b) { return a + (b - a) * float(t); };
    return QColor::fromRgbF(lerp(from.redF(), to.redF()), lerp(from.greenF(), to.greenF()),
                            lerp(from.blueF(), to.blueF()), lerp(from.alphaF(), to.alphaF()));
}

QString styleSheetColour(const QColor& colour)
{
    return QStringLiteral("rgba(%1, %2, %3, %4)")
        .arg(colour.red())
        .arg(colour.green())
        .arg(colour.blue())
        .arg(colour.alpha());
}

void setTextColour(QWidget* widget, const QColor& colour)
{
    // A fresh palette resolves only the colours set on it; the rest is inherited.
    QPalette palette;
    palette.setColor(QPalette::WindowText, colour);
    palette.setColor(QPalette::Text, colour);
    widget->setPalette(palette);
}

QFrame* rule(Qt::Orientation orientation, QWidget* parent)
{
    auto* line = new QFrame(parent);
    line->setFrameShape(orientation == Qt::Horizontal ? QFrame::HLine : QFrame::VLine);
    line->setFrameShadow(QFrame::Plain);
    line->setForegroundRole(QPalette::Mid);
    return line;
}

} // namespace orvane::Painting
