// The raster a buffer holds: its layout, its memory, and its colour against
// conversions made independently of the engine (by hand, or by libvips along
// another route).
#include <array>
#include <cmath>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "engine/cropengine.h"
#include "enginetest.h"

using namespace orvane;
using namespace orvane::enginetest;
using CropEngine::Buffer;
using Rgba = std::array<int, 4>;

namespace {

Rgba pixelAt(const Buffer& buffer, int x, int y)
{
    const std::uint8_t* p = buffer.pixels() + (static_cast<std::size_t>(y) * buffer.width() + x) * 4;
    return {p[0], p[1], p[2], p[3]};
}

Buffer made(const vips::VImage& image)
{
    auto buffer = Buffer::make(image);
    if (!buffer)
        throw std::runtime_error("no buffer");
    return *buffer;
}

// Checks every pixel of the raster against expected premultiplied RGBA values.
void expectRaster(const Buffer& buffer, const std::vector<std::array<double, 4>>& expected, double tolerance,
                  const char* what, const std::vector<double>& perPixel = {})
{
    ASSERT_EQ(static_cast<std::size_t>(buffer.width() * buffer.height()), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i)
        for (int c = 0; c < 4; ++c) {
            const double got = buffer.pixels()[i * 4 + c];
            ASSERT_LE(std::abs(got - expected[i][c]), perPixel.empty() ? tolerance : perPixel[i])
                << what << ": pixel " << i << " band " << c << " is " << got << ", expected " << expected[i][c];
        }
}

double round8(double v) { return std::floor(std::clamp(v, 0.0, 255.0) + 0.5); }

// Premultiplies non-premultiplied sRGB values on the 0…255 scale the way a
// bitmap context would: alpha to whole bytes first, colour times alpha / 255.
std::array<double, 4> premultiplied(double r, double g, double b, double alpha)
{
    const double a = round8(alpha);
    return {round8(r * a / 255), round8(g * a / 255), round8(b * a / 255), a};
}

std::vector<std::uint8_t> randomBytes(std::size_t n, unsigned seed)
{
    std::mt19937 rng(seed);
    std::vector<std::uint8_t> bytes(n);
    for (auto& b : bytes)
        b = static_cast<std::uint8_t>(rng());
    return bytes;
}

double srgbToLinear(double v) { return v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4); }

double linearToSrgb(double v)
{
    v = std::clamp(v, 0.0, 1.0);
    return v <= 0.0031308 ? v * 12.92 : 1.055 * std::pow(v, 1 / 2.4) - 0.055;
}

} // namespace

TEST(RasterLayout, ImagesWithoutPixelsOrRasterAreAbsent)
{
    EXPECT_FALSE(Buffer::make(vips::VImage()));
    for (const auto& [w, h] : {std::pair{0, 5}, std::pair{5, 0}, std::pair{0, 0}}) {
        VipsImage* blank = vips_image_new();
        blank->Xsize = w;
        blank->Ysize = h;
        EXPECT_FALSE(Buffer::make(vips::VImage(blank))) << w << " x " << h;
    }
    // A PNG cut short decodes its header but not its pixels.
    VipsBlob* png = imageFromBytes(randomBytes(64 * 64 * 4, 3), 64, 64, 4, VIPS_INTERPRETATION_sRGB).pngsave_buffer();
    std::size_t length = 0;
    const void* data = vips_blob_get(png, &length);
    EXPECT_FALSE(Buffer::make(
        vips::VImage::new_from_buffer(data, length / 2, "", vips::VImage::option()->set("fail_on", VIPS_FAIL_ON_ERROR))));
    EXPECT_STREQ(vips_error_buffer(), "");
    vips_area_unref(VIPS_AREA(png));
}

TEST(RasterLayout, OpaqueImagesInMemoryShareTheirPixels)
{
    const auto opaque = imageFromBytes(std::vector<std::uint8_t>(40 * 30 * 4, 255), 40, 30, 4, VIPS_INTERPRETATION_sRGB);
    const Buffer shared = made(opaque);
    EXPECT_EQ(static_cast<const void*>(shared.pixels()), static_cast<const void*>(opaque.get_image()->data));
    EXPECT_LT(shared.extraBytes(), shared.byteCount());
    EXPECT_GT(shared.extraBytes(), 0u); // the index

    // One translucent pixel, wherever in a row and down to the very last,
    // turns it into a premultiplied copy.
    for (const auto& [x, y] : {std::pair{39, 29}, {0, 1}, {3, 1}, {7, 1}, {8, 1}, {12, 1}}) {
        const auto translucent = withPixel(opaque, x, y, 255, 255, 255, 51);
        const Buffer copied = made(translucent);
        EXPECT_NE(static_cast<const void*>(copied.pixels()), static_cast<const void*>(translucent.get_image()->data));
        EXPECT_GE(copied.extraBytes(), copied.byteCount());
        EXPECT_EQ(pixelAt(copied, x, y), (Rgba{51, 51, 51, 51})) << x << ", " << y;
        EXPECT_EQ(pixelAt(copied, 0, y ? 0 : 1), (Rgba{255, 255, 255, 255}));
    }

    // The buffer keeps the image alive: the pixels it shares outlive the caller's handle.
    const auto survivor = Buffer::make(solidRgba(8, 8, 77, 77, 77, 255));
    ASSERT_TRUE(survivor);
    EXPECT_EQ(pixelAt(*survivor, 7, 7), (Rgba{77, 77, 77, 255}));
}

// Grey, grey and alpha, RGB and RGBA, 8 and 16 bits: premultiplied RGBA, rows
// from the top, the same whether the image is in memory or comes through
// libvips' pipeline.
TEST(RasterColour, EveryBandCountAndDepthBecomesPremultipliedRgba)
{
    const int w = 17, h = 9;
    for (const bool wide : {false, true})
        for (int bands = 1; bands <= 4; ++bands) {
            SCOPED_TRACE(::testing::Message() << bands << " bands, " << (wide ? 16 : 8) << " bits");
            const std::size_t n = w * h * bands;
            const auto bytes = randomBytes(n, 10 + bands), low = randomBytes(n, 20 + bands);
            std::vector<std::uint16_t> words(n);
            for (std::size_t i = 0; i < n; ++i)
                words[i] = std::uint16_t(bytes[i] << 8 | low[i]);
            if (wide && bands == 4)
                words[0] = words[1] = words[2] = 65535, words[3] = 32768; // white at half opacity
            const auto sample = [&](std::size_t i) { return wide ? words[i] / 257.0 : double(bytes[i]); };
            std::vector<std::array<double, 4>> expected;
            for (std::size_t i = 0; i < words.size(); i += bands) {
                const double alpha = bands % 2 == 0 ? sample(i + bands - 1) : 255;
                expected.push_back(bands < 3 ? premultiplied(sample(i), sample(i), sample(i), alpha)
                                             : premultiplied(sample(i), sample(i + 1), sample(i + 2), alpha));
            }
            const auto image = wide ? imageFromWords(words, w, h, bands, bands < 3 ? VIPS_INTERPRETATION_GREY16 : VIPS_INTERPRETATION_RGB16)
                                    : imageFromBytes(bytes, w, h, bands, bands < 3 ? VIPS_INTERPRETATION_B_W : VIPS_INTERPRETATION_sRGB);
            expectRaster(made(image), expected, wide ? 1 : 0, "in memory");
            expectRaster(made(image.copy()), expected, wide ? 1 : 0, "through libvips");
            if (wide && bands == 4) {
                EXPECT_EQ(pixelAt(made(image), 0, 0), (Rgba{128, 128, 128, 128}));
            }
        }
}

// Display P3 shares sRGB's tone curve and white point; only the primaries
// differ, so the conversion is a 3 × 3 matrix on linear values (the one
// derived from both sets of primaries and D65).
TEST(RasterColour, DisplayP3ProfileIsConvertedToSrgb)
{
    const double p3ToSrgb[3][3] = {{1.2249402, -0.2249402, 0}, {-0.0420570, 1.0420570, 0}, {-0.0196376, -0.0786360, 1.0982736}};
    const int levels[] = {0, 40, 90, 128, 170, 215, 255};
    std::vector<std::uint8_t> bytes;
    std::vector<std::array<double, 4>> expected;
    std::vector<double> tolerances;
    int alpha = 0;
    for (int r : levels)
        for (int g : levels)
            for (int b : levels) {
                alpha = (alpha + 37) % 256;
                const int a = (r + g) % 3 == 0 ? 255 : alpha;
                bytes.insert(bytes.end(), {std::uint8_t(r), std::uint8_t(g), std::uint8_t(b), std::uint8_t(a)});
                const double lin[3] = {srgbToLinear(r / 255.0), srgbToLinear(g / 255.0), srgbToLinear(b / 255.0)};
                double out[3];
                bool inGamut = true;
                for (int c = 0; c < 3; ++c) {
                    const double v = p3ToSrgb[c][0] * lin[0] + p3ToSrgb[c][1] * lin[1] + p3ToSrgb[c][2] * lin[2];
                    inGamut = inGamut && v > -1e-4 && v < 1 + 1e-4;
                    out[c] = 255 * linearToSrgb(v);
                }
                expected.push_back(premultiplied(out[0], out[1], out[2], a));
                // Colours outside sRGB are clipped, and where the colour
                // engine clips them is its own choice: hold those more loosely.
                tolerances.push_back(inGamut ? 2 : 6);
            }
    const Buffer buffer = made(withProfile(imageFromBytes(bytes, 7 * 7, 7, 4, VIPS_INTERPRETATION_sRGB), "p3"));
    expectRaster(buffer, expected, 1, "Display P3", tolerances);
    // Saturated P3 green lies outside sRGB: it must clip, not wrap.
    EXPECT_LT(pixelAt(buffer, 6 * 7, 0)[0], 10) << "P3 pure green (0, 255, 0) red channel";
}

TEST(RasterColour, CmykIsConvertedThroughItsProfile)
{
    const int w = 9, h = 6;
    // Paper, full black and the plain inks first, then random inks below
    // about 300 % in total, as real prints stay; an alpha band after them.
    auto cmyka = randomBytes(w * h * 5, 16);
    const std::uint8_t plain[][5] = {{0, 0, 0, 0, 255}, {0, 0, 0, 255, 255}, {255, 0, 0, 0, 255}, {0, 255, 0, 0, 255}, {0, 0, 255, 0, 255}};
    for (std::size_t i = 0; i < cmyka.size(); ++i)
        cmyka[i] = i < 25 ? plain[i / 5][i % 5] : i % 5 == 4 ? cmyka[i] : std::uint8_t(cmyka[i] * 190 / 255);
    std::vector<std::uint8_t> inks;
    for (std::size_t i = 0; i < cmyka.size(); ++i)
        if (i % 5 != 4)
            inks.push_back(cmyka[i]);

    // The independent route: into Lab with the press profile, out with sRGB's.
    const auto inkImage = imageFromBytes(inks, w, h, 4, VIPS_INTERPRETATION_CMYK);
    const vips::VImage reference = inkImage.icc_import(vips::VImage::option()->set("input_profile", "cmyk")->set("pcs", VIPS_PCS_LAB))
                                       .icc_export(vips::VImage::option()->set("output_profile", "srgb")->set("depth", 16)).copy_memory();
    std::vector<std::array<double, 4>> opaque, translucent;
    for (int i = 0; i < w * h; ++i) {
        const auto p = reference.getpoint(i % w, i / w);
        opaque.push_back(premultiplied(p[0] / 257, p[1] / 257, p[2] / 257, 255));
        translucent.push_back(premultiplied(p[0] / 257, p[1] / 257, p[2] / 257, cmyka[i * 5 + 4]));
    }
    // The press profile is a table; a direct 16-bit transform interpolates
    // it a little differently from the route through floating-point Lab.
    expectRaster(made(inkImage), opaque, 3, "CMYK without a profile");
    expectRaster(made(withProfile(inkImage, "cmyk")), opaque, 3, "CMYK with its profile");
    expectRaster(made(imageFromBytes(cmyka, w, h, 5, VIPS_INTERPRETATION_CMYK)), translucent, 3, "CMYK and alpha");
    // Paper is white, full black ink is dark.
    const Buffer buffer = made(inkImage);
    for (int c = 0; c < 3; ++c)
        EXPECT_TRUE(pixelAt(buffer, 0, 0)[c] >= 250 && pixelAt(buffer, 1, 0)[c] <= 80) << c;
}

TEST(RasterColour, ProfileThatDoesNotFitTheImageIsIgnored)
{
    const auto grey = randomBytes(4 * 4, 17);
    std::vector<std::array<double, 4>> expected;
    for (auto v : grey)
        expected.push_back({double(v), double(v), double(v), 255});
    const auto tagged = withProfile(imageFromBytes(grey, 4, 4, 1, VIPS_INTERPRETATION_B_W), "p3");
    expectRaster(made(tagged), expected, 0, "grey with an RGB profile");
    EXPECT_STREQ(vips_error_buffer(), "");
}
