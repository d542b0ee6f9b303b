// Cutting a buffer's decoded image to a rectangle.
#include <cstring>
#include <limits>

#include <gtest/gtest.h>

#include "engine/cropengine.h"
#include "enginetest.h"

using namespace orvane;
using namespace orvane::enginetest;
using CropEngine::Buffer;

namespace {

std::vector<std::uint8_t> numberedPixels(int width, int height)
{
    std::vector<std::uint8_t> bytes;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            bytes.insert(bytes.end(), {std::uint8_t(x), std::uint8_t(y), std::uint8_t(x * y), 255});
    return bytes;
}

Buffer numberedBuffer(int width, int height)
{
    return *Buffer::make(imageFromBytes(numberedPixels(width, height), width, height, 4, VIPS_INTERPRETATION_sRGB));
}

std::optional<vips::VImage> cropTo(const Buffer& buffer, std::int64_t x, std::int64_t y, std::int64_t w,
                                   std::int64_t h)
{
    return CropEngine::crop(buffer, PixelRect{x, y, w, h});
}

} // namespace

TEST(Cropping, FullSizeReturnsTheVerySameImage)
{
    const Buffer buffer = numberedBuffer(10, 10);
    for (const auto& origin : {std::pair{0, 0}, std::pair{3, 4}, std::pair{-2, 50}}) {
        const auto cropped = cropTo(buffer, origin.first, origin.second, 10, 10);
        ASSERT_TRUE(cropped);
        EXPECT_EQ(cropped->get_image(), buffer.image().get_image());
    }
}

TEST(Cropping, SubImageHoldsTheSourcePixels)
{
    const Buffer buffer = numberedBuffer(10, 10);
    const auto cropped = cropTo(buffer, 1, 1, 8, 6);
    ASSERT_TRUE(cropped);
    EXPECT_EQ(cropped->width(), 8);
    EXPECT_EQ(cropped->height(), 6);
    for (int y = 0; y < 6; ++y)
        for (int x = 0; x < 8; ++x) {
            const auto p = cropped->getpoint(x, y);
            ASSERT_EQ(p[0], x + 1);
            ASSERT_EQ(p[1], y + 1);
            ASSERT_EQ(p[2], (x + 1) * (y + 1));
        }
    // Full width only is still a crop.
    const auto rows = cropTo(buffer, 0, 2, 10, 3);
    ASSERT_TRUE(rows);
    EXPECT_EQ(rows->height(), 3);
    EXPECT_EQ(rows->getpoint(0, 0)[1], 2);
}

TEST(Cropping, RectanglesReachingOutsideAreClipped)
{
    const Buffer buffer = numberedBuffer(10, 10);
    const auto corner = cropTo(buffer, -2, -3, 5, 5);
    ASSERT_TRUE(corner);
    EXPECT_EQ(corner->width(), 3);
    EXPECT_EQ(corner->height(), 2);
    EXPECT_EQ(corner->getpoint(0, 0)[0], 0);

    const auto farCorner = cropTo(buffer, 8, 7, 11, 11);
    ASSERT_TRUE(farCorner);
    EXPECT_EQ(farCorner->width(), 2);
    EXPECT_EQ(farCorner->height(), 3);
    EXPECT_EQ(farCorner->getpoint(0, 0)[0], 8);
    EXPECT_EQ(farCorner->getpoint(0, 0)[1], 7);

    const auto huge = cropTo(buffer, -5, 2, std::numeric_limits<std::int64_t>::max(),
                             std::numeric_limits<std::int64_t>::max());
    ASSERT_TRUE(huge);
    EXPECT_EQ(huge->width(), 10);
    EXPECT_EQ(huge->height(), 8);
    // A rectangle of full size anywhere stands for the whole image.
    const auto whole = cropTo(buffer, 8, 7, 10, 10);
    ASSERT_TRUE(whole);
    EXPECT_EQ(whole->get_image(), buffer.image().get_image());
}

TEST(Cropping, EmptyRectanglesAreAbsent)
{
    const Buffer buffer = numberedBuffer(10, 10);
    EXPECT_FALSE(cropTo(buffer, 10, 0, 5, 5));
    EXPECT_FALSE(cropTo(buffer, 0, -5, 5, 5));
    EXPECT_FALSE(cropTo(buffer, 2, 2, 0, 5));
    EXPECT_FALSE(cropTo(buffer, 2, 2, 5, -1));
    EXPECT_FALSE(cropTo(buffer, std::numeric_limits<std::int64_t>::max(), 0, std::numeric_limits<std::int64_t>::max(), 3));
    EXPECT_FALSE(cropTo(buffer, std::numeric_limits<std::int64_t>::min(), 0, std::numeric_limits<std::int64_t>::max(), 3));
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
    EXPECT_EQ(cropped->format(), VIPS_FORMAT_USHORT);
    EXPECT_EQ(cropped->bands(), 4);
    EXPECT_EQ(cropped->interpretation(), VIPS_INTERPRETATION_RGB16);
    EXPECT_EQ(cropped->getpoint(0, 0)[0], 1000 * (1 * 6 + 2));
    EXPECT_EQ(cropped->getpoint(0, 0)[3], 30000 + 8);

    std::size_t sourceLength = 0, croppedLength = 0;
    const void* sourceProfile = image.get_blob(VIPS_META_ICC_NAME, &sourceLength);
    ASSERT_NE(cropped->get_typeof(VIPS_META_ICC_NAME), 0u);
    const void* croppedProfile = cropped->get_blob(VIPS_META_ICC_NAME, &croppedLength);
    ASSERT_EQ(croppedLength, sourceLength);
    EXPECT_EQ(std::memcmp(sourceProfile, croppedProfile, sourceLength), 0);

    // CMYK stays CMYK.
    const auto cmyk = imageFromBytes(std::vector<std::uint8_t>(7 * 7 * 4, 60), 7, 7, 4, VIPS_INTERPRETATION_CMYK);
    const auto cmykCrop = CropEngine::crop(*Buffer::make(cmyk), PixelRect{1, 1, 2, 2});
    ASSERT_TRUE(cmykCrop);
    EXPECT_EQ(cmykCrop->bands(), 4);
    EXPECT_EQ(cmykCrop->interpretation(), VIPS_INTERPRETATION_CMYK);
}
