// Sizes and flags read from image headers by Orvane itself, before any
// decoder sees the file: BMP and TIFF sizes (so that absurd sizes are refused
// at once) and whether a WebP is stored losslessly.
#pragma once

#include <cstdint>
#include <optional>
#include <utility>

#include <QByteArray>
#include <QFile>

namespace orvane::ImageFile::detail {

/// The little-endian 32-bit number at offset.
std::uint32_t littleEndian32(const QByteArray& bytes, qsizetype offset);

/// Width and height from a BMP header (its first bytes).
std::optional<std::pair<std::int64_t, std::int64_t>> bmpSize(const QByteArray& head);

/// Width and height from a TIFF's first directory (classic or BigTIFF,
/// either byte order); absent when they cannot be read.
std::optional<std::pair<std::int64_t, std::int64_t>> tiffSize(QFile& file);

/// Whether a WebP file's (first) image is stored losslessly.
bool webpIsLossless(QFile& file);

} // namespace orvane::ImageFile::detail
