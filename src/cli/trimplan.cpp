#include "cli/trimplan.h"

#include <dirent.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QSet>

#include "imagefile/imagefile.h"

namespace orvane {

namespace {

bool isEarlierOutput(const QString& path)
{
    return QFileInfo(path).completeBaseName().endsWith(QLatin1String("-cropped"));
}

// QDir reports a folder it cannot list as empty; the command line should say so.
bool canList(const QString& folder)
{
    DIR* dir = ::opendir(QFile::encodeName(folder).constData());
    if (!dir)
        return false;
    ::closedir(dir);
    return true;
}

// A key that is the same for every spelling of one file: links and ".."
// resolved where the file or its folder exists.
QString identity(const QString& path)
{
    const QFileInfo info(path);
    const QString canonical = info.canonicalFilePath();
    if (!canonical.isEmpty())
        return canonical;
    const QString folder = QFileInfo(info.absolutePath()).canonicalFilePath();
    if (!folder.isEmpty())
        return folder + QLatin1Char('/') + info.fileName();
    return QDir::cleanPath(info.absoluteFilePath());
}

QString quoted(const QString& path)
{
    return QStringLiteral("“%1”").arg(path);
}

} // namespace

QString TrimPlan::outputPath(const QString& path, const TrimOptions& options)
{
    const QString fileName = QFileInfo(path).fileName();
    switch (options.destination) {
    case TrimOptions::Destination::Beside: {
        // The type only matters for a name without extension, which the
        // accepted test never lets through; the name's own type keeps it stable.
        const QString extension = QFileInfo(path).suffix();
        const ImageType type = ImageType::fromExtension(extension).value_or(ImageType::png());
        // Keep the caller's spelling of the folder ("a.png" stays relative).
        return path.left(path.size() - fileName.size()) + ImageFile::proposedName(fileName, type);
    }
    case TrimOptions::Destination::Folder:
        return QDir(options.outputFolder).filePath(fileName);
    case TrimOptions::Destination::InPlace:
        return path;
    }
    return path;
}

QList<TrimTask> TrimPlan::make(const TrimOptions& options)
{
    QList<TrimTask> tasks;
    for (const QString& given : options.paths) {
        const QFileInfo info(given);
        if (info.isDir()) {
            if (!canList(given)) {
                tasks.append({given, {}, QStringLiteral("Couldn’t read the folder."), ImageFile::FailureReason::Unreadable});
                continue;
            }
            for (const QString& path : ImageFile::expandingFolders({given})) {
                if (options.destination == TrimOptions::Destination::Beside && isEarlierOutput(path))
                    continue;
                tasks.append({path, {}, {}, {}});
            }
            continue;
        }
        TrimTask task{given, {}, {}, {}};
        if (!info.exists() || !ImageFile::isAccepted(given)) {
            const ImageFile::Failure failure = ImageFile::whyNotOpened(given);
            task.error = failure.message;
            task.reason = failure.reason;
        }
        tasks.append(task);
    }

    if (options.dryRun)
        return tasks;

    QSet<QString> inputs;
    for (const TrimTask& task : std::as_const(tasks))
        inputs.insert(identity(task.path));

    QHash<QString, QString> claimedBy; // output identity → the path that claimed it
    for (TrimTask& task : tasks) {
        if (!task.error.isEmpty())
            continue;
        task.output = outputPath(task.path, options);
        const QString target = identity(task.output);
        const QString source = identity(task.path);
        if (const auto earlier = claimedBy.constFind(target); earlier != claimedBy.cend()) {
            task.error = QStringLiteral("%1 is already the output of %2.")
                             .arg(quoted(task.output), quoted(*earlier));
        } else if (target != source && inputs.contains(target)) {
            task.error = QStringLiteral("%1 is one of the images being trimmed.").arg(quoted(task.output));
        }
        if (!task.error.isEmpty()) {
            task.output.clear();
            continue;
        }
        claimedBy.insert(target, task.path);
    }
    return tasks;
}

} // namespace orvane
