// What a TIFF's first directory says about how its image is stored.
#pragma once

#include <cstdint>
#include <optional>

class QIODevice;

namespace orvane {

/// The tags of a TIFF's first directory that decide how its image is stored,
/// with the values TIFF 6.0 gives an absent tag.
struct TiffDirectory {
    std::int64_t width = -1;          ///< ImageWidth (256); -1 when absent
    std::int64_t height = -1;         ///< ImageLength (257); -1 when absent
    int bitsPerSample = 1;            ///< BitsPerSample (258), of the first sample
    int compression = 1;              ///< Compression (259): 1 none, 5 LZW, 7 JPEG, 8 Deflate …
    int photometric = -1;             ///< PhotometricInterpretation (262): 0 min-is-white, 8 CIELab …; -1 when absent
    int samplesPerPixel = 1;          ///< SamplesPerPixel (277)
    int predictor = 1;                ///< Predictor (317): 1 none, 2 horizontal, 3 floating point
    int sampleFormat = 1;             ///< SampleFormat (339): 1 unsigned, 2 signed, 3 floating point
    std::int64_t tileWidth = 0;       ///< TileWidth (322); 0 for an image in strips
    std::int64_t tileHeight = 0;      ///< TileLength (323); 0 for an image in strips
    bool hasResolution = false;       ///< XResolution (282) and YResolution (283) are both there

    /// Reads the first directory of a classic TIFF or a BigTIFF, either byte
    /// order, from the start of device (which must be open and seekable).
    /// Reads the 16-byte header and the directory's entries, and values
    /// stored outside them only for BitsPerSample. Absent when the bytes are
    /// no TIFF or the directory lies outside the device; tags that cannot be
    /// read keep their defaults. Moves the device's position.
    static std::optional<TiffDirectory> read(QIODevice& device);
};

} // namespace orvane
