// Orvane's own PNG reader and writer, held against libpng (through libvips)
// and zlib: the reader must give exactly what libvips' loader gives for every
// file it takes and leave every other file alone; the writer must round-trip
// every pixel and compress no worse than zlib at ImageMagick's default.
#include "imagefile/pngdecoder.h"
#include "imagefile/pngencoder.h"

#include <QDir>
#include <QList>

#include <zlib.h>

#include "imagefiletestsupport.h"
#include "support/libvipspng.h"

using namespace orvane;
using orvane::test::blobField;
using orvane::test::iccProfile;
using orvane::test::loadedByLibvips;
using orvane::test::pattern;
using orvane::test::pixelBytes;
using orvane::test::samples;
using orvane::test::widened;
using orvane::test::withProfile;

namespace {

// ---------------------------------------------------------------- building files by hand

struct Chunk {
    QByteArray type;
    QByteArray data;
};

QByteArray bigEndian32(std::uint32_t value)
{
    const char bytes[4] = {char(value >> 24), char(value >> 16), char(value >> 8), char(value)};
    return QByteArray(bytes, 4);
}

QList<Chunk> chunksOf(const QByteArray& png)
{
    QList<Chunk> chunks;
    for (qsizetype at = 8; at + 12 <= png.size();) {
        const auto* p = reinterpret_cast<const uchar*>(png.constData() + at);
        const qsizetype length = qsizetype(p[0]) << 24 | p[1] << 16 | p[2] << 8 | p[3];
        chunks.push_back({png.mid(at + 4, 4), png.mid(at + 8, length)});
        at += 12 + length;
    }
    return chunks;
}

QByteArray fileOf(const QList<Chunk>& chunks)
{
    QByteArray png("\x89PNG\r\n\x1a\n", 8);
    for (const Chunk& chunk : chunks) {
        const QByteArray covered = chunk.type + chunk.data;
        png += bigEndian32(std::uint32_t(chunk.data.size())) + covered
            + bigEndian32(std::uint32_t(crc32(0, reinterpret_cast<const Bytef*>(covered.constData()), uInt(covered.size()))));
    }
    return png;
}

QByteArray zlibCompressed(const QByteArray& bytes)
{
    uLongf length = compressBound(uLong(bytes.size()));
    QByteArray out(qsizetype(length), Qt::Uninitialized);
    compress2(reinterpret_cast<Bytef*>(out.data()), &length, reinterpret_cast<const Bytef*>(bytes.constData()),
              uLong(bytes.size()), 6);
    out.truncate(qsizetype(length));
    return out;
}

// A 4 × 3 RGB file whose rows are given filtered, filter byte first.
QByteArray rgbFile(const QByteArray& filteredRows, QList<Chunk> before = {}, QList<Chunk> after = {})
{
    QList<Chunk> chunks{{"IHDR", bigEndian32(4) + bigEndian32(3) + QByteArray("\x08\x02\x00\x00\x00", 5)}};
    chunks += before;
    chunks.push_back({"IDAT", zlibCompressed(filteredRows)});
    chunks += after;
    chunks.push_back({"IEND", {}});
    return fileOf(chunks);
}

QByteArray plainRows()
{
    QByteArray rows;
    for (int y = 0; y < 3; ++y) {
        rows.append('\0');
        for (int i = 0; i < 12; ++i)
            rows.append(char(y * 40 + i * 9));
    }
    return rows;
}

QByteArray savedByLibvips(const vips::VImage& image, int filter = VIPS_FOREIGN_PNG_FILTER_ALL)
{
    VipsBlob* blob = image.pngsave_buffer(vips::VImage::option()->set("filter", filter)->set("strip", false));
    size_t length = 0;
    const void* data = vips_blob_get(blob, &length);
    QByteArray bytes(static_cast<const char*>(data), qsizetype(length));
    vips_area_unref(VIPS_AREA(blob));
    return bytes;
}

// Everything of a decoded image that the rest of Orvane reads.
void expectSameImage(const vips::VImage& ours, const vips::VImage& theirs)
{
    EXPECT_EQ(ours.width(), theirs.width());
    EXPECT_EQ(ours.height(), theirs.height());
    EXPECT_EQ(ours.bands(), theirs.bands());
    EXPECT_EQ(ours.format(), theirs.format());
    EXPECT_EQ(ours.interpretation(), theirs.interpretation());
    EXPECT_DOUBLE_EQ(ours.xres(), theirs.xres());
    EXPECT_DOUBLE_EQ(ours.yres(), theirs.yres());
    EXPECT_EQ(blobField(ours, VIPS_META_ICC_NAME), blobField(theirs, VIPS_META_ICC_NAME));
    EXPECT_TRUE(samples(ours) == samples(theirs)) << "pixels differ";
}

// The pattern with grain of the given strength (a fraction of the range),
// the same on every run.
vips::VImage noise(int width, int height, int bands, VipsBandFormat format, double strength = 1.0 / 6)
{
    const double max = format == VIPS_FORMAT_USHORT ? 65535.0 : 255.0;
    vips::VImage image = pattern(width, height, bands, format);
    const VipsInterpretation kind = image.interpretation();
    vips::VImage grain;
    for (int b = 0; b < bands; ++b) {
        const vips::VImage band = vips::VImage::gaussnoise(
            width, height, vips::VImage::option()->set("sigma", max * strength)->set("mean", 0.0)->set("seed", b + 1));
        grain = b == 0 ? band : grain.bandjoin(band);
    }
    image = (image.cast(VIPS_FORMAT_DOUBLE) + grain).cast(format); // cast clips to the format's range
    return image.copy(vips::VImage::option()->set("interpretation", kind)).copy_memory();
}

const QString kSuite = QStringLiteral(ORVANE_TEST_DATA_DIR "/pngsuite/png");

} // namespace

// ---------------------------------------------------------------- reading

TEST(PngDecoder, AgreesWithLibpngOnEveryFileOfTheSuiteItTakes)
{
    // The common kinds, each row filter among them, must take the fast path.
    const QStringList mustTake = {"basn0g08.png", "basn0g16.png", "basn2c08.png", "basn2c16.png", "basn4a08.png",
                                  "basn4a16.png", "basn6a08.png", "basn6a16.png", "f00n2c08.png", "f01n2c08.png",
                                  "f02n2c08.png", "f03n2c08.png", "f04n2c08.png", "f04n0g08.png", "z09n2c08.png"};
    int taken = 0;
    for (const QString& name : QDir(kSuite).entryList({QStringLiteral("*.png")}, QDir::Files, QDir::Name)) {
        SCOPED_TRACE(name.toStdString());
        const QByteArray bytes = test::readFile(QDir(kSuite).filePath(name));
        const PngDecoder::Decoded decoded = PngDecoder::decode(bytes);
        const std::optional<vips::VImage>& ours = decoded.image;
        if (name.startsWith(QLatin1Char('x'))) {
            EXPECT_FALSE(ours) << "a deliberately corrupt file was taken";
            continue;
        }
        EXPECT_FALSE(decoded.damaged) << "a valid file called damaged";
        EXPECT_TRUE(ours || !mustTake.contains(name)) << "left to libvips";
        if (!ours)
            continue;
        ++taken;
        const std::optional<vips::VImage> theirs = loadedByLibvips(bytes);
        ASSERT_TRUE(theirs);
        expectSameImage(*ours, *theirs);
    }
    EXPECT_GE(taken, mustTake.size());
}

TEST(PngDecoder, EveryKindAndEveryFilterAgreesWithLibpng)
{
    // Each filter on its own, and libpng's choice per row, over every pixel size (1 to 8 bytes).
    const int filters[] = {VIPS_FOREIGN_PNG_FILTER_NONE, VIPS_FOREIGN_PNG_FILTER_SUB, VIPS_FOREIGN_PNG_FILTER_UP,
                           VIPS_FOREIGN_PNG_FILTER_AVG, VIPS_FOREIGN_PNG_FILTER_PAETH, VIPS_FOREIGN_PNG_FILTER_ALL};
    for (const VipsBandFormat format : {VIPS_FORMAT_UCHAR, VIPS_FORMAT_USHORT}) {
        for (int bands = 1; bands <= 4; ++bands) {
            for (const auto& [width, height] : {std::pair{1, 1}, {1, 6}, {7, 1}, {33, 17}}) {
                const vips::VImage image = noise(width, height, bands, format);
                for (const int filter : filters) {
                    SCOPED_TRACE(::testing::Message() << bands << " bands, " << (format == VIPS_FORMAT_USHORT ? 16 : 8)
                                                      << " bits, " << width << "x" << height << ", filter " << filter);
                    const QByteArray png = savedByLibvips(image, filter);
                    const std::optional<vips::VImage> ours = PngDecoder::decode(png).image;
                    ASSERT_TRUE(ours);
                    expectSameImage(*ours, *loadedByLibvips(png));
                    EXPECT_EQ(samples(*ours), samples(image));
                }
            }
        }
    }
}

TEST(PngDecoder, ResolutionAndProfileAreReadAsLibvipsReadsThem)
{
    const QByteArray profile = iccProfile();
    ASSERT_FALSE(profile.isEmpty());
    const QByteArray compressedProfile = QByteArray("icc\0\0", 5) + zlibCompressed(profile);
    const Chunk perMetre{"pHYs", bigEndian32(3937) + bigEndian32(2835) + QByteArray(1, '\1')};
    const Chunk unknownUnit{"pHYs", bigEndian32(3) + bigEndian32(2) + QByteArray(1, '\0')};
    const struct {
        const char* what;
        QList<Chunk> before;
    } cases[] = {
        {"no pHYs: libvips' 72 per inch", {}},
        {"pixels per metre", {perMetre}},
        {"unknown unit: a pixel aspect only", {unknownUnit}},
        {"a profile", {{"iCCP", compressedProfile}}},
        {"a second pHYs is skipped", {perMetre, unknownUnit}},
        {"text, time and a private chunk are skipped",
         {{"tEXt", QByteArray("Comment\0hello", 13)}, {"prVt", "anything"}, perMetre}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const QByteArray png = rgbFile(plainRows(), c.before, {{"tIME", QByteArray(7, '\1')}});
        const std::optional<vips::VImage> ours = PngDecoder::decode(png).image;
        ASSERT_TRUE(ours);
        expectSameImage(*ours, *loadedByLibvips(png));
    }
}

TEST(PngDecoder, RefusesDamageAndLeavesUncommonFilesToLibvips)
{
    const QByteArray good = rgbFile(plainRows());
    ASSERT_TRUE(PngDecoder::decode(good).image);
    QByteArray badFilter = plainRows();
    badFilter[13] = '\5';
    QByteArray flipped = good;
    flipped[good.indexOf("IDAT") + 10] = char(flipped[good.indexOf("IDAT") + 10] ^ 0x40);
    QList<Chunk> badAdler = chunksOf(good);
    badAdler[1].data[badAdler[1].data.size() - 1] = char(badAdler[1].data.back() ^ 1);
    QList<Chunk> trailing = chunksOf(good);
    trailing[1].data += "junk";
    QList<Chunk> split = chunksOf(good);
    split.insert(2, {"tEXt", QByteArray("a\0b", 3)});
    split.insert(3, {"IDAT", {}});
    QList<Chunk> interlaced = chunksOf(good);
    interlaced[0].data[12] = '\1';
    QList<Chunk> noEnd = chunksOf(good);
    noEnd.removeLast();
    const QByteArray shortRows = plainRows().chopped(1);
    Chunk exif;
    for (const Chunk& chunk : chunksOf(test::readFile(kSuite + "/exif2c08.png")))
        exif = chunk.type == "eXIf" ? chunk : exif;
    ASSERT_FALSE(exif.data.isEmpty());
    const QByteArray longRows = plainRows() + QByteArray(13, '\0');

    // Damage libpng gives up at is refused outright: libvips, left to itself,
    // refuses such files only some of the time (it varies with its threads).
    // A sound file the reader doesn't take must load exactly as libvips loads
    // it. The rest, where libpng reads on with a warning, is libvips' call.
    enum Outcome { Refused, AsLibvips, LibvipsDecides };
    const struct {
        const char* what;
        QByteArray png;
        Outcome outcome;
    } cases[] = {
        {"cut short before IEND", good.chopped(6), Refused},
        {"a flipped bit (wrong CRC)", flipped, Refused},
        {"a wrong Adler-32", fileOf(badAdler), Refused},
        {"filter type 5", rgbFile(badFilter), Refused},
        {"a row missing a byte", rgbFile(shortRows), LibvipsDecides},
        {"a row too many", rgbFile(longRows), LibvipsDecides},
        {"data after the stream", fileOf(trailing), LibvipsDecides},
        {"IDAT chunks apart", fileOf(split), LibvipsDecides},
        {"no IEND", fileOf(noEnd), Refused},
        {"interlaced", fileOf(interlaced), LibvipsDecides},
        {"transparency", rgbFile(plainRows(), {{"tRNS", QByteArray(6, '\0')}}), AsLibvips},
        {"a suggested palette", rgbFile(plainRows(), {{"PLTE", QByteArray(6, '\7')}}), AsLibvips},
        {"an unknown critical chunk", rgbFile(plainRows(), {{"QUUX", "x"}}), LibvipsDecides},
        {"EXIF, which libvips reads the resolution from", rgbFile(plainRows(), {exif}), AsLibvips},
        {"a profile beside sRGB", rgbFile(plainRows(), {{"iCCP", QByteArray("icc\0\0", 5) + zlibCompressed(iccProfile())}, {"sRGB", QByteArray(1, '\0')}}), AsLibvips},
        {"a grey profile on a colour image", rgbFile(plainRows(), {{"iCCP", QByteArray("icc\0\0", 5) + zlibCompressed(iccProfile().replace(16, 4, "GRAY"))}}), AsLibvips},
        {"a palette image", test::readFile(kSuite + "/basn3p08.png"), AsLibvips},
        {"a chunk type that is not four letters", rgbFile(plainRows(), {{"gAM:", QByteArray(4, '\1')}}), LibvipsDecides},
        {"a text chunk over libpng's 8 MB", rgbFile(plainRows(), {{"tEXt", QByteArray("Comment\0", 8) + QByteArray(8000000, 'x')}}), LibvipsDecides},
        {"wider than libpng takes", fileOf({{"IHDR", bigEndian32(1000001) + bigEndian32(1) + QByteArray("\x08\x00\x00\x00\x00", 5)},
                                            {"IDAT", zlibCompressed(QByteArray(1000002, '\0'))}, {"IEND", {}}}), AsLibvips},
        {"one bit per pixel", test::readFile(kSuite + "/basn0g01.png"), AsLibvips},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const PngDecoder::Decoded decoded = PngDecoder::decode(c.png);
        EXPECT_FALSE(decoded.image);
        EXPECT_EQ(decoded.damaged, c.outcome == Refused);
        if (c.outcome == LibvipsDecides)
            continue;
        const QString file = QDir::temp().filePath(QStringLiteral("orvane-pngcodec-%1.png").arg(QCoreApplication::applicationPid()));
        ASSERT_TRUE(test::writeFile(file, c.png));
        const std::optional<ImageFile::LoadResult> loaded = ImageFile::load(file);
        if (c.outcome == Refused) {
            QFile::remove(file);
            EXPECT_FALSE(loaded) << "a damaged file was loaded";
            continue;
        }
        std::optional<vips::VImage> theirs;
        try {
            theirs = vips::VImage::pngload(QFile::encodeName(file).constData(), vips::VImage::option()
                                                                                      ->set("access", VIPS_ACCESS_SEQUENTIAL)
                                                                                      ->set("fail_on", VIPS_FAIL_ON_ERROR))
                         .copy_memory();
        } catch (const vips::VError&) {
            vips_error_clear();
        }
        QFile::remove(file);
        ASSERT_EQ(bool(loaded), bool(theirs));
        if (loaded)
            expectSameImage(loaded->image, *theirs);
    }
}

// ---------------------------------------------------------------- writing

namespace {

PngEncoder::Pixels pixelsOf(const vips::VImage& memory)
{
    PngEncoder::Pixels px;
    px.data = static_cast<const std::uint8_t*>(memory.data());
    px.width = memory.width();
    px.height = memory.height();
    px.bands = memory.bands();
    px.depth = memory.format() == VIPS_FORMAT_USHORT ? 16 : 8;
    px.stride = std::size_t(VIPS_IMAGE_SIZEOF_LINE(memory.get_image()));
    return px;
}

int ihdrByte(const QByteArray& png, int offset)
{
    return uchar(png.at(16 + offset));
}

} // namespace

TEST(PngEncoder, EveryKindRoundTripsExactly)
{
    for (const VipsBandFormat format : {VIPS_FORMAT_UCHAR, VIPS_FORMAT_USHORT}) {
        for (int bands = 1; bands <= 4; ++bands) {
            for (const auto& [width, height] : {std::pair{1, 1}, {1, 9}, {9, 1}, {31, 17}}) {
                for (const bool grainy : {false, true}) {
                    SCOPED_TRACE(::testing::Message() << bands << " bands, " << (format == VIPS_FORMAT_USHORT ? 16 : 8)
                                                      << " bits, " << width << "x" << height << (grainy ? ", grain" : ""));
                    const vips::VImage image = grainy ? noise(width, height, bands, format)
                                                      : pattern(width, height, bands, format).copy_memory();
                    const QByteArray png = PngEncoder::encode(pixelsOf(image));
                    const std::optional<vips::VImage> back = loadedByLibvips(png);
                    ASSERT_TRUE(back);
                    EXPECT_EQ(pixelBytes(widened(*back, format)), pixelBytes(widened(image, format)));
                }
            }
        }
    }
}

TEST(PngEncoder, RowsAreReadThroughTheStride)
{
    // A window onto a wider image: each row starts stride bytes after the last.
    const vips::VImage wide = noise(50, 20, 4, VIPS_FORMAT_UCHAR);
    PngEncoder::Pixels px = pixelsOf(wide);
    px.data += 4 * 7 + px.stride * 3; // from (7, 3)
    px.width = 30;
    px.height = 12;
    const std::optional<vips::VImage> back = loadedByLibvips(PngEncoder::encode(px));
    ASSERT_TRUE(back);
    EXPECT_EQ(samples(*back), samples(wide.extract_area(7, 3, 30, 12)));
}

TEST(PngEncoder, FewScatteredColoursBecomeAnExactPaletteOfTheFewestBits)
{
    const struct {
        int colours;
        int bands;
        int depth;      // expected bits per index; 8 with colour type 2 or 6 past 256
        int colourType; // expected
    } cases[] = {
        {2, 3, 1, 3}, {3, 3, 2, 3}, {4, 4, 2, 3}, {5, 3, 4, 3},
        {16, 4, 4, 3}, {17, 3, 8, 3}, {256, 4, 8, 3}, {257, 3, 8, 2}, {257, 4, 8, 6},
    };
    for (const auto& c : cases) {
        for (const bool translucent : {false, true}) {
            if (c.bands == 3 && translucent)
                continue;
            SCOPED_TRACE(::testing::Message() << c.colours << " colours, " << c.bands << " bands"
                                              << (translucent ? ", some translucent" : ""));
            // Colour numbers scattered at random (each one at least once)
            // over a 37-wide image: odd, so that packed rows end inside a byte.
            constexpr int width = 37, height = 40;
            std::vector<std::int32_t> numbers(width * height);
            std::uint32_t state = 12345;
            for (std::size_t i = 0; i < numbers.size(); ++i) {
                state = state * 1664525u + 1013904223u;
                numbers[i] = i < std::size_t(c.colours) ? int(i) : int((state >> 8) % std::uint32_t(c.colours));
            }
            const vips::VImage k = vips::VImage::new_from_memory(numbers.data(), numbers.size() * 4, width, height, 1,
                                                                 VIPS_FORMAT_INT).copy_memory();
            vips::VImage image = (k % 256).bandjoin(k / 256 * 60 + 7).bandjoin(255 - k % 256);
            if (c.bands == 4)
                image = image.bandjoin(translucent ? (k % 3 == 0).ifthenelse(k % 200, 255) : k * 0 + 255);
            image = image.cast(VIPS_FORMAT_UCHAR).copy(vips::VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB)).copy_memory();

            const QByteArray png = PngEncoder::encode(pixelsOf(image));
            EXPECT_EQ(ihdrByte(png, 8), c.depth);
            EXPECT_EQ(ihdrByte(png, 9), c.colourType == 6 && !translucent ? 2 : c.colourType); // opaque: no alpha
            const std::optional<vips::VImage> back = loadedByLibvips(png);
            ASSERT_TRUE(back);
            EXPECT_EQ(pixelBytes(widened(*back, VIPS_FORMAT_UCHAR)), pixelBytes(widened(image, VIPS_FORMAT_UCHAR)));
        }
    }
}

TEST(PngEncoder, AGradientOfFewColoursStaysTruecolourWhenThatIsSmaller)
{
    // 256 colours left to right: the Sub filter turns each row into ones,
    // which beats the palette's 768 bytes.
    const vips::VImage x = vips::VImage::xyz(256, 64)[0];
    const vips::VImage image = x.bandjoin(x).bandjoin(255 - x).cast(VIPS_FORMAT_UCHAR)
                                   .copy(vips::VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB))
                                   .copy_memory();
    const QByteArray png = PngEncoder::encode(pixelsOf(image));
    EXPECT_EQ(ihdrByte(png, 9), 2);
    EXPECT_LT(png.size(), 768);
    const std::optional<vips::VImage> back = loadedByLibvips(png);
    ASSERT_TRUE(back);
    EXPECT_EQ(samples(*back), samples(image));
}

TEST(PngEncoder, TheProfileAndTheResolutionAreWritten)
{
    const vips::VImage image = pattern(20, 10, 3).copy_memory();
    PngEncoder::Metadata metadata;
    metadata.iccProfile = iccProfile();
    metadata.xPixelsPerMetre = 11811; // 300 per inch
    metadata.yPixelsPerMetre = 5906;
    const std::optional<vips::VImage> back = loadedByLibvips(PngEncoder::encode(pixelsOf(image), metadata));
    ASSERT_TRUE(back);
    EXPECT_EQ(blobField(*back, VIPS_META_ICC_NAME), metadata.iccProfile);
    EXPECT_DOUBLE_EQ(back->xres(), 11.811);
    EXPECT_DOUBLE_EQ(back->yres(), 5.906);
}

TEST(PngEncoder, CompressesAboutAsWellAsZlibAtImageMagicksDefault)
{
    // The filters chosen are libpng's, row for row; what differs is the
    // compressor. libdeflate wins clearly on artwork. On heavy grain libpng's
    // zlib strategy (no short matches) keeps a small edge, which the margins
    // allow; a weaker compression level breaks them at once.
    vips::VImage artwork = pattern(400, 300, 4).copy_memory();
    for (int i = 0; i < 5; ++i)
        artwork.draw_rect({double(i * 50), 90, 200, 255}, i * 60, i * 40, 120, 80, vips::VImage::option()->set("fill", true));
    const struct {
        const char* what;
        vips::VImage image;
        double most; // of zlib's size
    } cases[] = {
        {"artwork", artwork, 1.0},
        {"8-bit photograph", noise(400, 300, 3, VIPS_FORMAT_UCHAR, 0.02), 1.01},
        {"16-bit photograph", noise(200, 150, 4, VIPS_FORMAT_USHORT, 0.002), 1.03},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const QByteArray ours = PngEncoder::encode(pixelsOf(c.image));
        VipsBlob* blob = c.image.pngsave_buffer(vips::VImage::option()
                                                    ->set("compression", PngEncoder::referenceZlibLevel)
                                                    ->set("filter", VIPS_FOREIGN_PNG_FILTER_ALL));
        size_t theirs = 0;
        vips_blob_get(blob, &theirs);
        vips_area_unref(VIPS_AREA(blob));
        EXPECT_GT(ours.size(), 0);
        EXPECT_LE(double(ours.size()), double(theirs) * c.most);
    }
}

TEST(PngEncoder, WritesNothingForPixelsItCannotHold)
{
    const vips::VImage image = pattern(8, 8, 3).copy_memory();
    const PngEncoder::Pixels good = pixelsOf(image);
    ASSERT_FALSE(PngEncoder::encode(good).isEmpty());
    PngEncoder::Pixels noData = good, fiveBands = good, twelveBits = good, shortStride = good, empty = good;
    noData.data = nullptr;
    fiveBands.bands = 5;
    twelveBits.depth = 12;
    shortStride.stride = good.stride - 1;
    empty.height = 0;
    for (const PngEncoder::Pixels& bad : {noData, fiveBands, twelveBits, shortStride, empty})
        EXPECT_TRUE(PngEncoder::encode(bad).isEmpty());
}

ORVANE_IMAGEFILE_TEST_MAIN((void)0)
