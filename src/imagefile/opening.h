// Opening an image file for one of three uses, inside imagefile: the header
// alone (what reading would cost), one sequential read (the streamed pass and
// saving images too large to hold) or a whole decode into memory (load()).
#pragma once

#include <cstdint>
#include <optional>

#include <QString>

#include <vips/vips8>

#include "imagefile/imagetype.h"

namespace orvane::ImageFile::detail {

enum class Access {
    Header,     ///< only the header is read; the image stays null
    Sequential, ///< lazy: read once, top to bottom, strip by strip
    Whole,      ///< decoded into memory
};

struct Opened {
    vips::VImage image;
    ImageType type;
    std::uint64_t wholeBytes = 0;      ///< what a whole decode holds, the decoder's own memory included
    std::uint64_t sequentialBytes = 0; ///< what a sequential read holds besides its strips
};

/// Opens the file as load() does, for access. Refuses, from the header, what
/// the access cannot do within half of availableMemory(): a sequential read
/// only needs what a decoder must hold whole (an interlaced PNG, a progressive
/// JPEG, GIF, WebP, HEIF, BMP). Absent for every file load() refuses; the
/// libvips error buffer is left clear. Thread-safe.
std::optional<Opened> open(const QString& path, Access access);

/// save() for an image opened for Sequential access (or cut from one): every
/// encoder takes the rows as libvips computes them, so that no full copy of
/// the pixels is made besides what the format's encoder itself holds.
bool saveSequential(const vips::VImage& image, const QString& path, const ImageType& type);

} // namespace orvane::ImageFile::detail
