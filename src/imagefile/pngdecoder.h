// A fast path for reading the PNGs most people have: grey or truecolour, with
// or without alpha, 8 or 16 bits, not interlaced. libpng inflates with zlib
// row by row through libvips' pipeline of threads; this reads the whole file,
// inflates it in one call to libdeflate and undoes the row filters straight
// into the image's memory. Anything else, and anything damaged, is left to
// libvips, which has the last word on every file this one doesn't take.
#pragma once

#include <optional>

#include <QByteArray>

#include <vips/vips8>

namespace orvane::PngDecoder {

/// What the header of a PNG of the kind decode() takes says.
struct Header {
    int width = 0;
    int height = 0;
    int bands = 0; ///< 1 grey, 2 grey and alpha, 3 RGB, 4 RGBA
    int depth = 0; ///< bits per sample, 8 or 16
};

/// The header, when the file starts as a PNG of the kind decode() takes.
/// Reads the signature and the first chunk only.
std::optional<Header> header(const QByteArray& file);

/// The image in memory, as libvips' own PNG loader gives it: one uchar or
/// ushort band per sample, interpreted as B_W, GREY16, sRGB or RGB16, with
/// the resolution of a pHYs chunk and the profile of an iCCP chunk. Absent
/// when the file is not of the kind header() accepts, holds chunks that
/// would change its pixels (a palette, transparency), or is damaged in any
/// way: a wrong checksum, a short or overlong stream, an unknown filter.
/// Thread-safe.
std::optional<vips::VImage> decode(const QByteArray& file);

} // namespace orvane::PngDecoder
