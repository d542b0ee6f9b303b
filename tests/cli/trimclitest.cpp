// orvane-trim run end to end: the real binary on folders made by the test.

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
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

// An RGBA image: transparent (or opaque white) around an opaque block of colour.
VImage framed(int width, int height, Box box, std::vector<double> colour = {30, 60, 90},
              bool whiteBackground = false)
{
    colour.push_back(255);
    const VImage block = (VImage::black(box.w, box.h, VImage::option()->set("bands", 4)) + colour)
                             .cast(VIPS_FORMAT_UCHAR);
    const std::vector<double> background = whiteBackground ? std::vector<double>{255, 255, 255, 255}
                                                           : std::vector<double>{0, 0, 0, 0};
    return withSRGB(block.embed(box.x, box.y, width, height,
                                VImage::option()->set("extend", VIPS_EXTEND_BACKGROUND)->set("background", background)));
}

// A fully transparent RGBA image.
VImage clear(int width, int height)
{
    return withSRGB(VImage::black(width, height, VImage::option()->set("bands", 4)).cast(VIPS_FORMAT_UCHAR));
}

// Random opaque pixels inside a transparent frame: a PNG that does not shrink
// much when compressed.
VImage noisy(int width, int height, int frame)
{
    const int w = width - 2 * frame, h = height - 2 * frame;
    const VImage noise = VImage::gaussnoise(w, h, VImage::option()->set("mean", 128.0)->set("sigma", 60.0));
    VImage rgb = noise.bandjoin(VImage::gaussnoise(w, h)).bandjoin(VImage::gaussnoise(w, h));
    rgb = rgb.bandjoin_const({255}).cast(VIPS_FORMAT_UCHAR);
    return withSRGB(rgb.embed(frame, frame, width, height,
                              VImage::option()->set("extend", VIPS_EXTEND_BACKGROUND)->set("background", std::vector<double>{0, 0, 0, 0})));
}

void writeImage(const QString& path, const VImage& image, const char* options = "")
{
    const QByteArray name = QFile::encodeName(path) + options;
    image.write_to_file(name.constData());
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

QString fileNameOf(const QJsonObject& object)
{
    return QFileInfo(object.value(QLatin1String("path")).toString()).fileName();
}

QStringList fileNames(const QList<QJsonObject>& objects)
{
    QStringList names;
    for (const QJsonObject& object : objects)
        names << fileNameOf(object);
    return names;
}

QStringList statuses(const QList<QJsonObject>& objects)
{
    QStringList list;
    for (const QJsonObject& object : objects)
        list << object.value("status").toString();
    return list;
}

QStringList sortedKeys(const QJsonObject& object)
{
    QStringList keys = object.keys();
    keys.sort();
    return keys;
}

class TrimCli : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_dir.isValid());
    }

    QString path(const QString& name) const { return m_dir.filePath(name); }

    QString makeFolder(const QString& name) const
    {
        QDir(m_dir.path()).mkpath(name);
        return path(name);
    }

    // Runs orvane-trim with args in the test's folder, optionally under a
    // wrapper command such as prlimit or setpriv.
    TrimRun trim(const QStringList& args, const QStringList& wrapper = {}) const
    {
        if (wrapper.isEmpty())
            return orvane::test::trim(args, m_dir.path());
        return runProgram(wrapper.first(), wrapper.mid(1) + QStringList{QStringLiteral(ORVANE_TRIM_BINARY)} + args,
                          m_dir.path());
    }

    // Whether the binary can run as nobody here (the build folder must be reachable).
    bool canRunAsNobody() const
    {
        if (QStandardPaths::findExecutable("setpriv").isEmpty() || ::geteuid() != 0)
            return false;
        QProcess probe;
        probe.start("setpriv", asNobody().mid(1, 3) << QStringLiteral(ORVANE_TRIM_BINARY) << "--version");
        return probe.waitForFinished(30'000) && probe.exitStatus() == QProcess::NormalExit && probe.exitCode() == 0;
    }

    static QStringList asNobody()
    {
        return {"setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups", "--"};
    }

    // The temporary folder is private to root; let nobody walk into it.
    void openToEveryone() const
    {
        QFile::setPermissions(m_dir.path(), QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner
                                                | QFileDevice::ReadGroup | QFileDevice::ExeGroup
                                                | QFileDevice::ReadOther | QFileDevice::ExeOther);
    }

    QTemporaryDir m_dir;
};

// ---------------------------------------------------------------------------
// The command line

TEST_F(TrimCli, UsageErrorsExitWithTwoAClearMessageAndWriteNothing)
{
    writeImage(path("a.png"), framed(40, 30, {5, 5, 10, 10}));
    QDir(m_dir.path()).mkdir("out");
    const QStringList before = entries(m_dir.path());

    struct Case {
        QStringList args;
        const char* message;
    };
    const QList<Case> cases = {
        {{}, "no image file or folder given"},
        {{"--frobnicate", "a.png"}, "frobnicate"},
        {{"-t", "0,25", "a.png"}, "needs --dry-run"},
        {{"-t", "abc", "a.png"}, "tolerance must be a number from 0 to 100"},
        {{"--tolerance=101", "-n", "a.png"}, "tolerance must be"},
        {{"--tolerance=10,,20", "-n", "a.png"}, "tolerance must be"},
        {{"--margin", "-1", "a.png"}, "margin must be"},
        {{"--margin", "2.5", "a.png"}, "margin must be"},
        {{"-j", "0", "a.png"}, "jobs must be"},
        {{"-o", "out", "--in-place", "a.png"}, "cannot be used together"},
        {{"-o", "missing", "a.png"}, "does not exist"},
        {{"-o", "a.png", "a.png"}, "is not a folder"},
        {{"-t"}, "Missing value"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args.join(QLatin1Char(' ')).toStdString());
        const TrimRun run = trim(c.args);
        EXPECT_EQ(run.exitCode, 2);
        EXPECT_TRUE(run.out.isEmpty());
        EXPECT_TRUE(run.err.startsWith("orvane-trim: ")) << run.err.toStdString();
        EXPECT_TRUE(run.err.contains(c.message)) << run.err.toStdString();
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
    EXPECT_EQ(version.exitCode, 0);
    EXPECT_TRUE(version.out.startsWith("orvane-trim ")) << version.out.toStdString();
}

// ---------------------------------------------------------------------------
// Dry runs and the JSON report

TEST_F(TrimCli, DryRunAnswersEveryToleranceAndWritesNothing)
{
    // A light grey block counts as content at 25 (200 < 226) but not at 50
    // (200 >= 197); a black block always counts; a half-transparent one
    // (alpha 100) counts at 25 (100 > 63) but not at 50 (100 <= 127).
    VImage image = framed(100, 80, {10, 10, 20, 20}, {200, 200, 200});
    image = image.insert(framed(5, 5, {0, 0, 5, 5}, {0, 0, 0}), 50, 40);
    const VImage translucent = (VImage::black(4, 4, VImage::option()->set("bands", 4)) + std::vector<double>{0, 0, 0, 100})
                                   .cast(VIPS_FORMAT_UCHAR);
    image = withSRGB(image.insert(translucent, 90, 70));
    writeImage(path("grey.png"), image);
    const QStringList before = entries(m_dir.path());

    const TrimRun run = trim({"--dry-run", "--json", "--tolerance=0,25,50,100", "grey.png"});
    EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
    const QList<QJsonObject> objects = run.json();
    ASSERT_EQ(objects.size(), 1);
    const QJsonObject& o = objects.first();
    EXPECT_EQ(sortedKeys(o), (QStringList{"height", "path", "rects", "type", "width"}));
    EXPECT_EQ(str(o, "path"), "grey.png");
    EXPECT_EQ(str(o, "type"), "image/png");
    EXPECT_EQ(o.value("width").toInt(), 100);
    EXPECT_EQ(o.value("height").toInt(), 80);
    const QJsonArray rects = o.value("rects").toArray();
    ASSERT_EQ(rects.size(), 4);
    const QList<std::pair<double, QJsonArray>> expected = {
        {0, QJsonArray{0, 0, 100, 80}},
        {25, QJsonArray{10, 10, 84, 64}},
        {50, QJsonArray{50, 40, 5, 5}},
        {100, QJsonArray{50, 40, 5, 5}},
    };
    for (qsizetype i = 0; i < rects.size(); ++i) {
        const QJsonObject entry = rects.at(i).toObject();
        EXPECT_EQ(sortedKeys(entry), (QStringList{"rect", "tolerance"}));
        EXPECT_EQ(entry.value("tolerance").toDouble(), expected.at(i).first);
        EXPECT_EQ(entry.value("rect").toArray(), expected.at(i).second) << "tolerance " << expected.at(i).first;
    }
    // The keys come in the order people read them.
    EXPECT_TRUE(run.out.startsWith("{\"path\":\"grey.png\",\"type\":\"image/png\",\"width\":100,\"height\":80,\"rects\":["))
        << run.out.toStdString();
    EXPECT_EQ(entries(m_dir.path()), before);
    EXPECT_EQ(run.err, "1 measured, 0 failed\n");
}

TEST_F(TrimCli, DryRunReportsNullForNoContentAndErrorObjectsForFailures)
{
    writeImage(path("clear.png"), clear(20, 20));
    ASSERT_TRUE(writeFile(path("broken.png"), QByteArray("\x89PNG\r\n\x1a\n this is not really a PNG")));
    writeImage(path("fine.png"), framed(30, 20, {3, 4, 5, 6}));

    const TrimRun run = trim({"-n", "--json", "clear.png", "gone.png", "broken.png", "fine.png"});
    EXPECT_EQ(run.exitCode, 1);
    const QList<QJsonObject> objects = run.json();
    ASSERT_EQ(objects.size(), 4);
    EXPECT_EQ(objects[0].value("rects").toArray().first().toObject().value("rect"), QJsonValue(QJsonValue::Null));
    for (int i : {1, 2}) {
        EXPECT_EQ(sortedKeys(objects[i]), (QStringList{"error", "path", "reason"}));
        EXPECT_FALSE(objects[i].value("error").toString().isEmpty());
    }
    EXPECT_EQ(str(objects[1], "path"), "gone.png");
    EXPECT_EQ(str(objects[2], "path"), "broken.png");
    EXPECT_EQ(firstRect(objects[3]), (QJsonArray{3, 4, 5, 6}));
    EXPECT_EQ(run.err, "2 measured, 2 failed\n");
}

TEST_F(TrimCli, PlainTextOutputAndSummaryWithoutATerminal)
{
    writeImage(path("a.png"), framed(40, 30, {5, 6, 7, 8}));
    const TrimRun dry = trim({"-n", "-t", "0,25", "a.png"});
    EXPECT_EQ(dry.out, "a.png: 40x30, tolerance 0: 40x30+0+0, tolerance 25: 7x8+5+6\n");
    // No progress line when stderr is not a terminal: only the summary.
    EXPECT_EQ(dry.err, "1 measured, 0 failed\n");

    const TrimRun run = trim({"a.png", "missing.png"});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.out, "trimmed    a.png -> a-cropped.png (40x30 -> 7x8)\n");
    EXPECT_EQ(run.err, "orvane-trim: missing.png: There’s no file by that name; it may have been moved or deleted. (missing)\n"
                       "1 trimmed, 0 unchanged, 0 without content, 0 already there, 1 failed\n");
}

TEST_F(TrimCli, ProgressLineOnlyOnATerminal)
{
    if (QStandardPaths::findExecutable("script").isEmpty())
        GTEST_SKIP() << "util-linux script is not installed; no terminal to run in";
    writeImage(path("a.png"), framed(40, 30, {5, 6, 7, 8}));
    writeImage(path("b.png"), framed(40, 30, {5, 6, 7, 8}));
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
    const QString folder = makeFolder("scans");
    for (const char* name : {"b.png", "a.jpg", "10.png", "2.png", "photo-cropped.png", ".hidden.png", "sub/c.png"}) {
        QDir(folder).mkpath(QFileInfo(QDir(folder).filePath(name)).path());
        writeImage(QDir(folder).filePath(name), framed(30, 20, {2, 2, 5, 5}, {0, 0, 0}, true));
    }
    ASSERT_TRUE(writeFile(QDir(folder).filePath("notes.txt"), "not an image"));
    writeImage(path("first.png"), framed(30, 20, {2, 2, 5, 5}));
    writeImage(path("last.png"), framed(30, 20, {2, 2, 5, 5}));

    const TrimRun dry = trim({"-n", "--json", "first.png", "scans", "last.png"});
    EXPECT_EQ(dry.exitCode, 0) << dry.err.toStdString();
    EXPECT_EQ(fileNames(dry.json()), (QStringList{"first.png", "2.png", "10.png", "a.jpg", "b.png", "last.png"}))
        << "earlier outputs (-cropped), hidden files, subfolders and other types are left out";

    // Writing into another folder, a name ending in -cropped is just a name.
    makeFolder("out");
    const TrimRun toFolder = trim({"--json", "-o", "out", "scans"});
    EXPECT_EQ(toFolder.exitCode, 0) << toFolder.err.toStdString();
    EXPECT_EQ(fileNames(toFolder.json()), (QStringList{"2.png", "10.png", "a.jpg", "b.png", "photo-cropped.png"}));

    // Beside the sources, a second run does not trim the first run's outputs.
    const TrimRun first = trim({"scans"});
    EXPECT_EQ(first.exitCode, 0) << first.err.toStdString();
    const TrimRun second = trim({"--json", "scans"});
    EXPECT_EQ(fileNames(second.json()), (QStringList{"2.png", "10.png", "a.jpg", "b.png"}));
    for (const QJsonObject& o : second.json())
        EXPECT_EQ(str(o, "status"), "exists") << fileNameOf(o).toStdString();
    EXPECT_EQ(second.exitCode, 0);
}

TEST_F(TrimCli, ParallelJobsKeepInputOrderAndMatchEachImage)
{
    const QString folder = makeFolder("many");
    // Large and small images mixed, so that later ones finish first.
    for (int i = 1; i <= 24; ++i) {
        const int side = i % 5 == 1 ? 1200 : 20 + i;
        writeImage(QDir(folder).filePath(QStringLiteral("img%1.png").arg(i)), framed(side, side, {1, 2, i, i}));
    }
    for (const char* jobs : {"1", "4", "16"}) {
        SCOPED_TRACE(jobs);
        const TrimRun run = trim({"-n", "--json", "-j", QString::fromLatin1(jobs), "many"});
        EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
        const QList<QJsonObject> objects = run.json();
        ASSERT_EQ(objects.size(), 24);
        for (int i = 1; i <= 24; ++i) {
            const QJsonObject& o = objects.at(i - 1);
            EXPECT_EQ(fileNameOf(o), QStringLiteral("img%1.png").arg(i));
            EXPECT_EQ(o.value("width").toInt(), i % 5 == 1 ? 1200 : 20 + i);
            EXPECT_EQ(firstRect(o), (QJsonArray{1, 2, i, i}));
        }
    }
}

// ---------------------------------------------------------------------------
// Writing: names, statuses, collisions, margin

TEST_F(TrimCli, WritesBesideTheSourceUnderTheProposedName)
{
    writeImage(path("photo.JPG"), framed(60, 40, {10, 8, 30, 20}, {0, 0, 0}, true), "[Q=100]");
    writeImage(path("archive.tar.png"), framed(60, 40, {1, 2, 3, 4}, {255, 0, 0}));
    const QByteArray photoBytes = readFile(path("photo.JPG"));

    const TrimRun run = trim({"--json", "photo.JPG", "archive.tar.png"});
    EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
    const QList<QJsonObject> objects = run.json();
    ASSERT_EQ(objects.size(), 2);
    EXPECT_EQ(sortedKeys(objects[0]), (QStringList{"height", "output", "path", "rects", "status", "type", "width"}));
    EXPECT_EQ(str(objects[0], "status"), "trimmed");
    EXPECT_EQ(str(objects[0], "type"), "image/jpeg");
    EXPECT_EQ(str(objects[0], "output"), "photo-cropped.JPG");
    EXPECT_EQ(str(objects[1], "output"), "archive.tar-cropped.png");
    EXPECT_TRUE(run.out.contains(",\"output\":\"photo-cropped.JPG\",\"status\":\"trimmed\"}\n"));

    const QJsonArray jpegRect = firstRect(objects[0]);
    const VImage jpeg = readBack(path("photo-cropped.JPG"));
    EXPECT_TRUE(readFile(path("photo-cropped.JPG")).startsWith("\xff\xd8")) << "a JPEG stays a JPEG";
    EXPECT_EQ(jpeg.width(), jpegRect.at(2).toInt());
    EXPECT_EQ(jpeg.height(), jpegRect.at(3).toInt());
    EXPECT_NEAR(jpeg.width(), 30, 2) << "JPEG blur may move the edge a pixel";

    const VImage png = readBack(path("archive.tar-cropped.png"));
    EXPECT_EQ(png.width(), 3);
    EXPECT_EQ(png.height(), 4);
    EXPECT_EQ(png.getpoint(0, 0), (std::vector<double>{255, 0, 0})) << "opaque: written without alpha";
    EXPECT_EQ(readFile(path("photo.JPG")), photoBytes) << "the source is never touched";
}

TEST_F(TrimCli, StatusesForEveryOutcome)
{
    const QString out = makeFolder("out");
    writeImage(path("trim.png"), framed(50, 50, {10, 10, 10, 10}));
    // Stored with weak compression, so a re-encode could not give the same bytes.
    writeImage(path("full.png"), framed(50, 50, {0, 0, 50, 50}), "[compression=1]");
    writeImage(path("clear.png"), clear(50, 50));
    writeImage(path("taken.png"), framed(50, 50, {5, 5, 5, 5}));
    ASSERT_TRUE(writeFile(QDir(out).filePath("taken.png"), "someone else's file"));
    const QByteArray fullBytes = readFile(path("full.png"));

    const QStringList inputs = {"trim.png", "full.png", "clear.png", "taken.png", "gone.png"};
    const TrimRun run = trim(QStringList{"--json", "-o", "out"} + inputs);
    EXPECT_EQ(run.exitCode, 1) << "gone.png could not be read";
    const QList<QJsonObject> o = run.json();
    ASSERT_EQ(statuses(o), (QStringList{"trimmed", "unchanged", "nothing", "exists", "failed"}));
    EXPECT_EQ(str(o[0], "output"), "out/trim.png");
    EXPECT_EQ(str(o[1], "output"), "out/full.png");
    EXPECT_EQ(readFile(path("out/full.png")), fullBytes) << "copied byte for byte";
    EXPECT_EQ(o[2].value("output"), QJsonValue(QJsonValue::Null));
    EXPECT_EQ(o[3].value("output"), QJsonValue(QJsonValue::Null));
    EXPECT_EQ(readFile(path("out/taken.png")), "someone else's file");
    EXPECT_EQ(sortedKeys(o[4]), (QStringList{"error", "output", "path", "reason", "status"}));
    EXPECT_EQ(o[4].value("status").toString(), QStringLiteral("failed"));
    EXPECT_EQ(entries(out), (QStringList{"full.png", "taken.png", "trim.png"}));
    EXPECT_EQ(run.err, "1 trimmed, 1 unchanged, 1 without content, 1 already there, 1 failed\n");

    // --overwrite replaces the existing output; the others come out the same.
    const TrimRun again = trim(QStringList{"--json", "--overwrite", "-o", "out"} + inputs.mid(0, 4));
    EXPECT_EQ(again.exitCode, 0) << again.err.toStdString();
    EXPECT_EQ(statuses(again.json()), (QStringList{"trimmed", "unchanged", "nothing", "trimmed"}));
    EXPECT_EQ(readBack(path("out/taken.png")).width(), 5);

    // Beside the source, an image with nothing to trim is left alone: no copy.
    const TrimRun beside = trim({"--json", "full.png"});
    EXPECT_EQ(str(beside.json().first(), "status"), "unchanged");
    EXPECT_EQ(beside.json().first().value("output"), QJsonValue(QJsonValue::Null));
    EXPECT_FALSE(QFileInfo::exists(path("full-cropped.png")));
    EXPECT_EQ(readFile(path("full.png")), fullBytes);
}

TEST_F(TrimCli, TwoInputsForOneOutputFailTheSecond)
{
    makeFolder("a");
    makeFolder("b");
    makeFolder("out");
    writeImage(path("a/x.png"), framed(40, 40, {1, 1, 11, 11}));
    writeImage(path("b/x.png"), framed(40, 40, {1, 1, 22, 22}));

    const TrimRun run = trim({"--json", "--overwrite", "-o", "out", "a/x.png", "b/x.png"});
    EXPECT_EQ(run.exitCode, 1);
    const QList<QJsonObject> o = run.json();
    ASSERT_EQ(statuses(o), (QStringList{"trimmed", "failed"}));
    EXPECT_NE(str(o[1], "error").find("a/x.png"), std::string::npos) << str(o[1], "error");
    EXPECT_EQ(readBack(path("out/x.png")).width(), 11) << "the first one's result is not overwritten";

    // The same file twice (once through a link) when writing over the source.
    ASSERT_TRUE(QFile::link(path("a/x.png"), path("alias.png")));
    const QByteArray once = readFile(path("a/x.png"));
    const TrimRun inPlace = trim({"--json", "--in-place", "a/x.png", "alias.png"});
    EXPECT_EQ(inPlace.exitCode, 1);
    EXPECT_EQ(statuses(inPlace.json()), (QStringList{"trimmed", "failed"}));
    EXPECT_EQ(readBack(path("a/x.png")).width(), 11);

    // An output that is another input of the same run is refused, not raced.
    writeImage(path("c.png"), framed(40, 40, {1, 1, 5, 5}));
    writeImage(path("c-cropped.png"), framed(40, 40, {1, 1, 6, 6}));
    const QByteArray cropped = readFile(path("c-cropped.png"));
    const TrimRun clash = trim({"--json", "--overwrite", "c.png", "c-cropped.png"});
    EXPECT_EQ(clash.exitCode, 1);
    EXPECT_EQ(statuses(clash.json()), (QStringList{"failed", "trimmed"}));
    EXPECT_EQ(readFile(path("c-cropped.png")), cropped);
    EXPECT_TRUE(QFileInfo::exists(path("c-cropped-cropped.png")));
}

TEST_F(TrimCli, MarginGrowsTheRectangleWithinTheImage)
{
    writeImage(path("m.png"), framed(100, 80, {30, 20, 10, 10}));
    struct Case {
        const char* margin;
        QJsonArray rect;
    };
    const QList<Case> cases = {
        {"0", QJsonArray{30, 20, 10, 10}},
        {"5", QJsonArray{25, 15, 20, 20}},
        {"25", QJsonArray{5, 0, 60, 55}},
        {"1000", QJsonArray{0, 0, 100, 80}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.margin);
        const TrimRun run = trim({"-n", "--json", "--margin", QString::fromLatin1(c.margin), "m.png"});
        EXPECT_EQ(firstRect(run.json().first()), c.rect);
    }

    const TrimRun written = trim({"--json", "--margin", "25", "m.png"});
    EXPECT_EQ(str(written.json().first(), "status"), "trimmed");
    const VImage out = readBack(path("m-cropped.png"));
    EXPECT_EQ(out.width(), 60);
    EXPECT_EQ(out.height(), 55);
    EXPECT_EQ(out.getpoint(25, 20), (std::vector<double>{30, 60, 90, 255})) << "content moved by the margin";
    EXPECT_EQ(out.getpoint(0, 0).at(3), 0) << "the margin is the transparent border (its colour shows nowhere)";

    // A margin that reaches every edge leaves nothing to trim.
    const TrimRun whole = trim({"--json", "--overwrite", "--margin", "1000", "m.png"});
    EXPECT_EQ(str(whole.json().first(), "status"), "unchanged");
    EXPECT_EQ(readBack(path("m-cropped.png")).width(), 60);
}

// ---------------------------------------------------------------------------
// Writing over the source

TEST_F(TrimCli, InPlaceReplacesTheSourceCompletely)
{
    makeFolder("work");
    writeImage(path("work/a.png"), framed(80, 60, {10, 20, 30, 15}, {1, 2, 3}));
    writeImage(path("work/b.jpg"), framed(80, 60, {10, 20, 30, 16}, {0, 0, 0}, true), "[Q=100]");

    const TrimRun run = trim({"--json", "--in-place", "work"});
    EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
    const QList<QJsonObject> o = run.json();
    ASSERT_EQ(statuses(o), (QStringList{"trimmed", "trimmed"}));
    EXPECT_EQ(str(o[0], "output"), str(o[0], "path"));
    const VImage a = readBack(path("work/a.png"));
    EXPECT_EQ(a.width(), 30);
    EXPECT_EQ(a.height(), 15);
    EXPECT_EQ(a.getpoint(0, 0), (std::vector<double>{1, 2, 3})) << "opaque: written without alpha";
    EXPECT_TRUE(readFile(path("work/b.jpg")).startsWith("\xff\xd8"));
    EXPECT_NEAR(readBack(path("work/b.jpg")).height(), 16, 2);
    EXPECT_EQ(entries(path("work")), (QStringList{"a.png", "b.jpg"})) << "no temporary files left behind";

    // TrimRun again: nothing left to trim, the files are not rewritten.
    const QByteArray trimmed = readFile(path("work/a.png"));
    const TrimRun again = trim({"--json", "--in-place", "work/a.png"});
    EXPECT_EQ(str(again.json().first(), "status"), "unchanged");
    EXPECT_EQ(readFile(path("work/a.png")), trimmed);
}

TEST_F(TrimCli, FailedWriteLeavesTheSourceByteForByte)
{
    if (QStandardPaths::findExecutable("prlimit").isEmpty())
        GTEST_SKIP() << "prlimit is not installed; cannot limit the file size";
    makeFolder("work");
    writeImage(path("work/big.png"), noisy(300, 300, 10));
    writeImage(path("work/small.png"), framed(30, 30, {2, 2, 3, 3}));
    const QByteArray original = readFile(path("work/big.png"));
    ASSERT_GT(original.size(), 100'000);

    // Files above 20 000 bytes cannot be written: big.png's trimmed image is
    // one of them, small.png's is not.
    const TrimRun run = trim({"--json", "--in-place", "work"}, {"prlimit", "--fsize=20000", "--"});
    EXPECT_EQ(run.exitCode, 1);
    const QList<QJsonObject> o = run.json();
    ASSERT_EQ(statuses(o), (QStringList{"failed", "trimmed"}));
    EXPECT_EQ(str(o[0], "error"), "Couldn’t write to “big.png”.");
    EXPECT_EQ(o[0].value("output"), QJsonValue(QJsonValue::Null));
    EXPECT_EQ(o[0].value("width").toInt(), 300) << "a write failure still reports what was measured";
    EXPECT_EQ(readFile(path("work/big.png")), original);
    EXPECT_EQ(entries(path("work")), (QStringList{"big.png", "small.png"})) << "no partial file left behind";

    // The same through a copy of a file with nothing to trim.
    makeFolder("out");
    writeImage(path("full.png"), noisy(200, 200, 0));
    const TrimRun copy = trim({"--json", "-o", "out", "full.png"}, {"prlimit", "--fsize=20000", "--"});
    EXPECT_EQ(copy.exitCode, 1);
    EXPECT_EQ(str(copy.json().first(), "status"), "failed");
    EXPECT_TRUE(entries(path("out")).isEmpty());
}

TEST_F(TrimCli, WriteRefusedByPermissionLeavesTheSource)
{
    if (!canRunAsNobody())
        GTEST_SKIP() << "cannot run orvane-trim as nobody here (setpriv missing, not root, or build folder unreachable)";
    openToEveryone();
    makeFolder("locked");
    writeImage(path("locked/a.png"), framed(40, 40, {4, 4, 8, 8}));
    QFile::setPermissions(path("locked/a.png"), QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadOther);
    const QByteArray original = readFile(path("locked/a.png"));

    const TrimRun run = trim({"--json", "--in-place", "locked/a.png"}, asNobody());
    EXPECT_EQ(run.exitCode, 1) << run.err.toStdString();
    ASSERT_EQ(run.json().size(), 1);
    EXPECT_EQ(str(run.json().first(), "error"), "Couldn’t write to “a.png”.");
    EXPECT_EQ(readFile(path("locked/a.png")), original);
    EXPECT_EQ(entries(path("locked")), QStringList{"a.png"});
}

TEST_F(TrimCli, InterruptFinishesTheImagesInFlightAndStops)
{
    makeFolder("in");
    makeFolder("out");
    writeImage(path("in/p1.png"), noisy(700, 700, 20));
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
    const QByteArray out = process.readAllStandardOutput();
    const QByteArray err = process.readAllStandardError();
    const qsizetype reported = out.count('\n');
    if (process.exitCode() == 0 && reported == count)
        GTEST_SKIP() << "the batch was done before the signal arrived";

    EXPECT_EQ(process.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(process.exitCode(), 130);
    EXPECT_LT(reported, count);
    EXPECT_TRUE(err.contains("interrupted; ")) << err.toStdString();
    // Every image reported was written whole; nothing else is in the folder.
    const QStringList written = entries(path("out"));
    EXPECT_EQ(written.size(), reported);
    for (const QString& name : written) {
        EXPECT_TRUE(name.startsWith(QLatin1Char('p')) && name.endsWith(QLatin1String(".png"))) << name.toStdString();
        EXPECT_EQ(readBack(path(QStringLiteral("out/") + name)).width(), 660) << name.toStdString();
    }
}

// ---------------------------------------------------------------------------
// A file system that is not tidy

TEST_F(TrimCli, LinksDanglingLinksAndLoopsGiveResultsNotHangs)
{
    const QString folder = makeFolder("links");
    writeImage(path("real.png"), framed(30, 30, {3, 3, 9, 9}));
    makeFolder("elsewhere");
    writeImage(path("elsewhere/inside.png"), framed(30, 30, {3, 3, 9, 9}));
    ASSERT_TRUE(QFile::link("../real.png", QDir(folder).filePath("b-link.png")));
    ASSERT_TRUE(QFile::link("nowhere.png", QDir(folder).filePath("c-dangling.png")));
    ASSERT_TRUE(QFile::link("d-loop.png", QDir(folder).filePath("d-loop.png")));
    ASSERT_TRUE(QFile::link(".", QDir(folder).filePath("e-self.png")));
    ASSERT_TRUE(QFile::link("elsewhere", path("folderlink")));

    const TrimRun run = trim({"--json", "-n", "links", "folderlink", "links/d-loop.png"});
    EXPECT_EQ(run.exitCode, 1);
    const QList<QJsonObject> o = run.json();
    // Whether a listing shows links that lead nowhere, or a folder named like
    // an image, is the listing's business; whatever is listed gets a result.
    QStringList good;
    for (const QJsonObject& object : o) {
        const QString name = fileNameOf(object);
        if (name == "b-link.png" || name == "inside.png") {
            good << name;
            EXPECT_EQ(firstRect(object), (QJsonArray{3, 3, 9, 9}));
        } else {
            EXPECT_TRUE(object.contains("error")) << name.toStdString();
        }
    }
    EXPECT_EQ(good, (QStringList{"b-link.png", "inside.png"}));
    ASSERT_FALSE(o.isEmpty());
    EXPECT_EQ(str(o.last(), "path"), "links/d-loop.png");
    EXPECT_TRUE(o.last().contains("error"));
}

TEST_F(TrimCli, OddNamesAreReportedAndWritten)
{
    const QString folder = makeFolder("odd");
    const QStringList names = {"with space.png", "new\nline.png", "-dash.png", "ünïcödé ✓.png", "quote\"back\\slash.png"};
    for (const QString& name : names)
        writeImage(QDir(folder).filePath(name), framed(20, 20, {4, 4, 4, 4}));
    // A name that is not UTF-8 at all.
    const QByteArray raw = QFile::encodeName(folder) + "/bad\xff\xfe.png";
    // Qt cannot name this file to remove it with the temporary folder.
    const std::unique_ptr<const char, int (*)(const char*)> removeRaw(raw.constData(), ::unlink);
    const int fd = ::open(raw.constData(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    const QByteArray png = readFile(QDir(folder).filePath("with space.png"));
    ASSERT_EQ(::write(fd, png.constData(), png.size()), png.size());
    ::close(fd);

    const TrimRun run = trim({"--json", "odd"});
    const QList<QJsonObject> o = run.json();
    // The name that is not UTF-8 may be listed (and fail) or not be listed at all.
    ASSERT_GE(o.size(), names.size()) << run.out.toStdString();
    ASSERT_LE(o.size(), names.size() + 1) << run.out.toStdString();
    int failed = 0;
    for (const QJsonObject& object : o) {
        const QString name = fileNameOf(object);
        if (!names.contains(name)) {
            // The name that is not UTF-8: whatever becomes of it, alone.
            failed += str(object, "status") == "failed";
            continue;
        }
        EXPECT_EQ(str(object, "status"), "trimmed") << name.toStdString();
        const QString output = object.value("output").toString();
        EXPECT_EQ(QFileInfo(output).fileName(), QFileInfo(name).completeBaseName() + QStringLiteral("-cropped.png"));
        EXPECT_EQ(readBack(path(output)).width(), 4) << output.toStdString();
    }
    EXPECT_EQ(run.exitCode, failed > 0 ? 1 : 0);

    // A file name starting with a dash, after "--".
    const TrimRun dash = trim({"-n", "--json", "--", "-dash.png"});
    EXPECT_EQ(dash.json().size(), 1);
    EXPECT_EQ(dash.exitCode, 1) << "there is no -dash.png in the working folder";
}

TEST_F(TrimCli, UnreadableFolderIsAFailureNotSilence)
{
    if (!canRunAsNobody())
        GTEST_SKIP() << "cannot run orvane-trim as nobody here (setpriv missing, not root, or build folder unreachable)";
    openToEveryone();
    makeFolder("private");
    writeImage(path("private/a.png"), framed(20, 20, {1, 1, 2, 2}));
    QFile::setPermissions(path("private"), QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    writeImage(path("open.png"), framed(20, 20, {1, 1, 2, 2}));
    QFile::setPermissions(path("open.png"), QFileDevice::ReadOwner | QFileDevice::ReadOther);

    const TrimRun run = trim({"-n", "--json", "private", "open.png"}, asNobody());
    EXPECT_EQ(run.exitCode, 1);
    const QList<QJsonObject> o = run.json();
    ASSERT_EQ(o.size(), 2);
    EXPECT_EQ(str(o[0], "path"), "private");
    EXPECT_EQ(str(o[0], "error"), "Couldn’t read the folder.");
    EXPECT_EQ(o[1].value("width").toInt(), 20);
}

TEST_F(TrimCli, NoImagesFoundIsSaidPlainly)
{
    makeFolder("empty/sub");
    writeImage(path("empty/sub/deep.png"), framed(10, 10, {1, 1, 1, 1}));
    const TrimRun run = trim({"empty"});
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_TRUE(run.out.isEmpty());
    EXPECT_EQ(run.err, "No supported images found.\n");
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
