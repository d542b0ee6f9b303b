// Drawing the preview of an 8000 × 6000 image: one paint from the scaled copy
// the preview keeps, against drawing the full image scaled on every paint,
// and the one-off cost of making the scaled copy (Qt's smooth scaling of the
// wrapped raster against libvips' resize of the same bytes). A plain timing
// program; every figure is the median of several runs in this one process.
//
//   bench_drawing [--runs N]
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <vector>

#include <QApplication>
#include <QElapsedTimer>
#include <QImage>
#include <QPainter>
#include <QPainterPath>
#include <QTemporaryDir>
#include <QUrl>

#include <vips/vips8>

#include "imagefile/imagefile.h"
#include "model/cropmodel.h"
#include "ui/window/contentview.h"
#include "ui/preview/imagepreview.h"
#include "ui/preview/previewgeometry.h"
#include "ui/preview/scaledimagecache.h"

using namespace orvane;

namespace {

constexpr int kWidth = 8000;
constexpr int kHeight = 6000;
const QSize kView(1200, 900);

struct Stats {
    double median = 0;
    double max = 0;
};

Stats measure(int runs, const std::function<void()>& work)
{
    std::vector<double> ms;
    for (int i = 0; i < runs; ++i) {
        QElapsedTimer timer;
        timer.start();
        work();
        ms.push_back(double(timer.nsecsElapsed()) / 1e6);
    }
    std::sort(ms.begin(), ms.end());
    return {ms[ms.size() / 2], ms.back()};
}

// A photo-like picture inside a white border, written as an uncompressed TIFF
// so that opening it costs little next to what is measured.
QUrl writePicture(const QString& dir)
{
    vips::VImage noise = vips::VImage::gaussnoise(kWidth / 16, kHeight / 16,
                                                  vips::VImage::option()->set("mean", 120.0)->set("sigma", 50.0));
    vips::VImage field = noise.bandjoin({noise.rot180(), noise.flip(VIPS_DIRECTION_HORIZONTAL)})
                             .resize(12.0, vips::VImage::option()->set("kernel", VIPS_KERNEL_LINEAR))
                             .cast(VIPS_FORMAT_UCHAR);
    vips::VImage picture = field
                               .embed((kWidth - field.width()) / 2, (kHeight - field.height()) / 2, kWidth, kHeight,
                                      vips::VImage::option()->set("extend", VIPS_EXTEND_WHITE))
                               .copy(vips::VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB));
    const QString path = dir + QStringLiteral("/picture.tif");
    picture.tiffsave(path.toUtf8().constData());
    return QUrl::fromLocalFile(path);
}

// Everything the preview draws per frame, without its caches: stripes,
// checkerboard, the image from `source` scaled into the fitted rectangle,
// darkening and outline. Only the image's source differs between the runs.
void paintPlain(QImage& target, const QImage& source, const QRectF& content, Qt::TransformationMode mode)
{
    QPainter painter(&target);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.fillRect(target.rect(), QColor(239, 239, 239));
    ImagePreview::paintStripes(painter, QSizeF(target.size()), 1.0);

    const QRectF area = QRectF(target.rect()).adjusted(28, 28, -28, -28);
    const QRectF fitted = PreviewGeometry::fittedRect(kWidth, kHeight, area.size()).translated(area.topLeft());
    QPainterPath clip;
    clip.addRoundedRect(fitted, 10, 10);
    painter.save();
    // A rectangular clip: a rounded one makes every fill go through a mask
    // and would hide what is compared here.
    painter.setClipRect(fitted);
    painter.translate(fitted.topLeft());
    painter.setOpacity(0.6);
    painter.fillRect(QRectF(QPointF(0, 0), fitted.size()), QColor(235, 235, 235));
    for (const QRectF& square : PreviewGeometry::checkerboardSquares(fitted.size()))
        painter.fillRect(square, QColor(209, 209, 209));
    painter.setOpacity(1.0);
    painter.setRenderHint(QPainter::SmoothPixmapTransform, mode == Qt::SmoothTransformation);
    painter.drawImage(QRectF(QPointF(0, 0), fitted.size()), source);
    painter.restore();

    const QRectF shown = PreviewGeometry::mapFromImage(fitted, kWidth, content);
    QPainterPath hole;
    hole.addRect(shown);
    painter.fillPath(clip.subtracted(hole), QColor(0, 0, 0, 115));
    painter.setPen(QPen(QColor(48, 140, 198), 1.5));
    painter.drawRect(shown.adjusted(0.75, 0.75, -0.75, -0.75));
}

} // namespace

int main(int argc, char** argv)
{
    qputenv("QT_QPA_PLATFORM", qgetenv("QT_QPA_PLATFORM").isEmpty() ? QByteArray("offscreen")
                                                                     : qgetenv("QT_QPA_PLATFORM"));
    QApplication app(argc, argv);
    if (VIPS_INIT(argv[0]) != 0)
        return 1;
    ImageFile::initialise();
    int runs = 15;
    for (int i = 1; i + 1 < argc; ++i)
        if (std::strcmp(argv[i], "--runs") == 0)
            runs = std::max(3, std::atoi(argv[i + 1]));

    QTemporaryDir dir;
    CropModel model;
    const QUrl picture = writePicture(dir.path());
    model.open({picture});
    while (model.opening())
        QApplication::processEvents(QEventLoop::WaitForMoreEvents, 50);
    // The full raster, as the engine makes it, for drawing it unscaled.
    const std::optional<ImageFile::LoadResult> loaded = ImageFile::load(picture.toLocalFile());
    const std::optional<CropEngine::Buffer> engineBuffer =
        loaded ? CropEngine::Buffer::make(loaded->image) : std::nullopt;
    if (!model.active() || !engineBuffer) {
        std::fprintf(stderr, "could not open the test picture\n");
        return 1;
    }
    const Raster buffer{engineBuffer->width(), engineBuffer->height(),
                        std::make_shared<const std::vector<std::uint8_t>>(
                            engineBuffer->pixels(), engineBuffer->pixels() + engineBuffer->byteCount())};
    const QImage full = ScaledImageCache::wrap(buffer);
    const QRectF area = QRectF(QPointF(0, 0), QSizeF(kView)).adjusted(28, 28, -28, -28);
    const QRectF fitted = PreviewGeometry::fittedRect(kWidth, kHeight, area.size());
    const QSize copySize(qRound(fitted.width()), qRound(fitted.height()));
    std::printf("%d × %d image (%.0f MP) in a %d × %d view: copy of %d × %d\n\n", kWidth, kHeight,
                kWidth * double(kHeight) / 1e6, kView.width(), kView.height(), copySize.width(),
                copySize.height());

    // The one-off cost of the copy.
    QImage copy;
    const Stats qtCopy = measure(std::max(3, runs / 3), [&] { copy = ScaledImageCache::scaledCopy(buffer, copySize); });
    const Stats vipsCopy = measure(std::max(3, runs / 3), [&] {
        vips::VImage wrapped = vips::VImage::new_from_memory(const_cast<std::uint8_t*>(buffer.pixels->data()),
                                                             buffer.byteCount(), kWidth, kHeight, 4,
                                                             VIPS_FORMAT_UCHAR);
        vips::VImage scaled = wrapped.resize(double(copySize.width()) / kWidth,
                                             vips::VImage::option()->set("vscale", double(copySize.height()) / kHeight));
        std::size_t size = 0;
        void* bytes = scaled.write_to_memory(&size);
        g_free(bytes);
    });
    std::printf("making the scaled copy (once per image and size)\n");
    std::printf("  Qt smooth scaling of the wrapped raster: %8.2f ms\n", qtCopy.median);
    std::printf("  libvips resize of the same bytes:        %8.2f ms   (%.1f× the Qt time)\n\n", vipsCopy.median,
                vipsCopy.median / qtCopy.median);

    // Per paint, the same drawing with the image's source swapped.
    const QRectF content(700, 500, 6600, 5000);
    QImage target(kView, QImage::Format_ARGB32_Premultiplied);
    const Stats fromCopy = measure(runs, [&] { paintPlain(target, copy, content, Qt::SmoothTransformation); });
    const Stats fullSmooth = measure(runs, [&] { paintPlain(target, full, content, Qt::SmoothTransformation); });
    const Stats fullFast = measure(runs, [&] { paintPlain(target, full, content, Qt::FastTransformation); });
    std::printf("one paint of the preview, drawn plainly each frame\n");
    std::printf("  from the scaled copy:                    %8.2f ms (max %.2f)\n", fromCopy.median, fromCopy.max);
    std::printf("  full image scaled while drawing, smooth: %8.2f ms (max %.2f)   %.1f× slower\n",
                fullSmooth.median, fullSmooth.max, fullSmooth.median / fromCopy.median);
    std::printf("  full image scaled while drawing, fast:   %8.2f ms (max %.2f)   %.1f× slower\n\n",
                fullFast.median, fullFast.max, fullFast.median / fromCopy.median);

    // The real view while the slider is dragged: a new tolerance, then one paint.
    ImagePreview preview(&model);
    preview.resize(kView);
    preview.show();
    QElapsedTimer wait;
    wait.start();
    while ((model.activePreview().isNull()
            || !preview.imageCache().isReady(model.active()->id, model.activePreview(), copySize))
           && wait.elapsed() < 10000) {
        preview.render(&target);
        QApplication::processEvents(QEventLoop::AllEvents, 20);
    }
    // Each frame: a new tolerance and the coalesced refresh, then one paint, timed apart.
    std::vector<double> refreshMs;
    std::vector<double> paintMs;
    for (int frame = 0; frame < runs * 4; ++frame) {
        QElapsedTimer timer;
        timer.start();
        model.setThreshold(5.0 + (frame % 60));
        QApplication::processEvents();
        refreshMs.push_back(double(timer.nsecsElapsed()) / 1e6);
        timer.restart();
        preview.render(&target);
        paintMs.push_back(double(timer.nsecsElapsed()) / 1e6);
    }
    std::sort(refreshMs.begin(), refreshMs.end());
    std::sort(paintMs.begin(), paintMs.end());
    std::printf("ImagePreview while the tolerance changes, %d frames\n", runs * 4);
    std::printf("  new tolerance + refresh: median %.2f ms, max %.2f ms\n", refreshMs[refreshMs.size() / 2],
                refreshMs.back());
    std::printf("  one paint:               median %.2f ms, max %.2f ms\n", paintMs[paintMs.size() / 2],
                paintMs.back());
    std::printf("  scaled copies made: %d\n\n", preview.imageCache().copiesMade());

    // The whole window's content (header, preview, controls) at the same
    // preview size, as the slider is dragged.
    ContentView window;
    window.resize(kView.width(), kView.height() + 200);
    window.model()->open({QUrl::fromLocalFile(dir.path() + QStringLiteral("/picture.tif"))});
    window.show();
    QImage windowTarget(window.size(), QImage::Format_ARGB32_Premultiplied);
    wait.restart();
    while (wait.elapsed() < 1500) {
        window.render(&windowTarget);
        QApplication::processEvents(QEventLoop::AllEvents, 20);
    }
    std::vector<double> windowMs;
    for (int frame = 0; frame < runs * 4; ++frame) {
        window.model()->setThreshold(5.0 + (frame % 60));
        QApplication::processEvents();
        QElapsedTimer timer;
        timer.start();
        window.render(&windowTarget);
        windowMs.push_back(double(timer.nsecsElapsed()) / 1e6);
    }
    std::sort(windowMs.begin(), windowMs.end());
    std::printf("the window's content (%d × %d) while the tolerance changes, %d frames\n", window.width(),
                window.height(), runs * 4);
    std::printf("  one paint:               median %.2f ms, max %.2f ms\n", windowMs[windowMs.size() / 2],
                windowMs.back());
    return 0;
}
