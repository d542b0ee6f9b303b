// Test images for the trim engine, built in code.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include <vips/vips8>

namespace orvane::enginetest {

/// An image fully in memory: new_from_memory() does not copy; copy_memory()
/// gives the image its own pixels.
inline vips::VImage fromMemory(const void* data, std::size_t size, int width, int height, int bands, VipsBandFormat format,
                               VipsInterpretation interpretation)
{
    return vips::VImage::new_from_memory(const_cast<void*>(data), size, width, height, bands, format)
        .copy(vips::VImage::option()->set("interpretation", interpretation))
        .copy_memory();
}

/// An image fully in memory with the given bytes (band-interleaved, top row first).
inline vips::VImage imageFromBytes(const std::vector<std::uint8_t>& bytes, int width, int height, int bands,
                                   VipsInterpretation interpretation)
{
    return fromMemory(bytes.data(), bytes.size(), width, height, bands, VIPS_FORMAT_UCHAR, interpretation);
}

/// A 16-bit image fully in memory with the given values.
inline vips::VImage imageFromWords(const std::vector<std::uint16_t>& words, int width, int height, int bands,
                                   VipsInterpretation interpretation)
{
    return fromMemory(words.data(), words.size() * 2, width, height, bands, VIPS_FORMAT_USHORT, interpretation);
}

/// A width × height RGBA image, every pixel the given colour.
inline vips::VImage solidRgba(int width, int height, std::uint8_t r, std::uint8_t g, std::uint8_t b, std::uint8_t a)
{
    std::vector<std::uint8_t> bytes;
    for (int i = 0; i < width * height; ++i)
        bytes.insert(bytes.end(), {r, g, b, a});
    return imageFromBytes(bytes, width, height, 4, VIPS_INTERPRETATION_sRGB);
}

/// The same image with one RGBA pixel changed.
inline vips::VImage withPixel(const vips::VImage& rgba, int x, int y, std::uint8_t r, std::uint8_t g, std::uint8_t b,
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

/// The image with one of libvips' built-in ICC profiles ("srgb", "p3", "cmyk") attached.
inline vips::VImage withProfile(const vips::VImage& image, const char* name)
{
    VipsBlob* blob = vips::VImage::profile_load(name);
    std::size_t length = 0;
    const void* profile = vips_blob_get(blob, &length);
    vips::VImage tagged = image.copy();
    vips_image_set_blob_copy(tagged.get_image(), VIPS_META_ICC_NAME, profile, length);
    vips_area_unref(VIPS_AREA(blob));
    return tagged.copy_memory();
}

} // namespace orvane::enginetest
