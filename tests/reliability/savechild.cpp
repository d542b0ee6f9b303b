// A separate process that writes a trimmed image over its original, for the
// tests that kill it mid-save or refuse its writes.
//
//   reliability_savechild save <path> <tolerance>
//       Loads the image, crops it at the tolerance, prints "encoding", writes
//       it over path with ImageFile::save, then prints "saved" or "failed".
//   reliability_savechild model <path> [<file size limit in bytes>]
//       Opens path in a CropModel and runs saveOverOriginal(), after limiting
//       the size of files this process may write (RLIMIT_FSIZE) when asked.
//       Prints uid=, items=, saved=, error= and confirmation= lines.
#include <algorithm>
#include <csignal>
#include <cstdio>

#include <sys/resource.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QString>
#include <QUrl>

#include <vips/vips8>

#include "engine/cropengine.h"
#include "imagefile/imagefile.h"
#include "model/cropmodel.h"

namespace {

using namespace orvane;

void say(const QString& line)
{
    std::puts(line.toUtf8().constData());
    std::fflush(stdout);
}

int saveOnce(const QString& path, double tolerance)
{
    const auto loaded = ImageFile::load(path);
    const auto buffer = loaded ? CropEngine::Buffer::make(loaded->image) : std::nullopt;
    const auto rect = buffer ? CropEngine::contentRect(*buffer, tolerance) : std::nullopt;
    const auto cropped = rect ? CropEngine::crop(*buffer, *rect) : std::nullopt;
    if (!cropped) {
        say(QStringLiteral("nothing to save"));
        return 3;
    }
    say(QStringLiteral("encoding"));
    const bool saved = ImageFile::save(*cropped, path, loaded->type);
    say(saved ? QStringLiteral("saved") : QStringLiteral("failed"));
    return saved ? 0 : 1;
}

// Waits until the model's open and save have been taken in.
void settle(CropModel& model)
{
    const auto busy = [&] {
        return model.opening()
            || std::any_of(model.items().begin(), model.items().end(), [&](const CropModel::Item& item) { return model.isSaving(item.id); });
    };
    while (busy())
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 50);
}

int saveThroughModel(const QString& path, long long fileSizeLimit)
{
    CropModel model;
    model.open({QUrl::fromLocalFile(path)});
    settle(model);
    // Past the limit, write() fails with EFBIG instead of the signal killing us.
    const rlimit limit{rlim_t(fileSizeLimit), rlim_t(fileSizeLimit)};
    if (fileSizeLimit > 0 && (std::signal(SIGXFSZ, SIG_IGN) == SIG_ERR || ::setrlimit(RLIMIT_FSIZE, &limit) != 0))
        return 3;
    model.saveOverOriginal();
    settle(model);
    say(QStringLiteral("uid=%1\nitems=%2\nsaved=%3\nerror=%4\nconfirmation=%5")
            .arg(::geteuid())
            .arg(model.items().size())
            .arg(!model.items().empty() && model.items().front().saved ? 1 : 0)
            .arg(model.errorMessage().value_or(QString()), model.saveConfirmation().value_or(QString())));
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (VIPS_INIT(argv[0]) != 0)
        return 3;
    ImageFile::initialise();

    const QStringList args = app.arguments();
    if (args.size() == 4 && args[1] == QLatin1String("save"))
        return saveOnce(args[2], args[3].toDouble());
    if ((args.size() == 3 || args.size() == 4) && args[1] == QLatin1String("model"))
        return saveThroughModel(args[2], args.size() == 4 ? args[3].toLongLong() : 0);
    std::fprintf(stderr, "usage: %s save <path> <tolerance> | model <path> [<file size limit>]\n", argv[0]);
    return 2;
}
