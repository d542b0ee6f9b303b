// orvane-trim against ImageMagick's "mogrify -trim +repage -path" on the same
// batch of PNGs in the same run: wall time, the ratio and the bytes written.
//
//   bench_cli [--count N] [--width W] [--height H] [--jobs N] [--kind artwork|photo|both] [--keep DIR]
//
// Makes N PNGs of W × H (default 100 of 2000 × 1500) inside a transparent
// border that differs per file: "artwork" is smooth gradients with flat
// shapes (quick to compress), "photo" adds grain (where PNG compression takes
// most of the time). The files are read once before timing so that both
// tools find them cached. Besides wall time the CPU time of each tool is
// reported, which stays meaningful on a busy machine.

#include <cstdio>
#include <thread>

#include <sys/resource.h>

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <vips/vips8>

using vips::VImage;

namespace {

struct Settings {
    int count = 100;
    int width = 2000;
    int height = 1500;
    int jobs = 0; // orvane-trim's own default (the number of cores)
    QString kind = QStringLiteral("both");
    QString keep;
};

VImage sample(int index, int width, int height, bool grain)
{
    const int left = 120 + (index * 37) % 200;
    const int top = 90 + (index * 53) % 160;
    const int w = width - left - (100 + (index * 29) % 180);
    const int h = height - top - (80 + (index * 41) % 150);
    const VImage xy = VImage::xyz(w, h);
    const VImage x = xy[0];
    const VImage y = xy[1];
    const VImage red = x * (200.0 / w) + 30;
    const VImage green = y * (180.0 / h) + 40;
    const VImage blue = (x + y) * (120.0 / (w + h)) + 60 + index;
    VImage rgb = red.bandjoin(green).bandjoin(blue);
    if (grain) {
        rgb = rgb + VImage::gaussnoise(w, h, VImage::option()->set("sigma", 6.0)->set("mean", 0.0));
    } else {
        // A few flat shapes, as in exported artwork.
        rgb = rgb.cast(VIPS_FORMAT_UCHAR).copy_memory();
        for (int k = 0; k < 6; ++k) {
            const std::vector<double> ink = {double((k * 70 + index) % 256), double((k * 40) % 256), double((k * 90) % 256)};
            rgb.draw_rect(ink, (k * 211) % (w / 2), (k * 157) % (h / 2), w / 5, h / 6, VImage::option()->set("fill", true));
        }
    }
    rgb = rgb.bandjoin_const({255}).cast(VIPS_FORMAT_UCHAR);
    return rgb
        .embed(left, top, width, height,
               VImage::option()->set("extend", VIPS_EXTEND_BACKGROUND)->set("background", std::vector<double>{0, 0, 0, 0}))
        .copy(VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB));
}

qint64 folderBytes(const QString& folder, int* files = nullptr)
{
    qint64 total = 0;
    const QFileInfoList list = QDir(folder).entryInfoList(QDir::Files);
    for (const QFileInfo& info : list)
        total += info.size();
    if (files)
        *files = static_cast<int>(list.size());
    return total;
}

double childCpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_CHILDREN, &usage);
    return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec + (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

struct Timing {
    double wall = -1; // seconds
    double cpu = -1;  // user + system seconds of the process and its threads
};

// Runs the program to the end; wall negative on failure.
Timing timed(const QString& program, const QStringList& args)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.setStandardOutputFile(QProcess::nullDevice());
    const double cpuBefore = childCpuSeconds();
    QElapsedTimer clock;
    clock.start();
    process.start(program, args);
    if (!process.waitForFinished(-1) || process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0) {
        std::fprintf(stderr, "%s failed (exit %d)\n", qPrintable(program), process.exitCode());
        return {};
    }
    return {clock.nsecsElapsed() / 1e9, childCpuSeconds() - cpuBefore};
}

// How many outputs of the two tools differ in size or in any pixel: both
// should cut the same border and keep every pixel.
int mismatches(const QString& ours, const QString& theirs, const QStringList& names)
{
    int count = 0;
    for (const QString& name : names) {
        const QByteArray a = QFile::encodeName(QDir(ours).filePath(name));
        const QByteArray b = QFile::encodeName(QDir(theirs).filePath(name));
        try {
            const VImage x = VImage::new_from_file(a.constData());
            const VImage y = VImage::new_from_file(b.constData());
            count += x.width() != y.width() || x.height() != y.height() || x.bands() != y.bands()
                || (x == y).bandand().min() != 255.0;
        } catch (const vips::VError&) {
            ++count;
        }
    }
    return count;
}

bool runKind(const Settings& s, const QString& root, bool grain, const QString& mogrify)
{
    QDir().mkpath(root);
    const QDir dir(root);
    dir.mkpath(QStringLiteral("in"));
    dir.mkpath(QStringLiteral("orvane"));
    dir.mkpath(QStringLiteral("magick"));
    const QString in = dir.filePath(QStringLiteral("in"));

    std::printf("\n%s: making %d PNGs of %d x %d with transparent borders...\n", grain ? "photo" : "artwork", s.count,
                s.width, s.height);
    std::fflush(stdout);
    QStringList names;
    QStringList inputs;
    for (int i = 0; i < s.count; ++i) {
        const QString name = QStringLiteral("image%1.png").arg(i + 1, 3, 10, QLatin1Char('0'));
        const QString path = QDir(in).filePath(name);
        names << name;
        inputs << path;
        if (!QFileInfo::exists(path))
            sample(i, s.width, s.height, grain).write_to_file(QFile::encodeName(path).constData());
    }
    // Both tools should find the inputs in the page cache.
    for (const QString& path : std::as_const(inputs)) {
        QFile file(path);
        if (file.open(QIODevice::ReadOnly))
            file.readAll();
    }

    QStringList trimArgs = {QStringLiteral("--overwrite"), QStringLiteral("-o"), dir.filePath(QStringLiteral("orvane"))};
    if (s.jobs > 0)
        trimArgs << QStringLiteral("-j") << QString::number(s.jobs);
    trimArgs << in;
    const QStringList magickArgs = QStringList{QStringLiteral("-trim"), QStringLiteral("+repage"), QStringLiteral("-path"),
                                               dir.filePath(QStringLiteral("magick"))}
        + inputs;

    const Timing ours = timed(QStringLiteral(ORVANE_TRIM_BINARY), trimArgs);
    const Timing theirs = timed(mogrify, magickArgs);
    if (ours.wall <= 0 || theirs.wall <= 0)
        return false;

    int oursFiles = 0, theirFiles = 0;
    const qint64 oursBytes = folderBytes(dir.filePath(QStringLiteral("orvane")), &oursFiles);
    const qint64 theirBytes = folderBytes(dir.filePath(QStringLiteral("magick")), &theirFiles);
    const qint64 inputBytes = folderBytes(in);

    std::printf("input: %d files, %lld bytes\n", s.count, static_cast<long long>(inputBytes));
    std::printf("orvane-trim -o:               wall %8.2f s  cpu %8.2f s  %3d files  %12lld bytes\n", ours.wall, ours.cpu,
                oursFiles, static_cast<long long>(oursBytes));
    std::printf("mogrify -trim +repage -path:  wall %8.2f s  cpu %8.2f s  %3d files  %12lld bytes\n", theirs.wall,
                theirs.cpu, theirFiles, static_cast<long long>(theirBytes));
    std::printf("speed-up (mogrify / orvane-trim): wall %.2fx, cpu %.2fx\n", theirs.wall / ours.wall,
                theirs.cpu / ours.cpu);
    std::printf("output bytes (orvane-trim / mogrify): %.3f\n",
                theirBytes > 0 ? double(oursBytes) / double(theirBytes) : 0.0);
    std::printf("outputs that differ between the two in size or pixels: %d\n",
                mismatches(dir.filePath(QStringLiteral("orvane")), dir.filePath(QStringLiteral("magick")), names));
    return true;
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    if (VIPS_INIT(argv[0]) != 0)
        return 1;

    Settings s;
    const QStringList args = QCoreApplication::arguments();
    for (qsizetype i = 1; i + 1 < args.size(); i += 2) {
        const QString& key = args.at(i);
        const QString& value = args.at(i + 1);
        if (key == QLatin1String("--count"))
            s.count = value.toInt();
        else if (key == QLatin1String("--width"))
            s.width = value.toInt();
        else if (key == QLatin1String("--height"))
            s.height = value.toInt();
        else if (key == QLatin1String("--jobs"))
            s.jobs = value.toInt();
        else if (key == QLatin1String("--kind"))
            s.kind = value;
        else if (key == QLatin1String("--keep"))
            s.keep = value;
    }
    if (s.count < 1 || s.width < 800 || s.height < 600) {
        std::fprintf(stderr, "usage: bench_cli [--count N] [--width W>=800] [--height H>=600] [--jobs N] "
                             "[--kind artwork|photo|both] [--keep DIR]\n");
        return 2;
    }

    const QString mogrify = QStandardPaths::findExecutable(QStringLiteral("mogrify"));
    if (mogrify.isEmpty()) {
        std::fprintf(stderr, "mogrify (ImageMagick) is not installed; run scripts/install-deps\n");
        return 1;
    }

    QTemporaryDir scratch;
    const QString root = s.keep.isEmpty() ? scratch.path() : s.keep;
    std::printf("cores: %u\n", std::thread::hardware_concurrency());
    bool ok = true;
    for (const char* kind : {"artwork", "photo"}) {
        if (s.kind == QLatin1String(kind) || s.kind == QLatin1String("both"))
            ok = runKind(s, QDir(root).filePath(QLatin1String(kind)), QLatin1String(kind) == QLatin1String("photo"), mogrify) && ok;
    }
    return ok ? 0 : 1;
}
