// The PNG writer's choice of colour type and bit depth: every reduction must
// decode (through libpng) to exactly the pixels it was given, and a palette
// chosen from a sample of rows must not cost more than the stated margin.
#include "imagefile/png/pngencoder.h"

#include "imagefiletestsupport.h"
#include "support/libvipspng.h"

using namespace orvane;
using orvane::test::ihdrByte;
using orvane::test::pixelsOf;
using orvane::test::iccProfile;
using orvane::test::loadedByLibvips;
using orvane::test::pixelBytes;
using orvane::test::widened;
using vips::VImage;

namespace {

VImage inMemory(const VImage& image, VipsBandFormat format)
{
    const bool wide = format == VIPS_FORMAT_USHORT;
    const VipsInterpretation kind = image.bands() <= 2 ? (wide ? VIPS_INTERPRETATION_GREY16 : VIPS_INTERPRETATION_B_W)
                                                       : (wide ? VIPS_INTERPRETATION_RGB16 : VIPS_INTERPRETATION_sRGB);
    return image.cast(format).copy(VImage::option()->set("interpretation", kind)).copy_memory();
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

} // namespace

TEST(PngColourType, EachReductionRoundTripsExactly)
{
    constexpr int w = 61, h = 47; // odd, so that packed rows end inside a byte
    const VImage grey = grain(w, h, 40, 1);
    const VImage colour = grey.bandjoin(grain(w, h, 40, 2)).bandjoin(grain(w, h, 40, 3));
    const VImage ramp = (VImage::xyz(w, h)[0] * (255.0 / (w - 1))).cast(VIPS_FORMAT_UCHAR); // a smooth alpha
    const VImage k16 = scattered(w, h, 16);
    const VImage k5 = scattered(w, h, 5);
    const VImage steps = k16 * 17;
    const VImage fewColours = (k16 * 13).bandjoin(k16 * 7 + 20).bandjoin(255 - k16 * 11);
    const VImage fewTranslucent = fewColours.bandjoin((k16 % 3 == 0).ifthenelse(k16 * 9, 255));
    const VImage deepGrey = VImage::xyz(w, h)[0] * 1000 + VImage::xyz(w, h)[1] * 7 + 1; // low bytes of their own

    const struct {
        const char* what;
        VImage image;
        VipsBandFormat format;
        int colourType; // expected, with bit depth
        int depth;
        bool rgbProfile = false;
    } cases[] = {
        {"grey as RGB", grey.bandjoin(grey).bandjoin(grey), VIPS_FORMAT_UCHAR, 0, 8},
        {"grey as opaque RGBA", grey.bandjoin(grey).bandjoin(grey).bandjoin_const({255}), VIPS_FORMAT_UCHAR, 0, 8},
        {"grey with alpha as RGBA", grey.bandjoin(grey).bandjoin(grey).bandjoin(ramp), VIPS_FORMAT_UCHAR, 4, 8},
        {"grey with opaque alpha", grey.bandjoin_const({255}), VIPS_FORMAT_UCHAR, 0, 8},
        {"grey as RGB with an RGB profile", grey.bandjoin(grey).bandjoin(grey), VIPS_FORMAT_UCHAR, 3, 8, true},
        {"opaque RGBA", colour.bandjoin_const({255}), VIPS_FORMAT_UCHAR, 2, 8},
        {"16-bit grey of 8-bit values", grey * 257, VIPS_FORMAT_USHORT, 0, 8},
        {"16-bit grey", deepGrey, VIPS_FORMAT_USHORT, 0, 16},
        {"16-bit grey as RGB", deepGrey.bandjoin(deepGrey).bandjoin(deepGrey), VIPS_FORMAT_USHORT, 0, 16},
        {"16-bit opaque RGBA of 8-bit values", (colour * 257).bandjoin_const({65535}), VIPS_FORMAT_USHORT, 2, 8},
        {"16-bit RGBA, one low byte apart", (colour * 257).bandjoin((ramp * 257).cast(VIPS_FORMAT_USHORT) ^ 1),
         VIPS_FORMAT_USHORT, 6, 16},
        {"black and white as RGB", (k5 % 2 * 255).bandjoin(k5 % 2 * 255).bandjoin(k5 % 2 * 255), VIPS_FORMAT_UCHAR, 0, 1},
        {"four greys of 2 bits", k5 % 4 * 85, VIPS_FORMAT_UCHAR, 0, 2},
        {"sixteen greys of 4 bits as 16-bit", steps * 257, VIPS_FORMAT_USHORT, 0, 4},
        {"sixteen colours", fewColours, VIPS_FORMAT_UCHAR, 3, 4},
        {"sixteen colours, some translucent", fewTranslucent, VIPS_FORMAT_UCHAR, 3, 4},
        {"five greys with alpha", (k5 * 40).bandjoin(255 - k5 * 30), VIPS_FORMAT_UCHAR, 3, 4},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const VImage image = inMemory(c.image, c.format);
        PngEncoder::Metadata metadata;
        if (c.rgbProfile)
            metadata.iccProfile = iccProfile();
        const QByteArray png = PngEncoder::encode(pixelsOf(image), metadata);
        EXPECT_EQ(ihdrByte(png, 9), c.colourType);
        EXPECT_EQ(ihdrByte(png, 8), c.depth);
        const std::optional<VImage> back = loadedByLibvips(png);
        ASSERT_TRUE(back);
        EXPECT_TRUE(pixelBytes(widened(*back, c.format)) == pixelBytes(widened(image, c.format)));
    }
}

TEST(PngColourType, AGreyProfileKeepsGreyOutOfAPalette)
{
    // Five greys with alpha would go to a palette, whose entries are RGB:
    // with a profile for grey they stay grey, and the profile is kept.
    QByteArray profile = iccProfile();
    ASSERT_GE(profile.size(), 20);
    profile.replace(16, 4, "GRAY"); // the header's colour space is all the writer reads
    const VImage k5 = scattered(40, 30, 5);
    const VImage image = inMemory((k5 * 40).bandjoin(255 - k5 * 30), VIPS_FORMAT_UCHAR);
    PngEncoder::Metadata metadata;
    metadata.iccProfile = profile;
    const QByteArray png = PngEncoder::encode(pixelsOf(image), metadata);
    EXPECT_EQ(ihdrByte(png, 9), 4);
    EXPECT_EQ(ihdrByte(png, 8), 8);
    EXPECT_TRUE(png.contains("iCCP"));
    PngEncoder::Metadata none;
    EXPECT_EQ(ihdrByte(PngEncoder::encode(pixelsOf(image), none), 9), 3);
}

TEST(PngColourType, APaletteCostsAtMostTheMarginOverTheOtherLayout)
{
    // Images of at most 256 colours, where a palette may win or lose, tall
    // enough that the choice is made from a sample of rows.
    constexpr int w = 320, h = 400;
    const VImage xy = VImage::xyz(w, h);
    const VImage x = xy[0], y = xy[1];
    const VImage k8 = scattered(w, h, 8);
    VImage flat = (x * 0 + 240).bandjoin(x * 0 + 235).bandjoin(x * 0 + 220).cast(VIPS_FORMAT_UCHAR).copy_memory();
    for (int i = 0; i < 7; ++i)
        flat.draw_rect({double(i * 35), double(200 - i * 25), double(i * 30)}, i * 40, i * 50, 90, 60,
                       VImage::option()->set("fill", true));
    const VImage band = (y / 8).cast(VIPS_FORMAT_INT) % 2; // stripes of 8 rows: half scattered, half smooth
    const struct {
        const char* what;
        VImage image; // already in its fewest bands
    } cases[] = {
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
        ASSERT_GT(png.size(), 0);
        EXPECT_LE(double(png.size()), double(truecolour.size()) * (1 + PngEncoder::paletteMargin));
        const std::optional<VImage> back = loadedByLibvips(png);
        ASSERT_TRUE(back);
        EXPECT_TRUE(pixelBytes(widened(*back, VIPS_FORMAT_UCHAR)) == pixelBytes(widened(image, VIPS_FORMAT_UCHAR)));
    }
}

ORVANE_IMAGEFILE_TEST_MAIN((void)0)
