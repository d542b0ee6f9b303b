// ImageFile::writableType and ImageFile::save: the written format, what the
// written file holds, and destinations that cannot take it. Replacing a file
// under refusals and kills is tested in tests/reliability.
#include "imagefile/imagefile.h"

#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>

#include "imagefiletestsupport.h"

using namespace orvane;
using namespace orvane::test;

namespace {

class Save : public ::testing::Test {
protected:
    QString path(const QString& name) const { return dir.filePath(name); }
    QStringList entries() const { return QDir(dir.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot); }
    void TearDown() override { ImageFile::setSaverProbeForTesting({}); }

    QTemporaryDir dir;
};

// The first luminance quantisation table of a JPEG, in the file's zig-zag order.
std::vector<int> lumaQuantisation(const QByteArray& jpeg)
{
    for (qsizetype i = 2; i + 4 < jpeg.size();) {
        if (uchar(jpeg[i]) != 0xff)
            break;
        const uchar marker = uchar(jpeg[i + 1]);
        const int length = uchar(jpeg[i + 2]) << 8 | uchar(jpeg[i + 3]);
        if (marker == 0xdb && (uchar(jpeg[i + 4]) & 0x0f) == 0 && (uchar(jpeg[i + 4]) >> 4) == 0) {
            std::vector<int> table;
            for (int k = 0; k < 64; ++k)
                table.push_back(uchar(jpeg[i + 5 + k]));
            return table;
        }
        if (marker == 0xda)
            break;
        i += 2 + length;
    }
    return {};
}

// The IJG baseline luminance table scaled for a quality, in zig-zag order,
// as libjpeg computes it.
std::vector<int> expectedLuma(int quality)
{
    static const int base[64] = {16, 11, 10, 16, 24,  40,  51,  61,  12, 12, 14, 19, 26,  58,  60,  55,
                                 14, 13, 16, 24, 40,  57,  69,  56,  14, 17, 22, 29, 51,  87,  80,  62,
                                 18, 22, 37, 56, 68,  109, 103, 77,  24, 35, 55, 64, 81,  104, 113, 92,
                                 49, 64, 78, 87, 103, 121, 120, 101, 72, 92, 95, 98, 112, 100, 103, 99};
    static const int zigzag[64] = {0,  1,  8,  16, 9,  2,  3,  10, 17, 24, 32, 25, 18, 11, 4,  5,
                                   12, 19, 26, 33, 40, 48, 41, 34, 27, 20, 13, 6,  7,  14, 21, 28,
                                   35, 42, 49, 56, 57, 50, 43, 36, 29, 22, 15, 23, 30, 37, 44, 51,
                                   58, 59, 52, 45, 38, 31, 39, 46, 53, 60, 61, 54, 47, 55, 62, 63};
    const int scale = quality < 50 ? 5000 / quality : 200 - quality * 2;
    std::vector<int> table;
    for (int k = 0; k < 64; ++k)
        table.push_back(std::clamp((base[zigzag[k]] * scale + 50) / 100, 1, 255));
    return table;
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
    const struct {
        Probe probe;
        ImageType type, written;
    } cases[] = {
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
    const QString file = path("photo.webp");
    ASSERT_TRUE(ImageFile::save(pattern(20, 10, 4), file, ImageType::webP()));
    EXPECT_TRUE(readFile(file).startsWith("\x89PNG"));
    const std::optional<ImageFile::LoadResult> loaded = ImageFile::load(file);
    ASSERT_TRUE(loaded);
    EXPECT_EQ(loaded->type, ImageType::png());
    EXPECT_EQ(samples(loaded->image), samples(pattern(20, 10, 4)));
}

// ---------------------------------------------------------------- what is written

TEST_F(Save, EveryEncodableTypeRoundTrips)
{
    const vips::VImage image = pattern(48, 32, 3);
    for (const ImageType& type : ImageFile::acceptedTypes()) {
        const ImageType written = ImageFile::writableType(type);
        if (written != type)
            continue;
        SCOPED_TRACE(type.mimeName().toStdString());
        const QString file = path(QStringLiteral("round.") + type.preferredExtension());
        ASSERT_TRUE(ImageFile::save(image, file, type));
        const std::optional<ImageFile::LoadResult> loaded = ImageFile::load(file);
        ASSERT_TRUE(loaded);
        // libheif writes every HEIF image with the HEVC brand.
        EXPECT_EQ(loaded->type, type == ImageType::heif() ? ImageType::heic() : type);
        EXPECT_EQ(loaded->image.width(), 48);
        EXPECT_EQ(loaded->image.height(), 32);
        if (type == ImageType::png() || type == ImageType::tiff() || type == ImageType::bmp()) {
            EXPECT_EQ(samples(loaded->image.extract_band(0, vips::VImage::option()->set("n", 3))), samples(image));
        } else {
            // Lossy or palette formats: close to the original on average.
            const double difference = (loaded->image.extract_band(0, vips::VImage::option()->set("n", 3)).cast(VIPS_FORMAT_FLOAT)
                                       - image.cast(VIPS_FORMAT_FLOAT)).abs().avg();
            EXPECT_LT(difference, 8.0);
        }
    }
}

TEST_F(Save, SixteenBitsStaySixteenBitsWhereTheFormatHoldsThem)
{
    for (const int bands : {1, 2, 3, 4}) {
        const vips::VImage image = pattern(40, 30, bands, VIPS_FORMAT_USHORT);
        for (const ImageType& type : {ImageType::png(), ImageType::tiff()}) {
            SCOPED_TRACE(type.mimeName().toStdString() + " with " + std::to_string(bands) + " bands");
            const QString file = path(QStringLiteral("deep%1.").arg(bands) + type.preferredExtension());
            ASSERT_TRUE(ImageFile::save(image, file, type));
            const std::optional<ImageFile::LoadResult> loaded = ImageFile::load(file);
            ASSERT_TRUE(loaded);
            EXPECT_EQ(loaded->image.format(), VIPS_FORMAT_USHORT);
            EXPECT_EQ(loaded->image.bands(), bands);
            EXPECT_EQ(samples(loaded->image), samples(image));
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
    source.set("png-comment-0-Comment", "a comment of the source");

    // The way a user's file arrives: loaded, with everything parsed.
    const QString original = path("source.jpg");
    ASSERT_TRUE(writeFile(original, encoded(source, ".jpg")));
    std::optional<ImageFile::LoadResult> loaded = ImageFile::load(original);
    ASSERT_TRUE(loaded);
    ASSERT_TRUE(blobField(loaded->image, VIPS_META_EXIF_NAME).contains("a description of the source"));
    ASSERT_EQ(loaded->image.get_int("orientation"), 6);
    ASSERT_FALSE(blobField(loaded->image, VIPS_META_XMP_NAME).isEmpty());
    vips::VImage withComment = loaded->image.copy();
    withComment.set("png-comment-0-Comment", "a comment of the source");

    for (const ImageType& type :
         {ImageType::jpeg(), ImageType::png(), ImageType::tiff(), ImageType::webP(), ImageType::heic()}) {
        if (ImageFile::writableType(type) != type)
            continue;
        SCOPED_TRACE(type.mimeName().toStdString());
        const QString file = path(QStringLiteral("clean.") + type.preferredExtension());
        ASSERT_TRUE(ImageFile::save(withComment, file, type));
        const QByteArray bytes = readFile(file);
        EXPECT_FALSE(bytes.contains("xmpmeta")) << "XMP written";
        EXPECT_FALSE(bytes.contains("a comment of the source"));
        EXPECT_FALSE(bytes.contains("a description of the source"));
        loaded = ImageFile::load(file);
        ASSERT_TRUE(loaded);
        // libvips writes JPEG and WebP with a fresh EXIF block of its own that
        // holds the image's size and resolution and says upright: nothing of
        // the source's, and not its rotation.
        int orientation = 1;
        if (loaded->image.get_typeof("orientation"))
            orientation = loaded->image.get_int("orientation");
        EXPECT_EQ(orientation, 1);
        EXPECT_FALSE(blobField(loaded->image, VIPS_META_EXIF_NAME).contains("a description of the source"));
        EXPECT_EQ(blobField(loaded->image, VIPS_META_ICC_NAME), profile);
    }
    // The image handed in is left as it was.
    EXPECT_FALSE(blobField(withComment, VIPS_META_EXIF_NAME).isEmpty());
}

TEST_F(Save, JpegIsWrittenAtQuality92)
{
    const QString file = path("quality.jpg");
    ASSERT_TRUE(ImageFile::save(pattern(64, 64, 3), file, ImageType::jpeg()));
    const std::vector<int> table = lumaQuantisation(readFile(file));
    ASSERT_EQ(table.size(), 64u);
    EXPECT_EQ(table, expectedLuma(92));
    EXPECT_NE(table, expectedLuma(91));
    EXPECT_NE(table, expectedLuma(93));
}

TEST_F(Save, PngIsCompressedAtLeastAsWellAsLibvipsDefault)
{
    const vips::VImage image = pattern(300, 200, 4);
    const QString file = path("size.png");
    ASSERT_TRUE(ImageFile::save(image, file, ImageType::png()));
    EXPECT_LE(QFileInfo(file).size(), encoded(image, ".png").size());
}

TEST_F(Save, FewColoursAreWrittenAsIndexedColourExactly)
{
    // Flat blocks of a handful of colours: indexed (colour type 3), pixel for
    // pixel. Where the palette stops paying is the PNG writer's own test.
    const vips::VImage xy = vips::VImage::xyz(120, 90);
    const vips::VImage index = (xy[0] / 30).cast(VIPS_FORMAT_INT) + (xy[1] / 30).cast(VIPS_FORMAT_INT) * 4;
    const vips::VImage rgb = (index * std::vector<double>{19, 7, 3} + std::vector<double>{10, 20, 30})
                                 .cast(VIPS_FORMAT_UCHAR)
                                 .copy(vips::VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB));
    const vips::VImage alpha = (index * 21).cast(VIPS_FORMAT_UCHAR); // 0 (transparent) to 231
    const vips::VImage rgba = rgb.bandjoin(alpha);
    for (const vips::VImage& image : {rgb, rgba}) {
        SCOPED_TRACE(std::to_string(image.bands()) + " bands");
        const QString file = path(QStringLiteral("flat%1.png").arg(image.bands()));
        ASSERT_TRUE(ImageFile::save(image, file, ImageType::png()));
        EXPECT_EQ(int(readFile(file).at(25)), 3) << "not indexed";
        const std::optional<ImageFile::LoadResult> loaded = ImageFile::load(file);
        ASSERT_TRUE(loaded);
        EXPECT_EQ(loaded->image.bands(), image.bands());
        // Every pixel, the colour hidden under full transparency included.
        EXPECT_EQ(samples(loaded->image), samples(image));
    }
}

TEST_F(Save, AWebpStoredLosslesslyStaysLosslessAndALossyOneLossy)
{
    if (!hasSaver(".webp"))
        GTEST_SKIP() << "no WebP encoder";
    const vips::VImage image = pattern(60, 40, 4);
    for (const bool lossless : {true, false}) {
        SCOPED_TRACE(lossless ? "lossless source" : "lossy source");
        const QString source = path(QStringLiteral("source%1.webp").arg(lossless));
        ASSERT_TRUE(writeFile(source, encoded(image, lossless ? ".webp[lossless=true]" : ".webp")));
        const std::optional<ImageFile::LoadResult> loaded = ImageFile::load(source);
        ASSERT_TRUE(loaded);
        // Trimmed as the window and orvane-trim trim: a window onto the loaded image.
        const vips::VImage trimmed = loaded->image.extract_area(5, 4, 40, 30);
        const QString file = path(QStringLiteral("trimmed%1.webp").arg(lossless));
        ASSERT_TRUE(ImageFile::save(trimmed, file, ImageType::webP()));
        const QByteArray bytes = readFile(file);
        EXPECT_EQ(bytes.contains("VP8L"), lossless);
        EXPECT_FALSE(bytes.contains("orvane")) << "a private field was written";
        if (lossless) {
            const std::optional<ImageFile::LoadResult> back = ImageFile::load(file);
            ASSERT_TRUE(back);
            EXPECT_EQ(samples(back->image), samples(image.extract_area(5, 4, 40, 30)));
        }
    }
}

TEST_F(Save, PngsOurWriterDoesNotTakeAreWrittenByLibvips)
{
    // Too large to hold a second time in memory: libvips streams it out.
    const vips::VImage image = pattern(300, 200, 4);
    ImageFile::setAvailableMemoryForTesting(600 * 1024);
    const QString tight = path("tight.png");
    const bool saved = ImageFile::save(image, tight, ImageType::png());
    ImageFile::setAvailableMemoryForTesting(std::nullopt);
    ASSERT_TRUE(saved);
    std::optional<ImageFile::LoadResult> loaded = ImageFile::load(tight);
    ASSERT_TRUE(loaded);
    EXPECT_EQ(samples(loaded->image), samples(image));

    // Samples that PNG doesn't hold: libvips converts them to 8 bits.
    const QString floating = path("float.png");
    ASSERT_TRUE(ImageFile::save((pattern(30, 20, 3).cast(VIPS_FORMAT_FLOAT) / 255.0).copy(
                                    vips::VImage::option()->set("interpretation", VIPS_INTERPRETATION_scRGB)),
                                floating, ImageType::png()));
    loaded = ImageFile::load(floating);
    ASSERT_TRUE(loaded);
    EXPECT_EQ(loaded->image.format(), VIPS_FORMAT_UCHAR);
    EXPECT_EQ(loaded->image.bands(), 3);
}

// ---------------------------------------------------------------- replacing files

TEST_F(Save, ALinkIsFollowedAndStaysALink)
{
    const QString target = path("target.png");
    const QString link = path("link.png");
    ASSERT_TRUE(writeFile(target, "old"));
    ASSERT_TRUE(QFile::link(target, link));
    ASSERT_TRUE(ImageFile::save(pattern(10, 10, 3), link, ImageType::png()));
    EXPECT_TRUE(QFileInfo(link).isSymLink());
    EXPECT_TRUE(readFile(target).startsWith("\x89PNG"));
}

TEST_F(Save, UnusableDestinationsFail)
{
    EXPECT_FALSE(ImageFile::save(pattern(10, 10, 3), path("missing/photo.png"), ImageType::png()));
    EXPECT_FALSE(QFileInfo::exists(path("missing")));
    ASSERT_TRUE(QDir(dir.path()).mkdir("folder.png"));
    EXPECT_FALSE(ImageFile::save(pattern(10, 10, 3), path("folder.png"), ImageType::png()));
    EXPECT_TRUE(QFileInfo(path("folder.png")).isDir());
    EXPECT_EQ(entries(), QStringList{"folder.png"});
}

TEST_F(Save, AnImageThatCannotBeEncodedFails)
{
    // GIF is at most 65535 pixels a side.
    const QString file = path("wide.gif");
    ASSERT_TRUE(writeFile(file, "old"));
    EXPECT_FALSE(ImageFile::save(vips::VImage::black(70000, 1).cast(VIPS_FORMAT_UCHAR), file, ImageType::gif()));
    EXPECT_EQ(readFile(file), "old");
}

ORVANE_IMAGEFILE_TEST_MAIN((void)0)
