// libpng through libvips as the reference for Orvane's own PNG writer: shared
// by the codec tests, the fuzz target and the benchmark.
#pragma once

#include <cstddef>
#include <optional>

#include <QByteArray>

#include <vips/vips8>

namespace orvane::test {

/// The PNG decoded by libvips' own loader (libpng) into memory, refusing
/// files with errors as Orvane's loading does; absent when refused.
inline std::optional<vips::VImage> loadedByLibvips(const void* data, std::size_t size)
{
    try {
        VipsBlob* blob = vips_blob_copy(data, size);
        vips::VImage image = vips::VImage::pngload_buffer(blob, vips::VImage::option()->set("fail_on", VIPS_FAIL_ON_ERROR));
        vips_area_unref(VIPS_AREA(blob));
        return image.copy_memory();
    } catch (const vips::VError&) {
        vips_error_clear();
        return std::nullopt;
    }
}

inline std::optional<vips::VImage> loadedByLibvips(const QByteArray& png)
{
    return loadedByLibvips(png.constData(), std::size_t(png.size()));
}

/// The image's pixels, row after row, as stored.
inline QByteArray pixelBytes(const vips::VImage& image)
{
    size_t size = 0;
    void* data = image.write_to_memory(&size);
    QByteArray bytes(static_cast<const char*>(data), qsizetype(size));
    g_free(data);
    return bytes;
}

/// The image as four bands of the given sample format: grey spread over red,
/// green and blue, a missing alpha at its maximum, 8-bit samples scaled to 16
/// bits as PNG's decoders scale them. Orvane's writer leaves out the bands
/// and bits that the pixels don't need; widened, what it wrote reads back
/// as the pixels it was given.
inline vips::VImage widened(vips::VImage image, VipsBandFormat format)
{
    if (format == VIPS_FORMAT_USHORT && image.format() == VIPS_FORMAT_UCHAR)
        image = image.cast(VIPS_FORMAT_USHORT) * 257;
    const double max = format == VIPS_FORMAT_USHORT ? 65535.0 : 255.0;
    if (image.bands() <= 2)
        image = image[0].bandjoin(image[0]).bandjoin(image[0]).bandjoin(image.bands() == 2 ? image[1] : image[0] * 0 + max);
    else if (image.bands() == 3)
        image = image.bandjoin_const({max});
    return image.cast(format);
}

} // namespace orvane::test
