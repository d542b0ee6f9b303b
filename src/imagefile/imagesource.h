// How the queue and orvane-trim get at an image file: one streamed pass that
// leaves a small summary behind (size, type, tolerance index, thumbnail), a
// full decode only for the image someone is looking at, and writing a trimmed
// copy. Every function here may block on the disk and on decoding: call them
// from WorkerPool jobs, never from the window's thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include <QString>

#include <vips/vips8>

#include "engine/cropengine.h"
#include "engine/toleranceindex.h"
#include "imagefile/imagetype.h"

namespace orvane {

/// What tells one version of a file from another: equal identities mean the
/// file was not replaced or rewritten in between (as far as stat can tell).
struct FileIdentity {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::int64_t size = 0;
    std::int64_t modifiedNs = 0; ///< modification time, nanoseconds since the epoch

    friend bool operator==(const FileIdentity&, const FileIdentity&) = default;
};

/// A small raster in the engine's layout (8-bit sRGB, premultiplied alpha,
/// bytes red, green, blue, alpha, top row first, stride width × 4). Copies
/// share the pixels. Null when width or height is 0.
struct Raster {
    std::int64_t width = 0;
    std::int64_t height = 0;
    std::shared_ptr<const std::vector<std::uint8_t>> pixels;

    bool isNull() const { return width <= 0 || height <= 0 || !pixels; }
    std::size_t byteCount() const { return pixels ? pixels->size() : 0; }
};

namespace ImageFile {

/// Long side, in pixels, of the thumbnail a summary carries (smaller images
/// keep their own size): crisp in the queue drawer's rows at twice their size.
inline constexpr int thumbnailSide = 128;
/// Long side, in pixels, of the preview copy the window draws (smaller images
/// keep their own size).
inline constexpr int previewSide = 2048;

/// Everything a queued image keeps while nobody looks at it: a few hundred
/// KiB at most, whatever the image's size.
struct Summary {
    ImageType type;           ///< from the content, as load() decides it
    std::int64_t width = 0;   ///< pixels; at least 1
    std::int64_t height = 0;  ///< pixels; at least 1
    ToleranceIndex index;     ///< of the raster the engine would make of the whole image
    Raster thumbnail;         ///< long side at most thumbnailSide
    FileIdentity identity;    ///< of the file as it was read

    /// The content rectangle for a tolerance, answered from the index alone;
    /// identical to CropEngine::contentRect() on the full image.
    std::optional<PixelRect> contentRect(double threshold) const;
    /// Bytes held, index and thumbnail included.
    std::size_t byteCount() const;
};

/// What one streamed pass over a file makes.
struct Indexed {
    Summary summary;
    Raster preview; ///< long side at most previewSide; null unless asked for
};

/// Reads the file once, sequentially, strip by strip, into its summary (and
/// a preview copy when withPreview). Nothing full-size is kept. Absent for
/// every file load() refuses; whyNotOpened() tells why.
std::optional<Indexed> index(const QString& path, bool withPreview = true);

/// An image decoded in full, for the item on screen: what a save crops and
/// writes, so that the file gets exactly the pixels the user saw.
///
/// An image whose decode would take more than holdLimit() is not held: its
/// image stays null, and saveCropped() reads the file again, sequentially,
/// provided it is still the file that was read (same identity).
struct Decoded {
    vips::VImage image; ///< the first frame, in memory, unrotated; null when too large to hold
    Summary summary;    ///< of this very decode
    Raster preview;     ///< long side at most previewSide
    QString source;     ///< the file read

    /// Whether the image is held (else saving reads source again).
    bool holdsImage() const { return !image.is_null(); }

    /// Bytes held: the decoded image, the preview and the summary.
    std::size_t byteCount() const;
};

/// Decodes the whole file into memory (unless it is too large to hold, see
/// Decoded). Absent as for index().
std::optional<Decoded> decode(const QString& path);
/// As above; without a preview when withPreview is false (orvane-trim).
std::optional<Decoded> decode(const QString& path, bool withPreview);

/// The most bytes a decoded image may take for decode() to hold it: the
/// smaller of 1 GiB and a quarter of availableMemory().
std::uint64_t holdLimit();

/// What reading a file takes in memory at most, from its header alone: for
/// index() (with a preview) and for decode(). What a WorkerPool job that
/// reads the file states as its bytes.
struct ReadCost {
    std::uint64_t index = 0;
    std::uint64_t decode = 0;
};
/// Absent when index() would refuse the file (a small job then finds out why).
std::optional<ReadCost> readCost(const QString& path);

/// The file's identity now; absent when it is not there (or not a file).
std::optional<FileIdentity> identify(const QString& path);

/// Why a file cannot be opened, for people and for scripts.
enum class FailureReason {
    Missing,     ///< "missing": nothing at that path
    Unreadable,  ///< "unreadable": there, but cannot be read (permissions, a FIFO, a folder)
    NotAnImage,  ///< "not-an-image": the content is no image at all
    Unsupported, ///< "unsupported": an image of a type Orvane does not accept (a camera raw, SVG)
    Damaged,     ///< "damaged": an accepted type, but truncated or corrupt
    TooLarge,    ///< "too-large": more pixels than memory can take
};

struct Failure {
    FailureReason reason = FailureReason::Damaged;
    QString message; ///< one sentence a person can act on, without the file name
};

/// The stable code of a reason: "missing", "unreadable", …
QString reasonCode(FailureReason reason);

/// Looks at a file that index() or decode() refused and says why. Reads at
/// most the file's header.
Failure whyNotOpened(const QString& path);

/// Writes the decoded image cut to rect to path in writableType(type),
/// atomically (see save()). True when the file was written completely.
/// A Decoded that does not hold its image is written as saveCropped() below
/// writes it from its source and summary.
bool saveCropped(const Decoded& decoded, const PixelRect& rect, const QString& path, const ImageType& type);

/// Writes the image in the file at source, cut to rect, to path as above,
/// reading the source once, sequentially, and holding only what the encoder
/// needs (besides the encoded file). False, and nothing written, when the
/// source is no longer the file summary was made from (its identity differs)
/// or cannot be read. Saving over source itself is safe.
bool saveCropped(const QString& source, const Summary& summary, const PixelRect& rect, const QString& path,
                 const ImageType& type);

} // namespace ImageFile
} // namespace orvane
