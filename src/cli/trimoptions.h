// The command line of orvane-trim, parsed into a plain value.
#pragma once

#include <QList>
#include <QString>
#include <QStringList>

namespace orvane {

/// Everything orvane-trim was asked to do. A plain value: no checks of the
/// file system beyond those parse() makes, no state.
struct TrimOptions {
    /// Where trimmed images go.
    enum class Destination {
        Beside,   ///< next to the source, under the name "Save as New…" proposes
        Folder,   ///< into outputFolder, under the source's own name
        InPlace,  ///< over the source
    };

    /// Input files and folders, in command-line order; never empty after parse().
    QStringList paths;
    /// Tolerances (0 to 100) in the order given; exactly one unless dryRun.
    QList<double> tolerances{25.0};
    bool dryRun = false;
    bool json = false;
    Destination destination = Destination::Beside;
    /// The folder given with --output; empty unless destination is Folder.
    QString outputFolder;
    bool overwrite = false;
    /// Pixels added to every side of the content rectangle, clipped to the image.
    int margin = 0;
    /// JPEG sources are cut without decoding and encoding their pixels again,
    /// on their block grid; other types are written as usual.
    bool lossless = false;
    /// Images processed at the same time; at least 1.
    int jobs = 1;

    struct Parsed;

    /// Parses the arguments (the program name first, as in argv). Checks that
    /// an --output folder exists and is a folder. defaultJobs is used when -j
    /// is not given. Runs on the caller's thread.
    static Parsed parse(const QStringList& arguments, int defaultJobs);
};

/// What TrimOptions::parse() made of the arguments.
struct TrimOptions::Parsed {
    enum class Kind { Run, Help, Version, UsageError };
    Kind kind = Kind::UsageError;
    TrimOptions options; ///< meaningful for Run only
    QString text;        ///< the help or version text, or the usage error message
};

} // namespace orvane
