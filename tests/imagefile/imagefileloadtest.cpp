// ImageFile::load: every accepted type decodes, the decoder follows the
// content, only the first frame, no rotation, and everything broken, foreign
// or too big yields absent.
#include "imagefile/imagefile.h"

#include <thread>

#include <QDir>
#include <QTemporaryDir>

#include "imagefiletestsupport.h"
#include "support/pngbytes.h"

using namespace orvane;
using namespace orvane::test;

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

} // namespace

// ---------------------------------------------------------------- every type

// The type follows the content, never the name.
TEST_F(Load, EveryAcceptedTypeLoadsWithTheTypeOfItsContent)
{
    const vips::VImage image = pattern(64, 48, 3);
    struct Case {
        const char* name;
        ImageType type;
        const char* suffix;
    };
    const Case cases[] = {
        {"a.png", ImageType::png(), ".png"},      {"photo.png", ImageType::jpeg(), ".jpg[Q=95]"},
        {"odd.xyz", ImageType::tiff(), ".tif"},   {"noextension", ImageType::gif(), ".gif"},
        {"a.webp", ImageType::webP(), ".webp[lossless]"}, {"picture.jpg", ImageType::png(), ".png"},
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
    const QByteArray bmp = bmpBytes(pattern(40, 30, 3));
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
    if (!hasSaver(".heic"))
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

// ---------------------------------------------------------------- foreign content

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

TEST_F(Load, OnlyTheFirstFrameOrPageIsLoaded)
{
    // Two pages, black above light grey: an animation, and a multi-page TIFF.
    const vips::VImage black = vips::VImage::black(16, 12, vips::VImage::option()->set("bands", 3));
    vips::VImage pages = black.join(black + 200, VIPS_DIRECTION_VERTICAL).cast(VIPS_FORMAT_UCHAR)
                             .copy(vips::VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB));
    pages.set("page-height", 12);
    pages.set("delay", std::vector<int>{100, 100});
    for (const char* suffix : {".gif", ".tif"}) {
        const std::optional<ImageFile::LoadResult> loaded =
            ImageFile::load(write(QStringLiteral("pages") + QLatin1String(suffix), encoded(pages, suffix)));
        ASSERT_TRUE(loaded) << suffix;
        EXPECT_EQ(loaded->image.width(), 16) << suffix;
        EXPECT_EQ(loaded->image.height(), 12) << suffix;
        EXPECT_EQ(loaded->image.extract_band(0).max(), 0) << suffix; // GIF comes with an alpha band
    }
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
        if (!hasSaver(suffix))
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

// ---------------------------------------------------------------- sizes
// Headers claiming enormous sizes and decompression bombs: tests/reliability.

TEST_F(Load, TwentyFourMegapixelsLoad)
{
    const std::optional<ImageFile::LoadResult> loaded = ImageFile::load(write("24mp.png", zerosPng(6000, 4000, 0)));
    ASSERT_TRUE(loaded);
    EXPECT_EQ(loaded->image.width(), 6000);
    EXPECT_EQ(loaded->image.height(), 4000);
}

TEST_F(Load, ImagesThatWouldNotFitInMemoryAreRefused)
{
    // 2000 × 1500 one-band pixels need 3 MB decoded.
    const QString file = write("small.png", zerosPng(2000, 1500, 0));
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
    files << write("t5.bmp", bmpBytes(pattern(125, 90, 3)));
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
