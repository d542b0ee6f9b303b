// Orvane's own PNG writer, held against libpng (through libvips) and zlib:
// it must round-trip every pixel and compress no worse than zlib at
// ImageMagick's default.
#include "imagefile/png/pngencoder.h"

#include <QDir>
#include <QList>

#include <zlib.h>

#include "imagefiletestsupport.h"
#include "support/libvipspng.h"

using namespace orvane;
using orvane::test::ihdrByte;
using orvane::test::pixelsOf;
using orvane::test::blobField;
using orvane::test::iccProfile;
using orvane::test::loadedByLibvips;
using orvane::test::pattern;
using orvane::test::pixelBytes;
using orvane::test::samples;
using orvane::test::widened;
using orvane::test::withProfile;

namespace {

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

} // namespace

// ---------------------------------------------------------------- writing

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
