#include "ui/symbols.h"

#include <QImage>
#include <QPainter>

// The resource lives in a static library: its initialiser is only linked when
// something refers to it. Q_INIT_RESOURCE must stand outside any namespace.
static void initialiseSymbolResources()
{
    static const bool done = [] {
        Q_INIT_RESOURCE(icons);
        return true;
    }();
    (void)done;
}

namespace orvane::Symbols {

namespace {

struct Names {
    const char* theme;
    const char* bundled;
};

Names names(Symbol symbol)
{
    switch (symbol) {
    case Symbol::Photo: return {"image-x-generic-symbolic", "photo-on-rectangle"};
    case Symbol::Warning: return {"dialog-warning-symbolic", "triangle-exclamation"};
    case Symbol::CheckCircle: return {"emblem-ok-symbolic", "check-circle"};
    // No freedesktop name means "dashed circle": always the bundled drawing.
    case Symbol::DashedCircle: return {nullptr, "circle-dashed"};
    case Symbol::DashedCircleFilled: return {nullptr, "circle-dashed-filled"};
    case Symbol::ArrowRight: return {"go-next-symbolic", "arrow-right"};
    case Symbol::Plus: return {"list-add-symbolic", "plus"};
    case Symbol::Minus: return {"list-remove-symbolic", "minus"};
    case Symbol::Refresh: return {"view-refresh-symbolic", "refresh"};
    }
    return {nullptr, "photo-on-rectangle"};
}

} // namespace

QIcon icon(Symbol symbol)
{
    initialiseSymbolResources();
    const Names n = names(symbol);
    const QIcon bundled(QStringLiteral(":/orvane/icons/%1.svg").arg(QLatin1String(n.bundled)));
    if (!n.theme)
        return bundled;
    return QIcon::fromTheme(QLatin1String(n.theme), bundled);
}

QPixmap tinted(Symbol symbol, int extent, const QColor& colour, qreal devicePixelRatio)
{
    const qreal dpr = devicePixelRatio > 0 ? devicePixelRatio : 1.0;
    const int side = qMax(1, qRound(extent * dpr));
    QImage image = icon(symbol).pixmap(QSize(extent, extent), dpr).toImage().convertToFormat(
        QImage::Format_ARGB32_Premultiplied);
    if (image.size() != QSize(side, side))
        image = image.scaled(side, side, Qt::KeepAspectRatio, Qt::SmoothTransformation);
    // Keep the drawing's coverage, replace its colour.
    QPainter painter(&image);
    painter.setCompositionMode(QPainter::CompositionMode_SourceIn);
    painter.fillRect(image.rect(), colour);
    painter.end();
    QPixmap pixmap = QPixmap::fromImage(image);
    pixmap.setDevicePixelRatio(dpr);
    return pixmap;
}

} // namespace orvane::Symbols
