// One streamed pass over a decoded image: the raster is made a strip at a
// time, top to bottom, and folded into the tolerance index and into small
// copies (a thumbnail, a preview) as it goes; no full-size raster is made.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include <vips/vips8>

#include "engine/toleranceindex.h"

namespace orvane::RasterPass {

/// A reduced copy of the raster, in its layout (premultiplied RGBA, stride
/// width × 4). Each pixel is the rounded mean of the raster pixels of its box.
struct Scaled {
    std::int64_t width = 0;
    std::int64_t height = 0;
    std::vector<std::uint8_t> pixels;
};

struct Result {
    std::int64_t width = 0;
    std::int64_t height = 0;
    ToleranceIndex index; ///< equal to the index Buffer::make() builds for the same image
    Scaled thumbnail;     ///< long side at most thumbnailSide
    Scaled preview;       ///< long side at most previewSide; empty when previewSide is 0
};

/// The size of a copy of a width × height image whose long side is at most
/// longSide (images that are smaller keep their size); both at least 1.
std::pair<std::int64_t, std::int64_t> scaledSize(std::int64_t width, std::int64_t height, int longSide);

/// Reads image in strips from the top (so that a loader opened for sequential
/// access reads its file once) and returns what the pass made. The image may
/// be lazy or in memory. Absent when the image has no pixels or a strip
/// cannot be made (a damaged file ends in the middle); the libvips error
/// buffer is then left clear. Decoding runs on the calling thread; folding
/// runs beside it on one helper thread for large images. Peak memory is a
/// few strips and the copies, besides what the decoder holds.
std::optional<Result> run(const vips::VImage& image, int thumbnailSide, int previewSide);

} // namespace orvane::RasterPass
