// Orvane's own PNG writer. libpng tries every row filter in plain C and
// compresses with zlib; together they take most of the time of trimming a
// batch of PNGs. This writer picks filters with vectorised code and
// compresses with libdeflate, which reaches zlib's ratios in a fraction of
// its time because it sees the whole image at once.
#pragma once

#include <cstddef>
#include <cstdint>

#include <QByteArray>

namespace orvane::PngEncoder {

/// Pixels to encode: height rows of width × bands samples each.
struct Pixels {
    const std::uint8_t* data = nullptr; ///< the first sample of the first row
    std::size_t stride = 0;             ///< bytes from the start of one row to the next
    int width = 0;
    int height = 0;
    int bands = 0; ///< 1 grey, 2 grey and alpha, 3 RGB, 4 RGBA
    int depth = 8; ///< bits per sample: 8, or 16 in the machine's byte order
};

struct Metadata {
    QByteArray iccProfile;          ///< written as an iCCP chunk when not empty
    std::uint32_t xPixelsPerMetre = 0; ///< written as a pHYs chunk when both are set
    std::uint32_t yPixelsPerMetre = 0;
};

/// The zlib level whose size libdeflate's level is chosen against: ImageMagick
/// writes PNG at 7 by default.
inline constexpr int referenceZlibLevel = 7;

/// The bytes of memory encode() needs besides the pixels and its result, at most.
std::size_t workingMemory(const Pixels& pixels);

/// A PNG file of the pixels, byte for byte lossless: grey or truecolour at
/// their own depth, each row with the filter whose output has the smallest
/// sum of magnitudes. An 8-bit RGB or RGBA image of at most 256 distinct
/// pixels (alpha included) is also written as indexed colour with the exact
/// palette, in 1, 2, 4 or 8 bits per pixel, and the smaller file is kept.
/// Empty when the pixels are not of a kind described above or memory runs out.
/// Thread-safe.
QByteArray encode(const Pixels& pixels, const Metadata& metadata = {});

} // namespace orvane::PngEncoder
