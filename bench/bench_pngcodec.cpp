// Orvane's PNG writer on real files, against libpng through libvips in the
// same run:
//
//   bench_pngcodec FILE-OR-FOLDER...     (folders are searched recursively)
//
// Every PNG libvips reads is written by Orvane's writer and by libpng at zlib
// level 7 with adaptive filters: bytes and time, and whether Orvane's file
// reads back to the same pixels.
// Any disagreement is printed with the file's name and makes the exit status 1.
#include <chrono>
#include <cstdio>

#include <QCoreApplication>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>

#include <vips/vips8>

#include "imagefile/imagefile.h"
#include "imagefile/pngencoder.h"
#include "support/libvipspng.h"

namespace {

using orvane::test::loadedByLibvips;
using orvane::test::pixelBytes;
using orvane::test::sameImage;

using Clock = std::chrono::steady_clock;

double millisecondsSince(Clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

QStringList pngsUnder(const QStringList& paths)
{
    QStringList files;
    for (const QString& path : paths) {
        if (QFileInfo(path).isDir()) {
            QDirIterator it(path, {QStringLiteral("*.png")}, QDir::Files, QDirIterator::Subdirectories);
            while (it.hasNext())
                files << it.next();
        } else {
            files << path;
        }
    }
    return files;
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    if (VIPS_INIT(argv[0]) != 0)
        return 1;
    orvane::ImageFile::initialise();
    const QStringList files = pngsUnder(QCoreApplication::arguments().mid(1));
    if (files.isEmpty()) {
        std::fprintf(stderr, "usage: bench_pngcodec FILE-OR-FOLDER...\n");
        return 2;
    }

    int read = 0, disagreements = 0, written = 0;
    double oursWriteMs = 0, theirsWriteMs = 0;
    qint64 oursBytes = 0, theirBytes = 0, larger = 0, excess = 0, largerTheirs = 0;
    for (const QString& path : files) {
        QFile f(path);
        if (!f.open(QIODevice::ReadOnly))
            continue;
        const QByteArray file = f.readAll();
        const std::optional<vips::VImage> theirs = loadedByLibvips(file);
        if (!theirs)
            continue;
        ++read;

        // Writing: only what Orvane's writer takes (8 or 16 bits, 1–4 bands).
        const vips::VImage& image = *theirs;
        if (image.format() != VIPS_FORMAT_UCHAR && image.format() != VIPS_FORMAT_USHORT)
            continue;
        orvane::PngEncoder::Pixels px;
        px.data = static_cast<const std::uint8_t*>(image.data());
        px.width = image.width();
        px.height = image.height();
        px.bands = image.bands();
        px.depth = image.format() == VIPS_FORMAT_USHORT ? 16 : 8;
        px.stride = std::size_t(VIPS_IMAGE_SIZEOF_LINE(image.get_image()));
        auto start = Clock::now();
        const QByteArray mine = orvane::PngEncoder::encode(px);
        oursWriteMs += millisecondsSince(start);
        start = Clock::now();
        VipsBlob* blob = image.pngsave_buffer(vips::VImage::option()
                                                  ->set("compression", orvane::PngEncoder::referenceZlibLevel)
                                                  ->set("filter", VIPS_FOREIGN_PNG_FILTER_ALL)
                                                  ->set("strip", true));
        theirsWriteMs += millisecondsSince(start);
        size_t length = 0;
        vips_blob_get(blob, &length);
        vips_area_unref(VIPS_AREA(blob));
        const std::optional<vips::VImage> back = loadedByLibvips(mine);
        if (mine.isEmpty() || !back || back->bands() != image.bands() || pixelBytes(*back) != pixelBytes(image)) {
            std::printf("written differently: %s\n", qPrintable(path));
            ++disagreements;
            continue;
        }
        ++written;
        oursBytes += mine.size();
        theirBytes += qint64(length);
        if (mine.size() > qint64(length)) {
            ++larger;
            excess += mine.size() - qint64(length);
            largerTheirs += qint64(length);
            if (qEnvironmentVariableIsSet("ORVANE_BENCH_VERBOSE"))
                std::printf("larger: %s %lld vs %lld, %d bands, %d bits, %s\n", qPrintable(path),
                            static_cast<long long>(mine.size()), static_cast<long long>(length), px.bands, px.depth,
                            mine.at(25) == 3 ? "indexed" : "truecolour");
        }
    }

    std::printf("%lld files, %d read by libvips, %d disagreements\n", static_cast<long long>(files.size()), read,
                disagreements);
    if (written > 0) {
        std::printf("writing %d images: Orvane %.1f ms, %lld bytes; libpng level 7 %.1f ms, %lld bytes\n", written,
                    oursWriteMs, static_cast<long long>(oursBytes), theirsWriteMs, static_cast<long long>(theirBytes));
        std::printf("time %.2fx faster, bytes %.3f of libpng's; %lld files larger than libpng's, by %lld bytes "
                    "(%.1f %% of theirs)\n",
                    theirsWriteMs / std::max(oursWriteMs, 1e-9), double(oursBytes) / double(std::max<qint64>(theirBytes, 1)),
                    static_cast<long long>(larger), static_cast<long long>(excess),
                    100.0 * double(excess) / double(std::max<qint64>(largerTheirs, 1)));
    }
    return disagreements == 0 ? 0 : 1;
}
