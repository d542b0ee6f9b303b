// The preview area of the main window while an image is active: the image
// on a checkerboard over diagonal stripes, the border that trimming would cut
// away darkened, the kept rectangle outlined, and the drop highlight.
#pragma once

#include <array>
#include <cstdint>

#include <QElapsedTimer>
#include <QImage>
#include <QRectF>
#include <QTimer>
#include <QVariantAnimation>
#include <QWidget>

#include "ui/preview/spring.h"

namespace orvane {

class CoalescedRefresh;
class CropModel;
class ScaledImageCache;

/// Shows the model's active image fitted into the area inset 28 points, and
/// animates the darkened border with springs: 0.4 s / 0.8 when the content
/// rectangle changes, and the reveal (darkening gone at once, then closing in
/// with 0.55 s / 0.72) whenever the model's revealKey changes. Reads the model
/// afresh on every refresh and paint; keeps only animation state and scaled
/// copies for drawing. Main thread only; the model is observed, not owned,
/// and must outlive the view.
class ImagePreview : public QWidget {
    Q_OBJECT

public:
    explicit ImagePreview(CropModel* model, QWidget* parent = nullptr);
    ~ImagePreview() override;

    /// Whether a drag with files hovers over the window; draws the 3-point
    /// accent border 6 points inside the area (faded in and out over 0.12 s)
    /// while an image is active.
    void setTargeted(bool targeted);
    bool isTargeted() const { return m_targeted; }

    /// Where the image is drawn, in the view's coordinates (the fitted
    /// rectangle on whole device pixels); empty with no active item.
    QRectF imageRect() const;

    /// How far the view's top edge will still move down while a section
    /// above it slides open, in points: the image is fitted into the area the
    /// view will have, so that it stays where it will settle. 0 when settled.
    void setPendingTopInset(int points);

    /// Restarts the reveal: the darkening disappears at once and closes in on
    /// the content from the next turn of the event loop.
    void triggerReveal();

    /// False from the start of a reveal until its second half runs.
    bool isRevealed() const { return m_revealed; }
    /// Reveals started since the view was made.
    int revealCount() const { return m_revealCount; }
    /// The rectangle currently shown undarkened, in the active image's pixel
    /// coordinates (moves while animating); empty with no active item.
    QRectF shownImageRect() const;
    /// Where the shown rectangle is heading, in the same coordinates.
    QRectF targetImageRect() const;
    /// The response of the spring currently moving the shown rectangle, in seconds.
    double currentResponse() const { return m_springs[0].response(); }
    /// True while a spring moves or the highlight fades.
    bool isAnimating() const;
    /// The scaled copies the image is drawn from (one good copy per image and size).
    const ScaledImageCache& imageCache() const { return *m_images; }

    /// Draws the diagonal stripes of the preview area (grey at 5%, 1.5 wide,
    /// every 10 points) over a canvas of size points at the painter's origin;
    /// dpr is the device pixel ratio of the painted device.
    static void paintStripes(QPainter& painter, QSizeF size, double dpr);

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

Q_SIGNALS:
    /// A reveal has begun: the darkening is gone and closes in from the next
    /// turn of the event loop.
    void revealStarted();

protected:
    void paintEvent(QPaintEvent* event) override;
    void showEvent(QShowEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    void refresh();
    void retargetSprings(double response, double dampingFraction);
    void startFrames();
    void frame();

    const QImage& backgroundFor(const QRectF& fitted, QSize pixels, const QImage& scaled, double dpr, bool enlarging);
    void paintContent(QPainter& painter, const QRectF& fitted, QSize imageSize, QSize pixels);
    void paintHighlight(QPainter& painter);
    const QImage& shadowFor(QSize pixelSize, double dpr);
    QImage layer(const QImage& scaled, QSize pixelSize, double dpr, bool enlarging) const;

    CropModel* m_model;
    CoalescedRefresh* m_refresh;
    ScaledImageCache* m_images;

    bool m_targeted = false;
    QVariantAnimation m_highlight;
    int m_pendingTopInset = 0;

    bool m_revealed = false;
    int m_revealCount = 0;
    int m_revealGeneration = 0;
    QString m_revealKey; // the key the last reveal was played for
    // The shown rectangle as fractions of the image's width and height: x, y, width, height.
    std::array<Spring, 4> m_springs;
    QTimer m_frameTimer;
    QElapsedTimer m_frameClock;

    // Drawing caches, remade only when their inputs change.
    QImage m_background;
    QRectF m_backgroundFitted;
    qint64 m_backgroundSource = 0;
    QImage m_shadow;
};

} // namespace orvane
