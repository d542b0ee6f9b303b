// How a decoded image becomes the engine's raster, for code that makes the
// raster a strip at a time instead of whole (the streamed pass). Buffer::make
// uses the very same conversion, so both give identical bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include <vips/vips8>

namespace orvane::CropEngine::detail {

/// The number of bands (1 to 4) when the image's raster is its own 8-bit
/// bytes rearranged by expandRow(); absent when it needs the pipeline.
std::optional<int> bytesToExpand(const vips::VImage& image);

/// One raster row of width pixels from a row of 8-bit grey, grey + alpha,
/// RGB or RGBA bytes (bands 1 to 4), premultiplied.
void expandRow(const std::uint8_t* in, int bands, std::uint8_t* out, std::size_t width);

/// The raster as a lazy libvips image (4 bands, 8 bits, premultiplied) for
/// every other image: colour managed as Buffer::make() does it.
vips::VImage rasterPipeline(const vips::VImage& image);

} // namespace orvane::CropEngine::detail
