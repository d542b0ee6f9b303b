#include "testimages.h"

namespace orvane::TestImages {

vips::VImage framedNoise(int width, int height, int border)
{
    const int w = width - 2 * border;
    const int h = height - 2 * border;
    vips::VImage noise = vips::VImage::gaussnoise(w, h, vips::VImage::option()->set("sigma", 60.0)->set("mean", 100.0)->set("seed", 7));
    vips::VImage block = vips::VImage::bandjoin({noise, noise.flip(VIPS_DIRECTION_HORIZONTAL), noise.flip(VIPS_DIRECTION_VERTICAL)});
    block = block.cast(VIPS_FORMAT_UCHAR).copy(vips::VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB));
    const std::vector<double> white{255, 255, 255};
    return block.embed(border, border, width, height,
                       vips::VImage::option()->set("extend", VIPS_EXTEND_BACKGROUND)->set("background", white));
}

QByteArray encode(const vips::VImage& image, const char* suffix, vips::VOption* options)
{
    void* data = nullptr;
    size_t size = 0;
    image.write_to_buffer(suffix, &data, &size, options);
    QByteArray bytes(static_cast<const char*>(data), qsizetype(size));
    g_free(data);
    return bytes;
}

} // namespace orvane::TestImages
