// The list of images one orvane-trim run works on, with where each one goes.
#pragma once

#include <optional>

#include <QList>
#include <QString>

#include "cli/trimoptions.h"
#include "imagefile/imagesource.h"

namespace orvane {

/// One image of the run, decided before any image is decoded.
struct TrimTask {
    /// The path as given, or as found in a given folder.
    QString path;
    /// Where a result would be written: beside the source, in the output
    /// folder, or the source itself. Empty in dry runs.
    QString output;
    /// Why the image is not processed at all (a folder that cannot be read,
    /// a name Orvane does not accept, an output another image already
    /// claims); empty when it is processed.
    QString error;
    /// Why the file cannot be opened, when that is the error.
    std::optional<ImageFile::FailureReason> reason;
};

/// Expands the command line's paths into tasks and assigns the outputs.
namespace TrimPlan {

/// The tasks in input order: each folder replaced by the accepted images
/// directly inside it, sorted by name (in the default destination without
/// names ending in "-cropped", which earlier runs wrote); every other path
/// kept. The second of two images that would land on the same output, and
/// an image whose output is another image of the run, get an error instead.
/// Reads folder listings and file existence only. Runs on the caller's thread.
QList<TrimTask> make(const TrimOptions& options);

/// Where an image is written for a destination: the proposed name beside the
/// source, the source's own name in the folder, or the source itself.
QString outputPath(const QString& path, const TrimOptions& options);

} // namespace TrimPlan
} // namespace orvane
