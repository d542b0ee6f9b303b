// The entropy-coded data of a plain sequential JPEG, read by our own Huffman
// decoder for the lossless cut. Reading it yields, per block, the range of
// values its samples can decode to, and where in the data each MCU starts;
// nothing else is kept, so no coefficient arrays are made. A cut is then the
// bits of the kept MCUs copied as they are: only the DC difference of the
// first block of each component at the start of a row (or of a restart
// interval) is coded again, against the block now before it.
//
// Only what this covers completely is taken: 8-bit grey or YCbCr with
// full-resolution luma, baseline or extended sequential Huffman coding, one
// interleaved scan, with or without restart markers, read without a single
// irregularity. Anything else is left to libjpeg.
#pragma once

#include <cstdint>
#include <memory>

#include <QByteArray>

#include "engine/cropengine.h"

namespace orvane::LosslessJpeg {

/// The values the samples of one block can take after libjpeg's integer
/// inverse DCT (its "islow" IDCT with range limiting).
struct Range {
    int lo = 0;
    int hi = 255;
};

/// A block's range from its dequantised DC coefficient and the sum of the
/// magnitudes of its dequantised AC coefficients. A block whose AC
/// coefficients dequantise to nothing decodes to a single value, computed as
/// the IDCT does; otherwise each AC coefficient moves a sample by at most a
/// quarter of its value, and the IDCT's rounding by less than 2.
Range blockRange(std::int64_t dc, std::int64_t spread);

class Scan {
public:
    /// Absent when the file is not one this reader covers completely.
    static std::unique_ptr<Scan> read(const QByteArray& file);
    ~Scan();

    std::int64_t width() const;
    std::int64_t height() const;
    int components() const;        // 1 or 3
    int lumaH() const;             // luma's sampling factors: 1 or 2
    int lumaV() const;
    std::int64_t blocksWide(int component) const; // the blocks of a component that hold image pixels
    std::int64_t blocksHigh(int component) const;
    Range range(int component, std::int64_t bx, std::int64_t by) const;

    /// Writes the MCUs of rect (its left and top on the MCU grid, inside the
    /// image) as a JPEG of their own, with the ICC profile when asked.
    /// False when the cut needs a DC code the source's table lacks.
    bool cut(const PixelRect& rect, bool withProfile, QByteArray& out) const;

    struct Impl;

private:
    explicit Scan(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> d;
};

} // namespace orvane::LosslessJpeg
