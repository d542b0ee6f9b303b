// The window's open at camera-card scale: N JPEGs of 24 megapixels dropped
// at once on the queue model, as the window does it. Reports when the first
// image is there (its summary joined, its preview copy ready, its full image
// decoded), when every file has joined, the process's peak memory (VmHWM),
// and, from the same run, the time one full decode takes, so that the total
// compares with one decode × N ÷ cores.
//
//   bench_open [--files N[,N...]] [--distinct K] [--dir PATH]
//
// K different images (default 20) are generated once into PATH and linked
// under N names (default 150,1000). Each open runs in a child process of this
// program so that its VmHWM is its own. With ORVANE_BENCH_PLAIN_POOL set the
// model's jobs run on a plain QThreadPool instead of the shared WorkerPool.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QThread>
#include <QThreadPool>
#include <QUrl>

#include <vips/vips8>

#include "imagefile/imagefile.h"
#include "imagefile/imagesource.h"
#include "model/cropmodel.h"
#include "model/imagesource.h"
#include "benchsupport.h"

using namespace orvane;
using bench::statusKiB;

namespace {

using Clock = std::chrono::steady_clock;

double since(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// A photo-like picture: a smooth noisy field in a white border, so that the
// files compress like real ones rather than like flat colour.
vips::VImage picture(int width, int height, int seed)
{
    const int innerW = width * 8 / 10;
    const int innerH = height * 8 / 10;
    vips::VImage noise = vips::VImage::gaussnoise(
        std::max(innerW / 8, 1), std::max(innerH / 8, 1),
        vips::VImage::option()->set("mean", 100.0 + seed * 3 % 60)->set("sigma", 50.0)->set("seed", seed));
    vips::VImage field = noise.bandjoin({noise.rot180(), noise.flip(VIPS_DIRECTION_HORIZONTAL)})
                             .resize(8.0, vips::VImage::option()->set("kernel", VIPS_KERNEL_LINEAR));
    field = (field + vips::VImage::gaussnoise(field.width(), field.height(),
                                              vips::VImage::option()->set("sigma", 6.0)->set("seed", seed)))
                .cast(VIPS_FORMAT_UCHAR);
    return field
        .embed((width - field.width()) / 2, (height - field.height()) / 2, width, height,
               vips::VImage::option()->set("extend", VIPS_EXTEND_WHITE))
        .copy(vips::VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB));
}

// count names in dir/<count>/ for distinct JPEGs of 6000 × 4000, hard-linked
// round-robin; everything made only when missing.
QStringList ensureCard(const QString& dir, int count, int distinct)
{
    QDir().mkpath(dir);
    QStringList originals;
    for (int i = 0; i < distinct; ++i) {
        const QString path = QDir(dir).filePath(QStringLiteral("source-%1.jpg").arg(i, 2, 10, QLatin1Char('0')));
        if (!QFileInfo::exists(path)) {
            const QString partial = path + QStringLiteral(".part.jpg");
            picture(6000, 4000, i + 1).jpegsave(QFile::encodeName(partial).constData(),
                                                vips::VImage::option()->set("Q", 90));
            QFile::rename(partial, path);
        }
        originals.append(path);
    }
    const QString card = QDir(dir).filePath(QString::number(count));
    QDir().mkpath(card);
    QStringList paths;
    for (int i = 0; i < count; ++i) {
        const QString path = QDir(card).filePath(QStringLiteral("IMG_%1.JPG").arg(i + 1, 4, 10, QLatin1Char('0')));
        if (!QFileInfo::exists(path)
            && ::link(QFile::encodeName(originals[i % distinct]).constData(), QFile::encodeName(path).constData()) != 0)
            std::exit(1);
        paths.append(path);
    }
    return paths;
}

// The model's jobs on a plain pool of one thread per core instead of the
// shared WorkerPool: tells the pool's share of the time from the model's.
class PlainPoolSource : public ImageSource {
public:
    PlainPoolSource() { m_pool.setMaxThreadCount(QThread::idealThreadCount()); }
    void run(std::uint64_t, std::function<void()> job) override { m_pool.start(std::move(job)); }

private:
    QThreadPool m_pool;
};

// The child: opens the folder as a drop would and notes when each stage is reached.
int openChild(const QString& folder, bool plainPool)
{
    CropModel model(nullptr, nullptr, plainPool ? std::make_shared<PlainPoolSource>() : nullptr);
    double joined = -1;
    double preview = -1;
    double full = -1;
    double all = -1;
    int reported = 0;
    const auto start = Clock::now();
    model.open({QUrl::fromLocalFile(folder)});
    QDeadlineTimer deadline(30 * 60 * 1000);
    while (!deadline.hasExpired()) {
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 20);
        const CropModel::Item* active = model.active();
        if (joined < 0 && active)
            joined = since(start);
        if (preview < 0 && active && !model.activePreview().isNull())
            preview = since(start);
        if (full < 0 && active && model.hasFullImage(active->id))
            full = since(start);
        if (all < 0 && !model.opening())
            all = since(start);
        if (model.opening() && model.opening()->done >= reported + 100) {
            reported = model.opening()->done;
            std::fprintf(stderr, "  %d of %d after %.1f s, VmRSS %ld MiB\n", reported, model.opening()->total,
                         since(start), statusKiB("VmRSS:") / 1024);
        }
        if (all >= 0 && full >= 0)
            break;
    }
    const double cpu = bench::cpuMilliseconds() / 1e3;
    std::printf("%zu %d %.3f %.3f %.3f %.3f %ld %.3f\n", model.items().size(),
                model.errorMessage() ? 1 : 0, joined, preview, full, all, statusKiB("VmHWM:"), cpu);
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (VIPS_INIT(argv[0]) != 0)
        return 1;
    ImageFile::initialise();
    if (argc >= 3 && std::strcmp(argv[1], "--open-child") == 0)
        return openChild(QFile::decodeName(argv[2]), argc == 4);

    QList<int> counts{150, 1000};
    int distinct = 20;
    QString dir = QDir(QDir::tempPath()).filePath(QStringLiteral("orvane-bench-card"));
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--files") == 0) {
            counts.clear();
            for (const QByteArray& n : QByteArray(argv[i + 1]).split(','))
                counts.append(n.toInt());
        } else if (std::strcmp(argv[i], "--distinct") == 0) {
            distinct = std::atoi(argv[i + 1]);
        } else if (std::strcmp(argv[i], "--dir") == 0) {
            dir = QFile::decodeName(argv[i + 1]);
        }
    }
    const int cores = QThread::idealThreadCount();
    std::printf("cores: %d; %d distinct JPEGs of 6000 x 4000 in %s (kept for later runs)\n", cores, distinct,
                qPrintable(dir));
    std::fflush(stdout);

    for (int count : counts) {
        const QStringList paths = ensureCard(dir, count, distinct);
        // One full decode, as the active item gets, best of three (page cache warm).
        double decode = 1e9;
        for (int i = 0; i < 3; ++i) {
            const auto start = Clock::now();
            if (!ImageFile::decode(paths[i % paths.size()]))
                return 1;
            decode = std::min(decode, since(start));
        }
        // One streamed pass, as every queued file gets.
        double pass = 1e9;
        for (int i = 0; i < 3; ++i) {
            const auto start = Clock::now();
            if (!ImageFile::index(paths[i % paths.size()], false))
                return 1;
            pass = std::min(pass, since(start));
        }
        // The same passes with nothing else around them: every file on a
        // plain pool of one thread per core, no model, no window.
        QThreadPool plain;
        plain.setMaxThreadCount(cores);
        const auto plainStart = Clock::now();
        for (const QString& path : paths)
            plain.start([path] { ImageFile::index(path, false); });
        plain.waitForDone();
        const double plainAll = since(plainStart);
        QProcess child;
        child.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        QStringList args{QStringLiteral("--open-child"), QFileInfo(paths.first()).absolutePath()};
        if (qEnvironmentVariableIsSet("ORVANE_BENCH_PLAIN_POOL"))
            args << QStringLiteral("--plain-pool");
        child.start(QCoreApplication::applicationFilePath(), args);
        if (!child.waitForFinished(-1) || child.exitCode() != 0)
            return 1;
        std::size_t items = 0;
        int refused = 0;
        double joined = 0, preview = 0, full = 0, all = 0;
        long peakKiB = 0;
        double cpu = 0;
        std::sscanf(child.readAllStandardOutput().constData(), "%zu %d %lf %lf %lf %lf %ld %lf", &items, &refused,
                    &joined, &preview, &full, &all, &peakKiB, &cpu);
        const double bar = 1.1 * decode * count / cores;
        std::printf("%d files: %zu queued%s; first item joined %.2f s, sharp preview %.2f s, full image %.2f s; "
                    "all joined %.1f s; one decode %.3f s, so 1.1 x decode x N / cores = %.1f s (ratio %.2f); "
                    "one streamed pass %.3f s (pass x N / cores = %.1f s); first image / all joined = %.3f; "
                    "VmHWM %.0f MiB; CPU time of the open %.1f s (passes alone: %.1f s); "
                    "the passes on a plain pool %.1f s, so the model's open takes %.2fx that\n",
                    count, items, refused ? ", some refused" : "", joined, preview, full, all, decode, bar,
                    all / bar, pass, pass * count / cores, preview / all, peakKiB / 1024.0, cpu, pass * count, plainAll,
                    all / plainAll);
        std::fflush(stdout);
    }
    return 0;
}
