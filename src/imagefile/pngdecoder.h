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

struct Decoded {
    /// The image in memory, as libvips' own PNG loader gives it: one uchar
    /// or ushort band per sample, interpreted as B_W, GREY16, sRGB or RGB16,
    /// with the resolution of a pHYs chunk and the profile of an iCCP chunk.
    std::optional<vips::VImage> image;
    /// The file is of the kind taken but damaged where libpng gives up: cut
    /// short, a wrong CRC on a critical chunk, a broken compressed stream or
    /// checksum, an unknown row filter. It is to be refused: libvips, left
    /// to itself, refuses such files only some of the time.
    bool damaged = false;
};

/// Reads a PNG of the kind header() accepts. Without an image, and not
/// damaged, when the file is of another kind, holds chunks that would change
/// its pixels (a palette, transparency) or anything libpng treats otherwise
/// than this reader would: such files are for libvips.
/// Thread-safe.
Decoded decode(const QByteArray& file);

} // namespace orvane::PngDecoder
