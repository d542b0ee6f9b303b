#include "ui/style/symbols.h"

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
    case Symbol::Trash: return {"user-trash-symbolic", "trash"};
    case Symbol::Refresh: return {"view-refresh-symbolic", "refresh"};
    }
    return {nullptr, "photo-on-rectangle"};
}

QIcon bundledIcon(const Names& n)
{
    initialiseSymbolResources();
    return QIcon(QStringLiteral(":/orvane/icons/%1.svg").arg(QLatin1String(n.bundled)));
}

// The icon drawn into a transparent square of side × side device pixels,
// scaled down to fit when the theme hands back something larger.
QImage render(const QIcon& icon, int extent, qreal dpr)
{
    const int side = qMax(1, qRound(extent * dpr));
    QImage canvas(side, side, QImage::Format_ARGB32_Premultiplied);
    canvas.fill(Qt::transparent);
    QImage drawn = icon.pixmap(QSize(extent, extent), dpr).toImage();
    if (drawn.isNull())
        return {};
    if (drawn.width() > side || drawn.height() > side)
        drawn = drawn.scaled(side, side, Qt::KeepAspectRatio, Qt::SmoothTransformation);
    drawn.setDevicePixelRatio(1.0);
    QPainter painter(&canvas);
    painter.drawImage(QPoint((side - drawn.width()) / 2, (side - drawn.height()) / 2), drawn);
    return canvas;
}

// Symbolic theme icons are drawn in one grey. A theme without the symbolic
// name may answer with a full-colour icon (the lookup drops "-symbolic" and
// further name parts), which would turn into a shapeless blob when tinted.
bool isMonochrome(const QImage& image)
{
    const QImage plain = image.convertToFormat(QImage::Format_ARGB32);
    int lightest = 0;
    int darkest = 255;
    int covered = 0;
    for (int y = 0; y < plain.height(); ++y) {
        const auto* row = reinterpret_cast<const QRgb*>(plain.constScanLine(y));
        for (int x = 0; x < plain.width(); ++x) {
            const QRgb p = row[x];
            if (qAlpha(p) < 128)
                continue;
            const int r = qRed(p), g = qGreen(p), b = qBlue(p);
            if (qAbs(r - g) > 30 || qAbs(g - b) > 30 || qAbs(r - b) > 30)
                return false;
            lightest = qMax(lightest, qGray(p));
            darkest = qMin(darkest, qGray(p));
            ++covered;
        }
    }
    return covered > 0 && lightest - darkest <= 60;
}

} // namespace

QIcon icon(Symbol symbol)
{
    const Names n = names(symbol);
    const QIcon bundled = bundledIcon(n);
    if (!n.theme)
        return bundled;
    return QIcon::fromTheme(QLatin1String(n.theme), bundled);
}

QPixmap tinted(Symbol symbol, int extent, const QColor& colour, qreal devicePixelRatio)
{
    const qreal dpr = devicePixelRatio > 0 ? devicePixelRatio : 1.0;
    const Names n = names(symbol);
    QImage image;
    if (n.theme && QIcon::hasThemeIcon(QLatin1String(n.theme))) {
        image = render(QIcon::fromTheme(QLatin1String(n.theme)), extent, dpr);
        if (!image.isNull() && !isMonochrome(image))
            image = QImage();
    }
    if (image.isNull())
        image = render(bundledIcon(n), extent, dpr);
    if (image.isNull()) {
        image = QImage(qMax(1, qRound(extent * dpr)), qMax(1, qRound(extent * dpr)), QImage::Format_ARGB32_Premultiplied);
        image.fill(Qt::transparent);
    }
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
