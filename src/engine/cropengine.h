// Orvane's trim engine: a decoded image turned into an RGBA raster, the
// content rectangle for any tolerance, and cutting an image to a rectangle.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include <vips/vips8>

namespace orvane {

/// A rectangle of whole pixels: origin at the top-left pixel, y downwards.
struct PixelRect {
    std::int64_t x = 0;
    std::int64_t y = 0;
    std::int64_t width = 0;
    std::int64_t height = 0;

    friend bool operator==(const PixelRect&, const PixelRect&) = default;
};

class ToleranceIndex;

namespace CropEngine {

/// One decoded image with its raster: 8-bit sRGB, premultiplied alpha, bytes
/// red, green, blue, alpha, top row first, row stride width × 4, no padding.
///
/// A Buffer is an immutable value: copies share the decoded image, the raster
/// and the tolerance index. Making one reads every pixel once to build the
/// index, so that contentRect() answers any tolerance without rescanning.
/// Safe to read from several threads once made.
class Buffer {
public:
    /// Makes the buffer of a decoded image that is fully in memory. Absent
    /// when the image has no pixels or its raster cannot be made (for
    /// example when libvips fails to convert it or memory runs out); the
    /// libvips error buffer is left clear. Colour is managed through the
    /// image's ICC profile when it has one (and for CMYK), the alpha is
    /// scaled to 8 bits on its own and multiplied in after rounding.
    /// An opaque 8-bit sRGB RGBA image in memory lends its own pixels as the
    /// raster; any other image gets a raster of its own.
    /// Runs on the caller's thread and returns when done; for large images
    /// the one pass over the pixels is split over a few helper threads.
    static std::optional<Buffer> make(vips::VImage image);

    /// The decoded image the raster was made from: what is cropped, written and drawn.
    const vips::VImage& image() const;
    /// Pixels per row; at least 1.
    std::int64_t width() const;
    /// Rows; at least 1.
    std::int64_t height() const;
    /// The raster: width × height × 4 bytes.
    const std::uint8_t* pixels() const;
    std::size_t byteCount() const;
    /// Bytes held by the raster and the index on top of the decoded image;
    /// 0 for the raster when it shares the decoded image's memory.
    std::size_t extraBytes() const;
    /// The tolerance index of the raster.
    const ToleranceIndex& index() const;

    struct Data;

private:
    explicit Buffer(std::shared_ptr<const Data> data);
    std::shared_ptr<const Data> d;
    friend std::optional<PixelRect> contentRect(const Buffer&, double);
};

/// The alpha cut-off (0 to 254; content needs alpha above it) and whiteness
/// cut-off (140 to 254; background when red, green and blue all reach it) of a
/// tolerance above 0. A tolerance of 100 or more, or not a number, acts as 100.
/// A tolerance of 0 or less gives alpha −1 and whiteness 256, cut-offs that
/// every pixel passes.
struct CutOffs {
    int alpha;
    int whiteness;
};
CutOffs cutOffs(double threshold);

/// The smallest rectangle holding every pixel that counts as content at this
/// tolerance (0 to 100; 0 or less gives the whole image). Absent when no pixel
/// counts as content. Answered from the buffer's index: no pixel is read.
std::optional<PixelRect> contentRect(const Buffer& buffer, double threshold);

/// The content rectangle of an image of width × height pixels (both at
/// least 1) whose raster has this index, as contentRect() above would answer
/// it for the buffer itself.
std::optional<PixelRect> contentRect(const ToleranceIndex& index, std::int64_t width, std::int64_t height,
                                     double threshold);

/// The plain scan over every pixel, kept as the reference the index must match.
std::optional<PixelRect> contentRectByScan(const Buffer& buffer, double threshold);

/// The buffer's image cut to the rectangle. A rectangle of the image's full
/// width and height returns the very same image; otherwise a sub-image
/// (clipped to the image) with the decoded image's bit depth, bands and ICC
/// profile. Absent when the clipped rectangle is empty.
std::optional<vips::VImage> crop(const Buffer& buffer, const PixelRect& rect);

/// The image cut to the rectangle, clipped to it: the very same image when
/// the clipped rectangle is all of it, else a sub-image with the image's bit
/// depth, bands and profile. Absent when the clipped rectangle is empty.
/// Works on images that are not in memory too (a sequential read).
std::optional<vips::VImage> crop(const vips::VImage& image, const PixelRect& rect);

} // namespace CropEngine
} // namespace orvane
