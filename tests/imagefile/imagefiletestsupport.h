// Helpers shared by the image-file tests: generated images, encoded files, main().
#pragma once

#include <cstdint>
#include <vector>

#include <QByteArray>
#include <QCoreApplication>
#include <QFile>
#include <QString>

#include <gtest/gtest.h>
#include <vips/vips8>

#include "imagefile/imagefile.h"
#include "imagefile/png/pngencoder.h"
#include "support/testfiles.h"

namespace orvane::test {

/// The encoder's view of an image that is in memory.
inline PngEncoder::Pixels pixelsOf(const vips::VImage& memory)
{
    return {static_cast<const std::uint8_t*>(memory.data()), std::size_t(VIPS_IMAGE_SIZEOF_LINE(memory.get_image())), memory.width(),
            memory.height(), memory.bands(), memory.format() == VIPS_FORMAT_USHORT ? 16 : 8};
}

/// Byte offset of a PNG's IHDR data (8 bit depth, 9 colour type …); −1 past the end.
inline int ihdrByte(const QByteArray& png, int offset)
{
    return png.size() > 16 + offset ? uchar(png.at(16 + offset)) : -1;
}

/// The image cast to the format and tagged as grey or colour by its bands.
inline vips::VImage tagged(const vips::VImage& image, VipsBandFormat format)
{
    const bool wide = format == VIPS_FORMAT_USHORT;
    return image.cast(format).copy(vips::VImage::option()->set(
        "interpretation", image.bands() <= 2 ? (wide ? VIPS_INTERPRETATION_GREY16 : VIPS_INTERPRETATION_B_W)
                                             : (wide ? VIPS_INTERPRETATION_RGB16 : VIPS_INTERPRETATION_sRGB)));
}

/// An image whose every pixel differs from its neighbours: red runs along x,
/// green along y, blue with both; alpha (when asked for) falls along x.
/// Values span the whole range of the format (uchar or ushort).
inline vips::VImage pattern(int width, int height, int bands, VipsBandFormat format = VIPS_FORMAT_UCHAR)
{
    const double max = format == VIPS_FORMAT_USHORT ? 65535.0 : 255.0;
    const vips::VImage xy = vips::VImage::xyz(width, height), x = xy[0], y = xy[1];
    const vips::VImage g = y * (max / std::max(1, height - 1));
    const vips::VImage a = (width - 1 - x) * (max / std::max(1, width - 1)) * 0.5 + max / 2;
    const vips::VImage rgb = (x * (max / std::max(1, width - 1))).bandjoin(g).bandjoin((x + y) * (max / std::max(1, width + height - 2)));
    return tagged(bands == 1 ? g : bands == 2 ? g.bandjoin(a) : bands == 3 ? rgb : rgb.bandjoin(a), format);
}

/// The image's pixels as one value per sample, row after row.
inline std::vector<std::uint32_t> samples(const vips::VImage& image)
{
    size_t size = 0;
    auto* data = static_cast<std::uint32_t*>(image.cast(VIPS_FORMAT_UINT).write_to_memory(&size));
    std::vector<std::uint32_t> out(data, data + size / 4);
    g_free(data);
    return out;
}

/// The encoded bytes of image for a libvips saver suffix (".png[compression=1]").
inline QByteArray encoded(const vips::VImage& image, const char* suffix)
{
    void* data = nullptr;
    size_t size = 0;
    image.write_to_buffer(suffix, &data, &size);
    QByteArray bytes(static_cast<const char*>(data), qsizetype(size));
    g_free(data);
    return bytes;
}

/// The blob's bytes; the blob is released.
inline QByteArray takeBlob(VipsBlob* blob)
{
    size_t length = 0;
    const void* data = vips_blob_get(blob, &length);
    QByteArray bytes(static_cast<const char*>(data), qsizetype(length));
    vips_area_unref(VIPS_AREA(blob));
    return bytes;
}

/// The image as a BMP file, written by ImageMagick.
inline QByteArray bmpBytes(const vips::VImage& image)
{
    return takeBlob(image.magicksave_buffer(vips::VImage::option()->set("format", "bmp")));
}

inline bool hasSaver(const char* suffix)
{
    const bool found = vips_foreign_find_save_buffer(suffix) != nullptr;
    vips_error_clear();
    return found;
}

/// libvips' own sRGB profile.
inline QByteArray iccProfile() { return takeBlob(vips::VImage::profile_load("srgb")); }

/// A blob field's bytes; empty when the image has none.
inline QByteArray blobField(const vips::VImage& image, const char* name)
{
    const void* data = nullptr;
    size_t length = 0;
    if (image.get_typeof(name) == 0 || vips_image_get_blob(image.get_image(), name, &data, &length) != 0)
        return {};
    return QByteArray(static_cast<const char*>(data), qsizetype(length));
}

/// A copy of the image carrying the profile.
inline vips::VImage withProfile(vips::VImage image, const QByteArray& profile)
{
    image = image.copy();
    image.set(VIPS_META_ICC_NAME, nullptr, const_cast<char*>(profile.constData()), size_t(profile.size()));
    return image;
}

} // namespace orvane::test

namespace orvane {
// Lets GoogleTest print types by name.
inline void PrintTo(const ImageType& type, std::ostream* out)
{
    *out << type.mimeName().toStdString();
}
} // namespace orvane

/// main() for an image-file test: libvips and Orvane's loader rules set up
/// before any test runs, as in the application.
#define ORVANE_IMAGEFILE_TEST_MAIN(setup)                                                                              \
    int main(int argc, char** argv)                                                                                    \
    {                                                                                                                  \
        setup;                                                                                                         \
        QCoreApplication app(argc, argv);                                                                              \
        if (VIPS_INIT(argv[0]))                                                                                        \
            return 2;                                                                                                  \
        orvane::ImageFile::initialise();                                                                               \
        ::testing::InitGoogleTest(&argc, argv);                                                                        \
        return RUN_ALL_TESTS();                                                                                        \
    }
