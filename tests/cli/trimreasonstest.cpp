// orvane-trim says why each file could not be opened, in plain text and in
// JSON, and leaves camera raw files alone: the real binary on files made here.
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QJsonObject>
#include <QTemporaryDir>

#include <vips/vips8>

#include "clitestsupport.h"

namespace {

using namespace orvane::test;
using vips::VImage;

VImage framed()
{
    const VImage block = (VImage::black(20, 10, VImage::option()->set("bands", 3)) + std::vector<double>{30, 60, 90});
    return block.embed(5, 4, 30, 20, VImage::option()->set("extend", VIPS_EXTEND_WHITE))
        .cast(VIPS_FORMAT_UCHAR)
        .copy(VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB));
}

// A TIFF of three pages, as a camera raw file is.
void writeRaw(const QString& path)
{
    VImage pages = framed().embed(0, 0, 30, 60, VImage::option()->set("extend", VIPS_EXTEND_COPY));
    pages.set("page-height", 20);
    pages.tiffsave(QFile::encodeName(path).constData());
}

QByteArray noisyPng()
{
    const VImage noise = VImage::gaussnoise(64, 64, VImage::option()->set("sigma", 50.0));
    void* data = nullptr;
    size_t length = 0;
    noise.bandjoin({noise, noise}).cast(VIPS_FORMAT_UCHAR).write_to_buffer(".png", &data, &length);
    QByteArray bytes(static_cast<const char*>(data), qsizetype(length));
    g_free(data);
    return bytes;
}

// Each reported file as name:status:reason; a failure without a message shows as such.
QStringList outcomes(const TrimRun& run)
{
    QStringList seen;
    for (const QJsonObject& object : run.json())
        seen << QFileInfo(object.value("path").toString()).fileName() + QLatin1Char(':') + object.value("status").toString()
                + QLatin1Char(':') + object.value("reason").toString()
                + (object.contains("reason") && object.value("error").toString().isEmpty() ? ", no message" : "");
    return seen;
}

class TrimReasons : public ::testing::Test {
protected:
    QString path(const QString& name) const { return dir.filePath(name); }

    TrimRun trim(const QStringList& args) const { return orvane::test::trim(args, dir.path()); }

    QTemporaryDir dir;
};

} // namespace

TEST_F(TrimReasons, EachFileNamedDirectlyGetsItsReason)
{
    writeRaw(path("DSC_0001.NEF"));
    writeRaw(path("scan.dng"));
    ASSERT_TRUE(writeFile(path("notes.png"), "not an image\n"));
    ASSERT_TRUE(writeFile(path("cut.png"), noisyPng().chopped(3000)));
    const TrimRun run = trim({"-n", "--json", "DSC_0001.NEF", "scan.dng", "gone.png", "notes.png", "cut.png"});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(outcomes(run), (QStringList{"DSC_0001.NEF::unsupported", "scan.dng::unsupported", "gone.png::missing",
                                          "notes.png::not-an-image", "cut.png::damaged"}));
    // The reason follows the message, so that a line reads in order.
    EXPECT_TRUE(run.out.contains("\",\"reason\":\"unsupported\"}"));

    const TrimRun plain = trim({"-n", "DSC_0001.NEF"});
    EXPECT_TRUE(plain.err.startsWith("orvane-trim: DSC_0001.NEF: ")) << plain.err.toStdString();
    EXPECT_TRUE(plain.err.contains(" (unsupported)\n")) << plain.err.toStdString();
}

TEST_F(TrimReasons, RawFilesInAFolderAreNeitherListedNorCountedAndNeverWritten)
{
    ASSERT_TRUE(QDir(dir.path()).mkpath("shots"));
    framed().write_to_file(QFile::encodeName(path("shots/a.png")).constData());
    writeRaw(path("shots/b.NEF"));
    writeRaw(path("shots/c.dng"));
    ASSERT_TRUE(writeFile(path("shots/notes.txt"), "words\n"));
    ASSERT_TRUE(QFile::link(QStringLiteral("nowhere.png"), path("shots/d.png")));
    ASSERT_EQ(::mkfifo(QFile::encodeName(path("shots/e.png")).constData(), 0600), 0);
    const QByteArray raw = readFile(path("shots/b.NEF"));

    const TrimRun run = trim({"--json", "--in-place", "shots"});
    EXPECT_EQ(run.exitCode, 1);
    // The dangling link and the pipe are named like images: they count, and say why.
    EXPECT_EQ(outcomes(run), (QStringList{"a.png:trimmed:", "d.png:failed:missing", "e.png:failed:unreadable"}));
    EXPECT_EQ(readFile(path("shots/b.NEF")), raw);

    // Named directly, a raw file fails and stays as it was.
    EXPECT_EQ(trim({"--in-place", "shots/b.NEF"}).exitCode, 1);
    EXPECT_EQ(readFile(path("shots/b.NEF")), raw);
}

int main(int argc, char** argv)
{
    if (VIPS_INIT(argv[0]))
        return 2;
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
