// ImageFile::writableType and ImageFile::save: the written format, what the
// written file holds, and destinations that cannot take it. Replacing a file
// under refusals and kills is tested in tests/reliability.
#include "imagefile/imagefile.h"

#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>

#include <tuple>

#include "imagefiletestsupport.h"

using namespace orvane;
using namespace orvane::test;

namespace {

class Save : public ::testing::Test {
protected:
    QString path(const QString& name) const { return dir.filePath(name); }
    // Saves the image under the name and loads it back; absent when either fails.
    std::optional<ImageFile::LoadResult> roundTrip(const vips::VImage& image, const QString& name, const ImageType& type) const
    {
        return ImageFile::save(image, path(name), type) ? ImageFile::load(path(name)) : std::nullopt;
    }
    void TearDown() override { ImageFile::setSaverProbeForTesting({}); ImageFile::setAvailableMemoryForTesting(std::nullopt); }

    QTemporaryDir dir;
};

// The first luminance quantisation table of a JPEG, in the file's zig-zag order.
std::vector<int> lumaQuantisation(const QByteArray& jpeg)
{
    const auto* b = reinterpret_cast<const uchar*>(jpeg.constData());
    for (qsizetype i = 2; i + 69 < jpeg.size() && b[i] == 0xff && b[i + 1] != 0xda; i += 2 + (b[i + 2] << 8 | b[i + 3]))
        if (b[i + 1] == 0xdb && b[i + 4] == 0) // table 0 of 8-bit values
            return std::vector<int>(b + i + 5, b + i + 69);
    return {};
}

} // namespace

// ---------------------------------------------------------------- written type

// A type is written as itself where this libvips has its encoder; one without
// falls back to JPEG when it is a kind of JPEG, else to PNG. The encoders are
// asked afresh each time.
TEST_F(Save, WrittenTypeIsTheTypeItselfElseJpegOrPng)
{
    const ImageType motionJpeg(QStringLiteral("video/x-mjpeg")); // a kind of JPEG in shared-mime-info
    ASSERT_TRUE(motionJpeg.conforms(ImageType::jpeg()));
    using Probe = std::function<bool(const ImageType&)>;
    const Probe pngOnly = [](const ImageType& type) { return type == ImageType::png(); };
    const Probe none = [](const ImageType&) { return false; };
    const auto ifSaver = [](const char* suffix, const ImageType& type) { return hasSaver(suffix) ? type : ImageType::png(); };
    const struct { Probe probe; ImageType type, written; } cases[] = {
        {{}, ImageType::png(), ImageType::png()},   {{}, ImageType::jpeg(), ImageType::jpeg()},
        {{}, ImageType::tiff(), ImageType::tiff()}, {{}, ImageType::gif(), ImageType::gif()},
        {{}, ImageType::bmp(), ImageType::bmp()}, // through ImageMagick
        {{}, ImageType::webP(), ifSaver(".webp", ImageType::webP())},
        {{}, ImageType::heic(), ifSaver(".heic", ImageType::heic())},
        {{}, ImageType::heif(), ifSaver(".heif", ImageType::heif())},
        {{}, ImageType(QStringLiteral("text/plain")), ImageType::png()},
        {{}, ImageType::data(), ImageType::png()},  {{}, motionJpeg, ImageType::jpeg()},
        {pngOnly, ImageType::webP(), ImageType::png()}, {pngOnly, ImageType::heic(), ImageType::png()},
        {pngOnly, motionJpeg, ImageType::png()},    {none, ImageType::jpeg(), ImageType::png()},
        {none, ImageType::png(), ImageType::png()}, {{}, ImageType::jpeg(), ImageType::jpeg()},
    };
    for (const auto& c : cases) {
        ImageFile::setSaverProbeForTesting(c.probe);
        EXPECT_EQ(ImageFile::writableType(c.type), c.written)
            << c.type.mimeName().toStdString() << (c.probe ? " with a probe" : "");
    }
}

TEST_F(Save, ATypeWithoutEncoderIsWrittenAsPngUnderTheGivenName)
{
    ImageFile::setSaverProbeForTesting([](const ImageType& type) { return type != ImageType::webP(); });
    const std::optional<ImageFile::LoadResult> loaded = roundTrip(pattern(20, 10, 4), "photo.webp", ImageType::webP());
    ASSERT_TRUE(loaded);
    EXPECT_EQ(loaded->type, ImageType::png());
    EXPECT_EQ(samples(loaded->image), samples(pattern(20, 10, 4)));
}

// ---------------------------------------------------------------- what is written

// Every type with an encoder here, 8-bit RGB; and 16 bits of every band
// count stay 16 bits where the format holds them.
TEST_F(Save, EveryEncodableTypeRoundTrips)
{
    std::vector<std::pair<ImageType, vips::VImage>> cases;
    for (const ImageType& type : ImageFile::acceptedTypes())
        if (ImageFile::writableType(type) == type)
            cases.emplace_back(type, pattern(48, 32, 3));
    for (const int bands : {1, 2, 3, 4})
        for (const ImageType& type : {ImageType::png(), ImageType::tiff()})
            cases.emplace_back(type, pattern(40, 30, bands, VIPS_FORMAT_USHORT));
    for (const auto& [type, image] : cases) {
        SCOPED_TRACE(type.mimeName().toStdString() + ", " + std::to_string(image.bands()) + " bands");
        const std::optional<ImageFile::LoadResult> loaded = roundTrip(image, "round." + type.preferredExtension(), type);
        ASSERT_TRUE(loaded);
        // libheif writes every HEIF image with the HEVC brand.
        EXPECT_EQ(loaded->type, type == ImageType::heif() ? ImageType::heic() : type);
        const vips::VImage kept = loaded->image.extract_band(0, vips::VImage::option()->set("n", image.bands()));
        ASSERT_EQ(std::tuple(kept.width(), kept.height(), kept.format()), std::tuple(image.width(), image.height(), image.format()));
        EXPECT_TRUE(image.format() == VIPS_FORMAT_UCHAR || loaded->image.bands() == image.bands()) << "16 bits gained bands";
        if (type == ImageType::png() || type == ImageType::tiff() || type == ImageType::bmp()) {
            EXPECT_EQ(samples(kept), samples(image));
        } else { // lossy or palette formats: close to the original on average
            EXPECT_LT((kept.cast(VIPS_FORMAT_FLOAT) - image.cast(VIPS_FORMAT_FLOAT)).abs().avg(), 8.0);
        }
    }
}

TEST_F(Save, NoMetadataOfTheSourceButTheProfile)
{
    const QByteArray profile = iccProfile();
    vips::VImage source = withProfile(pattern(30, 20, 3), profile);
    source.set("orientation", 6);
    source.set("exif-ifd0-ImageDescription", "a description of the source");
    const QByteArray xmp = "<x:xmpmeta xmlns:x=\"adobe:ns:meta/\"><rdf:RDF "
                           "xmlns:rdf=\"http://www.w3.org/1999/02/22-rdf-syntax-ns#\"/></x:xmpmeta>";
    source.set(VIPS_META_XMP_NAME, nullptr, const_cast<char*>(xmp.constData()), size_t(xmp.size()));

    // The way a user's file arrives: loaded, with everything parsed.
    ASSERT_TRUE(writeFile(path("source.jpg"), encoded(source, ".jpg")));
    std::optional<ImageFile::LoadResult> loaded = ImageFile::load(path("source.jpg"));
    ASSERT_TRUE(loaded && blobField(loaded->image, VIPS_META_EXIF_NAME).contains("a description of the source")
                && loaded->image.get_int("orientation") == 6 && !blobField(loaded->image, VIPS_META_XMP_NAME).isEmpty());
    vips::VImage withComment = loaded->image.copy();
    withComment.set("png-comment-0-Comment", "a comment of the source");

    for (const ImageType& type : {ImageType::jpeg(), ImageType::png(), ImageType::tiff(), ImageType::webP(), ImageType::heic()}) {
        if (ImageFile::writableType(type) != type)
            continue;
        SCOPED_TRACE(type.mimeName().toStdString());
        loaded = roundTrip(withComment, "clean." + type.preferredExtension(), type);
        ASSERT_TRUE(loaded);
        for (const char* secret : {"xmpmeta", "a comment of the source", "a description of the source"})
            EXPECT_FALSE(readFile(path("clean." + type.preferredExtension())).contains(secret)) << secret;
        // libvips writes JPEG and WebP with a fresh EXIF block of its own that
        // holds the image's size and resolution and says upright: nothing of
        // the source's, and not its rotation.
        EXPECT_EQ(loaded->image.get_typeof("orientation") ? loaded->image.get_int("orientation") : 1, 1);
        EXPECT_EQ(blobField(loaded->image, VIPS_META_ICC_NAME), profile);
    }
    // The image handed in is left as it was.
    EXPECT_FALSE(blobField(withComment, VIPS_META_EXIF_NAME).isEmpty());
}

// libjpeg scales its tables by the quality: the table tells the quality.
TEST_F(Save, JpegIsWrittenAtQuality92)
{
    const QString file = path("quality.jpg");
    ASSERT_TRUE(ImageFile::save(pattern(64, 64, 3), file, ImageType::jpeg()));
    const std::vector<int> table = lumaQuantisation(readFile(file));
    ASSERT_EQ(table.size(), 64u);
    EXPECT_EQ(table, lumaQuantisation(encoded(pattern(8, 8, 3), ".jpg[Q=92]")));
    for (const char* other : {".jpg[Q=91]", ".jpg[Q=93]"})
        EXPECT_NE(table, lumaQuantisation(encoded(pattern(8, 8, 3), other))) << other;
}

TEST_F(Save, PngIsCompressedAtLeastAsWellAsLibvipsDefault)
{
    const vips::VImage image = pattern(300, 200, 4);
    const QString file = path("size.png");
    ASSERT_TRUE(ImageFile::save(image, file, ImageType::png()));
    EXPECT_LE(QFileInfo(file).size(), encoded(image, ".png").size());
}

TEST_F(Save, AWebpStoredLosslesslyStaysLosslessAndALossyOneLossy)
{
    if (!hasSaver(".webp"))
        GTEST_SKIP() << "no WebP encoder";
    const vips::VImage image = pattern(60, 40, 4);
    for (const bool lossless : {true, false}) {
        SCOPED_TRACE(lossless ? "lossless source" : "lossy source");
        ASSERT_TRUE(writeFile(path("source.webp"), encoded(image, lossless ? ".webp[lossless=true]" : ".webp")));
        const std::optional<ImageFile::LoadResult> loaded = ImageFile::load(path("source.webp"));
        ASSERT_TRUE(loaded);
        // Trimmed as the window and orvane-trim trim: a window onto the loaded image.
        const std::optional<ImageFile::LoadResult> back = roundTrip(loaded->image.extract_area(5, 4, 40, 30), "trimmed.webp", ImageType::webP());
        ASSERT_TRUE(back);
        EXPECT_EQ(readFile(path("trimmed.webp")).contains("VP8L"), lossless);
        EXPECT_FALSE(readFile(path("trimmed.webp")).contains("orvane")) << "a private field was written";
        EXPECT_TRUE(!lossless || samples(back->image) == samples(image.extract_area(5, 4, 40, 30)));
    }
}

TEST_F(Save, PngsOurWriterDoesNotTakeAreWrittenByLibvips)
{
    // Too large to hold a second time in memory: libvips streams it out.
    // Samples that PNG doesn't hold: libvips converts them to 8 bits.
    const vips::VImage floating = (pattern(30, 20, 3).cast(VIPS_FORMAT_FLOAT) / 255.0).copy(
        vips::VImage::option()->set("interpretation", VIPS_INTERPRETATION_scRGB));
    std::optional<ImageFile::LoadResult> loaded = roundTrip(floating, "float.png", ImageType::png());
    ASSERT_TRUE(loaded);
    EXPECT_EQ(std::pair(loaded->image.format(), loaded->image.bands()), std::pair(VIPS_FORMAT_UCHAR, 3));

    // Too large to hold a second time in memory: libvips streams it out.
    const vips::VImage image = pattern(300, 200, 4);
    ImageFile::setAvailableMemoryForTesting(600 * 1024);
    loaded = roundTrip(image, "tight.png", ImageType::png());
    ASSERT_TRUE(loaded && samples(loaded->image) == samples(image));
}

// ---------------------------------------------------------------- replacing files

TEST_F(Save, ALinkIsFollowedAndStaysALink)
{
    ASSERT_TRUE(writeFile(path("target.png"), "old") && QFile::link(path("target.png"), path("link.png")));
    ASSERT_TRUE(ImageFile::save(pattern(10, 10, 3), path("link.png"), ImageType::png()));
    EXPECT_TRUE(QFileInfo(path("link.png")).isSymLink());
    EXPECT_TRUE(readFile(path("target.png")).startsWith("\x89PNG"));
}

// A missing folder, a folder in the way, and an image the format cannot
// hold (GIF is at most 65535 pixels a side): nothing is made or changed.
TEST_F(Save, UnusableDestinationsAndImagesFail)
{
    ASSERT_TRUE(QDir(dir.path()).mkdir("folder.png") && writeFile(path("wide.gif"), "old"));
    EXPECT_FALSE(ImageFile::save(pattern(10, 10, 3), path("missing/photo.png"), ImageType::png()));
    EXPECT_FALSE(ImageFile::save(pattern(10, 10, 3), path("folder.png"), ImageType::png()));
    EXPECT_FALSE(ImageFile::save(vips::VImage::black(70000, 1).cast(VIPS_FORMAT_UCHAR), path("wide.gif"), ImageType::gif()));
    EXPECT_TRUE(QFileInfo(path("folder.png")).isDir());
    EXPECT_EQ(readFile(path("wide.gif")), "old");
    EXPECT_EQ(test::entries(dir.path()), (QStringList{"folder.png", "wide.gif"}));
}

ORVANE_IMAGEFILE_TEST_MAIN((void)0)
