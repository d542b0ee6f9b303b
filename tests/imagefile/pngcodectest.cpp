// Orvane's own PNG writer, held against libpng (through libvips) and zlib:
// every reduction of colour type and bit depth must decode to exactly the
// pixels it was given, a palette chosen from a sample of rows must not cost
// more than the stated margin, and it must compress no worse than zlib at
// ImageMagick's default.
#include "imagefile/png/pngencoder.h"

#include "imagefiletestsupport.h"
#include "support/libvipspng.h"

using namespace orvane;
using namespace orvane::test;
using vips::VImage;

namespace {

VImage inMemory(const VImage& image, VipsBandFormat format) { return tagged(image, format).copy_memory(); }

// The pattern with grain of the given strength (a fraction of the range),
// the same on every run.
VImage noise(int width, int height, int bands, VipsBandFormat format, double strength = 1.0 / 6)
{
    const double max = format == VIPS_FORMAT_USHORT ? 65535.0 : 255.0;
    VImage grain;
    for (int b = 0; b < bands; ++b) {
        const VImage band = VImage::gaussnoise(
            width, height, VImage::option()->set("sigma", max * strength)->set("mean", 0.0)->set("seed", b + 1));
        grain = b == 0 ? band : grain.bandjoin(band);
    }
    return inMemory(pattern(width, height, bands, format).cast(VIPS_FORMAT_DOUBLE) + grain, format); // clipped
}

// Numbers from 0 to count − 1 scattered at random, each one at least once.
VImage scattered(int width, int height, int count, std::uint32_t seed = 12345)
{
    std::vector<std::int32_t> numbers(std::size_t(width) * std::size_t(height));
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        seed = seed * 1664525u + 1013904223u;
        numbers[i] = i < std::size_t(count) ? int(i) : int((seed >> 8) % std::uint32_t(count));
    }
    // A copy: copy_memory() of an image already in memory keeps pointing at the vector.
    return VImage(vips_image_new_from_memory_copy(numbers.data(), numbers.size() * 4, width, height, 1, VIPS_FORMAT_INT));
}

VImage grain(int width, int height, double sigma, int seed)
{
    return VImage::gaussnoise(width, height, VImage::option()->set("sigma", sigma)->set("mean", 128.0)->set("seed", seed))
        .cast(VIPS_FORMAT_UCHAR);
}

// Whether libpng reads back exactly the pixels given.
bool readsBack(const QByteArray& png, const VImage& image)
{
    const std::optional<VImage> back = loadedByLibvips(png);
    return back && pixelBytes(widened(*back, image.format())) == pixelBytes(widened(image, image.format()));
}

// Encodes and checks the header's bit depth and colour type, and the pixels.
void expectPng(const VImage& image, int depth, int colourType, const PngEncoder::Metadata& metadata = {})
{
    const QByteArray png = PngEncoder::encode(pixelsOf(image), metadata);
    EXPECT_EQ(std::pair(ihdrByte(png, 8), ihdrByte(png, 9)), std::pair(depth, colourType));
    EXPECT_EQ(png.contains("iCCP"), !metadata.iccProfile.isEmpty());
    EXPECT_TRUE(readsBack(png, image));
}

} // namespace

TEST(PngEncoder, EveryKindRoundTripsExactly)
{
    for (const VipsBandFormat format : {VIPS_FORMAT_UCHAR, VIPS_FORMAT_USHORT})
        for (int bands = 1; bands <= 4; ++bands)
            for (const auto& [width, height] : {std::pair{1, 1}, {1, 9}, {9, 1}, {31, 17}})
                for (const bool grainy : {false, true}) {
                    SCOPED_TRACE(::testing::Message() << bands << " bands, " << (format == VIPS_FORMAT_USHORT ? 16 : 8)
                                                      << " bits, " << width << "x" << height << (grainy ? ", grain" : ""));
                    const VImage image = grainy ? noise(width, height, bands, format)
                                                : pattern(width, height, bands, format).copy_memory();
                    EXPECT_TRUE(readsBack(PngEncoder::encode(pixelsOf(image)), image));
                }
}

TEST(PngEncoder, RowsAreReadThroughTheStride)
{
    // A window onto a wider image: each row starts stride bytes after the last.
    const VImage wide = noise(50, 20, 4, VIPS_FORMAT_UCHAR);
    PngEncoder::Pixels px = pixelsOf(wide);
    px.data += 4 * 7 + px.stride * 3; // from (7, 3)
    px.width = 30;
    px.height = 12;
    EXPECT_TRUE(readsBack(PngEncoder::encode(px), wide.extract_area(7, 3, 30, 12)));
}

TEST(PngEncoder, EachReductionOfColourTypeAndDepthRoundTripsExactly)
{
    constexpr int w = 61, h = 47; // odd, so that packed rows end inside a byte
    const VImage grey = grain(w, h, 40, 1), grey3 = grey.bandjoin(grey).bandjoin(grey);
    const VImage colour = grey.bandjoin(grain(w, h, 40, 2)).bandjoin(grain(w, h, 40, 3));
    const VImage ramp = (VImage::xyz(w, h)[0] * (255.0 / (w - 1))).cast(VIPS_FORMAT_UCHAR); // a smooth alpha
    const VImage k16 = scattered(w, h, 16), k5 = scattered(w, h, 5);
    const VImage fewColours = (k16 * 13).bandjoin(k16 * 7 + 20).bandjoin(255 - k16 * 11);
    const VImage deepGrey = VImage::xyz(w, h)[0] * 1000 + VImage::xyz(w, h)[1] * 7 + 1; // low bytes of their own
    const VImage x = VImage::xyz(256, 64)[0];
    QByteArray greyProfile = iccProfile();
    greyProfile.replace(16, 4, "GRAY"); // the header's colour space is all the writer reads
    // The colour type and bit depth expected of each.
    const struct { const char* what; VImage image; VipsBandFormat format; int colourType, depth; QByteArray profile = {}; } cases[] = {
        {"grey as RGB", grey3, VIPS_FORMAT_UCHAR, 0, 8},
        {"grey as opaque RGBA", grey3.bandjoin_const({255}), VIPS_FORMAT_UCHAR, 0, 8},
        {"grey with alpha as RGBA", grey3.bandjoin(ramp), VIPS_FORMAT_UCHAR, 4, 8},
        {"grey with opaque alpha", grey.bandjoin_const({255}), VIPS_FORMAT_UCHAR, 0, 8},
        {"grey as RGB with an RGB profile", grey3, VIPS_FORMAT_UCHAR, 3, 8, iccProfile()},
        {"opaque RGBA", colour.bandjoin_const({255}), VIPS_FORMAT_UCHAR, 2, 8},
        {"16-bit grey of 8-bit values", grey * 257, VIPS_FORMAT_USHORT, 0, 8},
        {"16-bit grey", deepGrey, VIPS_FORMAT_USHORT, 0, 16},
        {"16-bit grey as RGB", deepGrey.bandjoin(deepGrey).bandjoin(deepGrey), VIPS_FORMAT_USHORT, 0, 16},
        {"16-bit opaque RGBA of 8-bit values", (colour * 257).bandjoin_const({65535}), VIPS_FORMAT_USHORT, 2, 8},
        {"16-bit RGBA, one low byte apart", (colour * 257).bandjoin((ramp * 257).cast(VIPS_FORMAT_USHORT) ^ 1), VIPS_FORMAT_USHORT, 6, 16},
        {"black and white as RGB", (k5 % 2 * 255).bandjoin(k5 % 2 * 255).bandjoin(k5 % 2 * 255), VIPS_FORMAT_UCHAR, 0, 1},
        {"four greys of 2 bits", k5 % 4 * 85, VIPS_FORMAT_UCHAR, 0, 2},
        {"sixteen greys of 4 bits as 16-bit", k16 * 17 * 257, VIPS_FORMAT_USHORT, 0, 4},
        {"sixteen colours", fewColours, VIPS_FORMAT_UCHAR, 3, 4},
        {"sixteen colours, some translucent", fewColours.bandjoin((k16 % 3 == 0).ifthenelse(k16 * 9, 255)), VIPS_FORMAT_UCHAR, 3, 4},
        {"five greys with alpha", (k5 * 40).bandjoin(255 - k5 * 30), VIPS_FORMAT_UCHAR, 3, 4},
        // A palette's entries are RGB: with a profile for grey they stay grey.
        {"five greys with alpha and a grey profile", (k5 * 40).bandjoin(255 - k5 * 30), VIPS_FORMAT_UCHAR, 4, 8, greyProfile},
        // The Sub filter turns each row into ones, which beats the palette's 768 bytes.
        {"a gradient of 256 colours", x.bandjoin(x).bandjoin(255 - x), VIPS_FORMAT_UCHAR, 2, 8},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        expectPng(inMemory(c.image, c.format), c.depth, c.colourType, PngEncoder::Metadata{c.profile});
    }
    // Colours scattered over a 37-wide image: a palette of the fewest bits up
    // to 256 colours, opaque or some translucent; past that RGB or RGBA.
    const struct { int colours, bands, depth, colourType; } palettes[] = {
        {2, 3, 1, 3}, {3, 3, 2, 3}, {4, 4, 2, 3}, {5, 3, 4, 3}, {16, 4, 4, 3}, {17, 3, 8, 3}, {256, 4, 8, 3}, {257, 3, 8, 2}, {257, 4, 8, 6},
    };
    for (const auto& c : palettes)
        for (const bool translucent : {false, true}) {
            if (c.bands == 3 && translucent)
                continue;
            SCOPED_TRACE(::testing::Message() << c.colours << " colours, " << c.bands << " bands" << (translucent ? ", some translucent" : ""));
            const VImage k = scattered(37, 40, c.colours);
            VImage image = (k % 256).bandjoin(k / 256 * 60 + 7).bandjoin(255 - k % 256);
            if (c.bands == 4)
                image = image.bandjoin(translucent ? (k % 3 == 0).ifthenelse(k % 200, 255) : k * 0 + 255);
            expectPng(inMemory(image, VIPS_FORMAT_UCHAR), c.depth, c.colourType == 6 && !translucent ? 2 : c.colourType);
        }
}

TEST(PngEncoder, APaletteCostsAtMostTheMarginOverTheOtherLayout)
{
    // Images of at most 256 colours, where a palette may win or lose, tall
    // enough that the choice is made from a sample of rows.
    constexpr int w = 320, h = 400;
    const VImage xy = VImage::xyz(w, h), x = xy[0], y = xy[1], k8 = scattered(w, h, 8);
    VImage flat = (x * 0 + 240).bandjoin(x * 0 + 235).bandjoin(x * 0 + 220).cast(VIPS_FORMAT_UCHAR).copy_memory();
    for (int i = 0; i < 7; ++i)
        flat.draw_rect({double(i * 35), double(200 - i * 25), double(i * 30)}, i * 40, i * 50, 90, 60, VImage::option()->set("fill", true));
    const VImage band = (y / 8).cast(VIPS_FORMAT_INT) % 2; // stripes of 8 rows: half scattered, half smooth
    // Each image already in its fewest bands.
    const struct { const char* what; VImage image; } cases[] = {
        {"a colour gradient of 256 steps", (x * 255 / (w - 1)).bandjoin(128 - x * 100 / (w - 1)).bandjoin(y * 0 + 60)},
        {"a dithered gradient of 200 colours", ((x + y) * 190 / (w + h) + k8 % 3 * 4).bandjoin(y * 0 + 90).bandjoin(y * 0 + 30)},
        {"eight colours scattered", (k8 * 30).bandjoin(k8 * 13).bandjoin(255 - k8 * 20)},
        {"flat shapes of eight colours", flat},
        {"stripes of scattered and smooth colour",
         band.ifthenelse(k8 * 30, x * 200 / w).bandjoin(band.ifthenelse(k8 * 9, 50)).bandjoin(y * 0 + 77)},
        {"eight greys in pairs one apart", (x * 4 / w).cast(VIPS_FORMAT_INT) * 40 + 100 + k8 % 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const VImage image = inMemory(c.image, VIPS_FORMAT_UCHAR);
        const QByteArray png = PngEncoder::encode(pixelsOf(image));
        const QByteArray truecolour = PngEncoder::encode(pixelsOf(image), {}, PngEncoder::Palette::Never);
        EXPECT_LE(double(png.size()), double(truecolour.size()) * (1 + PngEncoder::paletteMargin));
        EXPECT_TRUE(readsBack(png, image));
    }
}

TEST(PngEncoder, CompressesAboutAsWellAsZlibAtImageMagicksDefault)
{
    // The filters chosen are libpng's, row for row; what differs is the
    // compressor. libdeflate wins clearly on artwork. On heavy grain libpng's
    // zlib strategy (no short matches) keeps a small edge, which the margins
    // allow; a weaker compression level breaks them at once.
    VImage artwork = pattern(400, 300, 4).copy_memory();
    for (int i = 0; i < 5; ++i)
        artwork.draw_rect({double(i * 50), 90, 200, 255}, i * 60, i * 40, 120, 80, VImage::option()->set("fill", true));
    // Each may come out at most "most" times zlib's size.
    const struct { const char* what; VImage image; double most; } cases[] = {
        {"artwork", artwork, 1.0}, {"8-bit photograph", noise(400, 300, 3, VIPS_FORMAT_UCHAR, 0.02), 1.01},
        {"16-bit photograph", noise(200, 150, 4, VIPS_FORMAT_USHORT, 0.002), 1.03},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const QByteArray ours = PngEncoder::encode(pixelsOf(c.image));
        const QByteArray theirs = takeBlob(c.image.pngsave_buffer(
            VImage::option()->set("compression", PngEncoder::referenceZlibLevel)->set("filter", VIPS_FOREIGN_PNG_FILTER_ALL)));
        EXPECT_GT(ours.size(), 0);
        EXPECT_LE(double(ours.size()), double(theirs.size()) * c.most);
    }
}

TEST(PngEncoder, WritesNothingForPixelsItCannotHold)
{
    const VImage image = pattern(8, 8, 3).copy_memory();
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
