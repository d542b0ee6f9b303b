#include "enginetest.h"

#include <algorithm>

#include <gtest/gtest.h>

namespace orvane::enginetest {

namespace {

vips::VImage fromMemory(const void* data, std::size_t size, int width, int height, int bands, VipsBandFormat format,
                        VipsInterpretation interpretation)
{
    // new_from_memory() does not copy; copy_memory() gives the image its own pixels.
    return vips::VImage::new_from_memory(const_cast<void*>(data), size, width, height, bands, format)
        .copy(vips::VImage::option()->set("interpretation", interpretation))
        .copy_memory();
}

} // namespace

vips::VImage imageFromBytes(const std::vector<std::uint8_t>& bytes, int width, int height, int bands,
                            VipsInterpretation interpretation)
{
    return fromMemory(bytes.data(), bytes.size(), width, height, bands, VIPS_FORMAT_UCHAR, interpretation);
}

vips::VImage imageFromWords(const std::vector<std::uint16_t>& words, int width, int height, int bands,
                            VipsInterpretation interpretation)
{
    return fromMemory(words.data(), words.size() * 2, width, height, bands, VIPS_FORMAT_USHORT, interpretation);
}

vips::VImage solidRgba(int width, int height, std::uint8_t r, std::uint8_t g, std::uint8_t b, std::uint8_t a)
{
    std::vector<std::uint8_t> bytes;
    for (int i = 0; i < width * height; ++i)
        bytes.insert(bytes.end(), {r, g, b, a});
    return imageFromBytes(bytes, width, height, 4, VIPS_INTERPRETATION_sRGB);
}

vips::VImage withPixel(const vips::VImage& rgba, int x, int y, std::uint8_t r, std::uint8_t g, std::uint8_t b,
                       std::uint8_t a)
{
    std::size_t size = 0;
    auto* memory = static_cast<std::uint8_t*>(rgba.write_to_memory(&size));
    std::vector<std::uint8_t> bytes(memory, memory + size);
    g_free(memory);
    const std::uint8_t pixel[] = {r, g, b, a};
    std::copy_n(pixel, 4, bytes.begin() + (static_cast<std::ptrdiff_t>(y) * rgba.width() + x) * 4);
    return imageFromBytes(bytes, rgba.width(), rgba.height(), 4, VIPS_INTERPRETATION_sRGB);
}

vips::VImage withProfile(const vips::VImage& image, const char* name)
{
    VipsBlob* blob = vips::VImage::profile_load(name);
    std::size_t length = 0;
    const void* profile = vips_blob_get(blob, &length);
    void* copy = g_memdup2(profile, length);
    vips_area_unref(VIPS_AREA(blob));
    vips::VImage tagged = image.copy();
    const VipsCallbackFn release = [](void* data, void*) {
        g_free(data);
        return 0;
    };
    tagged.set(VIPS_META_ICC_NAME, release, copy, length);
    return tagged.copy_memory();
}

} // namespace orvane::enginetest

// One libvips for all engine tests, with the operation cache off as in the
// application, so that no test sees another's results.
int main(int argc, char** argv)
{
    if (VIPS_INIT(argv[0]) != 0)
        return 1;
    vips_cache_set_max(0);
    ::testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    vips_shutdown();
    return result;
}
