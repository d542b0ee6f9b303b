// How close a re-encoded image stays to its decoded source: JPEG at quality
// 92 against HEIC and lossy WebP over a range of qualities, as PSNR in dB and
// bytes, and then through ImageFile::save at the qualities Orvane uses.
//
//   bench_reencode [photo …]
//
// It makes two photo-like images (fractal surfaces, hard edges, sensor
// noise); photos named on the command line are used as well. Each image is
// stored once in every format, at quality 80 and at 95 with chroma at half
// resolution, like a file from a camera or a phone; that file's decoded
// pixels are the source a re-encode is measured against.
#include <cmath>
#include <cstdio>
#include <vector>

#include <QCoreApplication>
#include <QFile>
#include <QTemporaryDir>

#include <vips/vips8>

#include "imagefile/imagefile.h"
#include "imagefile/sourceformat.h"

using vips::VImage;
using namespace orvane;

namespace {

VImage photoLike(int width, int height, int seed)
{
    const auto channel = [&](double dimension) {
        const VImage surface = VImage::fractsurf(width, height, dimension);
        const double lo = surface.min(), hi = surface.max();
        return (surface - lo) * (255.0 / (hi - lo));
    };
    VImage rgb = channel(2.2 + 0.1 * seed).bandjoin(channel(2.3)).bandjoin(channel(2.4 - 0.1 * seed)).copy_memory();
    // Hard edges, as buildings, text or a horizon give a photo.
    for (int i = 0; i < 12; ++i) {
        const int x = (i * 977 + seed * 331) % width, y = (i * 613 + seed * 97) % height;
        const std::vector<double> ink{double((i * 71) % 256), double((i * 151) % 256), double((i * 37) % 256)};
        rgb.draw_rect(ink, x, y, width / 10, height / 14, VImage::option()->set("fill", true));
    }
    rgb = rgb + VImage::gaussnoise(width, height, VImage::option()->set("sigma", 3.0)->set("mean", 0.0));
    return rgb.cast(VIPS_FORMAT_UCHAR).copy(VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB));
}

VImage decoded(const VImage& image, const QByteArray& suffix)
{
    void* data = nullptr;
    size_t length = 0;
    image.write_to_buffer(suffix.constData(), &data, &length);
    VImage back = VImage::new_from_buffer(data, length, "").copy_memory();
    g_free(data);
    return back.extract_band(0, VImage::option()->set("n", 3));
}

struct Result {
    double psnr = 0;
    size_t bytes = 0;
};

double psnr(const VImage& a, const VImage& b)
{
    const VImage difference = a.cast(VIPS_FORMAT_DOUBLE) - b.cast(VIPS_FORMAT_DOUBLE);
    const double mse = (difference * difference).avg();
    return mse <= 0 ? 99.0 : 10.0 * std::log10(255.0 * 255.0 / mse);
}

Result reencoded(const VImage& source, const QByteArray& suffix)
{
    void* data = nullptr;
    size_t length = 0;
    source.write_to_buffer(suffix.constData(), &data, &length);
    const VImage back = VImage::new_from_buffer(data, length, "").extract_band(0, VImage::option()->set("n", 3));
    const Result result{psnr(source, back), length};
    g_free(data); // the image read from the buffer is done with
    return result;
}

Result throughSave(const VImage& source, const ImageType& type, const QString& path)
{
    if (!ImageFile::save(source, path, type))
        return {};
    const VImage back = VImage::new_from_file(QFile::encodeName(path).constData()).extract_band(0, VImage::option()->set("n", 3));
    return {psnr(source, back), size_t(QFile(path).size())};
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (VIPS_INIT(argv[0]) != 0)
        return 1;
    ImageFile::initialise();
    vips_operation_block_set("VipsForeignLoad", FALSE); // the bench reads what it wrote, and the photos given

    std::vector<std::pair<QString, VImage>> images;
    for (int seed = 0; seed < 2; ++seed)
        images.emplace_back(QStringLiteral("made %1").arg(seed), photoLike(768, 512, seed));
    for (int i = 1; i < argc; ++i) {
        VImage photo = VImage::new_from_file(argv[i]).colourspace(VIPS_INTERPRETATION_sRGB);
        images.emplace_back(QString::fromLocal8Bit(argv[i]), photo.extract_band(0, VImage::option()->set("n", 3)));
    }

    // Sources at two qualities: JPEG and HEIC with chroma at half resolution,
    // as cameras and phones store them, and HEIC also at full resolution.
    // JPEG at 92 keeps full-resolution chroma (libvips halves it only below
    // 90); lossy WebP always halves it.
    const std::vector<int> heifQualities{65, 70, 75, 80, 85};
    const std::vector<int> webpQualities{90, 95, 100};
    QTemporaryDir dir;
    std::printf("PSNR in dB of a re-encode against its decoded source, and kilobytes\n\n");
    for (const auto& [name, image] : images) {
        for (const int sourceQuality : {80, 95}) {
            const QByteArray q = QByteArray::number(sourceQuality);
            std::printf("%s (%d × %d), sources at quality %d\n", qPrintable(name), image.width(), image.height(),
                        sourceQuality);
            const VImage jpegSource = decoded(image, ".jpg[Q=" + q + ",subsample_mode=on]");
            const VImage heifHalf = decoded(image, ".heic[Q=" + q + ",subsample_mode=on]");
            const VImage heifFull = decoded(image, ".heic[Q=" + q + ",subsample_mode=off]");
            const VImage webpSource = decoded(image, ".webp[Q=" + q + "]");
            const Result jpeg = reencoded(jpegSource, ".jpg[Q=92,optimize_coding]");
            std::printf("  JPEG Q 92: %.2f dB %.1f KB\n", jpeg.psnr, jpeg.bytes / 1024.0);
            std::printf("  HEIC     from 4:2:0 as 4:2:0      from 4:4:4 as 4:2:0      from 4:4:4 as 4:4:4\n");
            for (const int quality : heifQualities) {
                const QByteArray at = QByteArray::number(quality);
                const Result a = reencoded(heifHalf, ".heic[Q=" + at + ",subsample_mode=on]");
                const Result b = reencoded(heifFull, ".heic[Q=" + at + ",subsample_mode=on]");
                const Result c = reencoded(heifFull, ".heic[Q=" + at + ",subsample_mode=off]");
                std::printf("  Q %3d   %6.2f dB %6.1f KB     %6.2f dB %6.1f KB     %6.2f dB %6.1f KB\n", quality, a.psnr,
                            a.bytes / 1024.0, b.psnr, b.bytes / 1024.0, c.psnr, c.bytes / 1024.0);
            }
            std::printf("  WebP     plain                    sharp YUV\n");
            for (const int quality : webpQualities) {
                const QByteArray at = QByteArray::number(quality);
                const Result plain = reencoded(webpSource, ".webp[Q=" + at + "]");
                const Result sharp = reencoded(webpSource, ".webp[Q=" + at + ",smart_subsample]");
                std::printf("  Q %3d   %6.2f dB %6.1f KB     %6.2f dB %6.1f KB\n", quality, plain.psnr,
                            plain.bytes / 1024.0, sharp.psnr, sharp.bytes / 1024.0);
            }
            // The same through ImageFile::save, from files as load() reads them.
            const auto ofFile = [&](const VImage& image, const char* options, const char* suffix, const ImageType& type) {
                void* data = nullptr;
                size_t length = 0;
                image.write_to_buffer((QByteArray(suffix) + options).constData(), &data, &length);
                const QString from = dir.filePath(QStringLiteral("source") + QLatin1String(suffix));
                QFile file(from);
                file.open(QIODevice::WriteOnly);
                file.write(static_cast<const char*>(data), qint64(length));
                file.close();
                g_free(data);
                const std::optional<ImageFile::LoadResult> loaded = ImageFile::load(from);
                const QString to = dir.filePath(QStringLiteral("saved") + QLatin1String(suffix));
                return loaded ? throughSave(loaded->image, type, to) : Result{};
            };
            const QByteArray sq = "[Q=" + q;
            const Result savedJpeg = ofFile(image, (sq + ",subsample_mode=on]").constData(), ".jpeg", ImageType::jpeg());
            const Result savedHalf = ofFile(image, (sq + ",subsample_mode=on]").constData(), ".heic", ImageType::heic());
            const Result savedFull = ofFile(image, (sq + ",subsample_mode=off]").constData(), ".heic", ImageType::heic());
            const Result savedWebp = ofFile(image, (sq + "]").constData(), ".webp", ImageType::webP());
            std::printf("  ImageFile::save: JPEG %.2f dB, HEIC Q %d from 4:2:0 %.2f dB, from 4:4:4 %.2f dB, "
                        "WebP Q %d %.2f dB\n\n",
                        savedJpeg.psnr, ImageFile::heifQuality, savedHalf.psnr, savedFull.psnr,
                        ImageFile::lossyWebpQuality, savedWebp.psnr);
            std::fflush(stdout);
        }
    }
    return 0;
}
