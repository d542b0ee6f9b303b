// How orvane-trim reports results: JSON lines, plain text lines, the summary.
#pragma once

#include <QByteArray>
#include <QString>

#include "cli/trimjob.h"

namespace orvane {

/// Counts of results by status, for the closing summary.
struct TrimCounts {
    int measured = 0;
    int trimmed = 0;
    int unchanged = 0;
    int nothing = 0;
    int exists = 0;
    int failed = 0;

    void add(TrimResult::Status status);
};

namespace TrimReport {

/// One JSON object and a newline, UTF-8, keys in a fixed order: path, then
/// either type, width, height, rects (and written, the rectangle of a
/// lossless JPEG cut) or error (a result that was decoded but failed to be
/// written has both), with reason after error when the file could not be
/// opened, then output and status when writing.
QByteArray jsonLine(const TrimResult& result, bool writing);

/// One line for a person, with a newline. Failures are meant for stderr and
/// end in their reason code in brackets when the file could not be opened.
QString textLine(const TrimResult& result);

/// The closing summary with a newline, e.g. "3 trimmed, 1 unchanged, 0 without
/// content, 0 already there, 1 failed".
QString summary(const TrimCounts& counts, bool dryRun);

/// The JSON name of a status: "trimmed", "unchanged", "nothing", "exists",
/// "failed" ("measured" for dry runs, which carry no status).
QString statusName(TrimResult::Status status);

} // namespace TrimReport
} // namespace orvane
