// Opening through the streamed pass against a bare libvips decode of the same
// file, in the same run: time and peak memory, each measured in a child
// process of its own (VmHWM starts afresh at exec). Then the images too large
// to hold (open and save), and orvane-trim -n --json over a card's worth of
// camera-sized JPEGs against the same decodes one after another.
//
//   bench_stream [--dir PATH] [--runs N] [--card N] [--no-huge]
//
// Test images are generated once into PATH (default: a folder under the
// temp directory, reused by later runs).
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
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <vips/vips8>

#include "imagefile/imagefile.h"
#include "imagefile/imagesource.h"
#include "benchsupport.h"

using namespace orvane;
using bench::cpuMilliseconds;
using bench::statusKiB;

namespace {

using Clock = std::chrono::steady_clock;

// A photo-like picture: a smooth noisy field in the middle of a white border.
vips::VImage picture(int width, int height, int seed)
{
    const int innerW = width * 7 / 10;
    const int innerH = height * 7 / 10;
    vips::VImage noise = vips::VImage::gaussnoise(std::max(innerW / 4, 1), std::max(innerH / 4, 1),
                                                  vips::VImage::option()->set("mean", 110.0 + seed % 40)->set("sigma", 45.0)->set("seed", seed));
    vips::VImage field = noise.bandjoin(noise.rot180()).bandjoin(noise.flip(VIPS_DIRECTION_HORIZONTAL))
                             .resize(4.0, vips::VImage::option()->set("kernel", VIPS_KERNEL_LINEAR))
                             .cast(VIPS_FORMAT_UCHAR);
    return field
        .embed((width - field.width()) / 2, (height - field.height()) / 2, width, height,
               vips::VImage::option()->set("extend", VIPS_EXTEND_WHITE))
        .copy(vips::VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB));
}

QString ensure(const QString& dir, const QString& name, int width, int height, const char* options)
{
    const QString path = QDir(dir).filePath(name);
    if (!QFileInfo::exists(path)) {
        std::fprintf(stderr, "writing %s …\n", qPrintable(name));
        const QString partial = path + QStringLiteral(".part") + QFileInfo(name).suffix().prepend(QLatin1Char('.'));
        picture(width, height, width % 97).write_to_file((QFile::encodeName(partial) + options).constData());
        QFile::rename(partial, path);
    }
    return path;
}

// One operation on one file (or folder), as a child: prints its best time in
// milliseconds over runs and the process's peak resident size in KiB.
int child(const QString& op, const QString& path, int runs)
{
    double best = 1e300;
    double bestCpu = 1e300;
    bool ok = true;
    for (int run = 0; run < runs; ++run) {
        const auto start = Clock::now();
        const double cpuStart = cpuMilliseconds();
        if (op == QLatin1String("vips")) {
            // libvips on its own: the file's loader, the image decoded into memory.
            vips::VImage image = vips::VImage::new_from_file(QFile::encodeName(path).constData(),
                                                             vips::VImage::option()->set("access", VIPS_ACCESS_SEQUENTIAL));
            ok = image.copy_memory().width() > 0;
        } else if (op == QLatin1String("vips-folder")) {
            for (const QFileInfo& file : QDir(path).entryInfoList(QDir::Files, QDir::Name)) {
                vips::VImage image = vips::VImage::new_from_file(QFile::encodeName(file.filePath()).constData(),
                                                                 vips::VImage::option()->set("access", VIPS_ACCESS_SEQUENTIAL));
                ok = ok && image.copy_memory().width() > 0;
            }
        } else if (op == QLatin1String("index")) {
            ok = ImageFile::index(path, true).has_value();
        } else if (op == QLatin1String("decode")) {
            ok = ImageFile::decode(path).has_value();
        } else if (op == QLatin1String("load")) {
            ok = ImageFile::load(path).has_value();
        } else if (op == QLatin1String("save")) {
            const std::optional<ImageFile::Decoded> decoded = ImageFile::decode(path);
            const std::optional<PixelRect> rect = decoded ? decoded->summary.contentRect(50) : std::nullopt;
            const QString out = path + QStringLiteral(".cropped.") + QFileInfo(path).suffix();
            ok = rect && ImageFile::saveCropped(*decoded, *rect, out, decoded->summary.type);
            QFile::remove(out);
        }
        best = std::min(best, std::chrono::duration<double, std::milli>(Clock::now() - start).count());
        bestCpu = std::min(bestCpu, cpuMilliseconds() - cpuStart);
    }
    std::printf("%d %.1f %ld %.1f\n", ok ? 1 : 0, best, statusKiB("VmHWM:"), bestCpu);
    return 0;
}

struct Measured {
    bool ok = false;
    double ms = 0;
    double peakMiB = 0;
    double cpuMs = 0;
};

// Runs argv as a child and reads its report, or (for another program) times
// it and takes its peak from wait4.
Measured spawn(std::vector<QByteArray> args, bool reports)
{
    int fds[2];
    if (::pipe(fds) != 0)
        std::exit(1);
    const auto start = Clock::now();
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(fds[1], STDOUT_FILENO);
        ::close(fds[0]);
        std::vector<char*> argv;
        for (QByteArray& arg : args)
            argv.push_back(arg.data());
        argv.push_back(nullptr);
        ::execv(argv[0], argv.data());
        std::_Exit(127);
    }
    ::close(fds[1]);
    QByteArray text;
    char buffer[65536];
    for (ssize_t n; (n = ::read(fds[0], buffer, sizeof buffer)) > 0;)
        text.append(buffer, n);
    ::close(fds[0]);
    int status = 0;
    rusage usage{};
    ::wait4(pid, &status, 0, &usage);
    Measured m;
    if (reports) {
        int ok = 0;
        long kib = 0;
        std::sscanf(text.constData(), "%d %lf %ld %lf", &ok, &m.ms, &kib, &m.cpuMs);
        m.ok = ok == 1;
        m.peakMiB = kib / 1024.0;
    } else {
        m.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
        m.ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
        m.peakMiB = usage.ru_maxrss / 1024.0;
        m.cpuMs = (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e3
            + (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e3;
    }
    return m;
}

Measured measure(const char* self, const char* op, const QString& path, int runs)
{
    return spawn({QByteArray(self), QByteArray("--child"), QByteArray(op), QFile::encodeName(path),
                  QByteArray::number(runs)},
                 true);
}

void row(const char* what, const Measured& ours, const Measured& reference)
{
    std::printf("%-40s %7.0f ms (cpu %7.0f) %6.0f MiB | libvips %7.0f ms (cpu %7.0f) %6.0f MiB | wall x%.2f cpu x%.2f%s\n",
                what, ours.ms, ours.cpuMs, ours.peakMiB, reference.ms, reference.cpuMs, reference.peakMiB,
                ours.ms / reference.ms, ours.cpuMs / reference.cpuMs, ours.ok && reference.ok ? "" : "  (FAILED)");
    std::fflush(stdout);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (VIPS_INIT(argv[0]) != 0)
        return 1;
    ImageFile::initialise();
    vips_cache_set_max(0);

    if (argc >= 5 && std::strcmp(argv[1], "--child") == 0)
        return child(QString::fromLatin1(argv[2]), QFile::decodeName(argv[3]), std::atoi(argv[4]));

    QString dir = QDir::temp().filePath(QStringLiteral("orvane-bench-stream"));
    int runs = 3;
    int card = 150;
    bool huge = true;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--dir") && i + 1 < argc)
            dir = QFile::decodeName(argv[++i]);
        else if (!std::strcmp(argv[i], "--runs") && i + 1 < argc)
            runs = std::max(1, std::atoi(argv[++i]));
        else if (!std::strcmp(argv[i], "--card") && i + 1 < argc)
            card = std::max(0, std::atoi(argv[++i]));
        else if (!std::strcmp(argv[i], "--no-huge"))
            huge = false;
    }
    QDir().mkpath(dir);
    const char* self = argv[0];

    std::printf("opening: index + thumbnail + preview (one streamed pass) against libvips decoding the file into "
                "memory; best of %d runs (wall and CPU time apart), peak resident memory of each child\n",
                runs);
    const struct {
        const char* label;
        QString path;
    } files[] = {
        {"24 MP JPEG (6000 x 4000)", ensure(dir, QStringLiteral("photo-24mp.jpg"), 6000, 4000, "[Q=90]")},
        {"24 MP PNG (6000 x 4000)", ensure(dir, QStringLiteral("photo-24mp.png"), 6000, 4000, "")},
        {"139 MP PNG (9921 x 14031, A4 1200 dpi)", ensure(dir, QStringLiteral("scan-139mp.png"), 9921, 14031, "[compression=3]")},
    };
    for (const auto& file : files) {
        const Measured reference = measure(self, "vips", file.path, runs);
        row(file.label, measure(self, "index", file.path, runs), reference);
        row("  decode (held, for the window)", measure(self, "decode", file.path, runs), reference);
    }
    if (huge) {
        std::printf("\nimages too large to hold: open (index) and save (content at tolerance 50, read again)\n");
        const QString png = ensure(dir, QStringLiteral("huge-20000.png"), 20000, 20000, "[compression=1]");
        const QString jpeg = ensure(dir, QStringLiteral("huge-30000x20000.jpg"), 30000, 20000, "[Q=85]");
        for (const QString& path : {png, jpeg}) {
            const Measured reference = measure(self, "vips", path, 1);
            row(qPrintable(QStringLiteral("open %1").arg(QFileInfo(path).fileName())), measure(self, "index", path, 1), reference);
            row(qPrintable(QStringLiteral("save %1").arg(QFileInfo(path).fileName())), measure(self, "save", path, 1), reference);
        }
    }

    if (card > 0) {
        const QString folder = QDir(dir).filePath(QStringLiteral("card"));
        QDir().mkpath(folder);
        const QByteArray source = QFile::encodeName(files[0].path);
        for (int i = 0; i < card; ++i) {
            const QByteArray link = QFile::encodeName(QDir(folder).filePath(QStringLiteral("IMG_%1.jpg").arg(i, 4, 10, QLatin1Char('0'))));
            if (!QFileInfo::exists(QFile::decodeName(link)))
                (void)!::link(source.constData(), link.constData());
        }
        const Measured reference = measure(self, "vips-folder", folder, 1);
        const Measured trim = spawn({QByteArray(ORVANE_TRIM_BINARY), QByteArray("-n"), QByteArray("--json"),
                                     QFile::encodeName(folder)},
                                    false);
        std::printf("\n");
        row(qPrintable(QStringLiteral("orvane-trim -n --json, %1 x 24 MP JPEG").arg(card)), trim, reference);
        std::printf("(libvips: the same files decoded one after another in one process)\n");
    }
    return 0;
}
