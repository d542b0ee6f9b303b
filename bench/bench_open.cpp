// Opening images with the queue model: one decoding thread against one per
// core, in the same run, and the memory one queued 24-megapixel image costs.
//
//   bench_open [--files N] [--big N] [--dir PATH]
//
// Test images are generated once into PATH (default: a folder under the temp
// directory, reused by later runs). The memory figures come from child
// processes of this program, each reporting its own peak resident size
// (VmHWM, which starts afresh at exec, unlike the rusage of a forked child).
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QThread>
#include <QUrl>

#include <vips/vips8>

#include "imagefile/imagefile.h"
#include "model/cropmodel.h"

using namespace orvane;

namespace {

using Clock = std::chrono::steady_clock;

// A photo-like picture: a smooth noisy field in the middle of a white border,
// so that files compress like real ones rather than like flat colour.
vips::VImage picture(int width, int height, int seed)
{
    const int innerW = width * 7 / 10;
    const int innerH = height * 7 / 10;
    vips::VImage noise = vips::VImage::gaussnoise(std::max(innerW / 4, 1), std::max(innerH / 4, 1),
                                                  vips::VImage::option()->set("mean", 110.0 + seed % 40)->set("sigma", 45.0)->set("seed", seed));
    vips::VImage field = noise.bandjoin({noise.rot180(), noise.flip(VIPS_DIRECTION_HORIZONTAL)})
                             .resize(4.0, vips::VImage::option()->set("kernel", VIPS_KERNEL_LINEAR))
                             .cast(VIPS_FORMAT_UCHAR);
    return field
        .embed((width - field.width()) / 2, (height - field.height()) / 2, width, height,
               vips::VImage::option()->set("extend", VIPS_EXTEND_WHITE))
        .copy(vips::VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB));
}

// The paths of count PNGs of width × height in dir, written if missing.
QStringList ensureImages(const QString& dir, const QString& prefix, int count, int width, int height)
{
    QDir().mkpath(dir);
    QStringList paths;
    for (int i = 0; i < count; ++i) {
        const QString path = QDir(dir).filePath(QStringLiteral("%1-%2.png").arg(prefix).arg(i, 3, 10, QLatin1Char('0')));
        if (!QFileInfo::exists(path)) {
            const QString partial = path + QStringLiteral(".part");
            picture(width, height, i + 1).pngsave(QFile::encodeName(partial).constData(),
                                                 vips::VImage::option()->set("compression", 6));
            QFile::rename(partial, path);
        }
        paths.append(path);
    }
    return paths;
}

QList<QUrl> toUrls(const QStringList& paths)
{
    QList<QUrl> urls;
    for (const QString& path : paths)
        urls.append(QUrl::fromLocalFile(path));
    return urls;
}

double openSeconds(const QStringList& paths, int threads, std::size_t* items)
{
    CropModel model;
    model.setDecodeThreads(threads);
    const auto start = Clock::now();
    model.open(toUrls(paths));
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    *items = model.items().size();
    return seconds;
}

// A "Vm..." line of /proc/self/status in KiB; 0 when missing.
long statusKiB(const char* key)
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith(key))
            return line.mid(qsizetype(std::strlen(key))).trimmed().split(' ').value(0).toLong();
    }
    return 0;
}

// The child side of the memory measurement: opens paths in one model (or
// nothing) and prints the items, what they should cost, and its memory.
int memoryChild(const QStringList& paths)
{
    CropModel model;
    model.open(toUrls(paths));
    std::size_t expected = 0;
    for (const CropModel::Item& item : model.items()) {
        const vips::VImage& image = item.buffer.image();
        expected += VIPS_IMAGE_SIZEOF_IMAGE(image.get_image()) + item.buffer.extraBytes();
    }
    std::printf("%zu %zu %ld %ld\n", model.items().size(), expected, statusKiB("VmHWM:"), statusKiB("VmRSS:"));
    std::fflush(stdout);
    return 0;
}

struct ChildResult {
    long peakKiB = 0;
    long residentKiB = 0;
    std::size_t items = 0;
    std::size_t expectedBytes = 0;
};

// Runs this program again as a memory child and reads what it reports.
ChildResult measureChild(const char* self, const QStringList& paths)
{
    int pipeFds[2];
    if (::pipe(pipeFds) != 0)
        std::exit(1);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(pipeFds[1], STDOUT_FILENO);
        ::close(pipeFds[0]);
        std::vector<QByteArray> args{QByteArray(self), QByteArray("--memory-child")};
        for (const QString& path : paths)
            args.push_back(QFile::encodeName(path));
        std::vector<char*> argv;
        for (QByteArray& arg : args)
            argv.push_back(arg.data());
        argv.push_back(nullptr);
        ::execv(self, argv.data());
        std::_Exit(127);
    }
    ::close(pipeFds[1]);
    char text[256] = {};
    std::size_t got = 0;
    for (ssize_t n; got + 1 < sizeof text && (n = ::read(pipeFds[0], text + got, sizeof text - 1 - got)) > 0;)
        got += std::size_t(n);
    ::close(pipeFds[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    ChildResult result;
    std::sscanf(text, "%zu %zu %ld %ld", &result.items, &result.expectedBytes, &result.peakKiB, &result.residentKiB);
    return result;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (VIPS_INIT(argv[0]) != 0)
        return 1;
    ImageFile::initialise();

    if (argc >= 2 && std::strcmp(argv[1], "--memory-child") == 0) {
        QStringList paths;
        for (int i = 2; i < argc; ++i)
            paths.append(QFile::decodeName(argv[i]));
        return memoryChild(paths);
    }

    int files = 100;
    int big = 20;
    QString dir = QDir(QDir::tempPath()).filePath(QStringLiteral("orvane-bench-open"));
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--files") == 0)
            files = std::atoi(argv[i + 1]);
        else if (std::strcmp(argv[i], "--big") == 0)
            big = std::atoi(argv[i + 1]);
        else if (std::strcmp(argv[i], "--dir") == 0)
            dir = QFile::decodeName(argv[i + 1]);
    }

    std::printf("cores: %d, libvips threads: %d\n", QThread::idealThreadCount(), vips_concurrency_get());
    std::printf("generating test images in %s (kept for later runs)\n", qPrintable(dir));
    std::fflush(stdout);
    const QStringList small = ensureImages(dir, QStringLiteral("p2000x1500"), files, 2000, 1500);

    // Alternate the two ways and keep each one's best, so that neither gains
    // from a warmer page cache or loses to a noisy neighbour.
    std::size_t items = 0;
    openSeconds(small.mid(0, std::min<qsizetype>(small.size(), 8)), 0, &items); // warm the page cache
    double sequential = 1e9;
    double parallel = 1e9;
    for (int round = 0; round < 2; ++round) {
        std::size_t a = 0;
        std::size_t b = 0;
        const double s = openSeconds(small, 1, &a);
        const double p = openSeconds(small, 0, &b);
        std::printf("round %d: one thread %.3f s, one per core %.3f s (%zu and %zu items)\n", round + 1, s, p, a, b);
        std::fflush(stdout);
        if (a != std::size_t(files) || b != std::size_t(files)) {
            std::fprintf(stderr, "not every file was opened\n");
            return 1;
        }
        sequential = std::min(sequential, s);
        parallel = std::min(parallel, p);
    }
    std::printf("open %d PNGs of 2000 x 1500: one thread %.3f s (%.1f ms/file), one per core %.3f s (%.1f ms/file), "
                "speed-up %.2fx\n",
                files, sequential, 1000 * sequential / files, parallel, 1000 * parallel / files, sequential / parallel);

    if (big > 0) {
        const QStringList large = ensureImages(dir, QStringLiteral("p6000x4000"), big, 6000, 4000);
        const ChildResult base = measureChild(argv[0], {});
        const ChildResult full = measureChild(argv[0], large);
        if (full.items != std::size_t(big)) {
            std::fprintf(stderr, "only %zu of %d large images opened\n", full.items, big);
            return 1;
        }
        const double perItemPeak = (double(full.peakKiB - base.peakKiB) * 1024.0) / big;
        const double perItemHeld = (double(full.residentKiB - base.residentKiB) * 1024.0) / big;
        const double expected = double(full.expectedBytes) / big;
        std::printf("memory, %d images of 6000 x 4000 in one model: peak %.1f MiB, held after opening %.1f MiB "
                    "(empty model: peak %.1f MiB, held %.1f MiB)\n",
                    big, full.peakKiB / 1024.0, full.residentKiB / 1024.0, base.peakKiB / 1024.0,
                    base.residentKiB / 1024.0);
        std::printf("per item: peak %.1f MiB, held %.1f MiB; expected %.1f MiB (decoded image + raster + index); "
                    "ratios %.2f and %.2f\n",
                    perItemPeak / 1048576.0, perItemHeld / 1048576.0, expected / 1048576.0, perItemPeak / expected,
                    perItemHeld / expected);
    }
    return 0;
}
