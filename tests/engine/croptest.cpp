// Cutting a buffer's decoded image to a rectangle.
#include <string>
#include <limits>
#include <tuple>

#include <gtest/gtest.h>

#include "engine/cropengine.h"
#include "enginetest.h"

using namespace orvane;
using namespace orvane::enginetest;
using CropEngine::Buffer;

// Rectangles are clipped to the image. One of full size, wherever it starts,
// stands for the whole image and gives back the very same one; one with
// nothing inside the image gives nothing.
TEST(Cropping, ClipsToTheImageAndKeepsTheSourcePixels)
{
    constexpr std::int64_t max = std::numeric_limits<std::int64_t>::max();
    constexpr std::int64_t min = std::numeric_limits<std::int64_t>::min();
    std::vector<std::uint8_t> numbered; // red is x, green is y
    for (int y = 0; y < 10; ++y)
        for (int x = 0; x < 10; ++x)
            numbered.insert(numbered.end(), {std::uint8_t(x), std::uint8_t(y), std::uint8_t(x * y), 255});
    const Buffer buffer = *Buffer::make(imageFromBytes(numbered, 10, 10, 4, VIPS_INTERPRETATION_sRGB));
    const struct { PixelRect rect; std::optional<PixelRect> kept; } cases[] = {
        {{0, 0, 10, 10}, PixelRect{0, 0, 10, 10}},  {{3, 4, 10, 10}, PixelRect{0, 0, 10, 10}},
        {{-2, 50, 10, 10}, PixelRect{0, 0, 10, 10}}, {{1, 1, 8, 6}, PixelRect{1, 1, 8, 6}},
        {{0, 2, 10, 3}, PixelRect{0, 2, 10, 3}},    {{-2, -3, 5, 5}, PixelRect{0, 0, 3, 2}},
        {{8, 7, 11, 11}, PixelRect{8, 7, 2, 3}},    {{-5, 2, max, max}, PixelRect{0, 2, 10, 8}},
        {{10, 0, 5, 5}, std::nullopt},  {{0, -5, 5, 5}, std::nullopt}, {{2, 2, 0, 5}, std::nullopt},
        {{2, 2, 5, -1}, std::nullopt},  {{max, 0, max, 3}, std::nullopt}, {{min, 0, max, 3}, std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.rect.x << ", " << c.rect.y << ", " << c.rect.width << " x " << c.rect.height);
        const std::optional<vips::VImage> cropped = CropEngine::crop(buffer, c.rect);
        ASSERT_EQ(cropped.has_value(), c.kept.has_value());
        if (!cropped)
            continue;
        // A full-size rectangle gives back the very same image.
        EXPECT_TRUE(c.kept->width != 10 || c.kept->height != 10 || cropped->get_image() == buffer.image().get_image());
        ASSERT_EQ(cropped->width(), c.kept->width);
        ASSERT_EQ(cropped->height(), c.kept->height);
        for (int y = 0; y < cropped->height(); ++y)
            for (int x = 0; x < cropped->width(); ++x) {
                const auto p = cropped->getpoint(x, y);
                ASSERT_EQ(p[0], c.kept->x + x);
                ASSERT_EQ(p[1], c.kept->y + y);
            }
    }
    EXPECT_STREQ(vips_error_buffer(), "");
}

TEST(Cropping, KeepsBitDepthBandsAndProfile)
{
    std::vector<std::uint16_t> words;
    for (int i = 0; i < 6 * 5; ++i)
        words.insert(words.end(), {std::uint16_t(1000 * i), 65535, std::uint16_t(257 * i), std::uint16_t(30000 + i)});
    const auto image = withProfile(imageFromWords(words, 6, 5, 4, VIPS_INTERPRETATION_RGB16), "p3");
    const Buffer buffer = *Buffer::make(image);
    const auto cropped = CropEngine::crop(buffer, PixelRect{2, 1, 3, 2});
    ASSERT_TRUE(cropped);
    EXPECT_EQ(std::tuple(cropped->format(), cropped->bands(), cropped->interpretation()),
              std::tuple(VIPS_FORMAT_USHORT, 4, VIPS_INTERPRETATION_RGB16));
    EXPECT_EQ(cropped->getpoint(0, 0)[0], 1000 * (1 * 6 + 2));
    EXPECT_EQ(cropped->getpoint(0, 0)[3], 30000 + 8);

    std::size_t sourceLength = 0, croppedLength = 0;
    ASSERT_NE(cropped->get_typeof(VIPS_META_ICC_NAME), 0u);
    const auto* sourceProfile = static_cast<const char*>(image.get_blob(VIPS_META_ICC_NAME, &sourceLength));
    const auto* croppedProfile = static_cast<const char*>(cropped->get_blob(VIPS_META_ICC_NAME, &croppedLength));
    EXPECT_EQ(std::string(croppedProfile, croppedLength), std::string(sourceProfile, sourceLength));

    // CMYK stays CMYK.
    const auto cmyk = imageFromBytes(std::vector<std::uint8_t>(7 * 7 * 4, 60), 7, 7, 4, VIPS_INTERPRETATION_CMYK);
    const auto cmykCrop = CropEngine::crop(*Buffer::make(cmyk), PixelRect{1, 1, 2, 2});
    ASSERT_TRUE(cmykCrop);
    EXPECT_EQ(std::pair(cmykCrop->bands(), cmykCrop->interpretation()), std::pair(4, VIPS_INTERPRETATION_CMYK));
}
