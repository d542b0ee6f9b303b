// Processing one image of an orvane-trim run.
#pragma once

#include <optional>
#include <utility>

#include <QList>
#include <QString>

#include "cli/trimoptions.h"
#include "cli/trimplan.h"
#include "engine/cropengine.h"

namespace orvane {

/// What became of one image.
struct TrimResult {
    enum class Status {
        Measured,  ///< dry run: decoded and measured, nothing written
        Trimmed,   ///< the cropped image was written to output
        Unchanged, ///< nothing to trim: left alone, or copied as it is to output
        Nothing,   ///< nothing counts as content: left alone
        Exists,    ///< the output exists and --overwrite was not given
        Failed,    ///< could not be read, measured or written; see error
    };

    QString path;
    Status status = Status::Failed;
    /// Whether the image was decoded; type, width, height and rects are
    /// meaningful only then.
    bool decoded = false;
    QString type; ///< MIME name found from the content
    std::int64_t width = 0;
    std::int64_t height = 0;
    /// Per tolerance, in the order asked: the rectangle that is (or would be)
    /// kept, margin included; absent when nothing counts as content.
    QList<std::pair<double, std::optional<PixelRect>>> rects;
    /// The file written (trimmed, or copied when unchanged); empty when none.
    QString output;
    /// The output that already exists, for Exists.
    QString existing;
    /// Why the image failed; empty otherwise.
    QString error;
};

/// Turns one task into its result: decode once, measure every tolerance,
/// then (unless a dry run) write as the options say.
namespace TrimJob {

/// The rectangle grown by margin pixels on every side, clipped to a
/// width × height image.
PixelRect withMargin(const PixelRect& rect, std::int64_t margin, std::int64_t width, std::int64_t height);

/// Processes the task. A dry run reads the image once, in strips, and holds
/// only its index; a writing run holds the decoded image (one at most) while
/// it runs. Safe to call from several threads at once for tasks with
/// different outputs.
TrimResult run(const TrimTask& task, const TrimOptions& options);

/// The most memory run() may take for the task, from the file's header: the
/// bytes its WorkerPool job states.
std::uint64_t bytes(const TrimTask& task, const TrimOptions& options);

} // namespace TrimJob
} // namespace orvane
