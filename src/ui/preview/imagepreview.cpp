#include "ui/preview/imagepreview.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include <QEvent>
#include <QPainter>
#include <QPainterPath>
#include <QPainterPathStroker>
#include <QScreen>
#include <QSet>

#include "model/cropmodel.h"
#include "ui/window/coalescedrefresh.h"
#include "ui/preview/previewgeometry.h"
#include "ui/preview/scaledimagecache.h"
#include "ui/style/theme.h"

namespace orvane {

namespace {

constexpr double imageInset = 28.0;
constexpr double cornerRadius = 10.0;
constexpr double outlineWidth = 1.5;
constexpr double darkening = 0.45;
constexpr double highlightInset = 6.0;
constexpr double highlightWidth = 3.0;
constexpr double shadowOpacity = 0.28;
constexpr double shadowBlur = 16.0;
constexpr double shadowOffsetY = 6.0;
// Taken as twice the Gaussian's standard deviation; three sigmas of margin hold the whole blur.
constexpr double shadowSigma = shadowBlur / 2.0;
constexpr double shadowMargin = 3.0 * shadowSigma;

constexpr std::array<double, 4> wholeImage{0.0, 0.0, 1.0, 1.0};

// Whole device pixels, so that cached layers are drawn without resampling.
QRectF snapped(const QRectF& rect, double dpr)
{
    const double x = std::round(rect.x() * dpr) / dpr;
    const double y = std::round(rect.y() * dpr) / dpr;
    return QRectF(x, y, std::round(rect.width() * dpr) / dpr, std::round(rect.height() * dpr) / dpr);
}

// One running-sum box blur along rows (stride 1) or columns (stride width).
void boxBlur(std::vector<float>& data, int width, int height, int radius, bool alongRows)
{
    if (radius < 1)
        return;
    const int lines = alongRows ? height : width;
    const int length = alongRows ? width : height;
    const int step = alongRows ? 1 : width;
    const float norm = 1.0f / float(2 * radius + 1);
    std::vector<float> line(std::size_t(length) + 2 * std::size_t(radius), 0.0f);
    for (int l = 0; l < lines; ++l) {
        float* base = data.data() + (alongRows ? std::size_t(l) * width : std::size_t(l));
        for (int i = 0; i < length; ++i)
            line[std::size_t(i + radius)] = base[std::size_t(i) * step];
        float sum = 0.0f;
        for (int i = 0; i < 2 * radius + 1; ++i)
            sum += line[std::size_t(i)];
        for (int i = 0; i < length; ++i) {
            base[std::size_t(i) * step] = sum * norm;
            const std::size_t entering = std::size_t(i + 2 * radius + 1);
            if (entering < line.size())
                sum += line[entering];
            sum -= line[std::size_t(i)];
        }
    }
}

std::array<double, 4> targetFractions(const CropModel& model, bool revealed)
{
    const CropModel::Item* item = model.active();
    if (!item || !revealed)
        return wholeImage;
    const std::optional<PixelRect> content = model.activeContentRect();
    if (!content)
        return wholeImage;
    const double w = double(item->width());
    const double h = double(item->height());
    return {double(content->x) / w, double(content->y) / h, double(content->width) / w,
            double(content->height) / h};
}

// The preview copy once it has been read; until then the thumbnail, scaled
// up, with the content rectangle already right.
Raster shownRaster(const CropModel& model, const CropModel::Item& item)
{
    const Raster preview = model.activePreview();
    return preview.isNull() ? item.summary->thumbnail : preview;
}

} // namespace

ImagePreview::ImagePreview(CropModel* model, QWidget* parent)
    : QWidget(parent)
    , m_model(model)
    , m_refresh(new CoalescedRefresh(model, this, [this] { refresh(); }))
    , m_images(new ScaledImageCache(3, this))
{
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
    setAttribute(Qt::WA_OpaquePaintEvent);

    for (std::size_t i = 0; i < m_springs.size(); ++i) {
        m_springs[i].reset(wholeImage[i]);
        // Fractions of the image: a ten-thousandth is well under a point on screen.
        m_springs[i].setSettleDistance(1e-4);
    }

    m_frameTimer.setTimerType(Qt::PreciseTimer);
    m_frameTimer.setInterval(16);
    connect(&m_frameTimer, &QTimer::timeout, this, &ImagePreview::frame);

    m_highlight.setDuration(120);
    m_highlight.setEasingCurve(QEasingCurve::InOutQuad);
    m_highlight.setStartValue(0.0);
    m_highlight.setEndValue(1.0);
    connect(&m_highlight, &QVariantAnimation::valueChanged, this, qOverload<>(&QWidget::update));

    connect(m_images, &ScaledImageCache::imageReady, this, qOverload<>(&QWidget::update));
    m_refresh->schedule();
}

ImagePreview::~ImagePreview() = default;

QSize ImagePreview::sizeHint() const { return QSize(480, 320); }
QSize ImagePreview::minimumSizeHint() const { return QSize(0, 0); }

QRectF ImagePreview::imageRect() const
{
    const CropModel::Item* item = m_model->active();
    if (!item)
        return QRectF();
    const QRectF area = QRectF(rect()).adjusted(imageInset, imageInset + m_pendingTopInset, -imageInset, -imageInset);
    return snapped(PreviewGeometry::fittedRect(item->width(), item->height(), area.size())
                       .translated(area.topLeft()),
                   devicePixelRatioF());
}

void ImagePreview::setPendingTopInset(int points)
{
    if (points == m_pendingTopInset)
        return;
    m_pendingTopInset = points;
    update();
}

void ImagePreview::setTargeted(bool targeted)
{
    if (targeted == m_targeted)
        return;
    m_targeted = targeted;
    // Fade from wherever the highlight is now, so a quick in-and-out does not jump.
    const double now = m_highlight.state() == QAbstractAnimation::Running ? m_highlight.currentValue().toDouble()
                                                                          : (targeted ? 0.0 : 1.0);
    m_highlight.stop();
    m_highlight.setStartValue(now);
    m_highlight.setEndValue(targeted ? 1.0 : 0.0);
    m_highlight.start();
}

bool ImagePreview::isAnimating() const
{
    return m_frameTimer.isActive() || m_highlight.state() == QAbstractAnimation::Running;
}

QRectF ImagePreview::shownImageRect() const
{
    const CropModel::Item* item = m_model->active();
    if (!item)
        return QRectF();
    const double w = double(item->width());
    const double h = double(item->height());
    return QRectF(m_springs[0].value() * w, m_springs[1].value() * h, m_springs[2].value() * w,
                  m_springs[3].value() * h);
}

QRectF ImagePreview::targetImageRect() const
{
    const CropModel::Item* item = m_model->active();
    if (!item)
        return QRectF();
    const double w = double(item->width());
    const double h = double(item->height());
    return QRectF(m_springs[0].target() * w, m_springs[1].target() * h, m_springs[2].target() * w,
                  m_springs[3].target() * h);
}

void ImagePreview::triggerReveal()
{
    ++m_revealCount;
    const int generation = ++m_revealGeneration;
    m_revealed = false;
    for (std::size_t i = 0; i < m_springs.size(); ++i)
        m_springs[i].reset(wholeImage[i]);
    update();
    Q_EMIT revealStarted();
    // The second half runs after the current update, like a task queued on the main loop.
    QTimer::singleShot(0, this, [this, generation] {
        if (generation != m_revealGeneration)
            return;
        m_revealed = true;
        retargetSprings(0.55, 0.72);
        update();
    });
}

void ImagePreview::refresh()
{
    QSet<QUuid> ids;
    for (const CropModel::Item& item : m_model->items())
        ids.insert(item.id);
    m_images->retainOnly(ids);

    const QString key = m_model->revealKey();
    if (key != m_revealKey) {
        m_revealKey = key;
        if (m_model->active()) {
            triggerReveal();
        } else {
            m_revealed = false;
            for (std::size_t i = 0; i < m_springs.size(); ++i)
                m_springs[i].reset(wholeImage[i]);
            m_frameTimer.stop();
        }
    } else if (m_revealed) {
        retargetSprings(0.4, 0.8);
    }
    update();
}

void ImagePreview::retargetSprings(double response, double dampingFraction)
{
    const std::array<double, 4> target = targetFractions(*m_model, m_revealed);
    bool changed = false;
    for (std::size_t i = 0; i < m_springs.size(); ++i)
        changed = changed || m_springs[i].target() != target[i];
    if (!changed)
        return;
    // All four move with the newest animation, each from its current position and speed.
    for (std::size_t i = 0; i < m_springs.size(); ++i)
        m_springs[i].retarget(target[i], response, dampingFraction);
    startFrames();
}

void ImagePreview::startFrames()
{
    if (m_frameTimer.isActive())
        return;
    const QScreen* current = screen();
    const double rate = current && current->refreshRate() > 1.0 ? current->refreshRate() : 60.0;
    m_frameTimer.setInterval(std::max(4, int(1000.0 / rate)));
    m_frameClock.start();
    m_frameTimer.start();
}

void ImagePreview::frame()
{
    // A late frame moves the springs by the time that really passed, capped so
    // that a stall (a modal panel) does not make the motion skip to its end.
    const double seconds = std::min(double(m_frameClock.restart()) / 1000.0, 1.0 / 15.0);
    bool settled = true;
    for (Spring& spring : m_springs) {
        spring.step(seconds);
        settled = settled && spring.isSettled();
    }
    if (settled)
        m_frameTimer.stop();
    update();
}

void ImagePreview::showEvent(QShowEvent* event)
{
    QWidget::showEvent(event);
    m_refresh->schedule();
}

void ImagePreview::changeEvent(QEvent* event)
{
    if (event->type() == QEvent::PaletteChange || event->type() == QEvent::StyleChange) {
        m_background = QImage();
        update();
    }
    QWidget::changeEvent(event);
}

void ImagePreview::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    const double dpr = devicePixelRatioF();
    const CropModel::Item* item = m_model->active();
    const QRectF fitted = imageRect();
    QSize pixels;
    QImage scaled;
    if (item) {
        pixels = QSize(qRound(fitted.width() * dpr), qRound(fitted.height() * dpr));
        if (!pixels.isEmpty())
            scaled = m_images->image(item->id, shownRaster(*m_model, *item), pixels);
    }
    const QSize imageSize = item ? QSize(int(item->width()), int(item->height())) : QSize();
    const bool enlarging = item && ScaledImageCache::enlarges(imageSize, pixels);
    painter.drawImage(0, 0, backgroundFor(fitted, pixels, scaled, dpr, enlarging));
    if (!item)
        return;
    if (!pixels.isEmpty())
        paintContent(painter, fitted, imageSize, pixels);
    paintHighlight(painter);
}

const QImage& ImagePreview::backgroundFor(const QRectF& fitted, QSize pixels, const QImage& scaled, double dpr,
                                          bool enlarging)
{
    const QSize size(qRound(width() * dpr), qRound(height() * dpr));
    if (m_background.size() == size && m_background.devicePixelRatio() == dpr && m_backgroundFitted == fitted
        && m_backgroundSource == scaled.cacheKey())
        return m_background;

    // Everything that only changes with the size or the image, drawn once:
    // stripes, shadow, checkerboard and image. A frame then costs one opaque
    // copy plus the darkening and the outline.
    m_background = QImage(size, QImage::Format_RGB32);
    m_background.setDevicePixelRatio(dpr);
    m_background.fill(palette().color(QPalette::Window));
    QPainter painter(&m_background);
    painter.setRenderHint(QPainter::Antialiasing);
    paintStripes(painter, QSizeF(this->size()), dpr);
    if (!pixels.isEmpty()) {
        painter.drawImage(fitted.topLeft() + QPointF(-shadowMargin, -shadowMargin + shadowOffsetY),
                          shadowFor(pixels, dpr));
        painter.drawImage(fitted.topLeft(), layer(scaled, pixels, dpr, enlarging));
    }
    m_backgroundFitted = fitted;
    m_backgroundSource = scaled.cacheKey();
    return m_background;
}

void ImagePreview::paintStripes(QPainter& painter, QSizeF size, double dpr)
{
    QColor grey = QColor::fromRgbF(0.5f, 0.5f, 0.5f);
    grey.setAlphaF(0.05f);
    const QPen pen(grey, 1.5);

    // Stroking a few hundred long antialiased lines costs a tenth of a second.
    // The stripes repeat every 10 points along x and y, so one tile drawn with
    // the same lines fills the canvas at the cost of a fill. The tile must be a
    // whole number of device pixels; at odd scale factors draw the lines.
    constexpr double tileSide = 40.0;
    const double tilePixels = tileSide * dpr;
    if (std::abs(tilePixels - std::round(tilePixels)) > 1e-6) {
        painter.setPen(pen);
        const QList<QLineF> lines = PreviewGeometry::stripeLines(size);
        painter.drawLines(lines.constData(), int(lines.size()));
        return;
    }
    QImage tile(int(std::round(tilePixels)), int(std::round(tilePixels)), QImage::Format_ARGB32_Premultiplied);
    tile.fill(Qt::transparent);
    {
        QPainter tilePainter(&tile);
        tilePainter.setRenderHint(QPainter::Antialiasing);
        tilePainter.scale(dpr, dpr);
        tilePainter.setPen(pen);
        // The canvas's lines run through x − y = −h (mod 10). Every such line
        // that touches the tile, drawn once and run past its edges so that no
        // cap shows.
        const double spacing = PreviewGeometry::stripeSpacing;
        const double phase = std::fmod(std::fmod(-size.height(), spacing) + spacing, spacing);
        for (double c = phase - tileSide - spacing; c <= tileSide; c += spacing)
            tilePainter.drawLine(QLineF(c - spacing, -spacing, c + tileSide + spacing, tileSide + spacing));
    }
    // The tile is in device pixels: scaled down by the ratio.
    QBrush brush(tile);
    brush.setTransform(QTransform::fromScale(1.0 / dpr, 1.0 / dpr));
    painter.fillRect(QRectF(QPointF(0, 0), size), brush);
}

void ImagePreview::paintContent(QPainter& painter, const QRectF& fitted, QSize imageSize, QSize pixels)
{
    painter.setRenderHint(QPainter::Antialiasing);
    QPainterPath clip;
    clip.addRoundedRect(fitted, cornerRadius, cornerRadius);
    const QRectF inImage = shownImageRect();
    QRectF shown = PreviewGeometry::mapFromImage(fitted, imageSize.width(), inImage);
    double lineWidth = outlineWidth;
    if (ScaledImageCache::enlarges(imageSize, pixels)) {
        // Enlarged pixels are blocks of whole device pixels: the darkening and
        // the outline start and end on their boundaries, never inside a block.
        const double dpr = double(pixels.width()) / fitted.width();
        const auto edgeX = [&](double at) {
            return fitted.x() + ScaledImageCache::enlargedEdge(at, imageSize.width(), pixels.width()) / dpr;
        };
        const auto edgeY = [&](double at) {
            return fitted.y() + ScaledImageCache::enlargedEdge(at, imageSize.height(), pixels.height()) / dpr;
        };
        shown = QRectF(QPointF(edgeX(inImage.left()), edgeY(inImage.top())),
                       QPointF(edgeX(inImage.right()), edgeY(inImage.bottom())));
        lineWidth = std::max(1.0, std::round(outlineWidth * dpr)) / dpr;
    }

    // The darkening: everything in the clipped image except the shown rectangle.
    QPainterPath hole;
    hole.addRect(shown);
    painter.fillPath(clip.subtracted(hole), QColor::fromRgbF(0, 0, 0, float(darkening)));

    // The outline, stroked inside the shown rectangle's edge.
    const double radius = m_model->willTrim() ? 0.0 : cornerRadius;
    const double half = lineWidth / 2.0;
    QPainterPath outline;
    const QRectF inner = shown.adjusted(half, half, -half, -half);
    if (radius > 0.0)
        outline.addRoundedRect(inner, radius - half, radius - half);
    else
        outline.addRect(inner);
    QPainterPathStroker stroker;
    stroker.setWidth(lineWidth);
    stroker.setJoinStyle(Qt::MiterJoin);
    QPainterPath ring = stroker.createStroke(outline);
    // An overshooting spring can carry the outline past the image's rounded edge.
    if (!fitted.contains(shown))
        ring = ring.intersected(clip);
    painter.fillPath(ring, Theme::accent(palette()));
}

void ImagePreview::paintHighlight(QPainter& painter)
{
    const double opacity = m_highlight.state() == QAbstractAnimation::Running
                               ? m_highlight.currentValue().toDouble()
                               : (m_targeted ? 1.0 : 0.0);
    if (opacity <= 0.0)
        return;
    QColor accent = Theme::accent(palette());
    accent.setAlphaF(float(accent.alphaF() * opacity));
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(QPen(accent, highlightWidth));
    painter.setBrush(Qt::NoBrush);
    const double half = highlightWidth / 2.0;
    const QRectF border = QRectF(rect()).adjusted(highlightInset + half, highlightInset + half,
                                                  -highlightInset - half, -highlightInset - half);
    painter.drawRoundedRect(border, cornerRadius - half, cornerRadius - half);
}

const QImage& ImagePreview::shadowFor(QSize pixelSize, double dpr)
{
    const int margin = qRound(shadowMargin * dpr);
    const QSize full = pixelSize + QSize(2 * margin, 2 * margin);
    if (m_shadow.size() == full && m_shadow.devicePixelRatio() == dpr)
        return m_shadow;

    // Blurred at half resolution (a soft shadow loses nothing) and scaled up once.
    const int w = std::max(1, full.width() / 2);
    const int h = std::max(1, full.height() / 2);
    QImage shape(w, h, QImage::Format_ARGB32_Premultiplied);
    shape.fill(Qt::transparent);
    {
        QPainter p(&shape);
        p.setRenderHint(QPainter::Antialiasing);
        p.setPen(Qt::NoPen);
        p.setBrush(Qt::black);
        const double scale = double(w) / full.width();
        p.drawRoundedRect(QRectF(margin * scale, margin * scale, pixelSize.width() * scale,
                                 pixelSize.height() * scale),
                          cornerRadius * dpr * scale, cornerRadius * dpr * scale);
    }
    std::vector<float> alpha(std::size_t(w) * h);
    for (int y = 0; y < h; ++y) {
        const QRgb* line = reinterpret_cast<const QRgb*>(shape.constScanLine(y));
        for (int x = 0; x < w; ++x)
            alpha[std::size_t(y) * w + x] = float(qAlpha(line[x])) / 255.0f;
    }
    // Three box blurs come close to a Gaussian of the same deviation.
    const int radius = std::max(1, int(std::lround(shadowSigma * dpr / 2.0)));
    for (int pass = 0; pass < 3; ++pass) {
        boxBlur(alpha, w, h, radius, true);
        boxBlur(alpha, w, h, radius, false);
    }
    QImage blurred(w, h, QImage::Format_ARGB32_Premultiplied);
    for (int y = 0; y < h; ++y) {
        QRgb* line = reinterpret_cast<QRgb*>(blurred.scanLine(y));
        for (int x = 0; x < w; ++x)
            line[x] = qRgba(0, 0, 0, qBound(0, int(alpha[std::size_t(y) * w + x] * shadowOpacity * 255.0f + 0.5f), 255));
    }
    m_shadow = blurred.scaled(full, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
    m_shadow.setDevicePixelRatio(dpr);
    return m_shadow;
}

QImage ImagePreview::layer(const QImage& scaled, QSize pixelSize, double dpr, bool enlarging) const
{
    QImage layer(pixelSize, QImage::Format_ARGB32_Premultiplied);
    layer.fill(Qt::transparent);
    {
        QPainter p(&layer);
        // The checkerboard, anchored at the image's top-left corner, at 60% as a whole.
        p.save();
        p.scale(dpr, dpr);
        const QSizeF points(pixelSize.width() / dpr, pixelSize.height() / dpr);
        p.fillRect(QRectF(QPointF(0, 0), points), QColor::fromRgbF(0.92f, 0.92f, 0.92f));
        const QColor dark = QColor::fromRgbF(0.82f, 0.82f, 0.82f);
        for (const QRectF& square : PreviewGeometry::checkerboardSquares(points))
            p.fillRect(square, dark);
        p.restore();
        p.setCompositionMode(QPainter::CompositionMode_DestinationIn);
        p.fillRect(layer.rect(), QColor::fromRgbF(0, 0, 0, 0.6f));

        p.setCompositionMode(QPainter::CompositionMode_SourceOver);
        if (!scaled.isNull()) {
            // A stand-in of another size is stretched until the right copy
            // arrives: smoothly when reducing, pixel by pixel when enlarging.
            p.setRenderHint(QPainter::SmoothPixmapTransform, scaled.size() != pixelSize && !enlarging);
            p.drawImage(QRect(QPoint(0, 0), pixelSize), scaled);
        }

        // The rounded clip, antialiased: a composition mode only touches the
        // pixels a shape covers, so the mask is a whole image with clear corners.
        QImage mask(pixelSize, QImage::Format_ARGB32_Premultiplied);
        mask.fill(Qt::transparent);
        {
            QPainter m(&mask);
            m.setRenderHint(QPainter::Antialiasing);
            m.setPen(Qt::NoPen);
            m.setBrush(Qt::black);
            m.drawRoundedRect(QRectF(QPointF(0, 0), QSizeF(pixelSize)), cornerRadius * dpr, cornerRadius * dpr);
        }
        p.setCompositionMode(QPainter::CompositionMode_DestinationIn);
        p.drawImage(0, 0, mask);
    }
    layer.setDevicePixelRatio(dpr);
    return layer;
}

} // namespace orvane
