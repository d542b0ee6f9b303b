// Which pixels count as content at a tolerance, and the rectangle around them:
// the cut-off table, the geometry of the rectangle, and the index agreeing
// with the plain scan on many random images and tolerances.
#include <cmath>
#include <limits>
#include <random>
#include <set>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "engine/cropengine.h"
#include "engine/toleranceindex.h"
#include "enginetest.h"

using namespace orvane;
using namespace orvane::enginetest;

namespace {

// Tolerances just below, at and just above every place where a cut-off steps.
std::vector<double> toleranceBoundaries()
{
    std::vector<double> all;
    for (const int steps : {254, 115})
        for (int k = 1; k <= steps; ++k) {
            double below = 100.0 * k / steps, above = below;
            all.push_back(below);
            for (int i = 0; i < 3; ++i)
                all.insert(all.end(), {below = std::nextafter(below, 0.0), above = std::nextafter(above, 200.0)});
        }
    return all;
}

std::optional<PixelRect> bothWays(const vips::VImage& image, double threshold)
{
    const auto buffer = CropEngine::Buffer::make(image);
    EXPECT_TRUE(buffer.has_value());
    if (!buffer)
        return std::nullopt;
    const auto byIndex = CropEngine::contentRect(*buffer, threshold);
    EXPECT_EQ(byIndex, CropEngine::contentRectByScan(*buffer, threshold)) << "tolerance " << threshold;
    return byIndex;
}

} // namespace

TEST(CutOffs, MatchTheTableForTellingTolerances)
{
    constexpr double nan = std::numeric_limits<double>::quiet_NaN(), inf = std::numeric_limits<double>::infinity();
    const struct { double tolerance; int alpha, whiteness; } table[] = {
        {0.1, 0, 254},  {0.4, 1, 254},   {1, 2, 253},    {10, 25, 243},  {25, 63, 226},   {50, 127, 197}, {75, 190, 168},
        {99, 251, 141}, {100, 254, 140}, {150, 254, 140}, {nan, 254, 140}, {inf, 254, 140}, {0, -1, 256},  {-inf, -1, 256},
    };
    for (const auto& row : table) {
        const CropEngine::CutOffs c = CropEngine::cutOffs(row.tolerance);
        EXPECT_EQ(std::pair(c.alpha, c.whiteness), std::pair(row.alpha, row.whiteness)) << "tolerance " << row.tolerance;
    }
}

// The cut-offs move one way as the tolerance grows. The index compares one
// 16-bit key per pixel with one threshold per pair of cut-offs; check that
// comparison against the rule itself for every alpha, every smallest colour
// byte and every pair a tolerance can produce.
TEST(CutOffs, MoveOneWayAndPixelKeysDecideContentExactlyForEveryPair)
{
    std::vector<double> tolerances = toleranceBoundaries();
    for (int i = 1; i <= 100000; ++i)
        tolerances.push_back(i * 0.001);
    std::sort(tolerances.begin(), tolerances.end());
    std::set<std::pair<int, int>> pairs;
    CropEngine::CutOffs previous = CropEngine::cutOffs(std::numeric_limits<double>::min());
    for (double t : tolerances) {
        const CropEngine::CutOffs c = CropEngine::cutOffs(t);
        ASSERT_TRUE(c.alpha >= previous.alpha && c.alpha <= 254 && c.whiteness <= previous.whiteness && c.whiteness >= 140) << t;
        pairs.insert({c.alpha, c.whiteness});
        previous = c;
    }
    EXPECT_GT(pairs.size(), 360u);
    for (const auto& [alpha, whiteness] : pairs) {
        const auto threshold = ToleranceIndex::threshold(alpha, whiteness);
        ASSERT_TRUE(threshold.has_value()) << alpha << " " << whiteness;
        for (int a = 0; a < 256; ++a)
            for (int m = 0; m < 256; ++m)
                ASSERT_EQ(ToleranceIndex::pixelKey(a, m) >= *threshold, a > alpha && m < whiteness)
                    << "alpha " << a << " min " << m << " cut-offs " << alpha << "/" << whiteness;
    }
}

// At zero or below every pixel counts, the transparent and the white ones
// too; above it an image of only those has nothing to keep.
TEST(RectangleGeometry, AllOrNothingOfAnEmptyImage)
{
    constexpr double inf = std::numeric_limits<double>::infinity();
    for (double t : {0.0, -0.0, -5.0, -inf, 0.1, 1.0, 25.0, 100.0, 150.0, std::numeric_limits<double>::quiet_NaN()}) {
        const auto whole = t > 0 || std::isnan(t) ? std::nullopt : std::optional(PixelRect{0, 0, 6, 4});
        EXPECT_EQ(bothWays(solidRgba(6, 4, 0, 0, 0, 0), t), whole) << "transparent at " << t;
        EXPECT_EQ(bothWays(solidRgba(6, 4, 255, 255, 255, 255), t), whole) << "white at " << t;
    }
}

// Single pixels on either side of the cut-offs, by the index and by the scan.
TEST(RectangleGeometry, PixelsAtTheCutOffs)
{
    const struct { int r, g, b, a; double tolerance; bool content; } cases[] = {
        // Tolerance 100 and above: only opaque pixels, background from 140 up.
        {139, 255, 255, 255, 100, true}, {140, 140, 140, 255, 100, false}, {0, 0, 0, 254, 100, false},
        {139, 255, 255, 255, 150, true}, {140, 140, 140, 255, 150, false}, {0, 0, 0, 254, 150, false},
        // Tolerance 25: alpha above 63, smallest colour byte below 226.
        {0, 0, 0, 255, 25, true}, {255, 255, 255, 255, 25, false}, {0, 0, 0, 0, 25, false},
        {225, 255, 255, 255, 25, true}, {226, 226, 226, 255, 25, false}, {200, 200, 200, 255, 50, false},
        {0, 0, 0, 63, 25, false}, {0, 0, 0, 64, 25, true}, // premultiplied black stays 0, 0, 0
        // Tolerance 0.1: any alpha counts, only 254 and up in all three is white.
        {0, 0, 0, 1, 0.1, true}, {254, 254, 254, 255, 0.1, false}, {254, 253, 254, 255, 0.1, true},
        // A white pixel at half opacity reads about 128 and so counts as content.
        {255, 255, 255, 128, 25, true},
    };
    for (const auto& c : cases)
        EXPECT_EQ(bothWays(solidRgba(1, 1, c.r, c.g, c.b, c.a), c.tolerance).has_value(), c.content)
            << c.r << ", " << c.g << ", " << c.b << ", " << c.a << " at " << c.tolerance;
}

TEST(RectangleGeometry, HoldsTheOutermostContentPixels)
{
    const auto image = withPixel(withPixel(solidRgba(10, 10, 0, 0, 0, 0), 1, 1, 20, 30, 40, 255), 8, 6, 0, 0, 0, 200);
    EXPECT_EQ(bothWays(image, 25), (PixelRect{1, 1, 8, 6}));
    EXPECT_EQ(bothWays(withPixel(solidRgba(10, 10, 0, 0, 0, 0), 3, 5, 0, 0, 0, 255), 25), (PixelRect{3, 5, 1, 1}));
    // Content on each edge of a white image.
    auto edges = solidRgba(9, 7, 255, 255, 255, 255);
    for (const auto& [x, y] : {std::pair{4, 0}, {0, 3}, {8, 2}, {5, 6}})
        edges = withPixel(edges, x, y, 0, 0, 0, 255);
    EXPECT_EQ(bothWays(edges, 25), (PixelRect{0, 0, 9, 7}));
    // A pale pixel counts only at low tolerances; the rectangle shrinks past it.
    auto pale = withPixel(withPixel(solidRgba(12, 3, 0, 0, 0, 0), 2, 1, 0, 0, 0, 255), 10, 1, 230, 230, 230, 255);
    EXPECT_EQ(bothWays(pale, 10), (PixelRect{2, 1, 9, 1}));
    EXPECT_EQ(bothWays(pale, 25), (PixelRect{2, 1, 1, 1}));
}

namespace {

// Random pixels that sit near the cut-offs often enough to matter: mostly
// background (transparent, or opaque white), some near-white, some faint, a
// few of any colour and opacity; grey takes the smallest colour byte.
std::vector<std::uint8_t> randomPixels(std::mt19937& rng, int width, int height, int bands)
{
    std::uniform_int_distribution<int> kind(0, 9), any(0, 255), light(130, 255);
    const int density = std::uniform_int_distribution<int>(1, 9)(rng);
    std::vector<std::uint8_t> bytes;
    for (int i = 0; i < width * height; ++i) {
        const int k = kind(rng);
        int r = light(rng), g = k % 2 ? r : light(rng), b = k % 3 ? r : light(rng), a = k % 4 == 0 ? any(rng) : 255;
        if (k == 1)
            r = any(rng), a = any(rng);
        if (k >= density || (bands == 3 && a == 0))
            r = g = b = 255, a = k == 9 ? 255 : bands == 3 ? a : 0;
        const int grey = std::min({r, g, b});
        const std::vector<int> pixel = bands == 1 ? std::vector{grey} : bands == 2 ? std::vector{grey, a}
                                     : bands == 3 ? std::vector{r, g, b} : std::vector{r, g, b, a};
        bytes.insert(bytes.end(), pixel.begin(), pixel.end());
    }
    return bytes;
}

} // namespace

TEST(IndexMatchesScan, OnRandomImagesAndTolerances)
{
    std::mt19937 rng(20261123);
    const std::vector<double> boundaries = toleranceBoundaries();
    std::uniform_real_distribution<double> fractional(0.0, 110.0);
    std::uniform_int_distribution<int> side(1, 24);
    int absent = 0, whole = 0;
    for (int n = 0; n < 160; ++n) {
        const int width = side(rng), height = side(rng), bands = 1 + n % 4;
        auto bytes = randomPixels(rng, width, height, bands);
        // Some RGBA images start with opaque rows: the raster starts out as
        // the image's own memory and has to become a premultiplied copy midway.
        if (n % 8 == 7)
            for (std::size_t at = 3; at < bytes.size() / 2; at += 4)
                bytes[at] = 255;
        vips::VImage image = imageFromBytes(bytes, width, height, bands, bands < 3 ? VIPS_INTERPRETATION_B_W : VIPS_INTERPRETATION_sRGB);
        // Every other image goes through libvips' pipeline instead of the in-memory pass.
        if (n % 2 && n % 8 != 7)
            image = image.copy();
        const auto buffer = CropEngine::Buffer::make(image);
        ASSERT_TRUE(buffer.has_value());
        std::vector<double> tolerances = {0, -1, 100, 150, std::numeric_limits<double>::quiet_NaN(), 1e-300};
        for (int i = 0; i < 40; ++i)
            tolerances.push_back(fractional(rng));
        if (n % 8 == 0 || n % 8 == 7)
            tolerances.insert(tolerances.end(), boundaries.begin(), boundaries.end());
        for (double t : tolerances) {
            const auto byIndex = CropEngine::contentRect(*buffer, t);
            ASSERT_EQ(byIndex, CropEngine::contentRectByScan(*buffer, t))
                << "image " << n << " (" << width << " x " << height << ", " << bands << " bands) at tolerance " << t;
            absent += !byIndex;
            whole += byIndex == PixelRect{0, 0, width, height};
        }
    }
    // The images must exercise both ends, not only one kind of answer.
    EXPECT_GT(absent, 100);
    EXPECT_GT(whole, 100);
}

TEST(IndexMatchesScan, OnLargeImagesBuiltInRowBands)
{
    // Large enough to be folded on several threads. Transparency starts in
    // the lower half only, so the upper band shares, then copies, its rows.
    const int width = 2100, height = 2100;
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(width) * height * 4, 255);
    std::mt19937 rng(99);
    const auto paint = [&](int x, int y, std::uint8_t grey, std::uint8_t alpha) {
        std::uint8_t* p = bytes.data() + (static_cast<std::size_t>(y) * width + x) * 4;
        p[0] = p[1] = p[2] = grey;
        p[3] = alpha;
    };
    for (int i = 0; i < 200; ++i)
        paint(300 + int(rng() % 1500), 1200 + int(rng() % 800), std::uint8_t(rng()), std::uint8_t(rng()));
    paint(17, 40, 100, 255);
    paint(2000, 900, 180, 255);
    const auto buffer = CropEngine::Buffer::make(imageFromBytes(bytes, width, height, 4, VIPS_INTERPRETATION_sRGB));
    ASSERT_TRUE(buffer);
    for (double t : {0.1, 1.0, 10.0, 25.0, 37.3, 50.0, 75.0, 99.0, 100.0})
        ASSERT_EQ(CropEngine::contentRect(*buffer, t), CropEngine::contentRectByScan(*buffer, t)) << t;
    // The copy holds every row, including the opaque ones passed over before it began.
    for (int y : {0, 40, 1000, 1199, 1500, 2099})
        for (int x : {0, 17, 300, 2000, 2099}) {
            const std::size_t at = (static_cast<std::size_t>(y) * width + x) * 4;
            ASSERT_EQ(buffer->pixels()[at + 3], bytes[at + 3]);
            ASSERT_NEAR(buffer->pixels()[at], bytes[at] * bytes[at + 3] / 255.0, 0.5) << x << ", " << y;
        }
    EXPECT_GE(buffer->extraBytes(), buffer->byteCount());

    // The same picture fully opaque shares the image's memory.
    const auto opaque = imageFromBytes(std::vector<std::uint8_t>(bytes.size(), 255), width, height, 4,
                                       VIPS_INTERPRETATION_sRGB);
    const auto shared = CropEngine::Buffer::make(withPixel(opaque, 5, 2000, 0, 0, 0, 255));
    ASSERT_TRUE(shared);
    EXPECT_LT(shared->extraBytes(), shared->byteCount());
    EXPECT_EQ(CropEngine::contentRect(*shared, 25), (PixelRect{5, 2000, 1, 1}));
}
