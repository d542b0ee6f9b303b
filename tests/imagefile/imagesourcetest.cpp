// The streamed pass behind ImageFile::index() and decode(): the content
// rectangle it answers is the plain scan's in every format and colour model,
// what it keeps is small, and images too large to hold still open and save.
#include <QTemporaryDir>

#include "engine/cropengine.h"
#include "imagefile/imagesource.h"
#include "imagefiletestsupport.h"

using namespace orvane;
using namespace orvane::test;
using Size = std::pair<std::int64_t, std::int64_t>;

namespace {

class Source : public ::testing::Test {
protected:
    QString path(const QString& name) const { return dir.filePath(name); }
    QString save(const vips::VImage& image, const QString& name, const char* options = "")
    {
        image.write_to_file((path(name) + QString::fromLatin1(options)).toLocal8Bit().constData());
        return path(name);
    }
    void TearDown() override { ImageFile::setAvailableMemoryForTesting(std::nullopt); }

    QTemporaryDir dir;
};

// The pattern (a gradient with falling alpha where it has alpha) placed on a
// white, or fully transparent, canvas: its rectangle changes with the
// tolerance, and no two tolerances need to agree.
vips::VImage framed(int width, int height, int bands, VipsBandFormat format)
{
    std::vector<double> background(std::size_t(bands), format == VIPS_FORMAT_USHORT ? 65535.0 : 255.0);
    if (bands % 2 == 0)
        background.back() = 0;
    return tagged(vips::VImage::black(width, height, vips::VImage::option()->set("bands", bands)) + background, format)
        .insert(pattern(width / 2, height / 3, bands, format), width / 5, height / 4);
}

std::optional<PixelRect> scanned(const QString& file, double tolerance)
{
    const std::optional<ImageFile::LoadResult> loaded = ImageFile::load(file);
    if (!loaded)
        return PixelRect{-1, -1, -1, -1};
    const std::optional<CropEngine::Buffer> buffer = CropEngine::Buffer::make(loaded->image);
    return buffer ? CropEngine::contentRectByScan(*buffer, tolerance) : PixelRect{-2, -2, -2, -2};
}

struct Format {
    const char* name;
    const char* options;
    int bands;
    VipsBandFormat format = VIPS_FORMAT_UCHAR;
    bool profile = false; ///< libvips' sRGB profile attached
    bool cmyk = false;    ///< exported to CMYK with libvips' press profile
};

std::string caseName(const ::testing::TestParamInfo<Format>& info)
{
    std::string name = info.param.name;
    for (char& c : name)
        if (!std::isalnum(static_cast<unsigned char>(c)))
            c = '_';
    return name;
}

class StreamedPass : public Source, public ::testing::WithParamInterface<Format> {};

} // namespace

TEST_P(StreamedPass, AnswersEveryToleranceAsThePlainScan)
{
    const Format& f = GetParam();
    // Wide enough for several strips, and large enough in one case for the
    // pass to fold on its helper thread.
    const bool large = std::string(f.name).find("large") != std::string::npos;
    vips::VImage image = framed(large ? 1400 : 300, large ? 900 : 700, f.bands, f.format);
    if (f.profile)
        image = withProfile(image, iccProfile());
    if (f.cmyk) // CMYK exists only as JPEG or TIFF
        image = image.icc_export(vips::VImage::option()->set("output_profile", "cmyk"));
    const QString file = save(image, QString::fromLatin1(f.name), f.options);

    const std::optional<ImageFile::Indexed> indexed = ImageFile::index(file);
    const std::optional<ImageFile::Decoded> decoded = ImageFile::decode(file);
    ASSERT_TRUE(indexed && decoded);
    EXPECT_EQ(std::pair(indexed->summary.width, indexed->summary.height), Size(image.width(), image.height()));
    EXPECT_TRUE(decoded->holdsImage());
    for (const double tolerance : {0.0, 1.0, 10.0, 25.0, 50.0, 63.0, 80.0, 99.0, 100.0}) {
        const std::optional<PixelRect> expected = scanned(file, tolerance);
        EXPECT_EQ(indexed->summary.contentRect(tolerance), expected) << f.name << " at " << tolerance;
        EXPECT_EQ(decoded->summary.contentRect(tolerance), expected) << f.name << " at " << tolerance;
    }
}

INSTANTIATE_TEST_SUITE_P(
    FormatsAndColourModels, StreamedPass,
    ::testing::Values(Format{"grey.png", "", 1}, Format{"grey-alpha.png", "", 2}, Format{"rgb.png", "", 3},
                      Format{"rgba.png", "", 4}, Format{"rgba-large.png", "", 4}, Format{"rgb16.png", "", 3, VIPS_FORMAT_USHORT},
                      Format{"grey-alpha16.png", "", 2, VIPS_FORMAT_USHORT}, Format{"rgba-interlaced.png", "[interlace]", 4},
                      Format{"profile.png", "", 3, VIPS_FORMAT_UCHAR, true}, Format{"rgb.jpg", "[Q=90]", 3},
                      Format{"rgb-large-progressive.jpg", "[Q=90,interlace]", 3},
                      Format{"profile.jpg", "[Q=90]", 3, VIPS_FORMAT_UCHAR, true}, Format{"grey.jpg", "[Q=90]", 1},
                      Format{"cmyk.jpg", "", 3, VIPS_FORMAT_UCHAR, false, true}, Format{"cmyk.tif", "", 3, VIPS_FORMAT_UCHAR, false, true},
                      Format{"rgba.tif", "", 4}, Format{"rgba16-tiled.tif", "[tile,tile_width=64,tile_height=64]", 4, VIPS_FORMAT_USHORT},
                      Format{"rgba.webp", "[lossless]", 4}, Format{"rgb.gif", "", 3}),
    caseName);

// A queued image holds small copies and no full-size pixels. Its left half
// opaque black, its right half transparent: the copies keep the split at the
// same fraction of their width.
TEST_F(Source, AQueuedImageHoldsSmallAveragesInTheRightPlace)
{
    const vips::VImage left = vips::VImage::black(3000, 1000, vips::VImage::option()->set("bands", 4)) + std::vector<double>{0, 0, 0, 255};
    const QString file = save(tagged(left.embed(0, 0, 6000, 1000), VIPS_FORMAT_UCHAR), QStringLiteral("split.png"));
    // And a long strip of gradients: as many distinct keys along it as there are.
    const QString strip = save(framed(120000, 30, 4, VIPS_FORMAT_UCHAR), QStringLiteral("strip.png"));
    const std::optional<ImageFile::Indexed> indexed = ImageFile::index(file, true);
    for (const auto& summed : {indexed, ImageFile::index(strip, false)}) {
        ASSERT_TRUE(summed);
        EXPECT_LE(summed->summary.byteCount(), std::size_t(256) << 10);
    }
    EXPECT_GE(ImageFile::decode(file)->byteCount(), std::size_t(6000) * 1000 * 4);
    EXPECT_TRUE(ImageFile::index(file, false)->preview.isNull());

    const Raster& preview = indexed->preview;
    const Raster& thumbnail = indexed->summary.thumbnail;
    EXPECT_EQ(std::pair(preview.width, preview.height), Size(ImageFile::previewSide, 341));
    EXPECT_EQ(std::pair(thumbnail.width, thumbnail.height), Size(ImageFile::thumbnailSide, 21));
    for (const Raster* copy : {&preview, &thumbnail}) {
        const auto alphaAt = [&](std::int64_t x, std::int64_t y) { return (*copy->pixels)[std::size_t((y * copy->width + x) * 4 + 3)]; };
        EXPECT_EQ(alphaAt(0, 0), 255);
        EXPECT_EQ(alphaAt(copy->width / 2 - 1, copy->height - 1), 255);
        EXPECT_EQ(alphaAt(copy->width / 2, 0), 0);
        EXPECT_EQ(alphaAt(copy->width - 1, copy->height - 1), 0);
    }
}

TEST_F(Source, AChangedFileHasANewIdentityAndIsNotSavedFromItsOldSummary)
{
    const QString file = save(framed(200, 100, 3, VIPS_FORMAT_UCHAR), QStringLiteral("a.png"));
    const std::optional<ImageFile::Indexed> before = ImageFile::index(file, false);
    ASSERT_TRUE(before && ImageFile::identify(file) == before->summary.identity);

    // The same size and bytes of the same length: only the time tells.
    save(framed(200, 100, 3, VIPS_FORMAT_UCHAR).invert(), QStringLiteral("a.png"));
    EXPECT_NE(ImageFile::identify(file), before->summary.identity);
    const QString out = path(QStringLiteral("out.png"));
    EXPECT_FALSE(ImageFile::saveCropped(file, before->summary, PixelRect{0, 0, 50, 50}, out, ImageType::png()));
    EXPECT_FALSE(QFile::exists(out));
    EXPECT_TRUE(ImageFile::saveCropped(file, ImageFile::index(file, false)->summary, PixelRect{0, 0, 50, 50}, out, ImageType::png()));
}

TEST_F(Source, AnImageTooLargeToHoldIsSavedFromASecondRead)
{
    const vips::VImage image = framed(600, 400, 3, VIPS_FORMAT_UCHAR);
    for (const char* name : {"big.png", "big.jpg", "big.tif"}) {
        const QString file = save(image, QString::fromLatin1(name));
        // 720 KB decoded is more than a quarter of 2 MB: not held.
        ImageFile::setAvailableMemoryForTesting(std::uint64_t(2) << 20);
        const std::optional<ImageFile::Decoded> decoded = ImageFile::decode(file);
        ASSERT_TRUE(decoded && !decoded->holdsImage() && !decoded->preview.isNull()) << name;
        const QString out = path(QStringLiteral("cut-") + QString::fromLatin1(name));
        EXPECT_TRUE(ImageFile::saveCropped(*decoded, PixelRect{123, 45, 300, 200}, out, decoded->summary.type)) << name;

        ImageFile::setAvailableMemoryForTesting(std::nullopt);
        const std::optional<ImageFile::LoadResult> written = ImageFile::load(out);
        const std::optional<ImageFile::LoadResult> source = ImageFile::load(file);
        ASSERT_TRUE(written && source) << name;
        ASSERT_EQ(std::pair(written->image.width(), written->image.height()), std::pair(300, 200)) << name;
        // JPEG is compared on average (it was encoded twice), the others exactly.
        const vips::VImage difference = (written->image - source->image.extract_area(123, 45, 300, 200)).abs();
        const bool jpeg = QByteArray(name).endsWith(".jpg");
        EXPECT_LE(jpeg ? difference.avg() : difference.max(), jpeg ? 2.0 : 0.0) << name;
    }
}

ORVANE_IMAGEFILE_TEST_MAIN((void)0)
