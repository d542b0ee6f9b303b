#include "cli/trimjob.h"

#include <algorithm>
#include <memory>

#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

#include "imagefile/imagefile.h"
#include "imagefile/imagesource.h"
#include "imagefile/losslessjpeg.h"

namespace orvane {

namespace {

QString writeFailure(const QString& path)
{
    return QStringLiteral("Couldn’t write to “%1”.").arg(QFileInfo(path).fileName());
}

// An image with nothing to trim is passed on as the very same bytes, never
// re-encoded; QSaveFile makes the copy appear whole or not at all.
bool copyAtomically(const QString& from, const QString& to)
{
    QFile source(from);
    if (!source.open(QIODevice::ReadOnly))
        return false;
    QSaveFile target(to);
    if (!target.open(QIODevice::WriteOnly))
        return false;
    QByteArray chunk;
    for (;;) {
        chunk = source.read(1 << 20);
        if (chunk.isEmpty())
            break;
        if (target.write(chunk) != chunk.size()) {
            target.cancelWriting();
            break;
        }
    }
    if (source.error() != QFileDevice::NoError)
        target.cancelWriting();
    return target.commit();
}

// Whether two paths name one file, so that a copy onto itself is skipped.
bool sameFile(const QString& a, const QString& b)
{
    const QString ca = QFileInfo(a).canonicalFilePath();
    return !ca.isEmpty() && ca == QFileInfo(b).canonicalFilePath();
}

// The compressed blocks of a JPEG for --lossless; null for other files, and
// for a JPEG the normal decoder would refuse for its size or that libjpeg
// cannot read cleanly (the normal path then says why).
std::unique_ptr<LosslessJpeg::Blocks> jpegBlocks(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly) || file.peek(3) != QByteArrayLiteral("\xff\xd8\xff")
        || !ImageFile::readCost(path))
        return nullptr;
    return LosslessJpeg::Blocks::read(file.readAll());
}

} // namespace

PixelRect TrimJob::withMargin(const PixelRect& rect, std::int64_t margin, std::int64_t width,
                              std::int64_t height)
{
    const std::int64_t left = std::max<std::int64_t>(0, rect.x - margin);
    const std::int64_t top = std::max<std::int64_t>(0, rect.y - margin);
    const std::int64_t right = std::min(width, rect.x + rect.width + margin);
    const std::int64_t bottom = std::min(height, rect.y + rect.height + margin);
    return {left, top, right - left, bottom - top};
}

std::uint64_t TrimJob::bytes(const TrimTask& task, const TrimOptions& options)
{
    if (!task.error.isEmpty())
        return 0;
    const std::optional<ImageFile::ReadCost> cost = ImageFile::readCost(task.path);
    if (!cost)
        return 0; // refused at once, without the memory
    // Writing holds the encoded file beside the decoded image, and the
    // encoder's own buffers: counted as much again. A lossless cut of a
    // sequential JPEG holds about three times the file; one that libjpeg
    // reads (progressive files, and cuts our reader cannot code) holds the
    // coefficients (16 bits a sample) and, for colour models it cannot find
    // content in, the decoded image too. The figure is for the worst of these.
    return options.dryRun ? cost->index : (options.lossless ? 3 : 2) * cost->decode;
}

TrimResult TrimJob::run(const TrimTask& task, const TrimOptions& options)
{
    TrimResult result;
    result.path = task.path;
    if (!task.error.isEmpty()) {
        result.error = task.error;
        result.reason = task.reason;
        return result;
    }

    // --lossless reads a JPEG's compressed blocks once: they show where the
    // content is without a full decode, and they are what is written.
    std::unique_ptr<LosslessJpeg::Blocks> blocks;
    if (options.lossless && !options.dryRun && (blocks = jpegBlocks(task.path))) {
        const double tolerance = options.tolerances.first();
        const LosslessJpeg::Blocks::Content content = blocks->contentRect(tolerance);
        if (content.told) {
            result.decoded = true;
            result.type = ImageType::jpeg().mimeName();
            result.width = blocks->grid().width;
            result.height = blocks->grid().height;
            std::optional<PixelRect> rect = content.rect;
            if (rect && options.margin > 0)
                rect = withMargin(*rect, options.margin, result.width, result.height);
            result.rects.append({tolerance, rect});
        }
    }

    // Otherwise a dry run needs the index alone, made in one streamed pass; a
    // writing run decodes the image once (unless it is too large to hold,
    // when the save reads it again) and writes exactly what was measured.
    std::optional<ImageFile::Decoded> decoded;
    if (!result.decoded) {
        std::optional<ImageFile::Summary> summary;
        if (options.dryRun) {
            if (std::optional<ImageFile::Indexed> indexed = ImageFile::index(task.path, false))
                summary = std::move(indexed->summary);
        } else if ((decoded = ImageFile::decode(task.path, false))) {
            summary = decoded->summary;
        }
        if (!summary) {
            const ImageFile::Failure failure = ImageFile::whyNotOpened(task.path);
            result.error = failure.message;
            result.reason = failure.reason;
            return result;
        }
        result.decoded = true;
        result.type = summary->type.mimeName();
        result.width = summary->width;
        result.height = summary->height;
        for (const double tolerance : options.tolerances) {
            std::optional<PixelRect> rect = summary->contentRect(tolerance);
            if (rect && options.margin > 0)
                rect = withMargin(*rect, options.margin, result.width, result.height);
            result.rects.append({tolerance, rect});
        }
        if (summary->type != ImageType::jpeg())
            blocks.reset();
    }

    if (options.dryRun) {
        result.status = TrimResult::Status::Measured;
        return result;
    }

    const std::optional<PixelRect>& rect = result.rects.first().second;
    if (!rect) {
        result.status = TrimResult::Status::Nothing;
        return result;
    }

    // A lossless cut is made on the block grid, which may keep a little more
    // than the rectangle asked for.
    std::optional<PixelRect> onGrid;
    if (blocks && blocks->grid().width == result.width && blocks->grid().height == result.height)
        onGrid = LosslessJpeg::writtenRect(*rect, blocks->grid());
    const PixelRect& kept = onGrid ? *onGrid : *rect;

    const bool whole = kept.width == result.width && kept.height == result.height;
    const bool overSource = options.destination == TrimOptions::Destination::InPlace;
    if (whole && options.destination != TrimOptions::Destination::Folder) {
        result.status = TrimResult::Status::Unchanged;
        return result;
    }
    if (!overSource && !options.overwrite && QFileInfo::exists(task.output)) {
        result.status = TrimResult::Status::Exists;
        result.existing = task.output;
        return result;
    }

    if (whole) {
        if (!sameFile(task.path, task.output) && !copyAtomically(task.path, task.output)) {
            result.error = writeFailure(task.output);
            return result;
        }
        result.status = TrimResult::Status::Unchanged;
        result.output = task.output;
        return result;
    }

    if (onGrid) {
        if (const std::optional<QByteArray> cut = blocks->crop(*onGrid)) {
            if (!ImageFile::write(*cut, task.output)) {
                result.error = writeFailure(task.output);
                return result;
            }
            result.status = TrimResult::Status::Trimmed;
            result.output = task.output;
            result.written = onGrid;
            return result;
        }
        // Blocks libjpeg cannot write again are saved as usual.
    }

    if (!decoded && !(decoded = ImageFile::decode(task.path, false))) {
        const ImageFile::Failure failure = ImageFile::whyNotOpened(task.path);
        result.error = failure.message;
        result.reason = failure.reason;
        return result;
    }
    if (!ImageFile::saveCropped(*decoded, *rect, task.output, decoded->summary.type)) {
        result.error = writeFailure(task.output);
        return result;
    }
    result.status = TrimResult::Status::Trimmed;
    result.output = task.output;
    return result;
}

} // namespace orvane
