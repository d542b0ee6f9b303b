// Trimming a JPEG without generation loss: libjpeg-turbo's lossless transform
// cuts the compressed blocks themselves, so the pixels kept are never decoded
// and encoded again. A JPEG can only be cut on its block grid at the left and
// top; the rectangle written therefore grows to the grid there.
#pragma once

#include <optional>

#include <QByteArray>

#include "engine/cropengine.h"

namespace orvane::LosslessJpeg {

/// What a lossless cut depends on: the image's size and its iMCU, the block
/// of pixels that holds one unit of every colour component (8 × 8, or up to
/// 32 × 8 and 16 × 16 where colour is subsampled).
struct Grid {
    std::int64_t width = 0;
    std::int64_t height = 0;
    int blockWidth = 8;
    int blockHeight = 8;
};

/// The grid of a JPEG file from its header; absent when the file is not a
/// JPEG that libjpeg-turbo can transform. Thread-safe.
std::optional<Grid> grid(const QByteArray& jpeg);

/// The rectangle a lossless cut writes to keep every pixel of rect (clipped
/// to the image) exactly as the source decodes: the left and top edges moved
/// out to the grid, the right and bottom edges where they are. Where colour
/// is subsampled, decoders blend each pixel's colour with the neighbouring
/// colour sample, so the rectangle keeps the sample beside each edge pixel:
/// a left or top edge already on the grid moves out one more block, and a
/// right or bottom edge that would end a pair of pixels grows by one.
PixelRect writtenRect(const PixelRect& rect, const Grid& grid);

/// The JPEG cut to rect without decoding its pixels: the same compressed
/// blocks, a progressive file staying progressive; of the source's metadata
/// only the ICC profile (and the resolution of its JFIF header) is kept, as
/// in a normal save. rect must start on the grid (writtenRect() gives such a
/// rectangle). Absent when the file cannot be transformed. Thread-safe.
std::optional<QByteArray> crop(const QByteArray& jpeg, const PixelRect& rect);

} // namespace orvane::LosslessJpeg
