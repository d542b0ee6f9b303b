// Test images for the trim engine, built in code.
#pragma once

#include <cstdint>
#include <vector>

#include <vips/vips8>

namespace orvane::enginetest {

/// An image fully in memory with the given bytes (band-interleaved, top row first).
vips::VImage imageFromBytes(const std::vector<std::uint8_t>& bytes, int width, int height, int bands,
                            VipsInterpretation interpretation);

/// A 16-bit image fully in memory with the given values.
vips::VImage imageFromWords(const std::vector<std::uint16_t>& words, int width, int height, int bands,
                            VipsInterpretation interpretation);

/// A width × height RGBA image, every pixel the given colour.
vips::VImage solidRgba(int width, int height, std::uint8_t r, std::uint8_t g, std::uint8_t b, std::uint8_t a);

/// The same image with one RGBA pixel changed.
vips::VImage withPixel(const vips::VImage& rgba, int x, int y, std::uint8_t r, std::uint8_t g, std::uint8_t b,
                       std::uint8_t a);

/// The image with one of libvips' built-in ICC profiles ("srgb", "p3", "cmyk") attached.
vips::VImage withProfile(const vips::VImage& image, const char* name);

} // namespace orvane::enginetest
