// orvane-trim: trims the empty border off images from the command line, with
// the window's engine, tolerance and file names.
#include <atomic>
#include <csignal>
#include <cstdio>
#include <exception>
#include <thread>

#include <QCoreApplication>

#ifdef __GLIBC__
#include <malloc.h>
#endif

#include <vips/vips8>

#include "cli/batchrunner.h"
#include "cli/progressline.h"
#include "cli/trimjob.h"
#include "cli/trimoptions.h"
#include "cli/trimplan.h"
#include "cli/trimreport.h"
#include "imagefile/imagefile.h"

using namespace orvane;

namespace {

enum ExitCode { AllProcessed = 0, SomeFailed = 1, UsageError = 2, Interrupted = 130 };

std::atomic<bool> interrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free);

// The first Ctrl-C lets the images being written finish (no temporary file
// is left behind) and starts no others; a second one ends the process.
void interrupt(int)
{
    interrupted.store(true);
}

void catchInterrupts()
{
    struct sigaction action {};
    action.sa_handler = interrupt;
    action.sa_flags = SA_RESETHAND;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

void dropMessage(const gchar*, GLogLevelFlags, const gchar*, gpointer)
{
}

void write(std::FILE* stream, const QByteArray& bytes)
{
    std::fwrite(bytes.constData(), 1, static_cast<std::size_t>(bytes.size()), stream);
    std::fflush(stream);
}

} // namespace

int main(int argc, char* argv[])
{
    // A write beyond RLIMIT_FSIZE must fail like a full disk (the atomic save
    // then keeps the old file) instead of killing the process.
    std::signal(SIGXFSZ, SIG_IGN);
    // A reader that goes away (orvane-trim … | head) must not end the process
    // in the middle of a write; the batch goes on, its report is lost.
    std::signal(SIGPIPE, SIG_IGN);

#ifdef __GLIBC__
    // Every image needs the same few large blocks (decoded image, raster,
    // encoded file). By default glibc maps each afresh and returns it on free,
    // so every image paid for new zeroed pages; keep them for the next image.
    // Memory stays bounded by the images in flight.
    mallopt(M_MMAP_THRESHOLD, 32 * 1024 * 1024);
    mallopt(M_TRIM_THRESHOLD, 1024 * 1024 * 1024);
#endif

    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("orvane-trim"));
    QCoreApplication::setApplicationVersion(QStringLiteral(ORVANE_VERSION));

    const int cores = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
    const TrimOptions::Parsed parsed = TrimOptions::parse(QCoreApplication::arguments(), cores);
    switch (parsed.kind) {
    case TrimOptions::Parsed::Kind::Help:
    case TrimOptions::Parsed::Kind::Version:
        write(stdout, parsed.text.toUtf8());
        return AllProcessed;
    case TrimOptions::Parsed::Kind::UsageError:
        write(stderr, QStringLiteral("orvane-trim: %1\nTry “orvane-trim --help” for more.\n")
                          .arg(parsed.text)
                          .toUtf8());
        return UsageError;
    case TrimOptions::Parsed::Kind::Run:
        break;
    }
    const TrimOptions& options = parsed.options;

    if (VIPS_INIT(argv[0]) != 0) {
        write(stderr, QByteArray("orvane-trim: libvips could not start: ") + vips_error_buffer() + '\n');
        return SomeFailed;
    }
    ImageFile::initialise();
    // libvips warns about every damaged file it meets; each image gets its own
    // one-line result instead, so stderr keeps only what the tool says.
    g_log_set_handler("VIPS", G_LOG_LEVEL_WARNING, dropMessage, nullptr);
    // Images run side by side; libvips' own threads would only compete with them.
    vips_concurrency_set(std::max(1, cores / options.jobs));

    const QList<TrimTask> tasks = TrimPlan::make(options);
    if (tasks.isEmpty()) {
        write(stderr, "No supported images found.\n");
        return AllProcessed;
    }

    ProgressLine progress(tasks.size());
    TrimCounts counts;
    const bool writing = !options.dryRun;

    catchInterrupts();
    const BatchRunner runner(options.jobs, options.jobs * 2 + 2, WorkerPool::shared(),
                             [&](qsizetype index) { return TrimJob::bytes(tasks.at(index), options); });
    const qsizetype delivered = runner.run(
        tasks.size(),
        [&](qsizetype index) {
            try {
                return TrimJob::run(tasks.at(index), options);
            } catch (const std::exception& e) {
                // libvips and allocation failures must cost one image, not the batch.
                TrimResult failed;
                failed.path = tasks.at(index).path;
                failed.error = QStringLiteral("Couldn’t be processed: %1").arg(QString::fromLocal8Bit(e.what()));
                vips_error_clear();
                return failed;
            }
        },
        [&](qsizetype index, TrimResult&& result) {
            counts.add(result.status);
            progress.clear();
            if (options.json)
                write(stdout, TrimReport::jsonLine(result, writing));
            else if (result.status == TrimResult::Status::Failed)
                write(stderr, TrimReport::textLine(result).toUtf8());
            else
                write(stdout, TrimReport::textLine(result).toUtf8());
            progress.show(index + 1, result.path);
        },
        &interrupted);

    progress.clear();
    write(stderr, TrimReport::summary(counts, options.dryRun).toUtf8());
    if (delivered < tasks.size()) {
        write(stderr, QStringLiteral("orvane-trim: interrupted; %1 of %2 images not processed\n")
                          .arg(tasks.size() - delivered)
                          .arg(tasks.size())
                          .toUtf8());
        return Interrupted;
    }
    return counts.failed > 0 ? SomeFailed : AllProcessed;
}
