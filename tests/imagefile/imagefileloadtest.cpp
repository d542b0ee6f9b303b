// ImageFile::load: every accepted type decodes, the decoder follows the
// content, only the first frame, no rotation, and everything broken, foreign
// or too big yields absent.
#include "imagefile/imagefile.h"

#include <thread>

#include <QDir>
#include <QTemporaryDir>

#include <zlib.h>

#include "imagefiletestsupport.h"

using namespace orvane;
using orvane::test::encoded;
using orvane::test::pattern;
using orvane::test::readFile;
using orvane::test::samples;
using orvane::test::writeFile;

namespace {

class Load : public ::testing::Test {
protected:
    QString path(const QString& name) const { return dir.filePath(name); }
    QString write(const QString& name, const QByteArray& bytes) const
    {
        const QString p = path(name);
        EXPECT_TRUE(writeFile(p, bytes));
        return p;
    }
    void TearDown() override { ImageFile::setAvailableMemoryForTesting(std::nullopt); }

    QTemporaryDir dir;
};

void putBig32(QByteArray& bytes, qsizetype at, std::uint32_t value)
{
    for (int i = 0; i < 4; ++i)
        bytes[at + i] = char(value >> (24 - 8 * i));
}

void putLittle16(QByteArray& bytes, qsizetype at, std::uint16_t value)
{
    bytes[at] = char(value & 0xff);
    bytes[at + 1] = char(value >> 8);
}

void putLittle32(QByteArray& bytes, qsizetype at, std::uint32_t value)
{
    for (int i = 0; i < 4; ++i)
        bytes[at + i] = char(value >> (8 * i));
}

QByteArray pngChunk(const char* type, const QByteArray& data)
{
    QByteArray chunk(4, '\0');
    putBig32(chunk, 0, std::uint32_t(data.size()));
    chunk += type;
    chunk += data;
    const uLong crc = crc32(crc32(0, nullptr, 0), reinterpret_cast<const Bytef*>(chunk.constData() + 4),
                            uInt(chunk.size() - 4));
    QByteArray tail(4, '\0');
    putBig32(tail, 0, std::uint32_t(crc));
    return chunk + tail;
}

// A valid 1-bit grey PNG of width × height black pixels. Its rows of zeros
// deflate to almost nothing: at 30 000 × 30 000 the file is about 100 KB and
// claims 900 million pixels.
QByteArray zeroPng(std::uint32_t width, std::uint32_t height)
{
    QByteArray header(13, '\0');
    putBig32(header, 0, width);
    putBig32(header, 4, height);
    header[8] = 1; // bit depth
    header[9] = 0; // grey

    z_stream stream{};
    deflateInit(&stream, 9);
    const QByteArray row((width + 7) / 8 + 1, '\0'); // filter byte, then the bits
    QByteArray compressed;
    std::vector<Bytef> out(1 << 16);
    for (std::uint32_t y = 0; y < height; ++y) {
        stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(row.constData()));
        stream.avail_in = uInt(row.size());
        const int flush = y + 1 == height ? Z_FINISH : Z_NO_FLUSH;
        do {
            stream.next_out = out.data();
            stream.avail_out = uInt(out.size());
            deflate(&stream, flush);
            compressed.append(reinterpret_cast<const char*>(out.data()), qsizetype(out.size() - stream.avail_out));
        } while (stream.avail_out == 0);
    }
    deflateEnd(&stream);
    return QByteArray("\x89PNG\r\n\x1a\n", 8) + pngChunk("IHDR", header) + pngChunk("IDAT", compressed)
        + pngChunk("IEND", {});
}

// Offset of a JPEG start-of-frame segment, or -1.
qsizetype jpegFrameHeader(const QByteArray& jpeg)
{
    for (qsizetype i = 2; i + 9 < jpeg.size();) {
        if (uchar(jpeg[i]) != 0xff)
            return -1;
        const uchar marker = uchar(jpeg[i + 1]);
        if (marker == 0xc0 || marker == 0xc1 || marker == 0xc2)
            return i;
        i += 2 + (uchar(jpeg[i + 2]) << 8 | uchar(jpeg[i + 3]));
    }
    return -1;
}

// Offset of a GIF's first image descriptor, or -1.
qsizetype gifImageDescriptor(const QByteArray& gif)
{
    qsizetype at = 13;
    if (uchar(gif[10]) & 0x80)
        at += 3 * (2 << (uchar(gif[10]) & 7));
    while (at < gif.size()) {
        if (gif[at] == 0x2c)
            return at;
        if (gif[at] != 0x21)
            return -1;
        at += 2; // introducer and label, then sub-blocks up to an empty one
        while (at < gif.size() && gif[at] != 0)
            at += 1 + uchar(gif[at]);
        at += 1;
    }
    return -1;
}

} // namespace

// ---------------------------------------------------------------- every type

TEST_F(Load, EveryAcceptedTypeLoadsWithItsType)
{
    const vips::VImage image = pattern(64, 48, 3);
    struct Case {
        const char* name;
        ImageType type;
        const char* suffix;
    };
    const Case cases[] = {
        {"a.png", ImageType::png(), ".png"},  {"a.jpg", ImageType::jpeg(), ".jpg[Q=95]"},
        {"a.tif", ImageType::tiff(), ".tif"}, {"a.gif", ImageType::gif(), ".gif"},
        {"a.webp", ImageType::webP(), ".webp[lossless]"},
    };
    for (const Case& c : cases) {
        const std::optional<ImageFile::LoadResult> loaded = ImageFile::load(write(c.name, encoded(image, c.suffix)));
        ASSERT_TRUE(loaded) << c.name;
        EXPECT_EQ(loaded->type, c.type) << c.name;
        EXPECT_EQ(loaded->image.width(), 64) << c.name;
        EXPECT_EQ(loaded->image.height(), 48) << c.name;
    }
}

TEST_F(Load, BmpLoadsThroughItsOwnGate)
{
    VipsBlob* blob = pattern(40, 30, 3).magicksave_buffer(vips::VImage::option()->set("format", "bmp"));
    size_t length = 0;
    const void* data = vips_blob_get(blob, &length);
    const QByteArray bmp(static_cast<const char*>(data), qsizetype(length));
    vips_area_unref(VIPS_AREA(blob));
    ASSERT_TRUE(bmp.startsWith("BM"));

    const std::optional<ImageFile::LoadResult> loaded = ImageFile::load(write("a.bmp", bmp));
    ASSERT_TRUE(loaded);
    EXPECT_EQ(loaded->type, ImageType::bmp());
    EXPECT_EQ(loaded->image.width(), 40);
    EXPECT_EQ(loaded->image.height(), 30);
    EXPECT_EQ(samples(loaded->image.extract_band(0, vips::VImage::option()->set("n", 3))),
              samples(pattern(40, 30, 3)));

    // The same bytes without "BM" in front never reach ImageMagick.
    QByteArray renamed = bmp;
    renamed[0] = 'X';
    EXPECT_FALSE(ImageFile::load(write("b.bmp", renamed)));
}

TEST_F(Load, HeicAndHeifByTheirBrands)
{
    if (!orvane::test::hasSaver(".heic"))
        GTEST_SKIP() << "this libvips cannot write HEIC, so there is nothing to load";
    QByteArray heic = encoded(pattern(64, 48, 3), ".heic[Q=90]");
    ASSERT_EQ(heic.mid(4, 8), "ftypheic");
    std::optional<ImageFile::LoadResult> loaded = ImageFile::load(write("a.heic", heic));
    ASSERT_TRUE(loaded);
    EXPECT_EQ(loaded->type, ImageType::heic());
    EXPECT_EQ(loaded->image.width(), 64);

    // The same file with the generic major brand is HEIF.
    QByteArray heif = heic;
    heif.replace(8, 4, "mif1");
    loaded = ImageFile::load(write("a.heif", heif));
    ASSERT_TRUE(loaded);
    EXPECT_EQ(loaded->type, ImageType::heif());
    EXPECT_EQ(loaded->image.height(), 48);
}

TEST_F(Load, PixelsComeThroughUnchanged)
{
    // Lossless formats give back exactly what was written, 16 bits included.
    const vips::VImage rgba = pattern(33, 17, 4);
    const vips::VImage grey16 = pattern(33, 17, 1, VIPS_FORMAT_USHORT);
    for (const char* suffix : {".png", ".tif", ".webp[lossless]"}) {
        const std::optional<ImageFile::LoadResult> loaded =
            ImageFile::load(write(QStringLiteral("rgba") + QLatin1String(suffix).left(4), encoded(rgba, suffix)));
        ASSERT_TRUE(loaded) << suffix;
        EXPECT_EQ(loaded->image.bands(), 4) << suffix;
        EXPECT_EQ(samples(loaded->image), samples(rgba)) << suffix;
    }
    for (const char* suffix : {".png", ".tif"}) {
        const std::optional<ImageFile::LoadResult> loaded =
            ImageFile::load(write(QStringLiteral("grey16") + QLatin1String(suffix), encoded(grey16, suffix)));
        ASSERT_TRUE(loaded) << suffix;
        EXPECT_EQ(loaded->image.format(), VIPS_FORMAT_USHORT) << suffix;
        EXPECT_EQ(samples(loaded->image), samples(grey16)) << suffix;
    }
}

// ---------------------------------------------------------------- content over name

TEST_F(Load, TheTypeFollowsTheContentNotTheName)
{
    const vips::VImage image = pattern(20, 10, 3);
    std::optional<ImageFile::LoadResult> loaded = ImageFile::load(write("photo.png", encoded(image, ".jpg")));
    ASSERT_TRUE(loaded);
    EXPECT_EQ(loaded->type, ImageType::jpeg());

    loaded = ImageFile::load(write("picture.jpg", encoded(image, ".png")));
    ASSERT_TRUE(loaded);
    EXPECT_EQ(loaded->type, ImageType::png());

    loaded = ImageFile::load(write("noextension", encoded(image, ".gif")));
    ASSERT_TRUE(loaded);
    EXPECT_EQ(loaded->type, ImageType::gif());

    loaded = ImageFile::load(write("odd.xyz", encoded(image, ".tif")));
    ASSERT_TRUE(loaded);
    EXPECT_EQ(loaded->type, ImageType::tiff());
}

TEST_F(Load, ForeignContentNamedLikeAnImageIsRefused)
{
    const QByteArray svg = "<?xml version=\"1.0\"?>\n<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"8\" height=\"8\">"
                           "<rect width=\"8\" height=\"8\" fill=\"red\"/></svg>\n";
    const QByteArray pdf = "%PDF-1.4\n1 0 obj<</Type/Catalog/Pages 2 0 R>>endobj\n"
                           "2 0 obj<</Type/Pages/Kids[3 0 R]/Count 1>>endobj\n"
                           "3 0 obj<</Type/Page/Parent 2 0 R/MediaBox[0 0 8 8]>>endobj\n"
                           "trailer<</Root 1 0 R>>\n%%EOF\n";
    const QByteArray ppm = "P6\n2 2\n255\n" + QByteArray(12, '\x7f');
    EXPECT_FALSE(ImageFile::load(write("drawing.png", svg)));
    EXPECT_FALSE(ImageFile::load(write("document.png", pdf)));
    EXPECT_FALSE(ImageFile::load(write("pixmap.png", ppm)));
    EXPECT_FALSE(ImageFile::load(write("notes.png", "just some words\n")));
    EXPECT_FALSE(ImageFile::load(write("noise.png", QByteArray("\x01\x02\x03\x04\x05\x06\x07\x08", 8))));
}

TEST_F(Load, OnlyOrvanesDecodersCanRunAtAll)
{
    // Even libvips' own file-type detection finds no other decoder: the
    // SVG, PDF and PPM loaders and ImageMagick are blocked.
    const QByteArray svg = "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"8\" height=\"8\"/>\n";
    const QByteArray ppm = "P6\n2 2\n255\n" + QByteArray(12, '\x7f');
    for (const QString& file : {write("drawing.svg", svg), write("pixmap.ppm", ppm)}) {
        EXPECT_THROW(vips::VImage::new_from_file(QFile::encodeName(file).constData()).avg(), vips::VError)
            << file.toStdString();
        vips_error_clear();
    }
    const QByteArray name = QFile::encodeName(write("pixmap2.ppm", ppm));
    EXPECT_THROW(vips::VImage::magickload(name.constData()).avg(), vips::VError);
    vips_error_clear();
}

// ---------------------------------------------------------------- frames and orientation

TEST_F(Load, AnimatedGifGivesItsFirstFrame)
{
    const vips::VImage red = (vips::VImage::black(16, 12, vips::VImage::option()->set("bands", 3)) + std::vector<double>{255, 0, 0}).cast(VIPS_FORMAT_UCHAR);
    const vips::VImage blue = (vips::VImage::black(16, 12, vips::VImage::option()->set("bands", 3)) + std::vector<double>{0, 0, 255}).cast(VIPS_FORMAT_UCHAR);
    vips::VImage strip = red.join(blue, VIPS_DIRECTION_VERTICAL).copy();
    strip.set("page-height", 12);
    strip.set("delay", std::vector<int>{100, 100});
    const std::optional<ImageFile::LoadResult> loaded = ImageFile::load(write("anim.gif", encoded(strip, ".gif")));
    ASSERT_TRUE(loaded);
    EXPECT_EQ(loaded->type, ImageType::gif());
    EXPECT_EQ(loaded->image.width(), 16);
    EXPECT_EQ(loaded->image.height(), 12);
    const std::vector<double> first = loaded->image.getpoint(8, 6);
    EXPECT_GT(first[0], 200);
    EXPECT_LT(first[2], 50);
}

TEST_F(Load, MultiPageTiffGivesItsFirstPage)
{
    const vips::VImage dark = vips::VImage::black(10, 8).cast(VIPS_FORMAT_UCHAR);
    const vips::VImage light = (vips::VImage::black(10, 8) + 200).cast(VIPS_FORMAT_UCHAR);
    vips::VImage pages = dark.join(light, VIPS_DIRECTION_VERTICAL).copy();
    pages.set("page-height", 8);
    const std::optional<ImageFile::LoadResult> loaded = ImageFile::load(write("pages.tif", encoded(pages, ".tif")));
    ASSERT_TRUE(loaded);
    EXPECT_EQ(loaded->image.height(), 8);
    EXPECT_EQ(loaded->image.max(), 0);
}

TEST_F(Load, OrientationIsNotApplied)
{
    vips::VImage tall = pattern(30, 50, 3).copy();
    tall.set("orientation", 6);
    const QByteArray jpeg = encoded(tall, ".jpg[Q=95]");
    ASSERT_TRUE(jpeg.contains("Exif"));
    const std::optional<ImageFile::LoadResult> loaded = ImageFile::load(write("rotated.jpg", jpeg));
    ASSERT_TRUE(loaded);
    EXPECT_EQ(loaded->image.width(), 30);
    EXPECT_EQ(loaded->image.height(), 50);
    // Red grows along the stored x axis, as stored.
    EXPECT_LT(loaded->image.getpoint(0, 25)[0], 30);
    EXPECT_GT(loaded->image.getpoint(29, 25)[0], 220);
}

// ---------------------------------------------------------------- broken files

TEST_F(Load, MissingEmptyAndNonFilesAreAbsent)
{
    EXPECT_FALSE(ImageFile::load(path("missing.png")));
    EXPECT_FALSE(ImageFile::load(write("empty.png", {})));
    EXPECT_FALSE(ImageFile::load(dir.path()));
    EXPECT_FALSE(ImageFile::load(QString()));
    ASSERT_TRUE(QDir(dir.path()).mkdir("folder.png"));
    EXPECT_FALSE(ImageFile::load(path("folder.png")));
}

TEST_F(Load, TruncatedFilesAreAbsentInEveryFormat)
{
    const vips::VImage image = pattern(200, 150, 3);
    for (const char* suffix : {".png", ".jpg", ".tif", ".gif", ".webp", ".heic"}) {
        if (!orvane::test::hasSaver(suffix))
            continue;
        const QByteArray whole = encoded(image, suffix);
        const QString name = QStringLiteral("whole") + QLatin1String(suffix);
        ASSERT_TRUE(ImageFile::load(write(name, whole))) << suffix;
        for (const qsizetype keep : {qsizetype(8), whole.size() / 3, whole.size() * 2 / 3, whole.size() - 20}) {
            const QString cut = QStringLiteral("cut%1").arg(keep) + QLatin1String(suffix);
            EXPECT_FALSE(ImageFile::load(write(cut, whole.left(keep)))) << suffix << " cut at " << keep;
        }
    }
}

TEST_F(Load, CorruptDataIsAbsentEveryTime)
{
    // Truecolour (Orvane's own reader) and indexed colour (libpng's); each
    // loaded several times, as libvips once let such files through now and then.
    for (const char* suffix : {".png", ".png[palette=true]"}) {
        QByteArray png = encoded(pattern(24, 16, 3), suffix);
        // Flip a bit in the pixel data: the chunk's checksum fails.
        const qsizetype data = png.indexOf("IDAT") + 10;
        png[data] = char(png[data] ^ 0x40);
        const QString file = write("corrupt.png", png);
        for (int attempt = 0; attempt < 8; ++attempt)
            EXPECT_FALSE(ImageFile::load(file)) << suffix << ", attempt " << attempt;
    }
    // libvips' error buffer is left empty for whoever asks next.
    EXPECT_STREQ(vips_error_buffer(), "");
}

// ---------------------------------------------------------------- hostile sizes

TEST_F(Load, HeadersClaimingEnormousSizesAreAbsent)
{
    // Every file here is a small valid image whose header was changed to
    // claim far more pixels than it holds.
    const vips::VImage image = pattern(16, 16, 3);

    QByteArray png = encoded(image, ".png");
    putBig32(png, 16, 100000);
    putBig32(png, 20, 100000);
    png.replace(29, 4, pngChunk("IHDR", png.mid(16, 13)).right(4));
    EXPECT_FALSE(ImageFile::load(write("huge.png", png)));

    QByteArray jpeg = encoded(image, ".jpg");
    const qsizetype frame = jpegFrameHeader(jpeg);
    ASSERT_GT(frame, 0);
    jpeg[frame + 5] = jpeg[frame + 6] = jpeg[frame + 7] = jpeg[frame + 8] = char(0xff);
    EXPECT_FALSE(ImageFile::load(write("huge.jpg", jpeg)));

    QByteArray gif = encoded(image, ".gif");
    putLittle16(gif, 6, 0xffff); // the logical screen
    putLittle16(gif, 8, 0xffff);
    const qsizetype frameAt = gifImageDescriptor(gif);
    ASSERT_GT(frameAt, 0);
    putLittle16(gif, frameAt + 5, 0xffff);
    putLittle16(gif, frameAt + 7, 0xffff);
    EXPECT_FALSE(ImageFile::load(write("huge.gif", gif)));

    VipsBlob* blob = image.magicksave_buffer(vips::VImage::option()->set("format", "bmp"));
    size_t length = 0;
    const void* data = vips_blob_get(blob, &length);
    QByteArray bmp(static_cast<const char*>(data), qsizetype(length));
    vips_area_unref(VIPS_AREA(blob));
    putLittle32(bmp, 18, 100000);
    putLittle32(bmp, 22, 100000);
    EXPECT_FALSE(ImageFile::load(write("huge.bmp", bmp)));
    putLittle32(bmp, 22, std::uint32_t(-100000)); // top-down rows
    EXPECT_FALSE(ImageFile::load(write("huge-topdown.bmp", bmp)));

    QByteArray tiff = encoded(image, ".tif");
    ASSERT_TRUE(tiff.startsWith("II*"));
    const std::uint32_t directory = std::uint8_t(tiff[4]) | std::uint8_t(tiff[5]) << 8;
    const int entries = std::uint8_t(tiff[directory]) | std::uint8_t(tiff[directory + 1]) << 8;
    for (int i = 0; i < entries; ++i) {
        const qsizetype entry = directory + 2 + 12 * i;
        const int tag = std::uint8_t(tiff[entry]) | std::uint8_t(tiff[entry + 1]) << 8;
        if (tag == 256 || tag == 257) { // width, length
            putLittle16(tiff, entry + 2, 4); // LONG
            putLittle32(tiff, entry + 8, 100000);
        }
    }
    EXPECT_FALSE(ImageFile::load(write("huge.tif", tiff)));

    // Lossy WebP holds 14 bits per side: 16383 × 16383 is the most it can claim.
    QByteArray webp = encoded(image, ".webp");
    if (webp.mid(12, 4) == "VP8X") { // canvas size minus one, 24 bits each
        putLittle16(webp, 24, 16382);
        putLittle16(webp, 27, 16382);
    }
    const qsizetype vp8 = webp.indexOf("VP8 ");
    ASSERT_GT(vp8, 0);
    putLittle16(webp, vp8 + 8 + 6, 16383);
    putLittle16(webp, vp8 + 8 + 8, 16383);
    EXPECT_FALSE(ImageFile::load(write("huge.webp", webp)));

    if (orvane::test::hasSaver(".heic")) {
        QByteArray heic = encoded(image, ".heic");
        const qsizetype ispe = heic.indexOf("ispe");
        ASSERT_GT(ispe, 0);
        putBig32(heic, ispe + 8, 100000);
        putBig32(heic, ispe + 12, 100000);
        EXPECT_FALSE(ImageFile::load(write("huge.heic", heic)));
    }
}

TEST_F(Load, DecompressionBombIsRefusedWhileTheSameImageSmallerLoads)
{
    // Both files are complete and valid; only the claimed size differs.
    const std::optional<ImageFile::LoadResult> small = ImageFile::load(write("small.png", zeroPng(2000, 1500)));
    ASSERT_TRUE(small);
    EXPECT_EQ(small->image.width(), 2000);
    EXPECT_EQ(small->image.max(), 0);

    const QByteArray bomb = zeroPng(30000, 30000);
    EXPECT_LT(bomb.size(), 1 << 20);
    ImageFile::setAvailableMemoryForTesting(std::uint64_t(1) << 30);
    EXPECT_FALSE(ImageFile::load(write("bomb.png", bomb))) << "900 MB decoded is more than half of 1 GiB";
}

TEST_F(Load, TwentyFourMegapixelsLoad)
{
    const std::optional<ImageFile::LoadResult> loaded = ImageFile::load(write("24mp.png", zeroPng(6000, 4000)));
    ASSERT_TRUE(loaded);
    EXPECT_EQ(loaded->image.width(), 6000);
    EXPECT_EQ(loaded->image.height(), 4000);
}

TEST_F(Load, ImagesThatWouldNotFitInMemoryAreRefused)
{
    // 2000 × 1500 one-band pixels need 3 MB decoded.
    const QString file = write("small.png", zeroPng(2000, 1500));
    ImageFile::setAvailableMemoryForTesting(std::uint64_t(4) << 20);
    EXPECT_FALSE(ImageFile::load(file)) << "3 MB is more than half of 4 MiB";
    ImageFile::setAvailableMemoryForTesting(std::uint64_t(8) << 20);
    EXPECT_TRUE(ImageFile::load(file)) << "3 MB is less than half of 8 MiB";
}

TEST(AvailableMemory, IsPositiveAndNoMoreThanTheMachineHas)
{
    const std::uint64_t available = ImageFile::availableMemory();
    EXPECT_GT(available, 0u);
    const std::uint64_t physical = std::uint64_t(sysconf(_SC_PHYS_PAGES)) * std::uint64_t(sysconf(_SC_PAGESIZE));
    EXPECT_LE(available, physical);
}

// ---------------------------------------------------------------- memory and threads

TEST_F(Load, TheFileCanBeReplacedAndAReloadSeesTheNewImage)
{
    const QString file = path("changing.png");
    ASSERT_TRUE(writeFile(file, encoded(pattern(30, 20, 3), ".png")));
    const std::optional<ImageFile::LoadResult> first = ImageFile::load(file);
    ASSERT_TRUE(first);

    ASSERT_TRUE(writeFile(file, encoded(pattern(12, 7, 1), ".png")));
    // The first image was fully in memory: it still reads as before.
    EXPECT_EQ(samples(first->image), samples(pattern(30, 20, 3)));
    const std::optional<ImageFile::LoadResult> second = ImageFile::load(file);
    ASSERT_TRUE(second);
    EXPECT_EQ(second->image.width(), 12);
    EXPECT_EQ(samples(second->image), samples(pattern(12, 7, 1)));

    ASSERT_TRUE(QFile::remove(file));
    EXPECT_EQ(first->image.avg(), pattern(30, 20, 3).avg());
    EXPECT_FALSE(ImageFile::load(file));
}

TEST_F(Load, LoadsOnSeveralThreadsAtOnce)
{
    QStringList files;
    const char* suffixes[] = {".png", ".jpg", ".tif", ".gif", ".webp"};
    for (int i = 0; i < 5; ++i)
        files << write(QStringLiteral("t%1").arg(i) + QLatin1String(suffixes[i]), encoded(pattern(120 + i, 90, 3), suffixes[i]));
    VipsBlob* blob = pattern(125, 90, 3).magicksave_buffer(vips::VImage::option()->set("format", "bmp"));
    size_t length = 0;
    const void* data = vips_blob_get(blob, &length);
    files << write("t5.bmp", QByteArray(static_cast<const char*>(data), qsizetype(length)));
    vips_area_unref(VIPS_AREA(blob));
    files << write("broken.png", "not an image");

    std::atomic<int> failures = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < 6; ++round) {
                for (int i = 0; i < files.size(); ++i) {
                    const QString& file = files[(i + t) % files.size()];
                    const std::optional<ImageFile::LoadResult> loaded = ImageFile::load(file);
                    const bool expected = !file.endsWith("broken.png");
                    if (bool(loaded) != expected || (loaded && loaded->image.height() != 90))
                        ++failures;
                }
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failures, 0);
}

ORVANE_IMAGEFILE_TEST_MAIN((void)0)
