// Trimming a JPEG without generation loss: the compressed blocks themselves
// are cut, so the pixels kept are never decoded and encoded again. A JPEG can
// only be cut on its block grid at the left and top; the rectangle written
// therefore grows to the grid there.
//
// The blocks are read once (the entropy decoding, the costly part of any
// JPEG work) and serve both to find the content and to write the cut. Most
// of a plain border is made of blocks whose coefficients alone prove every
// pixel in them background; only narrow strips at the edges of what is left
// are decoded to pixels, by libjpeg itself, to pin the rectangle exactly.
// A plain sequential file is read by our own decoder (jpegscan.h), which
// keeps a few bytes per block and cuts by copying coded bits; any other is
// held by libjpeg as arrays of coefficients.
#pragma once

#include <memory>
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

/// The rectangle a lossless cut writes to keep every pixel of rect (clipped
/// to the image) exactly as the source decodes: the left and top edges moved
/// out to the grid, the right and bottom edges where they are. Where colour
/// is subsampled, decoders blend each pixel's colour with the neighbouring
/// colour sample, so the rectangle keeps the sample beside each edge pixel:
/// a left or top edge already on the grid moves out one more block, and a
/// right or bottom edge that would end a pair of pixels grows by one.
PixelRect writtenRect(const PixelRect& rect, const Grid& grid);

/// A JPEG's compressed blocks, read once. Not for use by two threads at once.
class Blocks {
public:
    /// The blocks of a JPEG file; absent when the file is not a JPEG that
    /// libjpeg reads cleanly (a damaged one is left to the normal decoder,
    /// which says what is wrong with it).
    static std::unique_ptr<Blocks> read(const QByteArray& jpeg);
    ~Blocks();

    const Grid& grid() const;

    /// The content rectangle at a tolerance, exactly as the decoded image's.
    struct Content {
        bool told = false;            // false when the blocks cannot tell: not 8-bit grey or YCbCr, or damaged
        std::optional<PixelRect> rect; // absent when no pixel is content
    };
    Content contentRect(double tolerance);

    /// The JPEG cut to rect: the same compressed blocks, a progressive file
    /// staying progressive; of the source's metadata only the ICC profile
    /// (and the resolution of its JFIF header) is kept, as in a normal save.
    /// rect must lie in the image and start on the grid (writtenRect() gives
    /// such a rectangle). Absent when the cut cannot be written. The blocks
    /// are moved, not copied, to make the cut: call it last, and once.
    std::optional<QByteArray> crop(const PixelRect& rect);

private:
    struct Impl;
    explicit Blocks(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> d;
};

} // namespace orvane::LosslessJpeg
