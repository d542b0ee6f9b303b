// PNG writing: ImageFile::save against libvips' default PNG settings, a
// faster middle setting and ImageMagick's own PNG writer, on three kinds of
// 6-megapixel image. Prints bytes and milliseconds per setting and the ratios
// to libvips' defaults. A plain timing program.
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include <QCoreApplication>
#include <QFileInfo>
#include <QTemporaryDir>

#include <vips/vips8>

#include "imagefile/imagefile.h"

namespace {

using Clock = std::chrono::steady_clock;

// Encodes an image, returning its size in bytes.
struct Setting {
    const char* name;
    std::function<size_t(const vips::VImage&)> encode;
};

size_t blobSize(VipsBlob* blob)
{
    const size_t size = VIPS_AREA(blob)->length;
    vips_area_unref(VIPS_AREA(blob));
    return size;
}

vips::VImage photoLike(int width, int height)
{
    // Smooth gradients with sensor-like noise.
    const vips::VImage xy = vips::VImage::xyz(width, height);
    const vips::VImage base = (xy[0] * (255.0 / width)).bandjoin(xy[1] * (255.0 / height)).bandjoin((xy[0] + xy[1]) * (127.0 / (width + height)) + 64);
    const vips::VImage noise = vips::VImage::gaussnoise(width, height, vips::VImage::option()->set("mean", 0.0)->set("sigma", 6.0));
    return (base + noise).cast(VIPS_FORMAT_UCHAR).copy(vips::VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB));
}

vips::VImage screenshotLike(int width, int height)
{
    // Flat panels with hard-edged detail, on a white border.
    const vips::VImage xy = vips::VImage::xyz(width, height);
    const vips::VImage stripes = ((xy[0] / 7).cast(VIPS_FORMAT_INT) % 5 == 0) & ((xy[1] / 3).cast(VIPS_FORMAT_INT) % 4 != 0);
    const vips::VImage panel = stripes.ifthenelse(std::vector<double>{30, 30, 40}, std::vector<double>{236, 240, 244});
    return panel.cast(VIPS_FORMAT_UCHAR)
        .embed(width / 10, height / 10, width + width / 5, height + height / 5,
               vips::VImage::option()->set("extend", VIPS_EXTEND_WHITE))
        .copy(vips::VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB));
}

vips::VImage transparentArt(int width, int height)
{
    // A soft disc on transparency, with an alpha band.
    const vips::VImage xy = vips::VImage::xyz(width, height) - std::vector<double>{width / 2.0, height / 2.0};
    const vips::VImage distance = (xy[0] * xy[0] + xy[1] * xy[1]).pow(0.5);
    const vips::VImage alpha = (255 - distance * (255.0 / (height / 2.0))).cast(VIPS_FORMAT_UCHAR);
    const vips::VImage colour = vips::VImage::black(width, height) + std::vector<double>{200, 60, 40};
    return colour.cast(VIPS_FORMAT_UCHAR).bandjoin(alpha).copy(vips::VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB));
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (VIPS_INIT(argv[0]))
        return 1;
    orvane::ImageFile::initialise();
    QTemporaryDir dir;
    const QString file = dir.filePath(QStringLiteral("bench.png"));

    const std::vector<Setting> settings{
        {"libvips default (level 6)", [](const vips::VImage& i) { return blobSize(i.pngsave_buffer()); }},
        {"level 6, adaptive filters", [](const vips::VImage& i) {
             return blobSize(i.pngsave_buffer(
                 vips::VImage::option()->set("compression", 6)->set("filter", VIPS_FOREIGN_PNG_FILTER_ALL)));
         }},
        {"ImageMagick's PNG writer, default", [](const vips::VImage& i) {
             return blobSize(i.magicksave_buffer(vips::VImage::option()->set("format", "png")));
         }},
        {"ImageFile::save (to a file)", [&file](const vips::VImage& i) {
             if (!orvane::ImageFile::save(i, file, orvane::ImageType::png()))
                 return size_t(0);
             return size_t(QFileInfo(file).size());
         }},
    };
    const std::vector<std::pair<const char*, vips::VImage>> images{
        {"photo-like 3000x2000 RGB", photoLike(3000, 2000).copy_memory()},
        {"screenshot-like 2500x1666 + white border, RGB", screenshotLike(2500, 1666).copy_memory()},
        {"soft disc on transparency 3000x2000 RGBA", transparentArt(3000, 2000).copy_memory()},
    };

    for (const auto& [imageName, image] : images) {
        std::printf("%s\n", imageName);
        double baseBytes = 0;
        double baseMs = 0;
        for (const Setting& setting : settings) {
            double bestMs = 1e300;
            size_t bytes = 0;
            for (int run = 0; run < 3; ++run) {
                const Clock::time_point start = Clock::now();
                bytes = setting.encode(image);
                const double ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
                bestMs = std::min(bestMs, ms);
            }
            if (baseBytes == 0) {
                baseBytes = double(bytes);
                baseMs = bestMs;
            }
            std::printf("  %-36s %11zu bytes (%.3f)  %8.1f ms (%.2f)\n", setting.name, bytes, double(bytes) / baseBytes,
                        bestMs, bestMs / baseMs);
        }
    }
    return 0;
}
