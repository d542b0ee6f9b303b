#include "fuzz/loadcheck.h"

#include <array>
#include <cmath>
#include <limits>
#include <memory>

#include <QFile>

#include "engine/cropengine.h"
#include "imagefile/imagefile.h"
#include "imagefile/imagesource.h"
#include "imagefile/losslessjpeg.h"

namespace orvane::LoadCheck {
namespace {

// Crops up to this many pixels are written and read back; writing costs far
// more than loading, and the writers' own code is not what is being fuzzed.
constexpr long long maxSavedPixels = 64 * 64;

QString rectText(const std::optional<PixelRect>& r)
{
    if (!r)
        return QStringLiteral("none");
    return QStringLiteral("%1,%2 %3x%4").arg(r->x).arg(r->y).arg(r->width).arg(r->height);
}

bool contains(const PixelRect& outer, const PixelRect& inner)
{
    return inner.x >= outer.x && inner.y >= outer.y
        && inner.x + inner.width <= outer.x + outer.width
        && inner.y + inner.height <= outer.y + outer.height;
}

QString checkBuffer(const CropEngine::Buffer& buffer)
{
    const vips::VImage& image = buffer.image();
    if (buffer.width() != image.width() || buffer.height() != image.height())
        return QStringLiteral("buffer %1x%2 for image %3x%4")
            .arg(buffer.width()).arg(buffer.height()).arg(image.width()).arg(image.height());
    if (buffer.width() < 1 || buffer.height() < 1)
        return QStringLiteral("empty buffer");
    const auto bytes = static_cast<std::size_t>(buffer.width()) * buffer.height() * 4;
    if (buffer.byteCount() != bytes || !buffer.pixels())
        return QStringLiteral("raster of %1 bytes for %2").arg(buffer.byteCount()).arg(bytes);
    const std::uint8_t* p = buffer.pixels();
    for (std::size_t i = 0; i < bytes; i += 4) {
        if (p[i] > p[i + 3] || p[i + 1] > p[i + 3] || p[i + 2] > p[i + 3])
            return QStringLiteral("pixel %1 not premultiplied").arg(i / 4);
    }
    return {};
}

QString checkCrop(const CropEngine::Buffer& buffer, const PixelRect& rect,
                  const ImageType& type, const QString& savePath)
{
    const auto cropped = CropEngine::crop(buffer, rect);
    if (!cropped)
        return QStringLiteral("no crop for %1").arg(rectText(rect));
    const vips::VImage& image = buffer.image();
    if (cropped->width() != rect.width || cropped->height() != rect.height)
        return QStringLiteral("crop %1x%2 for %3")
            .arg(cropped->width()).arg(cropped->height()).arg(rectText(rect));
    if (cropped->bands() != image.bands() || cropped->format() != image.format())
        return QStringLiteral("crop changed bands or format");
    const bool whole = rect.width == buffer.width() && rect.height == buffer.height();
    if (whole && cropped->get_image() != image.get_image())
        return QStringLiteral("whole-image crop is a copy");

    if (savePath.isEmpty() || rect.width * rect.height > maxSavedPixels)
        return {};
    const ImageType written = ImageFile::writableType(type);
    if (written == ImageType::heic() || written == ImageType::heif())
        return {};
    if (!ImageFile::save(*cropped, savePath, type))
        return {};
    const auto reloaded = ImageFile::load(savePath);
    if (!reloaded)
        return QStringLiteral("written %1 of %2 does not load again")
            .arg(written.mimeName(), rectText(rect));
    if (reloaded->image.width() != rect.width || reloaded->image.height() != rect.height)
        return QStringLiteral("written %1 reloads as %2x%3 instead of %4")
            .arg(written.mimeName()).arg(reloaded->image.width()).arg(reloaded->image.height())
            .arg(rectText(rect));
    return {};
}

// A reduced copy: within its long side and premultiplied like the raster.
QString checkCopy(const Raster& copy, int longSide, const char* what)
{
    if (copy.isNull())
        return QStringLiteral("no %1").arg(QLatin1String(what));
    if (std::max(copy.width, copy.height) > longSide
        || copy.byteCount() != std::size_t(copy.width * copy.height * 4))
        return QStringLiteral("%1 of %2x%3").arg(QLatin1String(what)).arg(copy.width).arg(copy.height);
    const std::uint8_t* p = copy.pixels->data();
    for (std::size_t i = 0; i < copy.byteCount(); i += 4) {
        if (p[i] > p[i + 3] || p[i + 1] > p[i + 3] || p[i + 2] > p[i + 3])
            return QStringLiteral("%1 pixel %2 not premultiplied").arg(QLatin1String(what)).arg(i / 4);
    }
    return {};
}

// The streamed pass over the same file (index() and decode()) must take
// what load() took and answer every tolerance as the buffer does.
QString checkStreamed(const QString& path, const CropEngine::Buffer& buffer, const std::array<double, 9>& tolerances)
{
    const std::optional<ImageFile::Indexed> indexed = ImageFile::index(path, true);
    const std::optional<ImageFile::Decoded> decoded = ImageFile::decode(path);
    if (!indexed || !decoded)
        return QStringLiteral("loaded, but the streamed pass refused it (index %1, decode %2)")
            .arg(bool(indexed)).arg(bool(decoded));
    for (const ImageFile::Summary* summary : {&indexed->summary, &decoded->summary}) {
        if (summary->width != buffer.width() || summary->height != buffer.height())
            return QStringLiteral("streamed %1x%2 for %3x%4")
                .arg(summary->width).arg(summary->height).arg(buffer.width()).arg(buffer.height());
        for (const double tolerance : tolerances) {
            const auto streamed = summary->contentRect(tolerance);
            const auto expected = CropEngine::contentRect(buffer, tolerance);
            if (streamed != expected)
                return QStringLiteral("tolerance %1: streamed %2, buffer %3")
                    .arg(tolerance).arg(rectText(streamed), rectText(expected));
        }
        if (QString fault = checkCopy(summary->thumbnail, ImageFile::thumbnailSide, "thumbnail"); !fault.isEmpty())
            return fault;
    }
    if (QString fault = checkCopy(indexed->preview, ImageFile::previewSide, "preview"); !fault.isEmpty())
        return fault;
    return {};
}

// A JPEG's compressed blocks, where they can tell, must find the buffer's
// rectangle at every tolerance, and their cut must be a JPEG of the size
// written, holding that rectangle.
QString checkLossless(const QString& path, const CropEngine::Buffer& buffer, const std::array<double, 9>& tolerances)
{
    QFile file(path);
    const std::unique_ptr<LosslessJpeg::Blocks> blocks =
        file.open(QIODevice::ReadOnly) ? LosslessJpeg::Blocks::read(file.readAll()) : nullptr;
    if (!blocks)
        return {};
    const LosslessJpeg::Grid& grid = blocks->grid();
    if (grid.width != buffer.width() || grid.height != buffer.height())
        return QStringLiteral("blocks of %1x%2 for %3x%4")
            .arg(grid.width).arg(grid.height).arg(buffer.width()).arg(buffer.height());
    std::optional<PixelRect> content;
    for (const double tolerance : tolerances) {
        const LosslessJpeg::Blocks::Content found = blocks->contentRect(tolerance);
        const auto expected = CropEngine::contentRect(buffer, tolerance);
        if (found.told && found.rect != expected)
            return QStringLiteral("tolerance %1: blocks %2, buffer %3")
                .arg(tolerance).arg(rectText(found.rect), rectText(expected));
        if (tolerance == 25.0)
            content = expected;
    }
    if (!content)
        return {};
    // A cut may be refused (the file is then trimmed as usual), but one that
    // is made must decode to the very pixels of the content.
    const PixelRect kept = LosslessJpeg::writtenRect(*content, grid);
    const std::optional<QByteArray> cut = blocks->crop(kept);
    if (!cut)
        return {};
    const auto pixels = [](const vips::VImage& image, const PixelRect& r) {
        std::size_t size = 0;
        void* data = image.extract_area(int(r.x), int(r.y), int(r.width), int(r.height)).write_to_memory(&size);
        QByteArray bytes(static_cast<const char*>(data), qsizetype(size));
        g_free(data);
        return bytes;
    };
    try {
        const vips::VImage image = vips::VImage::new_from_buffer(cut->constData(), std::size_t(cut->size()), "");
        if (image.width() == kept.width && image.height() == kept.height
            && pixels(image, {content->x - kept.x, content->y - kept.y, content->width, content->height})
                   == pixels(buffer.image(), *content))
            return {};
    } catch (const vips::VError&) {
    }
    return QStringLiteral("the lossless cut of %1 does not decode to the content").arg(rectText(kept));
}

} // namespace

void prepare()
{
    ImageFile::initialise();
    ImageFile::setAvailableMemoryForTesting(availableMemory);
}

QString check(const QString& path, const QString& savePath)
{
    const auto loaded = ImageFile::load(path);
    if (!loaded)
        return {};
    const auto buffer = CropEngine::Buffer::make(loaded->image);
    if (!buffer)
        return {};
    if (QString fault = checkBuffer(*buffer); !fault.isEmpty())
        return fault;

    const PixelRect whole{0, 0, buffer->width(), buffer->height()};
    constexpr std::array<double, 9> tolerances{
        0.0, 0.5, 10.0, 25.0, 50.0, 75.0, 99.9, 100.0, std::numeric_limits<double>::quiet_NaN()};
    std::optional<PixelRect> previous = whole;
    std::optional<PixelRect> atHundred;
    bool saved = false;
    for (const double tolerance : tolerances) {
        const auto indexed = CropEngine::contentRect(*buffer, tolerance);
        const auto scanned = CropEngine::contentRectByScan(*buffer, tolerance);
        if (indexed != scanned)
            return QStringLiteral("tolerance %1: index %2, scan %3")
                .arg(tolerance).arg(rectText(indexed), rectText(scanned));
        if (tolerance == 0.0 && indexed != whole)
            return QStringLiteral("tolerance 0 gives %1").arg(rectText(indexed));
        if (tolerance == 100.0)
            atHundred = indexed;
        if (std::isnan(tolerance) && indexed != atHundred)
            return QStringLiteral("NaN gives %1, 100 gives %2").arg(rectText(indexed), rectText(atHundred));
        if (!indexed) {
            previous = std::nullopt;
            continue;
        }
        if (indexed->width < 1 || indexed->height < 1 || !contains(whole, *indexed))
            return QStringLiteral("tolerance %1: %2 outside the image")
                .arg(tolerance).arg(rectText(indexed));
        // A higher tolerance only ever turns content into background (NaN acts as 100).
        if (!std::isnan(tolerance) && (!previous || !contains(*previous, *indexed)))
            return QStringLiteral("tolerance %1: %2 not inside %3")
                .arg(tolerance).arg(rectText(indexed), rectText(previous));
        if (!std::isnan(tolerance))
            previous = indexed;
        const bool save = !saved && tolerance >= 25.0;
        if (QString fault = checkCrop(*buffer, *indexed, loaded->type, save ? savePath : QString());
            !fault.isEmpty())
            return QStringLiteral("tolerance %1: %2").arg(tolerance).arg(fault);
        saved = saved || save;
    }
    if (QString fault = checkStreamed(path, *buffer, tolerances); !fault.isEmpty())
        return fault;
    return loaded->type == ImageType::jpeg() ? checkLossless(path, *buffer, tolerances) : QString();
}

} // namespace orvane::LoadCheck
