// orvane-trim against ImageMagick's mogrify on the same batches in the same
// run: wall time, CPU time, the ratios and the bytes written.
//
//   bench_cli [--count N] [--width W] [--height H] [--jpeg-count N] [--jpeg-width W] [--jpeg-height H]
//             [--jobs N] [--kind grey|photo|artwork|screenshot|jpeg|png|all] [--keep DIR]
//
// PNG kinds: N PNGs of W × H (default 40 of 2000 × 1500) inside a transparent
// border that differs per file, against "mogrify -trim +repage -path":
//   grey        grey scans with grain (red = green = blue)
//   photo       colour photographs with grain (where compression takes most of the time)
//   artwork     smooth gradients with flat shapes
//   screenshot  flat colours and text
// The outputs of both tools are compared pixel for pixel.
// jpeg: N JPEGs of W × H (default 100 of 6000 × 4000, 4:2:0) on white, against
// "mogrify -quality 92 -trim +repage -path", written by orvane-trim normally
// and with --lossless. Lossy outputs are compared by size and mean difference;
// lossless ones must hold the normal output's rectangle (their left and top
// edges move out to the block grid).
// The files are read once before timing so that both tools find them cached.
// Besides wall time the CPU time of each tool is reported, which stays
// meaningful on a busy machine.

#include <algorithm>
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
    int count = 40;
    int width = 2000;
    int height = 1500;
    int jpegCount = 100;
    int jpegWidth = 6000;
    int jpegHeight = 4000;
    int jobs = 0; // orvane-trim's own default (the number of cores)
    QString kind = QStringLiteral("all");
    QString keep;
};

enum class Kind { Grey, Photo, Artwork, Screenshot, Jpeg };

const char* nameOf(Kind kind)
{
    switch (kind) {
    case Kind::Grey: return "grey";
    case Kind::Photo: return "photo";
    case Kind::Artwork: return "artwork";
    case Kind::Screenshot: return "screenshot";
    case Kind::Jpeg: return "jpeg";
    }
    return "";
}

// The content of image index: w × h, 8-bit, three bands.
VImage content(Kind kind, int index, int w, int h)
{
    const VImage xy = VImage::xyz(w, h);
    const VImage x = xy[0];
    const VImage y = xy[1];
    if (kind == Kind::Grey) {
        // Paper shading from 150 to 230 and print, with scanner grain.
        VImage grey = x * (50.0 / w) + y * (30.0 / h) + 150 + index % 7;
        grey = grey + VImage::gaussnoise(w, h, VImage::option()->set("sigma", 6.0)->set("mean", 0.0));
        grey = grey.cast(VIPS_FORMAT_UCHAR).copy_memory();
        for (int k = 0; k < 40; ++k)
            grey.draw_rect({double(20 + (k * 13) % 60)}, (k * 97) % (w - w / 3), (k * 61) % (h - 20), w / 3, 12,
                           VImage::option()->set("fill", true));
        return grey.bandjoin(grey).bandjoin(grey);
    }
    if (kind == Kind::Screenshot) {
        // A window: a light background, flat panels, a title bar and lines of text.
        VImage rgb = (VImage::black(w, h, VImage::option()->set("bands", 3)) + std::vector<double>{246, 246, 248})
                         .cast(VIPS_FORMAT_UCHAR)
                         .copy_memory();
        rgb.draw_rect({52, 101, 164}, 0, 0, w, 36, VImage::option()->set("fill", true));
        rgb.draw_rect({90, 90, 96}, 0, 0, w, h); // the window's frame, so that both tools find the same edge
        rgb.draw_rect({230, 232, 236}, 0, 36, w / 5, h - 36, VImage::option()->set("fill", true));
        rgb.draw_rect({255, 255, 255}, w / 5 + 20, 60, w - w / 5 - 40, h - 80, VImage::option()->set("fill", true));
        rgb.draw_rect({255, 200, 80}, w / 5 + 40, 80, 160, 40, VImage::option()->set("fill", true));
        const VImage text = VImage::text(
            QStringLiteral("Orvane trims the empty border off images %1. Drop images or folders on its window; "
                           "every image joins a queue. 0123456789 — the quick brown fox jumps over the lazy dog.")
                .arg(index)
                .toUtf8()
                .constData(),
            VImage::option()->set("width", w - w / 5 - 80)->set("dpi", 96)->set("font", "DejaVu Sans 11"));
        for (int line = 0; 140 + line * (text.height() + 12) + text.height() < h - 40; ++line) {
            const VImage ink = (255 - text).cast(VIPS_FORMAT_UCHAR);
            rgb.draw_image(ink.bandjoin(ink).bandjoin(ink), w / 5 + 40, 140 + line * (text.height() + 12),
                           VImage::option()->set("mode", VIPS_COMBINE_MODE_SET));
        }
        return rgb;
    }
    const VImage red = x * (200.0 / w) + 30;
    const VImage green = y * (180.0 / h) + 40;
    const VImage blue = (x + y) * (120.0 / (w + h)) + 60 + index % 50;
    VImage rgb = red.bandjoin(green).bandjoin(blue);
    if (kind == Kind::Photo || kind == Kind::Jpeg) {
        rgb = rgb + VImage::gaussnoise(w, h, VImage::option()->set("sigma", 6.0)->set("mean", 0.0));
        return rgb.cast(VIPS_FORMAT_UCHAR);
    }
    // A few flat shapes, as in exported artwork.
    rgb = rgb.cast(VIPS_FORMAT_UCHAR).copy_memory();
    for (int k = 0; k < 6; ++k) {
        const std::vector<double> ink = {double((k * 70 + index) % 256), double((k * 40) % 256), double((k * 90) % 256)};
        rgb.draw_rect(ink, (k * 211) % (w / 2), (k * 157) % (h / 2), w / 5, h / 6, VImage::option()->set("fill", true));
    }
    return rgb;
}

// Image index of the kind, its content inside a border that differs per
// file: transparent for PNGs, white for JPEGs.
VImage sample(Kind kind, int index, int width, int height)
{
    const int left = 120 + (index * 37) % 200;
    const int top = 90 + (index * 53) % 160;
    const int w = width - left - (100 + (index * 29) % 180);
    const int h = height - top - (80 + (index * 41) % 150);
    VImage image = content(kind, index, w, h);
    std::vector<double> background = {255, 255, 255};
    if (kind != Kind::Jpeg) {
        image = image.bandjoin_const({255});
        background = {0, 0, 0, 0};
    }
    return image.cast(VIPS_FORMAT_UCHAR)
        .embed(left, top, width, height,
               VImage::option()->set("extend", VIPS_EXTEND_BACKGROUND)->set("background", background))
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

// The image as 8-bit RGBA: either tool may write grey, or leave out an
// opaque alpha.
VImage asRgba(VImage image)
{
    if (image.bands() <= 2)
        image = image.colourspace(VIPS_INTERPRETATION_sRGB);
    if (image.bands() == 3)
        image = image.bandjoin_const({255});
    return image.cast(VIPS_FORMAT_UCHAR);
}

struct Comparison {
    int differing = 0;    // in size or (when exact) in any pixel
    int notHolding = 0;   // outputs of ours that do not hold theirs (lossless)
    double worstMean = 0; // the largest mean absolute difference of equal-sized pairs
};

// Compares the outputs of the two tools, file by file. exact: every pixel
// must agree; holding: ours may be larger by its block grid.
Comparison compare(const QString& ours, const QString& theirs, const QStringList& names, bool exact)
{
    Comparison result;
    for (const QString& name : names) {
        const QByteArray a = QFile::encodeName(QDir(ours).filePath(name));
        const QByteArray b = QFile::encodeName(QDir(theirs).filePath(name));
        try {
            const VImage x = asRgba(VImage::new_from_file(a.constData()));
            const VImage y = asRgba(VImage::new_from_file(b.constData()));
            if (x.width() != y.width() || x.height() != y.height()) {
                ++result.differing;
                result.notHolding += x.width() < y.width() || x.height() < y.height();
                continue;
            }
            if (exact)
                result.differing += (x == y).bandand().min() != 255.0;
            else
                result.worstMean = std::max(result.worstMean, (x - y).abs().avg());
        } catch (const vips::VError&) {
            ++result.differing;
            ++result.notHolding;
        }
    }
    return result;
}

void report(const char* label, const Timing& t, const QString& folder)
{
    int files = 0;
    const qint64 bytes = folderBytes(folder, &files);
    std::printf("%-34s wall %8.2f s  cpu %8.2f s  %3d files  %12lld bytes\n", label, t.wall, t.cpu, files,
                static_cast<long long>(bytes));
}

bool runKind(const Settings& s, const QString& root, Kind kind, const QString& mogrify)
{
    const bool jpeg = kind == Kind::Jpeg;
    const int count = jpeg ? s.jpegCount : s.count;
    const int width = jpeg ? s.jpegWidth : s.width;
    const int height = jpeg ? s.jpegHeight : s.height;
    QDir().mkpath(root);
    const QDir dir(root);
    for (const char* sub : {"in", "orvane", "lossless", "magick"})
        dir.mkpath(QLatin1String(sub));
    const QString in = dir.filePath(QStringLiteral("in"));

    std::printf("\n%s: making %d %s of %d x %d...\n", nameOf(kind), count, jpeg ? "JPEGs (Q 92, 4:2:0) on white" : "PNGs with transparent borders",
                width, height);
    std::fflush(stdout);
    QStringList names;
    QStringList inputs;
    for (int i = 0; i < count; ++i) {
        const QString name = QStringLiteral("image%1.%2").arg(i + 1, 3, 10, QLatin1Char('0')).arg(jpeg ? "jpg" : "png");
        const QString path = QDir(in).filePath(name);
        names << name;
        inputs << path;
        if (QFileInfo::exists(path))
            continue;
        const VImage image = sample(kind, i, width, height);
        if (jpeg) {
            image.jpegsave(QFile::encodeName(path).constData(),
                           VImage::option()->set("Q", 92)->set("subsample_mode", VIPS_FOREIGN_SUBSAMPLE_ON));
        } else {
            image.write_to_file(QFile::encodeName(path).constData());
        }
    }
    // Both tools should find the inputs in the page cache.
    for (const QString& path : std::as_const(inputs)) {
        QFile file(path);
        if (file.open(QIODevice::ReadOnly))
            file.readAll();
    }

    const auto trimArgs = [&](const char* folder, bool lossless) {
        QStringList args = {QStringLiteral("--overwrite"), QStringLiteral("-o"), dir.filePath(QLatin1String(folder))};
        if (lossless)
            args << QStringLiteral("--lossless");
        if (s.jobs > 0)
            args << QStringLiteral("-j") << QString::number(s.jobs);
        return args << in;
    };
    QStringList magickArgs = {QStringLiteral("-trim"), QStringLiteral("+repage"), QStringLiteral("-path"),
                              dir.filePath(QStringLiteral("magick"))};
    if (jpeg)
        magickArgs = QStringList{QStringLiteral("-quality"), QStringLiteral("92")} + magickArgs;
    magickArgs += inputs;

    const Timing ours = timed(QStringLiteral(ORVANE_TRIM_BINARY), trimArgs("orvane", false));
    const Timing lossless = jpeg ? timed(QStringLiteral(ORVANE_TRIM_BINARY), trimArgs("lossless", true)) : Timing{1, 1};
    const Timing theirs = timed(mogrify, magickArgs);
    if (ours.wall <= 0 || lossless.wall <= 0 || theirs.wall <= 0)
        return false;

    const qint64 inputBytes = folderBytes(in);
    const qint64 oursBytes = folderBytes(dir.filePath(QStringLiteral("orvane")));
    const qint64 theirBytes = folderBytes(dir.filePath(QStringLiteral("magick")));
    std::printf("input: %d files, %lld bytes\n", count, static_cast<long long>(inputBytes));
    report("orvane-trim -o:", ours, dir.filePath(QStringLiteral("orvane")));
    if (jpeg)
        report("orvane-trim --lossless -o:", lossless, dir.filePath(QStringLiteral("lossless")));
    report(jpeg ? "mogrify -quality 92 -trim +repage:" : "mogrify -trim +repage -path:", theirs,
           dir.filePath(QStringLiteral("magick")));
    std::printf("speed-up (mogrify / orvane-trim): wall %.2fx, cpu %.2fx\n", theirs.wall / ours.wall, theirs.cpu / ours.cpu);
    std::printf("output bytes (orvane-trim / mogrify): %.3f\n",
                theirBytes > 0 ? double(oursBytes) / double(theirBytes) : 0.0);
    const Comparison normal = compare(dir.filePath(QStringLiteral("orvane")), dir.filePath(QStringLiteral("magick")), names, !jpeg);
    if (!jpeg) {
        std::printf("outputs that differ between the two in size or pixels: %d\n", normal.differing);
        return true;
    }
    std::printf("outputs that differ from mogrify's in size: %d; largest mean difference of the others: %.2f levels\n",
                normal.differing, normal.worstMean);
    const qint64 losslessBytes = folderBytes(dir.filePath(QStringLiteral("lossless")));
    std::printf("speed-up (mogrify / orvane-trim --lossless): wall %.2fx, cpu %.2fx\n", theirs.wall / lossless.wall,
                theirs.cpu / lossless.cpu);
    std::printf("output bytes (orvane-trim --lossless / mogrify): %.3f\n",
                theirBytes > 0 ? double(losslessBytes) / double(theirBytes) : 0.0);
    // mogrify keeps the faint ringing around JPEG content that Orvane's
    // tolerance trims, so the lossless cuts are held against Orvane's own.
    const Comparison cut = compare(dir.filePath(QStringLiteral("lossless")), dir.filePath(QStringLiteral("orvane")), names, false);
    std::printf("lossless outputs that do not hold orvane-trim's normal rectangle: %d\n", cut.notHolding);
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
        else if (key == QLatin1String("--jpeg-count"))
            s.jpegCount = value.toInt();
        else if (key == QLatin1String("--jpeg-width"))
            s.jpegWidth = value.toInt();
        else if (key == QLatin1String("--jpeg-height"))
            s.jpegHeight = value.toInt();
        else if (key == QLatin1String("--jobs"))
            s.jobs = value.toInt();
        else if (key == QLatin1String("--kind"))
            s.kind = value;
        else if (key == QLatin1String("--keep"))
            s.keep = value;
    }
    if (s.count < 1 || s.jpegCount < 1 || s.width < 800 || s.height < 600 || s.jpegWidth < 800 || s.jpegHeight < 600) {
        std::fprintf(stderr, "usage: bench_cli [--count N] [--width W>=800] [--height H>=600] [--jpeg-count N] "
                             "[--jpeg-width W>=800] [--jpeg-height H>=600] [--jobs N] "
                             "[--kind grey|photo|artwork|screenshot|jpeg|png|all] [--keep DIR]\n");
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
    for (const Kind kind : {Kind::Grey, Kind::Photo, Kind::Artwork, Kind::Screenshot, Kind::Jpeg}) {
        const QString name = QLatin1String(nameOf(kind));
        const bool png = kind != Kind::Jpeg;
        if (s.kind == name || s.kind == QLatin1String("all") || (png && s.kind == QLatin1String("png")))
            ok = runKind(s, QDir(root).filePath(name), kind, mogrify) && ok;
    }
    return ok ? 0 : 1;
}
