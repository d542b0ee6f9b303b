// Images the reliability tests make for themselves.
#pragma once

#include <QByteArray>

#include <vips/vips8>

namespace orvane::TestImages {

/// An sRGB image of width × height pixels: random noise (fixed seed, poorly
/// compressible) inside a white border of the given width on every side.
inline vips::VImage framedNoise(int width, int height, int border)
{
    const vips::VImage noise = vips::VImage::gaussnoise(width - 2 * border, height - 2 * border,
                                                        vips::VImage::option()->set("sigma", 60.0)->set("mean", 100.0)->set("seed", 7));
    return vips::VImage::bandjoin({noise, noise.flip(VIPS_DIRECTION_HORIZONTAL), noise.flip(VIPS_DIRECTION_VERTICAL)})
        .cast(VIPS_FORMAT_UCHAR)
        .copy(vips::VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB))
        .embed(border, border, width, height,
               vips::VImage::option()->set("extend", VIPS_EXTEND_BACKGROUND)->set("background", std::vector<double>{255, 255, 255}));
}

/// The image encoded by libvips for the file suffix (".png", ".tif" …).
inline QByteArray encode(const vips::VImage& image, const char* suffix, vips::VOption* options = nullptr)
{
    void* data = nullptr;
    size_t size = 0;
    image.write_to_buffer(suffix, &data, &size, options);
    QByteArray bytes(static_cast<const char*>(data), qsizetype(size));
    g_free(data);
    return bytes;
}

} // namespace orvane::TestImages
