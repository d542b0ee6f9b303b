// Everything that touches image files: the accepted types, loading, the type a
// trimmed image is written as, writing, and the file-name rules shared by the
// window and the command-line tool.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include <QList>
#include <QString>
#include <QStringList>

#include <vips/vips8>

#include "imagefile/imagetype.h"

namespace orvane::ImageFile {

/// PNG, JPEG, TIFF, BMP, GIF, HEIC, HEIF, WebP, in that order.
const QList<ImageType>& acceptedTypes();

/// Prepares libvips for Orvane, for the whole process: only our own loaders
/// may run (every other libvips loader, ImageMagick's included, is blocked),
/// the operation cache is off (a reload after a save must see the new file),
/// and libvips' warnings are silenced. Call once, after VIPS_INIT, before any
/// other function here. Idempotent.
void initialise();

struct LoadResult {
    vips::VImage image; ///< the first frame, fully decoded into memory, unrotated
    ImageType type;     ///< from the content, else the lower-cased extension, else PNG
};

/// Decodes the file at path. The decoder is chosen by the file's first bytes,
/// never by its name. Absent for a missing or unreadable file, one that is not
/// an image Orvane accepts, one that is truncated or corrupt, or one whose
/// decoded size (with what its decoder holds besides) would take more than
/// half of availableMemory(); the size test reads only the header, so such
/// files are refused before any memory is spent on them. There is no other
/// limit on the number of pixels.
/// Thread-safe; produces no messages.
std::optional<LoadResult> load(const QString& path);

/// Bytes of memory that this process can still use without being killed:
/// the smaller of the kernel's MemAvailable and what the memory cgroup
/// (v1 or v2, every level up to the root) still allows. Read afresh on
/// every call. Thread-safe.
std::uint64_t availableMemory();

/// The type a trimmed image of this type is written as: the type itself when
/// this libvips can encode it, else JPEG for JPEG-like types, else PNG.
/// Asks libvips afresh on every call.
ImageType writableType(const ImageType& type);

/// Writes image to path in writableType(type): JPEG at quality 92; PNG with
/// adaptive filters, compressed about as well as zlib at level 7 or better,
/// as indexed colour with the exact palette when an 8-bit colour image has
/// at most 256 distinct pixels and that is smaller; 16-bit samples stay
/// 16-bit where the format holds them; no metadata of the source but the ICC
/// profile (libvips adds a minimal EXIF block of its own to JPEG and WebP).
/// An image loaded from a lossless WebP is written as lossless WebP; other
/// WebP, HEIC and HEIF images at libvips' default quality.
/// An existing file is replaced atomically, keeping its permissions (and, for
/// root, its owner): on failure the old file stays byte for byte and no
/// partial file is left. True when the file was written completely.
/// Thread-safe; produces no messages.
bool save(const vips::VImage& image, const QString& path, const ImageType& type);

/// Test seam: when bytes is set, availableMemory() answers it instead of
/// asking the system; nullopt restores the real answer. Thread-safe.
void setAvailableMemoryForTesting(std::optional<std::uint64_t> bytes);

/// Test seam: when probe is set, writableType() asks it whether libvips can
/// encode a type instead of asking libvips; an empty function restores the
/// real answer. Thread-safe.
void setSaverProbeForTesting(std::function<bool(const ImageType&)> probe);

/// Whether the name's lower-cased extension names a type that conforms to
/// one of the accepted types. Looks at the name only.
bool isAccepted(const QString& path);

/// File-name order: case ignored, runs of digits by value (2.png before 10.png),
/// otherwise the system locale's collation; English collation when the system
/// locale is C, so the digit rule holds there too. True when a sorts before b.
/// Thread-safe (one collator per thread).
bool fileNameLessThan(const QString& a, const QString& b);

/// Each folder replaced by the accepted image files directly inside it
/// (hidden entries skipped, subfolders never entered), sorted by file name;
/// every other path kept as it is, unchecked. Input order is kept.
QStringList expandingFolders(const QStringList& paths);

/// The name "Save as New…" proposes: photo.JPG → photo-cropped.JPG,
/// archive.tar.png → archive.tar-cropped.png, scan of type TIFF → scan-cropped.tiff.
QString proposedName(const QString& fileName, const ImageType& type);

} // namespace orvane::ImageFile
