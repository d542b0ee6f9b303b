// A trimmed image is written the way its source file was: a TIFF keeps its
// compression, predictor, bit depth, min-is-white, tiles and Lab colour, and
// comes out no larger than its share of the source; a PNG gets a resolution
// only when its source had one. The sources are written by libvips here.
#include "imagefile/imagesource.h"
#include "imagefile/png/pngencoder.h"
#include "imagefile/tiffdirectory.h"

#include <QTemporaryDir>

#include <tuple>

#include "imagefiletestsupport.h"

using namespace orvane;
using namespace orvane::test;
using vips::VImage;

namespace {

// Flat colour with a little noise inside a frame of white with the same
// noise, so that a pixel of the frame costs the source as many bytes as a
// pixel of the content; bilevel images get stripes in pure white. The sizes
// are multiples of 32, so that tiles of a trimmed copy cover only its area.
VImage framedSource(int bands, VipsBandFormat format, bool bilevel)
{
    constexpr int width = 192, height = 128, frame = 16;
    if (bilevel) {
        const VImage xy = VImage::xyz(width - 2 * frame, height - 2 * frame);
        return tagged((VImage::black(width, height) + 255).insert((xy[0] / 7 + xy[1] / 5).cast(VIPS_FORMAT_INT) % 2 == 0, frame, frame),
                      VIPS_FORMAT_UCHAR);
    }
    // Grey in every colour band, as the frame is white in every band: run
    // lengths (PackBits) see the same structure in both.
    std::vector<double> ink(std::size_t(bands), 128);
    if (bands % 2 == 0)
        ink.back() = 255;
    VImage level = (VImage::black(width, height, VImage::option()->set("bands", bands)) + 255).copy_memory();
    level.draw_rect(ink, frame, frame, width - 2 * frame, height - 2 * frame, VImage::option()->set("fill", true));
    // Whole steps of noise, the same in frame and content.
    const VImage noise = VImage::gaussnoise(width, height, VImage::option()->set("sigma", 1.5)->set("mean", 0.0)).abs().cast(VIPS_FORMAT_UCHAR);
    return tagged((level - noise) * (format == VIPS_FORMAT_USHORT ? 257 : 1), format);
}

std::optional<TiffDirectory> directoryOf(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? TiffDirectory::read(file) : std::nullopt;
}

bool tiffCodecWorks(const char* options)
{
    try {
        encoded(VImage::black(16, 16).cast(VIPS_FORMAT_UCHAR), (std::string(".tif") + options).c_str());
        return true;
    } catch (const vips::VError&) {
        vips_error_clear();
        return false;
    }
}

} // namespace

TEST(TiffSave, KeepsTheSourcesStorageAndShrinksWithTheArea)
{
    // The source's options for libvips' writer, and the compression, bits per
    // sample, predictor and photometric interpretation both files must carry.
    const struct { int bands; VipsBandFormat format; const char* options; int compression, bits, predictor, photometric; } cases[] = {
        {3, VIPS_FORMAT_UCHAR, "[compression=none]", 1, 8, 1, 2},
        {3, VIPS_FORMAT_UCHAR, "[compression=lzw,predictor=horizontal]", 5, 8, 2, 2},
        {4, VIPS_FORMAT_UCHAR, "[compression=lzw,predictor=none]", 5, 8, 1, 2},
        {1, VIPS_FORMAT_UCHAR, "[compression=deflate,predictor=horizontal]", 8, 8, 2, 1},
        {3, VIPS_FORMAT_UCHAR, "[compression=packbits]", 32773, 8, 1, 2},
        {3, VIPS_FORMAT_UCHAR, "[compression=zstd,predictor=horizontal]", 50000, 8, 2, 2},
        {3, VIPS_FORMAT_UCHAR, "[compression=deflate,tile,tile_width=32,tile_height=32]", 8, 8, 2, 2},
        {3, VIPS_FORMAT_USHORT, "[compression=deflate]", 8, 16, 2, 2},
        {1, VIPS_FORMAT_USHORT, "[compression=lzw,predictor=none]", 5, 16, 1, 1},
        {1, VIPS_FORMAT_UCHAR, "[compression=ccittfax4,bitdepth=1,miniswhite]", 4, 1, 1, 0},
        {1, VIPS_FORMAT_UCHAR, "[compression=packbits,bitdepth=1]", 32773, 1, 1, 1},
        {1, VIPS_FORMAT_UCHAR, "[compression=deflate,predictor=none,bitdepth=4]", 8, 4, 1, 1},
        {1, VIPS_FORMAT_UCHAR, "[bitdepth=2]", 1, 2, 1, 1},
        {3, VIPS_FORMAT_UCHAR, "[compression=jpeg,Q=85]", 7, 8, 1, 2},
        {3, VIPS_FORMAT_UCHAR, "[compression=webp,Q=85]", 50001, 8, 1, 2},
    };
    QTemporaryDir dir;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.options);
        if (!tiffCodecWorks(c.options))
            continue; // this libtiff cannot write it
        // Names of their own: libvips caches what it opened by name.
        const QString source = dir.filePath(QStringLiteral("source%1.tif").arg(&c - cases));
        const QString target = dir.filePath(QStringLiteral("trimmed%1.tif").arg(&c - cases));
        framedSource(c.bands, c.format, c.bits == 1).write_to_file((QFile::encodeName(source) + c.options).constData());
        const std::optional<ImageFile::Decoded> decoded = ImageFile::decode(source);
        ASSERT_TRUE(decoded);
        const std::optional<PixelRect> rect = decoded->summary.contentRect(25);
        ASSERT_TRUE(rect);
        ASSERT_LT(rect->width * rect->height, decoded->summary.width * decoded->summary.height) << "nothing was trimmed";
        ASSERT_TRUE(ImageFile::saveCropped(*decoded, *rect, target, ImageType::tiff()));

        const std::optional<TiffDirectory> written = directoryOf(target);
        ASSERT_TRUE(written);
        EXPECT_EQ(written->width, rect->width);
        EXPECT_EQ(std::tuple(written->compression, written->bitsPerSample, written->predictor, written->photometric),
                  std::tuple(c.compression, c.bits, c.predictor, c.photometric));
        EXPECT_EQ(written->tileWidth, directoryOf(source)->tileWidth);

        const VImage back = VImage::new_from_file(QFile::encodeName(target).constData());
        const VImage expected = decoded->image.extract_area(int(rect->x), int(rect->y), int(rect->width), int(rect->height));
        ASSERT_EQ(std::pair(back.format(), back.bands()), std::pair(expected.format(), expected.bands()));
        if (c.compression == 7 || c.compression == 50001) { // JPEG, WebP
            EXPECT_LT((back.cast(VIPS_FORMAT_FLOAT) - expected.cast(VIPS_FORMAT_FLOAT)).abs().avg(), 3.0);
        } else {
            const double share = double(rect->width * rect->height) / double(decoded->summary.width * decoded->summary.height);
            EXPECT_LE(QFileInfo(target).size(), qint64(QFileInfo(source).size() * share) + 1024);
            EXPECT_EQ(samples(back), samples(expected));
        }
    }
}

// ---------------------------------------------------------------- Lab

TEST(LabTiff, OpensAsItsSrgbConversionAndIsWrittenBackAsLab)
{
    QTemporaryDir dir;
    const VImage srgb = pattern(90, 70, 3).embed(9, 5, 110, 80, VImage::option()->set("extend", VIPS_EXTEND_WHITE));
    // LABQ is packed in 8 bits, LABS in 16, LAB in floats.
    for (const auto& [stored, bits] : {std::pair{VIPS_INTERPRETATION_LABQ, 8}, {VIPS_INTERPRETATION_LABS, 16}, {VIPS_INTERPRETATION_LAB, 32}}) {
        SCOPED_TRACE(bits);
        const QString source = dir.filePath(QStringLiteral("lab%1.tif").arg(bits));
        const QString target = dir.filePath(QStringLiteral("trimmed%1.tif").arg(bits));
        srgb.colourspace(stored).write_to_file((QFile::encodeName(source) + "[compression=lzw]").constData());
        const std::optional<ImageFile::Decoded> decoded = ImageFile::decode(source);
        ASSERT_TRUE(decoded) << "a Lab TIFF opens";
        // libvips' own reading of the file, converted to sRGB, gives the same rectangle.
        const VImage reference = VImage::new_from_file(QFile::encodeName(source).constData()).colourspace(VIPS_INTERPRETATION_sRGB);
        const std::optional<CropEngine::Buffer> buffer = CropEngine::Buffer::make(reference.cast(VIPS_FORMAT_UCHAR));
        ASSERT_TRUE(buffer);
        for (const double tolerance : {0.0, 10.0, 25.0, 60.0})
            EXPECT_EQ(decoded->summary.contentRect(tolerance), CropEngine::contentRect(*buffer, tolerance)) << tolerance;
        const std::optional<PixelRect> rect = decoded->summary.contentRect(25);
        ASSERT_EQ(rect, (PixelRect{9, 5, 90, 70}));
        ASSERT_TRUE(ImageFile::saveCropped(*decoded, *rect, target, ImageType::tiff()));
        const std::optional<TiffDirectory> written = directoryOf(target);
        ASSERT_TRUE(written);
        EXPECT_EQ(std::tuple(written->photometric, written->bitsPerSample, written->compression), std::tuple(8, bits, 5)); // CIELab, LZW
    }
}

// ---------------------------------------------------------------- PNG resolution

TEST(PngResolution, WrittenOnlyWhenTheSourceHadOne)
{
    QTemporaryDir dir;
    const VImage content = pattern(60, 40, 3).embed(5, 4, 70, 50, VImage::option()->set("extend", VIPS_EXTEND_WHITE)).copy_memory();
    for (const bool sourceHasResolution : {true, false})
        for (const bool lowMemory : {false, true}) { // libvips writes the PNG instead of Orvane's writer
            SCOPED_TRACE(::testing::Message() << (sourceHasResolution ? "with" : "without") << (lowMemory ? ", libvips writing" : ""));
            PngEncoder::Metadata metadata;
            if (sourceHasResolution) // 300 and 150 pixels per inch
                metadata.xPixelsPerMetre = 11811, metadata.yPixelsPerMetre = 5906;
            const QString name = QStringLiteral("%1%2.png").arg(sourceHasResolution).arg(lowMemory);
            const QString source = dir.filePath("source" + name), target = dir.filePath("trimmed" + name);
            ASSERT_TRUE(writeFile(source, PngEncoder::encode(pixelsOf(content), metadata)));
            ASSERT_EQ(readFile(source).contains("pHYs"), sourceHasResolution);
            const std::optional<ImageFile::Decoded> decoded = ImageFile::decode(source);
            ASSERT_TRUE(decoded);
            ImageFile::setAvailableMemoryForTesting(lowMemory ? std::optional<std::uint64_t>(1024) : std::nullopt);
            const bool saved = ImageFile::saveCropped(*decoded, PixelRect{5, 4, 60, 40}, target, ImageType::png());
            ImageFile::setAvailableMemoryForTesting(std::nullopt);
            ASSERT_TRUE(saved);
            EXPECT_EQ(readFile(target).contains("pHYs"), sourceHasResolution);
            const VImage back = VImage::new_from_file(QFile::encodeName(target).constData());
            EXPECT_EQ(samples(back), samples(content.extract_area(5, 4, 60, 40)));
            if (sourceHasResolution) {
                EXPECT_EQ(std::pair(back.xres(), back.yres()), std::pair(11.811, 5.906));
            }
        }
}

// ---------------------------------------------------------------- HEIC chroma

// The chroma format of the first HEVC configuration in a HEIF file: 1 for
// 4:2:0, 3 for 4:4:4; -1 when there is none.
static int heifChroma(const QByteArray& file)
{
    const qsizetype box = file.indexOf("hvcC");
    return box < 0 || box + 21 > file.size() ? -1 : std::uint8_t(file[box + 20]) & 3;
}

TEST(HeicSave, KeepsTheSourcesChromaResolution)
{
    if (!hasSaver(".heic"))
        GTEST_SKIP() << "no HEIC encoder";
    QTemporaryDir dir;
    const VImage image = pattern(64, 48, 3).embed(8, 8, 80, 64, VImage::option()->set("extend", VIPS_EXTEND_WHITE));
    for (const char* mode : {"on", "off"}) {
        const QString source = dir.filePath("source.heic"), target = dir.filePath("trimmed.heic");
        image.write_to_file((QFile::encodeName(source) + "[Q=80,subsample_mode=" + mode + "]").constData());
        const int chroma = heifChroma(readFile(source));
        ASSERT_NE(chroma, -1);
        const std::optional<ImageFile::Decoded> decoded = ImageFile::decode(source);
        ASSERT_TRUE(decoded);
        ASSERT_TRUE(ImageFile::saveCropped(*decoded, PixelRect{8, 8, 64, 48}, target, ImageType::heic()));
        EXPECT_EQ(heifChroma(readFile(target)), chroma) << "subsample_mode=" << mode;
    }
}

ORVANE_IMAGEFILE_TEST_MAIN({})
