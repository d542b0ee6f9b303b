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

/// How much larger than the other layout the file encode() keeps may come
/// out, as a fraction: the choice of a palette is made from a sample of rows,
/// which can misjudge an image whose rows differ much. Held on test images.
inline constexpr double paletteMargin = 0.05;

/// Whether encode() may write indexed colour.
enum class Palette { IfSmaller, Never };

/// The bytes of memory encode() needs besides the pixels and its result, at most.
std::size_t workingMemory(const Pixels& pixels);

/// A PNG file of the pixels, lossless: it decodes to exactly these pixels,
/// in the fewest bands and bits that hold them. 16-bit samples whose low
/// byte repeats the high one everywhere are written as 8 bits; pixels whose
/// red, green and blue agree everywhere as grey (unless the profile is for
/// RGB), grey of 8 bits as 1, 2 or 4 where every value is a step of that
/// depth; an alpha band that is opaque everywhere is left out. 8-bit pixels
/// of at most 256 distinct values may be written as indexed colour with the
/// exact palette (never with a grey profile), in 1, 2, 4 or 8 bits per
/// pixel: the layout is chosen by compressing a sample of rows both ways
/// (see paletteMargin). With Palette::Never no palette is considered: the
/// file a palette is measured against. Rows are filtered with the filter
/// whose output has the smallest sum of magnitudes, indexed and packed grey
/// rows not at all.
/// Empty when the pixels are not of a kind described above or memory runs out.
/// Thread-safe.
QByteArray encode(const Pixels& pixels, const Metadata& metadata = {}, Palette palette = Palette::IfSmaller);

} // namespace orvane::PngEncoder
