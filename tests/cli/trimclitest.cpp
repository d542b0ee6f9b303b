// orvane-trim run end to end: the real binary on folders made by the test.

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <vips/vips8>

#include "clitestsupport.h"

namespace {

using namespace orvane::test;
using vips::VImage;

struct Box {
    int x, y, w, h;
};

VImage withSRGB(const VImage& image)
{
    return image.copy(VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB));
}

VImage placed(const VImage& content, int width, int height, int x, int y, std::vector<double> background)
{
    return withSRGB(content.embed(x, y, width, height,
                                  VImage::option()->set("extend", VIPS_EXTEND_BACKGROUND)->set("background", background)));
}

// An RGBA image: transparent (or opaque white) around an opaque block of colour.
VImage framed(int width, int height, Box box, std::vector<double> colour = {30, 60, 90}, bool whiteBackground = false)
{
    colour.push_back(255);
    const VImage block = (VImage::black(box.w, box.h, VImage::option()->set("bands", 4)) + colour).cast(VIPS_FORMAT_UCHAR);
    return placed(block, width, height, box.x, box.y, std::vector<double>(4, whiteBackground ? 255 : 0));
}

// A fully transparent RGBA image.
VImage clear(int width, int height)
{
    return withSRGB(VImage::black(width, height, VImage::option()->set("bands", 4)).cast(VIPS_FORMAT_UCHAR));
}

std::pair<int, int> sizeOf(const VImage& image)
{
    return {image.width(), image.height()};
}

// Random opaque pixels inside a transparent frame: a PNG that does not shrink
// much when compressed.
VImage noisy(int width, int height, int frame)
{
    const int w = width - 2 * frame, h = height - 2 * frame;
    const VImage noise = VImage::gaussnoise(w, h, VImage::option()->set("mean", 128.0)->set("sigma", 60.0));
    const VImage rgb = noise.bandjoin(VImage::gaussnoise(w, h)).bandjoin(VImage::gaussnoise(w, h));
    return placed(rgb.bandjoin_const({255}).cast(VIPS_FORMAT_UCHAR), width, height, frame, frame, {0, 0, 0, 0});
}

VImage readBack(const QString& path)
{
    return VImage::new_from_file(QFile::encodeName(path).constData()).copy_memory();
}

std::string str(const QJsonObject& object, const char* key)
{
    return object.value(QLatin1String(key)).toString().toStdString();
}

// The rectangle found at the first (or only) tolerance of a dry run.
QJsonArray firstRect(const QJsonObject& object)
{
    return object.value("rects").toArray().first().toObject().value("rect").toArray();
}

// One text field of every object; paths by their file name.
QStringList column(const QList<QJsonObject>& objects, const char* key)
{
    QStringList list;
    for (const QJsonObject& object : objects) {
        const QString value = object.value(QLatin1String(key)).toString();
        list << (qstrcmp(key, "path") == 0 ? QFileInfo(value).fileName() : value);
    }
    return list;
}

class TrimCli : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(m_dir.isValid()); }

    QString path(const QString& name) const { return m_dir.filePath(name); }

    QString makeFolder(const QString& name) const
    {
        QDir(m_dir.path()).mkpath(name);
        return path(name);
    }

    void write(const QString& name, const VImage& image, const char* options = "") const
    {
        image.write_to_file((QFile::encodeName(path(name)) + options).constData());
    }

    void chmod(const QString& name, mode_t mode) const { ::chmod(QFile::encodeName(path(name)).constData(), mode); }

    // Runs orvane-trim with args in the test's folder, optionally under a
    // wrapper command such as prlimit or setpriv.
    TrimRun trim(const QStringList& args, const QStringList& wrapper = {}) const
    {
        if (wrapper.isEmpty())
            return orvane::test::trim(args, m_dir.path());
        return runProgram(wrapper.first(), wrapper.mid(1) + QStringList{QStringLiteral(ORVANE_TRIM_BINARY)} + args,
                          m_dir.path());
    }

    // The JSON report of a run that is to end with exitCode.
    QList<QJsonObject> report(const QStringList& args, int exitCode, const QStringList& wrapper = {}) const
    {
        const TrimRun run = trim(QStringList{"--json"} + args, wrapper);
        EXPECT_EQ(run.exitCode, exitCode) << run.err.toStdString();
        return run.json();
    }

    // Whether the binary can run as nobody here (the build folder must be
    // reachable); if so, the temporary folder, private to root, is opened.
    bool canRunAsNobody() const
    {
        if (QStandardPaths::findExecutable("setpriv").isEmpty() || ::geteuid() != 0)
            return false;
        QProcess probe;
        probe.start("setpriv", kNobody.mid(1, 3) << QStringLiteral(ORVANE_TRIM_BINARY) << "--version");
        chmod(QString(), 0755);
        return probe.waitForFinished(30'000) && probe.exitStatus() == QProcess::NormalExit && probe.exitCode() == 0;
    }

    const QStringList kNobody = {"setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups", "--"};
    QTemporaryDir m_dir;
};

// ---------------------------------------------------------------------------
// The command line

TEST_F(TrimCli, UsageErrorsExitWithTwoAClearMessageAndWriteNothing)
{
    write("a.png", framed(40, 30, {5, 5, 10, 10}));
    makeFolder("out");
    const QStringList before = entries(m_dir.path());
    const QList<std::pair<QStringList, const char*>> cases = {
        {{}, "no image file or folder given"},
        {{"--frobnicate", "a.png"}, "frobnicate"},
        {{"-t", "0,25", "a.png"}, "needs --dry-run"},
        {{"-t", "abc", "a.png"}, "tolerance must be a number from 0 to 100"},
        {{"--tolerance=101", "-n", "a.png"}, "tolerance must be"},
        {{"--tolerance=10,,20", "-n", "a.png"}, "tolerance must be"},
        {{"--margin", "2.5", "a.png"}, "margin must be"},
        {{"-j", "0", "a.png"}, "jobs must be"},
        {{"-o", "out", "--in-place", "a.png"}, "cannot be used together"},
        {{"-o", "missing", "a.png"}, "does not exist"},
        {{"-o", "a.png", "a.png"}, "is not a folder"},
        {{"-t"}, "Missing value"},
    };
    for (const auto& [args, message] : cases) {
        SCOPED_TRACE(args.join(QLatin1Char(' ')).toStdString());
        const TrimRun run = trim(args);
        EXPECT_EQ(run.exitCode, 2);
        EXPECT_TRUE(run.out.isEmpty());
        EXPECT_TRUE(run.err.startsWith("orvane-trim: ") && run.err.contains(message)) << run.err.toStdString();
    }
    EXPECT_EQ(entries(m_dir.path()), before);
    EXPECT_TRUE(entries(path("out")).isEmpty());
}

TEST_F(TrimCli, HelpAndVersionExitWithZero)
{
    const TrimRun help = trim({"--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_TRUE(help.out.startsWith("Usage: orvane-trim [options] PATH...")) << help.out.toStdString();
    for (const char* option : {"--tolerance", "--dry-run", "--json", "--output", "--in-place", "--overwrite",
                               "--margin", "--jobs", "trimmed, unchanged, nothing, exists, failed"})
        EXPECT_TRUE(help.out.contains(option)) << option;
    const TrimRun version = trim({"--version"});
    EXPECT_TRUE(version.exitCode == 0 && version.out.startsWith("orvane-trim ")) << version.out.toStdString();
}

// ---------------------------------------------------------------------------
// Dry runs and the report

TEST_F(TrimCli, DryRunAnswersEveryToleranceAndWritesNothing)
{
    // A light grey block counts as content at 25 (200 < 226) but not at 50
    // (200 >= 197); a black block always counts; a half-transparent one
    // (alpha 100) counts at 25 (100 > 63) but not at 50 (100 <= 127).
    const VImage translucent = (VImage::black(4, 4, VImage::option()->set("bands", 4)) + std::vector<double>{0, 0, 0, 100});
    write("grey.png", withSRGB(framed(100, 80, {10, 10, 20, 20}, {200, 200, 200})
                                   .insert(framed(5, 5, {0, 0, 5, 5}, {0, 0, 0}), 50, 40)
                                   .insert(translucent.cast(VIPS_FORMAT_UCHAR), 90, 70)));
    const QStringList before = entries(m_dir.path());
    const TrimRun run = trim({"--dry-run", "--json", "--tolerance=0,25,50,100", "grey.png"});
    EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
    // Every key, in the order people read them.
    EXPECT_EQ(run.out.toStdString(), R"({"path":"grey.png","type":"image/png","width":100,"height":80,"rects":[)"
                       R"({"tolerance":0,"rect":[0,0,100,80]},{"tolerance":25,"rect":[10,10,84,64]},)"
                       R"({"tolerance":50,"rect":[50,40,5,5]},{"tolerance":100,"rect":[50,40,5,5]}]})" "\n");
    EXPECT_EQ(run.err, "1 measured, 0 failed\n");
    EXPECT_EQ(entries(m_dir.path()), before);
}

TEST_F(TrimCli, DryRunReportsNullForNoContentAndErrorObjectsForFailures)
{
    write("clear.png", clear(20, 20));
    ASSERT_TRUE(writeFile(path("broken.png"), QByteArray("\x89PNG\r\n\x1a\n this is not really a PNG")));
    write("fine.png", framed(30, 20, {3, 4, 5, 6}));
    const TrimRun run = trim({"-n", "--json", "clear.png", "gone.png", "broken.png", "fine.png"});
    EXPECT_EQ(run.exitCode, 1);
    const QList<QByteArray> lines = run.out.split('\n');
    ASSERT_EQ(lines.size(), 5);
    EXPECT_EQ(lines[0].toStdString(), R"({"path":"clear.png","type":"image/png","width":20,"height":20,"rects":[{"tolerance":25,"rect":null}]})");
    EXPECT_EQ(lines[1].toStdString(), R"({"path":"gone.png","error":"There’s no file by that name; it may have been moved or deleted.","reason":"missing"})");
    EXPECT_TRUE(lines[2].startsWith(R"({"path":"broken.png","error":")")) << lines[2].toStdString();
    EXPECT_EQ(lines[3].toStdString(), R"({"path":"fine.png","type":"image/png","width":30,"height":20,"rects":[{"tolerance":25,"rect":[3,4,5,6]}]})");
    EXPECT_EQ(run.err, "2 measured, 2 failed\n");
}

TEST_F(TrimCli, PlainTextOutputAndSummaryWithoutATerminal)
{
    write("a.png", framed(40, 30, {5, 6, 7, 8}));
    const TrimRun dry = trim({"-n", "-t", "0,25", "a.png"});
    EXPECT_EQ(dry.out, "a.png: 40x30, tolerance 0: 40x30+0+0, tolerance 25: 7x8+5+6\n");
    // No progress line when stderr is not a terminal: only the summary.
    EXPECT_EQ(dry.err, "1 measured, 0 failed\n");

    const TrimRun run = trim({"a.png", "missing.png"});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.out, "trimmed    a.png -> a-cropped.png (40x30 -> 7x8)\n");
    EXPECT_EQ(run.err, "orvane-trim: missing.png: There’s no file by that name; it may have been moved or deleted. (missing)\n"
                       "1 trimmed, 0 unchanged, 0 without content, 0 already there, 1 failed\n");

    // Images only below the folder's first level are not found.
    makeFolder("empty/sub");
    write("empty/sub/deep.png", framed(10, 10, {1, 1, 1, 1}));
    const TrimRun none = trim({"empty"});
    EXPECT_EQ(none.exitCode, 0);
    EXPECT_TRUE(none.out.isEmpty());
    EXPECT_EQ(none.err, "No supported images found.\n");
}

TEST_F(TrimCli, ProgressLineOnlyOnATerminal)
{
    if (QStandardPaths::findExecutable("script").isEmpty())
        GTEST_SKIP() << "util-linux script is not installed; no terminal to run in";
    write("a.png", framed(40, 30, {5, 6, 7, 8}));
    write("b.png", framed(40, 30, {5, 6, 7, 8}));
    const QString command = QStringLiteral("'%1' -n a.png b.png").arg(QStringLiteral(ORVANE_TRIM_BINARY));
    const TrimRun run = runProgram("script", {"-qec", command, "/dev/null"}, m_dir.path());
    EXPECT_EQ(run.exitCode, 0) << run.out.toStdString();
    EXPECT_TRUE(run.out.contains("\r\033[K2/2 b.png")) << run.out.toStdString();
    EXPECT_TRUE(run.out.contains("2 measured, 0 failed")) << run.out.toStdString();
}

// ---------------------------------------------------------------------------
// Folders: order, skips, input order, parallel jobs

TEST_F(TrimCli, FoldersExpandOneLevelInNameOrderWithSkips)
{
    makeFolder("scans/sub");
    for (const char* name : {"b.png", "a.jpg", "10.png", "2.png", "photo-cropped.png", ".hidden.png", "sub/c.png"})
        write(QStringLiteral("scans/") + name, framed(30, 20, {2, 2, 5, 5}, {0, 0, 0}, true));
    ASSERT_TRUE(writeFile(path("scans/notes.txt"), "not an image"));
    write("first.png", framed(30, 20, {2, 2, 5, 5}));
    write("last.png", framed(30, 20, {2, 2, 5, 5}));

    EXPECT_EQ(column(report({"-n", "first.png", "scans", "last.png"}, 0), "path"),
              (QStringList{"first.png", "2.png", "10.png", "a.jpg", "b.png", "last.png"}))
        << "earlier outputs (-cropped), hidden files, subfolders and other types are left out";
    // Writing into another folder, a name ending in -cropped is just a name.
    makeFolder("out");
    EXPECT_EQ(column(report({"-o", "out", "scans"}, 0), "path"),
              (QStringList{"2.png", "10.png", "a.jpg", "b.png", "photo-cropped.png"}));
    // Beside the sources, a second run does not trim the first run's outputs.
    EXPECT_EQ(trim({"scans"}).exitCode, 0);
    const QList<QJsonObject> second = report({"scans"}, 0);
    EXPECT_EQ(column(second, "path"), (QStringList{"2.png", "10.png", "a.jpg", "b.png"}));
    EXPECT_EQ(column(second, "status"), QStringList(4, "exists"));
}

TEST_F(TrimCli, ParallelJobsKeepInputOrderAndMatchEachImage)
{
    makeFolder("many");
    // Large and small images mixed, so that later ones finish first.
    auto side = [](int i) { return i % 5 == 1 ? 1200 : 20 + i; };
    for (int i = 1; i <= 24; ++i)
        write(QStringLiteral("many/img%1.png").arg(i), framed(side(i), side(i), {1, 2, i, i}));
    for (const char* jobs : {"1", "4", "16"}) {
        SCOPED_TRACE(jobs);
        const QList<QJsonObject> objects = report({"-n", "-j", jobs, "many"}, 0);
        ASSERT_EQ(objects.size(), 24);
        for (int i = 1; i <= 24; ++i) {
            EXPECT_EQ(column({objects[i - 1]}, "path"), QStringList{QStringLiteral("img%1.png").arg(i)});
            EXPECT_EQ(objects[i - 1].value("width").toInt(), side(i));
            EXPECT_EQ(firstRect(objects[i - 1]), (QJsonArray{1, 2, i, i}));
        }
    }
}

// ---------------------------------------------------------------------------
// Writing: names, statuses, collisions, margin

TEST_F(TrimCli, WritesBesideTheSourceUnderTheProposedName)
{
    write("photo.JPG", framed(60, 40, {10, 8, 30, 20}, {0, 0, 0}, true), "[Q=100]");
    write("archive.tar.png", framed(60, 40, {1, 2, 3, 4}, {255, 0, 0}));
    const QByteArray photoBytes = readFile(path("photo.JPG"));
    const TrimRun run = trim({"--json", "photo.JPG", "archive.tar.png"});
    EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
    EXPECT_TRUE(run.out.startsWith(R"({"path":"photo.JPG","type":"image/jpeg","width":60,"height":40,"rects":)"));
    EXPECT_TRUE(run.out.endsWith(R"(,"output":"photo-cropped.JPG","status":"trimmed"})" "\n"
                                 R"({"path":"archive.tar.png","type":"image/png","width":60,"height":40,"rects":)"
                                 R"([{"tolerance":25,"rect":[1,2,3,4]}],"output":"archive.tar-cropped.png","status":"trimmed"})" "\n"))
        << run.out.toStdString();
    const QJsonArray jpegRect = firstRect(run.json().value(0));
    const VImage jpeg = readBack(path("photo-cropped.JPG"));
    EXPECT_TRUE(readFile(path("photo-cropped.JPG")).startsWith("\xff\xd8")) << "a JPEG stays a JPEG";
    EXPECT_EQ(sizeOf(jpeg), std::make_pair(jpegRect[2].toInt(), jpegRect[3].toInt()));
    EXPECT_NEAR(jpeg.width(), 30, 2) << "JPEG blur may move the edge a pixel";
    const VImage png = readBack(path("archive.tar-cropped.png"));
    EXPECT_EQ(sizeOf(png), std::make_pair(3, 4));
    EXPECT_EQ(png.getpoint(0, 0), (std::vector<double>{255, 0, 0})) << "opaque: written without alpha";
    EXPECT_EQ(readFile(path("photo.JPG")), photoBytes) << "the source is never touched";
}

TEST_F(TrimCli, StatusesForEveryOutcome)
{
    makeFolder("out");
    write("trim.png", framed(50, 50, {10, 10, 10, 10}));
    // Stored with weak compression, so a re-encode could not give the same bytes.
    write("full.png", framed(50, 50, {0, 0, 50, 50}), "[compression=1]");
    write("clear.png", clear(50, 50));
    write("taken.png", framed(50, 50, {5, 5, 5, 5}));
    ASSERT_TRUE(writeFile(path("out/taken.png"), "someone else's file"));
    const QByteArray fullBytes = readFile(path("full.png"));

    const QStringList inputs = {"trim.png", "full.png", "clear.png", "taken.png", "gone.png"};
    const TrimRun run = trim(QStringList{"--json", "-o", "out"} + inputs);
    EXPECT_EQ(run.exitCode, 1) << "gone.png could not be read";
    const QList<QJsonObject> o = run.json();
    ASSERT_EQ(column(o, "status"), (QStringList{"trimmed", "unchanged", "nothing", "exists", "failed"}));
    EXPECT_EQ(column(o, "output"), (QStringList{"out/trim.png", "out/full.png", "", "", ""}));
    EXPECT_EQ(o[2].value("output"), QJsonValue(QJsonValue::Null));
    EXPECT_EQ(o[4].keys(), (QStringList{"error", "output", "path", "reason", "status"}));
    EXPECT_EQ(readFile(path("out/full.png")), fullBytes) << "copied byte for byte";
    EXPECT_EQ(readFile(path("out/taken.png")), "someone else's file");
    EXPECT_EQ(entries(path("out")), (QStringList{"full.png", "taken.png", "trim.png"}));
    EXPECT_EQ(run.err, "1 trimmed, 1 unchanged, 1 without content, 1 already there, 1 failed\n");

    // --overwrite replaces the existing output; the others come out the same.
    EXPECT_EQ(column(report(QStringList{"--overwrite", "-o", "out"} + inputs.mid(0, 4), 0), "status"),
              (QStringList{"trimmed", "unchanged", "nothing", "trimmed"}));
    EXPECT_EQ(readBack(path("out/taken.png")).width(), 5);

    // Beside the source, an image with nothing to trim is left alone: no copy.
    const QJsonObject beside = report({"full.png"}, 0).value(0);
    EXPECT_EQ(str(beside, "status"), "unchanged");
    EXPECT_EQ(beside.value("output"), QJsonValue(QJsonValue::Null));
    EXPECT_EQ(entries(m_dir.path()).filter("full"), QStringList{"full.png"});
    EXPECT_EQ(readFile(path("full.png")), fullBytes);
}

TEST_F(TrimCli, TwoInputsForOneOutputFailTheSecond)
{
    makeFolder("a");
    makeFolder("b");
    makeFolder("out");
    write("a/x.png", framed(40, 40, {1, 1, 11, 11}));
    write("b/x.png", framed(40, 40, {1, 1, 22, 22}));
    const QList<QJsonObject> o = report({"--overwrite", "-o", "out", "a/x.png", "b/x.png"}, 1);
    ASSERT_EQ(column(o, "status"), (QStringList{"trimmed", "failed"}));
    EXPECT_NE(str(o[1], "error").find("a/x.png"), std::string::npos) << str(o[1], "error");
    EXPECT_EQ(readBack(path("out/x.png")).width(), 11) << "the first one's result is not overwritten";

    // The same file twice (once through a link) when writing over the source.
    ASSERT_TRUE(QFile::link(path("a/x.png"), path("alias.png")));
    EXPECT_EQ(column(report({"--in-place", "a/x.png", "alias.png"}, 1), "status"), (QStringList{"trimmed", "failed"}));
    EXPECT_EQ(readBack(path("a/x.png")).width(), 11);

    // An output that is another input of the same run is refused, not raced.
    write("c.png", framed(40, 40, {1, 1, 5, 5}));
    write("c-cropped.png", framed(40, 40, {1, 1, 6, 6}));
    const QByteArray cropped = readFile(path("c-cropped.png"));
    EXPECT_EQ(column(report({"--overwrite", "c.png", "c-cropped.png"}, 1), "status"), (QStringList{"failed", "trimmed"}));
    EXPECT_EQ(readFile(path("c-cropped.png")), cropped);
    EXPECT_TRUE(QFileInfo::exists(path("c-cropped-cropped.png")));
}

TEST_F(TrimCli, MarginGrowsTheRectangleWithinTheImage)
{
    write("m.png", framed(100, 80, {30, 20, 10, 10}));
    for (const auto& [margin, rect] : QList<std::pair<const char*, QJsonArray>>{
             {"5", {25, 15, 20, 20}}, {"25", {5, 0, 60, 55}}, {"1000", {0, 0, 100, 80}}}) {
        SCOPED_TRACE(margin);
        EXPECT_EQ(firstRect(report({"-n", "--margin", margin, "m.png"}, 0).value(0)), rect);
    }
    EXPECT_EQ(column(report({"--margin", "25", "m.png"}, 0), "status"), QStringList{"trimmed"});
    const VImage out = readBack(path("m-cropped.png"));
    EXPECT_EQ(sizeOf(out), std::make_pair(60, 55));
    EXPECT_EQ(out.getpoint(25, 20), (std::vector<double>{30, 60, 90, 255})) << "content moved by the margin";
    EXPECT_EQ(out.getpoint(0, 0).at(3), 0) << "the margin is the transparent border (its colour shows nowhere)";
    // A margin that reaches every edge leaves nothing to trim.
    EXPECT_EQ(column(report({"--overwrite", "--margin", "1000", "m.png"}, 0), "status"), QStringList{"unchanged"});
    EXPECT_EQ(readBack(path("m-cropped.png")).width(), 60);
}

// ---------------------------------------------------------------------------
// Writing over the source

TEST_F(TrimCli, InPlaceReplacesTheSourceCompletely)
{
    makeFolder("work");
    write("work/a.png", framed(80, 60, {10, 20, 30, 15}, {1, 2, 3}));
    write("work/b.jpg", framed(80, 60, {10, 20, 30, 16}, {0, 0, 0}, true), "[Q=100]");
    const QList<QJsonObject> o = report({"--in-place", "work"}, 0);
    ASSERT_EQ(column(o, "status"), (QStringList{"trimmed", "trimmed"}));
    EXPECT_EQ(str(o[0], "output"), str(o[0], "path"));
    const VImage a = readBack(path("work/a.png"));
    EXPECT_EQ(sizeOf(a), std::make_pair(30, 15));
    EXPECT_EQ(a.getpoint(0, 0), (std::vector<double>{1, 2, 3})) << "opaque: written without alpha";
    EXPECT_TRUE(readFile(path("work/b.jpg")).startsWith("\xff\xd8"));
    EXPECT_NEAR(readBack(path("work/b.jpg")).height(), 16, 2);
    EXPECT_EQ(entries(path("work")), (QStringList{"a.png", "b.jpg"})) << "no temporary files left behind";

    // Run again: nothing left to trim, the files are not rewritten.
    const QByteArray trimmed = readFile(path("work/a.png"));
    EXPECT_EQ(column(report({"--in-place", "work/a.png"}, 0), "status"), QStringList{"unchanged"});
    EXPECT_EQ(readFile(path("work/a.png")), trimmed);
}

TEST_F(TrimCli, FailedWriteLeavesTheSourceByteForByte)
{
    if (QStandardPaths::findExecutable("prlimit").isEmpty())
        GTEST_SKIP() << "prlimit is not installed; cannot limit the file size";
    // Files above 20 000 bytes cannot be written: big.png's trimmed image is
    // one of them, small.png's is not.
    const QStringList limited = {"prlimit", "--fsize=20000", "--"};
    makeFolder("work");
    write("work/big.png", noisy(300, 300, 10));
    write("work/small.png", framed(30, 30, {2, 2, 3, 3}));
    const QByteArray original = readFile(path("work/big.png"));
    ASSERT_GT(original.size(), 100'000);

    const QList<QJsonObject> o = report({"--in-place", "work"}, 1, limited);
    ASSERT_EQ(column(o, "status"), (QStringList{"failed", "trimmed"}));
    EXPECT_EQ(str(o[0], "error"), "Couldn’t write to “big.png”.");
    EXPECT_EQ(o[0].value("output"), QJsonValue(QJsonValue::Null));
    EXPECT_EQ(o[0].value("width").toInt(), 300) << "a write failure still reports what was measured";
    EXPECT_EQ(readFile(path("work/big.png")), original);
    EXPECT_EQ(entries(path("work")), (QStringList{"big.png", "small.png"})) << "no partial file left behind";

    // The same through a copy of a file with nothing to trim.
    makeFolder("out");
    write("full.png", noisy(200, 200, 0));
    EXPECT_EQ(column(report({"-o", "out", "full.png"}, 1, limited), "status"), QStringList{"failed"});
    EXPECT_TRUE(entries(path("out")).isEmpty());
}

// As nobody: a file that may not be replaced and a folder that may not be read
// each fail with their reason, untouched; the rest is still trimmed.
TEST_F(TrimCli, WhatMayNotBeTouchedFailsAndTheRestGoesOn)
{
    if (!canRunAsNobody())
        GTEST_SKIP() << "cannot run orvane-trim as nobody here (setpriv missing, not root, or build folder unreachable)";
    for (const char* folder : {"locked", "private", "open"})
        makeFolder(folder);
    write("locked/a.png", framed(40, 40, {4, 4, 8, 8}));
    chmod("locked/a.png", 0604);
    write("private/b.png", framed(20, 20, {1, 1, 2, 2}));
    chmod("private", 0700);
    write("open/c.png", framed(20, 20, {1, 1, 2, 2}));
    chmod("open", 0777);
    chmod("open/c.png", 0666);
    const QByteArray original = readFile(path("locked/a.png"));
    const QList<QJsonObject> o = report({"--in-place", "locked/a.png", "private", "open/c.png"}, 1, kNobody);
    EXPECT_EQ(column(o, "path"), (QStringList{"a.png", "private", "c.png"}));
    EXPECT_EQ(column(o, "error"), (QStringList{"Couldn’t write to “a.png”.", "Couldn’t read the folder.", ""}));
    EXPECT_EQ(readFile(path("locked/a.png")), original);
    EXPECT_EQ(entries(path("locked")), QStringList{"a.png"});
    EXPECT_EQ(readBack(path("open/c.png")).width(), 2);
}

TEST_F(TrimCli, InterruptFinishesTheImagesInFlightAndStops)
{
    makeFolder("in");
    makeFolder("out");
    write("in/p1.png", noisy(700, 700, 20));
    const QByteArray png = readFile(path("in/p1.png"));
    const int count = 300;
    for (int i = 2; i <= count; ++i)
        ASSERT_TRUE(writeFile(path(QStringLiteral("in/p%1.png").arg(i)), png));

    QProcess process;
    process.setWorkingDirectory(m_dir.path());
    process.start(QStringLiteral(ORVANE_TRIM_BINARY), {"--json", "-j", "2", "-o", "out", "in"});
    ASSERT_TRUE(process.waitForStarted());
    // Wait for the first result, so that the signal meets a running batch.
    while (process.state() == QProcess::Running && !process.canReadLine())
        process.waitForReadyRead(1000);
    ::kill(static_cast<pid_t>(process.processId()), SIGINT);
    ASSERT_TRUE(process.waitForFinished(180'000));
    const qsizetype reported = process.readAllStandardOutput().count('\n');
    if (process.exitCode() == 0 && reported == count)
        GTEST_SKIP() << "the batch was done before the signal arrived";

    EXPECT_EQ(process.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(process.exitCode(), 130);
    EXPECT_LT(reported, count);
    EXPECT_TRUE(process.readAllStandardError().contains("interrupted; "));
    // Every image reported was written whole; nothing else is in the folder.
    const QStringList written = entries(path("out"));
    EXPECT_EQ(written.size(), reported);
    for (const QString& name : written)
        EXPECT_EQ(readBack(path(QStringLiteral("out/") + name)).width(), 660) << name.toStdString();
}

// ---------------------------------------------------------------------------
// A file system that is not tidy

TEST_F(TrimCli, LinksDanglingLinksAndLoopsGiveResultsNotHangs)
{
    makeFolder("links");
    makeFolder("elsewhere");
    write("real.png", framed(30, 30, {3, 3, 9, 9}));
    write("elsewhere/inside.png", framed(30, 30, {3, 3, 9, 9}));
    ASSERT_TRUE(QFile::link("../real.png", path("links/b-link.png")));
    ASSERT_TRUE(QFile::link("nowhere.png", path("links/c-dangling.png")));
    ASSERT_TRUE(QFile::link("d-loop.png", path("links/d-loop.png")));
    ASSERT_TRUE(QFile::link(".", path("links/e-self.png")));
    ASSERT_TRUE(QFile::link("elsewhere", path("folderlink")));

    const QList<QJsonObject> o = report({"-n", "links", "folderlink", "links/d-loop.png"}, 1);
    // Whether a listing shows links that lead nowhere, or a folder named like
    // an image, is the listing's business; whatever is listed gets a result.
    QStringList good;
    for (const QJsonObject& object : o) {
        if (object.contains("error"))
            continue;
        good << column({object}, "path");
        EXPECT_EQ(firstRect(object), (QJsonArray{3, 3, 9, 9}));
    }
    EXPECT_EQ(good, (QStringList{"b-link.png", "inside.png"}));
    ASSERT_FALSE(o.isEmpty());
    EXPECT_EQ(str(o.last(), "path"), "links/d-loop.png");
    EXPECT_TRUE(o.last().contains("error"));
}

TEST_F(TrimCli, OddNamesAreReportedAndWritten)
{
    makeFolder("odd");
    const QStringList names = {"with space.png", "new\nline.png", "-dash.png", "ünïcödé ✓.png", "quote\"back\\slash.png"};
    for (const QString& name : names)
        write(QStringLiteral("odd/") + name, framed(20, 20, {4, 4, 4, 4}));
    // A name that is not UTF-8 at all, which Qt cannot name to remove it with the temporary folder.
    const QByteArray raw = QFile::encodeName(path("odd")) + "/bad\xff\xfe.png";
    const std::unique_ptr<const char, int (*)(const char*)> removeRaw(raw.constData(), ::unlink);
    const int fd = ::open(raw.constData(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    const QByteArray png = readFile(path("odd/with space.png"));
    ASSERT_EQ(::write(fd, png.constData(), png.size()), png.size());
    ::close(fd);

    const TrimRun run = trim({"--json", "odd"});
    int failed = 0;
    QStringList listed;
    for (const QJsonObject& object : run.json()) {
        const QString name = column({object}, "path").first();
        if (!names.contains(name)) { // the name that is not UTF-8: whatever becomes of it, alone
            failed += str(object, "status") == "failed";
            continue;
        }
        listed << name;
        EXPECT_EQ(str(object, "status"), "trimmed") << name.toStdString();
        const QString output = object.value("output").toString();
        EXPECT_EQ(QFileInfo(output).fileName(), QFileInfo(name).completeBaseName() + QStringLiteral("-cropped.png"));
        EXPECT_EQ(readBack(path(output)).width(), 4) << output.toStdString();
    }
    EXPECT_EQ(listed.size(), names.size()) << run.out.toStdString();
    EXPECT_LE(run.json().size(), names.size() + 1) << run.out.toStdString();
    EXPECT_EQ(run.exitCode, failed > 0 ? 1 : 0);
    // A file name starting with a dash, after "--": there is none in the working folder.
    EXPECT_EQ(report({"-n", "--", "-dash.png"}, 1).size(), 1);
}

} // namespace

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    if (VIPS_INIT(argv[0]) != 0)
        return 1;
    // Files are rewritten under the same names; never answer from the cache.
    vips_cache_set_max(0);
    return RUN_ALL_TESTS();
}
