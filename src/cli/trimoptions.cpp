#include "cli/trimoptions.h"

#include <cmath>

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFileInfo>

namespace orvane {

namespace {

const char* const helpTail = R"(
Each PATH is an image file or a folder. A folder stands for the PNG, JPEG,
TIFF, BMP, GIF, HEIC, HEIF and WebP files directly inside it (hidden entries
and subfolders skipped), sorted by name as in the window.

Where results go:
  by default       beside the source: photo.JPG -> photo-cropped.JPG; files
                   whose name already ends in -cropped are skipped when a
                   folder is read
  -o, --output DIR into DIR under the source's own name
  --in-place       over the source
An existing output is only replaced with --overwrite. Writing is atomic: a
failed write leaves any old file as it was. An image with nothing to trim is
not re-encoded (with -o it is copied as it is); one in which nothing counts
as content is left alone.

Statuses (--json "status"): trimmed, unchanged, nothing, exists, failed.
Exit status: 0 when every image was processed, 1 when any could not be read
or written, 2 for a usage error.
)";

// Accepts "25", "12.5" and comma-separated lists; false on anything else.
bool parseTolerances(const QStringList& values, QList<double>& out, QString& error)
{
    out.clear();
    for (const QString& value : values) {
        for (const QString& part : value.split(QLatin1Char(','))) {
            bool ok = false;
            const double t = part.trimmed().toDouble(&ok);
            if (!ok || !std::isfinite(t) || t < 0.0 || t > 100.0) {
                error = QStringLiteral("tolerance must be a number from 0 to 100, not “%1”").arg(part);
                return false;
            }
            out.append(t);
        }
    }
    return true;
}

bool parseCount(const QString& value, int minimum, int maximum, int& out)
{
    bool ok = false;
    const int n = value.trimmed().toInt(&ok);
    if (!ok || n < minimum || n > maximum)
        return false;
    out = n;
    return true;
}

} // namespace

TrimOptions::Parsed TrimOptions::parse(const QStringList& arguments, int defaultJobs)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Trims the empty border (transparent or white) off images."));
    const QCommandLineOption toleranceOption({QStringLiteral("t"), QStringLiteral("tolerance")},
        QStringLiteral("Trim tolerance, 0 to 100 (default 25). With --dry-run a comma-separated list, e.g. 0,10,25,50."),
        QStringLiteral("T"));
    const QCommandLineOption dryRunOption({QStringLiteral("n"), QStringLiteral("dry-run")},
        QStringLiteral("Write nothing; report each image's size and content rectangle(s)."));
    const QCommandLineOption jsonOption(QStringLiteral("json"),
        QStringLiteral("One JSON object per line per image, in input order."));
    const QCommandLineOption outputOption({QStringLiteral("o"), QStringLiteral("output")},
        QStringLiteral("Write into DIR under each source's own name."), QStringLiteral("DIR"));
    const QCommandLineOption inPlaceOption(QStringLiteral("in-place"),
        QStringLiteral("Write over each source."));
    const QCommandLineOption overwriteOption(QStringLiteral("overwrite"),
        QStringLiteral("Replace outputs that already exist."));
    const QCommandLineOption marginOption(QStringLiteral("margin"),
        QStringLiteral("Keep PX more pixels on every side, within the image."), QStringLiteral("PX"));
    const QCommandLineOption losslessOption(QStringLiteral("lossless"),
        QStringLiteral("JPEG: cut without re-encoding; the left and top edges move out to the JPEG’s block grid "
                       "(8 or 16 pixels) and the rectangle written is reported. Other types are written as usual."));
    const QCommandLineOption jobsOption({QStringLiteral("j"), QStringLiteral("jobs")},
        QStringLiteral("Images processed in parallel (default: the number of cores)."), QStringLiteral("N"));
    const QCommandLineOption helpOption({QStringLiteral("h"), QStringLiteral("help")},
        QStringLiteral("Show this help and exit."));
    const QCommandLineOption versionOption(QStringLiteral("version"),
        QStringLiteral("Show the version and exit."));
    parser.addOptions({toleranceOption, dryRunOption, jsonOption, outputOption, inPlaceOption,
        overwriteOption, marginOption, losslessOption, jobsOption, helpOption, versionOption});
    parser.addPositionalArgument(QStringLiteral("PATH"), QStringLiteral("Image files and folders."),
        QStringLiteral("PATH..."));

    Parsed result;
    const auto usageError = [&result](const QString& message) {
        result.kind = Parsed::Kind::UsageError;
        result.text = message;
        return result;
    };

    if (!parser.parse(arguments))
        return usageError(parser.errorText());
    if (parser.isSet(helpOption)) {
        result.kind = Parsed::Kind::Help;
        // Qt names the program by the path it was started with; name it plainly.
        QString help = parser.helpText();
        help = help.mid(help.indexOf(QLatin1Char('\n')) + 1);
        result.text = QStringLiteral("Usage: orvane-trim [options] PATH...\n") + help + QLatin1String(helpTail);
        return result;
    }
    if (parser.isSet(versionOption)) {
        result.kind = Parsed::Kind::Version;
        result.text = QStringLiteral("orvane-trim %1\n").arg(QCoreApplication::applicationVersion());
        return result;
    }

    TrimOptions& o = result.options;
    o.paths = parser.positionalArguments();
    if (o.paths.isEmpty())
        return usageError(QStringLiteral("no image file or folder given"));
    for (const QString& path : std::as_const(o.paths)) {
        if (path.isEmpty())
            return usageError(QStringLiteral("an empty path was given"));
    }

    o.dryRun = parser.isSet(dryRunOption);
    o.json = parser.isSet(jsonOption);
    o.overwrite = parser.isSet(overwriteOption);
    o.lossless = parser.isSet(losslessOption);

    if (parser.isSet(toleranceOption)) {
        QString error;
        if (!parseTolerances(parser.values(toleranceOption), o.tolerances, error))
            return usageError(error);
        if (o.tolerances.size() > 1 && !o.dryRun)
            return usageError(QStringLiteral("a list of tolerances needs --dry-run"));
    }

    if (parser.isSet(marginOption)
        && !parseCount(parser.value(marginOption), 0, 1'000'000'000, o.margin))
        return usageError(QStringLiteral("margin must be a whole number of pixels, 0 or more, not “%1”")
                              .arg(parser.value(marginOption)));

    o.jobs = qMax(1, defaultJobs);
    if (parser.isSet(jobsOption) && !parseCount(parser.value(jobsOption), 1, 1024, o.jobs))
        return usageError(QStringLiteral("jobs must be a whole number from 1 to 1024, not “%1”")
                              .arg(parser.value(jobsOption)));

    const bool toFolder = parser.isSet(outputOption);
    const bool inPlace = parser.isSet(inPlaceOption);
    if (toFolder && inPlace)
        return usageError(QStringLiteral("--output and --in-place cannot be used together"));
    if (toFolder) {
        o.destination = Destination::Folder;
        o.outputFolder = parser.value(outputOption);
        const QFileInfo folder(o.outputFolder);
        if (o.outputFolder.isEmpty() || !folder.exists())
            return usageError(QStringLiteral("the output folder “%1” does not exist").arg(o.outputFolder));
        if (!folder.isDir())
            return usageError(QStringLiteral("“%1” is not a folder").arg(o.outputFolder));
    } else if (inPlace) {
        o.destination = Destination::InPlace;
    }

    result.kind = Parsed::Kind::Run;
    return result;
}

} // namespace orvane
