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

namespace {

std::array<int, 4> pixelAt(const Buffer& buffer, int x, int y)
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
    int worst = 0;
    for (std::size_t i = 0; i < expected.size(); ++i) {
        for (int c = 0; c < 4; ++c) {
            const double got = buffer.pixels()[i * 4 + c];
            worst = std::max(worst, static_cast<int>(std::lround(std::abs(got - expected[i][c]))));
            ASSERT_LE(std::abs(got - expected[i][c]), perPixel.empty() ? tolerance : perPixel[i])
                << what << ": pixel " << i << " band " << c << " is " << got << ", expected " << expected[i][c];
        }
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
    const auto bytes = randomBytes(64 * 64 * 4, 3);
    VipsBlob* png = imageFromBytes(bytes, 64, 64, 4, VIPS_INTERPRETATION_sRGB).pngsave_buffer();
    std::size_t length = 0;
    const void* data = vips_blob_get(png, &length);
    vips::VImage truncated = vips::VImage::new_from_buffer(
        data, length / 2, "", vips::VImage::option()->set("fail_on", VIPS_FAIL_ON_ERROR));
    EXPECT_FALSE(Buffer::make(truncated));
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

    // One translucent pixel at the very end turns it into a premultiplied copy.
    const auto translucent = withPixel(opaque, 39, 29, 255, 255, 255, 100);
    const Buffer copied = made(translucent);
    EXPECT_NE(static_cast<const void*>(copied.pixels()), static_cast<const void*>(translucent.get_image()->data));
    EXPECT_GE(copied.extraBytes(), copied.byteCount());
    EXPECT_EQ(pixelAt(copied, 39, 29), (std::array<int, 4>{100, 100, 100, 100}));
    EXPECT_EQ(pixelAt(copied, 0, 0), (std::array<int, 4>{255, 255, 255, 255}));

    // Wherever in a row the translucent pixel sits.
    const auto narrow = imageFromBytes(std::vector<std::uint8_t>(13 * 3 * 4, 255), 13, 3, 4, VIPS_INTERPRETATION_sRGB);
    for (int x : {0, 3, 7, 8, 12}) {
        const Buffer b = made(withPixel(narrow, x, 1, 255, 255, 255, 51));
        EXPECT_EQ(pixelAt(b, x, 1), (std::array<int, 4>{51, 51, 51, 51})) << "column " << x;
        EXPECT_GE(b.extraBytes(), b.byteCount());
    }

    // The buffer keeps the image alive: its pixels outlive the caller's handle.
    std::optional<Buffer> survivor;
    {
        survivor = Buffer::make(imageFromBytes(std::vector<std::uint8_t>(8 * 8 * 4, 77), 8, 8, 4,
                                               VIPS_INTERPRETATION_sRGB));
    }
    ASSERT_TRUE(survivor);
    EXPECT_EQ(pixelAt(*survivor, 7, 7)[0], pixelAt(*survivor, 0, 0)[0]);
}

// Grey, grey and alpha, RGB and RGBA: premultiplied RGBA, rows from the top,
// the same whether the image is in memory or comes through libvips' pipeline.
TEST(RasterColour, EightBitImagesOfEveryBandCountBecomePremultipliedRgba)
{
    const int w = 17, h = 9;
    for (int bands = 1; bands <= 4; ++bands) {
        SCOPED_TRACE(::testing::Message() << bands << " bands");
        const auto bytes = randomBytes(w * h * bands, 10 + bands);
        std::vector<std::array<double, 4>> expected;
        for (std::size_t i = 0; i < bytes.size(); i += bands) {
            const double grey = bytes[i];
            const double alpha = bands % 2 == 0 ? bytes[i + bands - 1] : 255;
            expected.push_back(bands < 3 ? premultiplied(grey, grey, grey, alpha)
                                         : premultiplied(grey, bytes[i + 1], bytes[i + 2], alpha));
        }
        const auto image = imageFromBytes(bytes, w, h, bands, bands < 3 ? VIPS_INTERPRETATION_B_W : VIPS_INTERPRETATION_sRGB);
        expectRaster(made(image), expected, 0, "in memory");
        expectRaster(made(image.copy()), expected, 0, "through libvips");
    }
}

TEST(RasterColour, SixteenBitImagesScaleToBytes)
{
    const int w = 7, h = 3;
    std::mt19937 rng(15);
    std::vector<std::uint16_t> words(w * h * 4);
    for (auto& v : words)
        v = static_cast<std::uint16_t>(rng());
    words[3] = 32768; // half opacity
    words[0] = words[1] = words[2] = 65535;
    std::vector<std::array<double, 4>> expected;
    for (std::size_t i = 0; i < words.size(); i += 4)
        expected.push_back(premultiplied(words[i] / 257.0, words[i + 1] / 257.0, words[i + 2] / 257.0,
                                         words[i + 3] * 255.0 / 65535.0));
    const Buffer rgba = made(imageFromWords(words, w, h, 4, VIPS_INTERPRETATION_RGB16));
    expectRaster(rgba, expected, 1, "16-bit RGBA");
    EXPECT_EQ(pixelAt(rgba, 0, 0), (std::array<int, 4>{128, 128, 128, 128}));

    std::vector<std::uint16_t> rgbWords;
    std::vector<std::array<double, 4>> rgbExpected;
    for (std::size_t i = 0; i < words.size(); i += 4) {
        rgbWords.insert(rgbWords.end(), {words[i], words[i + 1], words[i + 2]});
        rgbExpected.push_back(premultiplied(words[i] / 257.0, words[i + 1] / 257.0, words[i + 2] / 257.0, 255));
    }
    expectRaster(made(imageFromWords(rgbWords, w, h, 3, VIPS_INTERPRETATION_RGB16)), rgbExpected, 1, "16-bit RGB");

    const std::vector<std::uint16_t> grey = {0, 65535, 65535, 32768, 40000, 65535, 12345, 0};
    expectRaster(made(imageFromWords(grey, 4, 1, 2, VIPS_INTERPRETATION_GREY16)),
                 {premultiplied(0, 0, 0, 255), premultiplied(255, 255, 255, 128),
                  premultiplied(40000 / 257.0, 40000 / 257.0, 40000 / 257.0, 255), {0, 0, 0, 0}},
                 1, "16-bit grey and alpha");
}

namespace {

using Matrix = std::array<std::array<double, 3>, 3>;

Matrix multiply(const Matrix& a, const Matrix& b)
{
    Matrix m{};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            for (int k = 0; k < 3; ++k)
                m[i][j] += a[i][k] * b[k][j];
    return m;
}

Matrix inverse(const Matrix& m)
{
    const double det = m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1])
        - m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) + m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
    Matrix r{};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) {
            const int i1 = (j + 1) % 3, i2 = (j + 2) % 3, j1 = (i + 1) % 3, j2 = (i + 2) % 3;
            r[i][j] = (m[i1][j1] * m[i2][j2] - m[i1][j2] * m[i2][j1]) / det;
        }
    return r;
}

// Linear RGB to XYZ for primaries and a white point given as xy chromaticities.
Matrix rgbToXyz(const std::array<std::array<double, 2>, 3>& primaries, std::array<double, 2> white)
{
    Matrix p{};
    for (int c = 0; c < 3; ++c) {
        const auto [x, y] = primaries[c];
        p[0][c] = x / y;
        p[1][c] = 1;
        p[2][c] = (1 - x - y) / y;
    }
    const std::array<double, 3> w = {white[0] / white[1], 1, (1 - white[0] - white[1]) / white[1]};
    const Matrix pi = inverse(p);
    for (int c = 0; c < 3; ++c) {
        const double s = pi[c][0] * w[0] + pi[c][1] * w[1] + pi[c][2] * w[2];
        for (int r = 0; r < 3; ++r)
            p[r][c] *= s;
    }
    return p;
}

double srgbToLinear(double v)
{
    return v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4);
}

double linearToSrgb(double v)
{
    v = std::clamp(v, 0.0, 1.0);
    return v <= 0.0031308 ? v * 12.92 : 1.055 * std::pow(v, 1 / 2.4) - 0.055;
}

} // namespace

// Display P3 shares sRGB's tone curve and white point; only the primaries
// differ, so the conversion is a 3 × 3 matrix on linear values.
TEST(RasterColour, DisplayP3ProfileIsConvertedToSrgb)
{
    const std::array<double, 2> d65 = {0.3127, 0.3290};
    const Matrix p3ToSrgb = multiply(inverse(rgbToXyz({{{0.64, 0.33}, {0.30, 0.60}, {0.15, 0.06}}}, d65)),
                                     rgbToXyz({{{0.680, 0.320}, {0.265, 0.690}, {0.150, 0.060}}}, d65));
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
    const int w = 7 * 7, h = 7;
    const auto image = withProfile(imageFromBytes(bytes, w, h, 4, VIPS_INTERPRETATION_sRGB), "p3");
    const Buffer buffer = made(image);
    expectRaster(buffer, expected, 1, "Display P3", tolerances);
    // Saturated P3 green lies outside sRGB: it must clip, not wrap.
    EXPECT_LT(pixelAt(buffer, 6 * 7, 0)[0], 10) << "P3 pure green (0, 255, 0) red channel";
}

TEST(RasterColour, CmykIsConvertedThroughItsProfile)
{
    const int w = 9, h = 6;
    auto cmykBytes = randomBytes(w * h * 5, 16);
    // Real prints stay below about 300 % ink in total.
    for (std::size_t i = 0; i < cmykBytes.size(); i += 5)
        for (int c = 0; c < 4; ++c)
            cmykBytes[i + c] = static_cast<std::uint8_t>(cmykBytes[i + c] * 190 / 255);
    // Some plain inks and paper among the random ones.
    const std::uint8_t plain[][4] = {{0, 0, 0, 0}, {0, 0, 0, 255}, {255, 0, 0, 0}, {0, 255, 0, 0}, {0, 0, 255, 0}};
    for (int i = 0; i < 5; ++i)
        std::copy(plain[i], plain[i] + 4, cmykBytes.begin() + i * 5);
    for (int i = 0; i < 5; ++i)
        cmykBytes[i * 5 + 4] = 255;
    std::vector<std::uint8_t> inks;
    for (std::size_t i = 0; i < cmykBytes.size(); i += 5)
        inks.insert(inks.end(), cmykBytes.begin() + i, cmykBytes.begin() + i + 4);

    // The independent route: into Lab with the press profile, out with sRGB's.
    const auto inkImage = imageFromBytes(inks, w, h, 4, VIPS_INTERPRETATION_CMYK);
    const vips::VImage reference =
        inkImage.icc_import(vips::VImage::option()->set("input_profile", "cmyk")->set("pcs", VIPS_PCS_LAB))
            .icc_export(vips::VImage::option()->set("output_profile", "srgb")->set("depth", 16))
            .cast(VIPS_FORMAT_DOUBLE) / 257.0;
    std::size_t size = 0;
    auto* ref = static_cast<double*>(reference.write_to_memory(&size));
    std::vector<std::array<double, 4>> opaque, translucent;
    for (int i = 0; i < w * h; ++i) {
        opaque.push_back(premultiplied(ref[i * 3], ref[i * 3 + 1], ref[i * 3 + 2], 255));
        translucent.push_back(premultiplied(ref[i * 3], ref[i * 3 + 1], ref[i * 3 + 2], cmykBytes[i * 5 + 4]));
    }
    g_free(ref);

    // The press profile is a table; a direct 16-bit transform interpolates
    // it a little differently from the route through floating-point Lab.
    expectRaster(made(inkImage), opaque, 3, "CMYK without a profile");
    expectRaster(made(withProfile(inkImage, "cmyk")), opaque, 3, "CMYK with its profile");
    expectRaster(made(imageFromBytes(cmykBytes, w, h, 5, VIPS_INTERPRETATION_CMYK)), translucent, 3, "CMYK and alpha");
    // Paper is white, full black ink is dark.
    const Buffer buffer = made(inkImage);
    for (int c = 0; c < 3; ++c) {
        EXPECT_GE(pixelAt(buffer, 0, 0)[c], 250);
        EXPECT_LE(pixelAt(buffer, 1, 0)[c], 80);
    }
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
