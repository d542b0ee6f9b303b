// ImageFile::load: every accepted type decodes (the PNG suite too), the
// decoder follows the content, only the first frame, no rotation, and
// everything broken, foreign or too big yields absent.
#include "imagefile/imagefile.h"

#include <thread>

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTemporaryDir>

#include "imagefiletestsupport.h"
#include "support/libvipspng.h"
#include "support/pngbytes.h"

using namespace orvane;
using namespace orvane::test;

namespace {

class Load : public ::testing::Test {
protected:
    QString path(const QString& name) const { return dir.filePath(name); }
    QString write(const QString& name, const QByteArray& bytes) const
    {
        EXPECT_TRUE(writeFile(path(name), bytes));
        return path(name);
    }
    void TearDown() override { ImageFile::setAvailableMemoryForTesting(std::nullopt); }

    QTemporaryDir dir;
};

const QString kSuite = QStringLiteral(ORVANE_TEST_DATA_DIR "/pngsuite");

QStringList suiteFiles(bool corrupt)
{
    QStringList picked;
    for (const QString& name : QDir(kSuite + QStringLiteral("/png")).entryList({QStringLiteral("*.png")}, QDir::Files, QDir::Name))
        if (name.startsWith(QLatin1Char('x')) == corrupt)
            picked << name;
    return picked;
}

std::vector<std::uint32_t> reference(const QString& base)
{
    QFile file(kSuite + QStringLiteral("/json/") + base + QStringLiteral(".json"));
    std::vector<std::uint32_t> values;
    if (file.open(QIODevice::ReadOnly))
        for (const QJsonValue& value : QJsonDocument::fromJson(file.readAll()).array())
            values.push_back(std::uint32_t(value.toInt()));
    return values;
}

} // namespace

// ---------------------------------------------------------------- every type

// The type follows the content, never the name: HEIC and HEIF by their
// brands, BMP only with "BM" in front, and foreign content is refused.
TEST_F(Load, EveryAcceptedTypeLoadsWithTheTypeOfItsContent)
{
    const vips::VImage image = pattern(64, 48, 3);
    const QByteArray heic = hasSaver(".heic") ? encoded(image, ".heic[Q=90]") : QByteArray();
    const QByteArray bmp = bmpBytes(image);
    // A type of absent: refused.
    const struct { const char* name; QByteArray bytes; std::optional<ImageType> type; bool exact = false; } cases[] = {
        {"a.png", encoded(image, ".png"), ImageType::png(), true},
        {"photo.png", encoded(image, ".jpg[Q=95]"), ImageType::jpeg()},
        {"odd.xyz", encoded(image, ".tif"), ImageType::tiff(), true},
        {"noextension", encoded(image, ".gif"), ImageType::gif()},
        {"a.webp", encoded(image, ".webp[lossless]"), ImageType::webP(), true},
        {"picture.jpg", encoded(image, ".png"), ImageType::png(), true}, {"a.bmp", bmp, ImageType::bmp(), true},
        {"a.heic", heic, ImageType::heic()},
        {"a.heif", heic.isEmpty() ? heic : QByteArray(heic).replace(8, 4, "mif1"), ImageType::heif()}, // the generic brand
        // The same bytes without "BM" in front never reach ImageMagick.
        {"b.bmp", QByteArray(bmp).replace(0, 1, "X"), std::nullopt},
        {"drawing.png", "<?xml version=\"1.0\"?>\n<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"8\" height=\"8\">"
                        "<rect width=\"8\" height=\"8\" fill=\"red\"/></svg>\n", std::nullopt},
        {"document.png", "%PDF-1.4\n1 0 obj<</Type/Catalog/Pages 2 0 R>>endobj\n2 0 obj<</Type/Pages/Kids[3 0 R]/Count 1>>endobj\n"
                         "3 0 obj<</Type/Page/Parent 2 0 R/MediaBox[0 0 8 8]>>endobj\ntrailer<</Root 1 0 R>>\n%%EOF\n", std::nullopt},
        {"pixmap.png", "P6\n2 2\n255\n" + QByteArray(12, '\x7f'), std::nullopt},
        {"notes.png", "just some words\n", std::nullopt},
        {"noise.png", QByteArray("\x01\x02\x03\x04\x05\x06\x07\x08", 8), std::nullopt},
    };
    for (const auto& c : cases) {
        if (c.bytes.isEmpty())
            continue; // no HEIC encoder in this libvips
        SCOPED_TRACE(c.name);
        const std::optional<ImageFile::LoadResult> loaded = ImageFile::load(write(c.name, c.bytes));
        ASSERT_EQ(loaded.has_value(), c.type.has_value());
        if (!loaded)
            continue;
        EXPECT_EQ(loaded->type, *c.type);
        EXPECT_EQ(std::pair(loaded->image.width(), loaded->image.height()), std::pair(64, 48));
        EXPECT_TRUE(!c.exact || samples(loaded->image.extract_band(0, vips::VImage::option()->set("n", 3))) == samples(image));
    }
}

TEST_F(Load, OnlyOrvanesDecodersCanRunAtAll)
{
    // Even libvips' own file-type detection finds no other decoder: the
    // SVG, PDF and PPM loaders and ImageMagick are blocked.
    const QString svg = write("drawing.svg", "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"8\" height=\"8\"/>\n");
    const QString ppm = write("pixmap.ppm", "P6\n2 2\n255\n" + QByteArray(12, '\x7f'));
    for (const QString& file : {svg, ppm}) {
        EXPECT_THROW(vips::VImage::new_from_file(QFile::encodeName(file).constData()).avg(), vips::VError) << file.toStdString();
        vips_error_clear();
    }
    EXPECT_THROW(vips::VImage::magickload(QFile::encodeName(ppm).constData()).avg(), vips::VError);
    vips_error_clear();
}

// ---------------------------------------------------------------- frames and orientation

TEST_F(Load, OnlyTheFirstFrameOrPageIsLoaded)
{
    // Two pages, black above light grey: an animation, and a multi-page TIFF.
    const vips::VImage black = vips::VImage::black(16, 12, vips::VImage::option()->set("bands", 3));
    vips::VImage pages = tagged(black.join(black + 200, VIPS_DIRECTION_VERTICAL), VIPS_FORMAT_UCHAR);
    pages.set("page-height", 12);
    pages.set("delay", std::vector<int>{100, 100});
    for (const char* suffix : {".gif", ".tif"}) {
        const std::optional<ImageFile::LoadResult> loaded =
            ImageFile::load(write(QStringLiteral("pages") + QLatin1String(suffix), encoded(pages, suffix)));
        ASSERT_TRUE(loaded) << suffix;
        EXPECT_EQ(std::pair(loaded->image.width(), loaded->image.height()), std::pair(16, 12)) << suffix;
        EXPECT_EQ(loaded->image.extract_band(0).max(), 0) << suffix; // GIF comes with an alpha band
    }
}

TEST_F(Load, OrientationIsNotApplied)
{
    vips::VImage tall = pattern(30, 50, 3).copy();
    tall.set("orientation", 6);
    const std::optional<ImageFile::LoadResult> loaded = ImageFile::load(write("rotated.jpg", encoded(tall, ".jpg[Q=95]")));
    ASSERT_TRUE(loaded);
    EXPECT_EQ(loaded->image.get_int("orientation"), 6);
    EXPECT_EQ(std::pair(loaded->image.width(), loaded->image.height()), std::pair(30, 50));
    // Red grows along the stored x axis, as stored.
    EXPECT_LT(loaded->image.getpoint(0, 25)[0], 30);
    EXPECT_GT(loaded->image.getpoint(29, 25)[0], 220);
}

// ---------------------------------------------------------------- broken files

TEST_F(Load, MissingEmptyAndNonFilesAreAbsent)
{
    ASSERT_TRUE(QDir(dir.path()).mkdir("folder.png"));
    for (const QString& file : {path("missing.png"), write("empty.png", {}), dir.path(), QString(), path("folder.png")})
        EXPECT_FALSE(ImageFile::load(file)) << file.toStdString();
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

TEST_F(Load, ImagesLoadOnlyWhenTheyFitInHalfTheFreeMemory)
{
    const std::uint64_t available = ImageFile::availableMemory();
    EXPECT_GT(available, 0u);
    EXPECT_LE(available, std::uint64_t(sysconf(_SC_PHYS_PAGES)) * std::uint64_t(sysconf(_SC_PAGESIZE)));
    const std::optional<ImageFile::LoadResult> loaded = ImageFile::load(write("24mp.png", zerosPng(6000, 4000, 0)));
    ASSERT_TRUE(loaded);
    EXPECT_EQ(std::pair(loaded->image.width(), loaded->image.height()), std::pair(6000, 4000));

    // 2000 × 1500 one-band pixels need 3 MB decoded.
    const QString file = write("small.png", zerosPng(2000, 1500, 0));
    ImageFile::setAvailableMemoryForTesting(std::uint64_t(4) << 20);
    EXPECT_FALSE(ImageFile::load(file)) << "3 MB is more than half of 4 MiB";
    ImageFile::setAvailableMemoryForTesting(std::uint64_t(8) << 20);
    EXPECT_TRUE(ImageFile::load(file)) << "3 MB is less than half of 8 MiB";
}

// ---------------------------------------------------------------- memory and threads

TEST_F(Load, TheFileCanBeReplacedAndAReloadSeesTheNewImage)
{
    const QString file = write("changing.png", encoded(pattern(30, 20, 3), ".png"));
    const std::optional<ImageFile::LoadResult> first = ImageFile::load(file);
    ASSERT_TRUE(first && writeFile(file, encoded(pattern(12, 7, 1), ".png")));
    const std::optional<ImageFile::LoadResult> second = ImageFile::load(file);
    ASSERT_TRUE(second && samples(second->image) == samples(pattern(12, 7, 1)));
    // The first image was fully in memory: replaced and removed, it still reads as before.
    ASSERT_TRUE(QFile::remove(file));
    EXPECT_EQ(samples(first->image), samples(pattern(30, 20, 3)));
    EXPECT_FALSE(ImageFile::load(file));
}

TEST_F(Load, LoadsOnSeveralThreadsAtOnce)
{
    QStringList files{write("t5.bmp", bmpBytes(pattern(125, 90, 3))), write("broken.png", "not an image")};
    for (const char* suffix : {".png", ".jpg", ".tif", ".gif", ".webp"})
        files << write(QStringLiteral("t") + QLatin1String(suffix), encoded(pattern(120 + int(files.size()), 90, 3), suffix));

    std::atomic<int> failures = 0;
    std::vector<std::jthread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 6 * files.size(); ++i) {
                const QString& file = files[(i + t) % files.size()];
                const std::optional<ImageFile::LoadResult> loaded = ImageFile::load(file);
                failures += bool(loaded) == file.endsWith("broken.png") || (loaded && loaded->image.height() != 90);
            }
        });
    threads.clear(); // joins
    EXPECT_EQ(failures, 0);
}

// ---------------------------------------------------------------- the PNG suite
// Every valid file loads with the right pixels, every deliberately corrupt
// one (x*.png) yields absent.

// One test per group rather than per file: each test is a process of its own
// under CTest, and starting one costs more than decoding the whole suite.
TEST(PngSuite, EveryValidFileLoadsWithTheReferencePixels)
{
    ASSERT_EQ(suiteFiles(false).size(), 161);
    for (const QString& name : suiteFiles(false)) {
        SCOPED_TRACE(name.toStdString());
        const std::optional<ImageFile::LoadResult> loaded = ImageFile::load(kSuite + QStringLiteral("/png/") + name);
        ASSERT_TRUE(loaded);
        EXPECT_EQ(loaded->type, ImageType::png());

        // The references are un-premultiplied RGBA samples of the decoded depth.
        // Like libvips, they take the stored samples as they are: no gAMA,
        // cHRM, sRGB or iCCP chunk is applied, so the gamma files (g*.png)
        // match exactly too, and so does the scaling of 1, 2 and 4-bit samples.
        const std::vector<std::uint32_t> expected = reference(name.chopped(4));
        const std::vector<std::uint32_t> actual = samples(widened(loaded->image, loaded->image.format()));
        ASSERT_FALSE(expected.empty()) << "no reference";
        ASSERT_EQ(actual.size(), expected.size());
        const auto [got, wanted] = std::mismatch(actual.begin(), actual.end(), expected.begin());
        EXPECT_TRUE(got == actual.end()) << "first at sample " << (got - actual.begin()) << ": " << *got << " instead of " << *wanted;
    }
}

TEST(PngSuite, EveryCorruptFileIsAbsent)
{
    ASSERT_EQ(suiteFiles(true).size(), 14);
    for (const QString& name : suiteFiles(true))
        EXPECT_FALSE(ImageFile::load(kSuite + QStringLiteral("/png/") + name)) << name.toStdString();
}

ORVANE_IMAGEFILE_TEST_MAIN((void)0)
