// How the file an image came from was stored, so that writing the image back
// in the same type keeps what makes the file what it is: a Group 4 scan stays
// a 1-bit Group 4 TIFF, a PNG without a resolution gets none.
#pragma once

#include <optional>

#include <QString>

#include <vips/vips8>

#include "imagefile/imagetype.h"
#include "imagefile/tiffdirectory.h"

namespace orvane::ImageFile {

/// Quality at which lossy formats other than JPEG are written: HEIC and HEIF
/// (HEVC, chroma as the source had it) and lossy WebP (with libwebp's sharp
/// conversion to YUV), chosen so that a re-encoded photo stays at least about
/// as close to its decoded source as JPEG at quality 92 does
/// (bench/bench_reencode).
inline constexpr int heifQuality = 80;
inline constexpr int lossyWebpQuality = 100;

struct SourceFormat {
    /// Whether the file stated a resolution (PNG's pHYs chunk, TIFF's
    /// XResolution and YResolution); absent when not known for its type.
    std::optional<bool> hasResolution;
    /// The first directory of a TIFF source.
    std::optional<TiffDirectory> tiff;
    /// Whether a HEIC or HEIF source's HEVC stream keeps chroma at full
    /// resolution (4:4:4) rather than halved (4:2:0, what phones write).
    std::optional<bool> fullChroma;

    /// Reads what matters for type (found from the content) from the file's
    /// header. Nothing is known when the file cannot be read. Thread-safe.
    static SourceFormat read(const QString& path, const ImageType& type);

    /// Records this on image as metadata, which crops and copies of the
    /// image keep (and which saving does not write into the file).
    void attachTo(vips::VImage& image) const;
    /// What attachTo() recorded on image or on the image it was cut from;
    /// empty when nothing was.
    static SourceFormat of(const vips::VImage& image);
};

/// The libvips TIFF writer's options that store image as a TIFF of source
/// was stored: its compression (libvips has no CCITT Group 3 or modified
/// Huffman writer, so those become Group 4, and codecs libvips lacks become
/// LZW), its predictor, 1, 2 or 4 bits per sample for such a grey source,
/// min-is-white, and its tiles. JPEG is written at quality 92, WebP as
/// lossy WebP files are; an image those cannot hold (16-bit, float, Lab)
/// gets Deflate. Without a TIFF source, libvips' defaults.
vips::VOption* tiffSaveOptions(const SourceFormat& source, const vips::VImage& image);

} // namespace orvane::ImageFile
