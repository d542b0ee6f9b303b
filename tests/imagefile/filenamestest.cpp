// Types and the file-name rules shared by the window and the command-line
// tool: types from names and from content, the accepted test, name order,
// folder expansion and the proposed name. Camera raw files are TIFF-like
// containers whose first directory is often a small thumbnail: never
// accepted, left out of folders and refused when named, so that no raw file
// is ever replaced by a trimmed TIFF of its thumbnail. The process runs in
// the C locale, like CI and headless sessions.
#include "imagefile/imagefile.h"
#include "imagefile/imagesource.h"

#include <cstdlib>
#include <thread>

#include <QDir>
#include <QLocale>
#include <QTemporaryDir>

#include "imagefiletestsupport.h"

using namespace orvane;
using orvane::test::writeFile;

namespace {

QStringList sorted(QStringList names)
{
    std::stable_sort(names.begin(), names.end(), ImageFile::fileNameLessThan);
    return names;
}

QByteArray isoBox(const char* brand)
{
    return QByteArray("\0\0\0\x18" "ftyp", 8) + brand + QByteArray("\0\0\0\0", 4) + "mif1" + "miaf";
}

class Folders : public ::testing::Test {
protected:
    QString path(const QString& name) const { return dir.filePath(name); }
    void touch(const QString& name) const { ASSERT_TRUE(writeFile(path(name), "x")); }
    void mkdir(const QString& name) const { ASSERT_TRUE(QDir(dir.path()).mkpath(name)); }

    QTemporaryDir dir;
};

} // namespace

TEST(ImageTypeConformance, FollowsTheMimeDatabaseAndKeepsHeicApart)
{
    for (const ImageType& type : orvane::ImageFile::acceptedTypes()) {
        EXPECT_TRUE(type.conforms(type)) << type.mimeName().toStdString();
        EXPECT_TRUE(type.conforms(ImageType::data())) << type.mimeName().toStdString();
        EXPECT_FALSE(ImageType::data().conforms(type)) << type.mimeName().toStdString();
    }
    const struct { const char* type; const char* to; bool conforms; } cases[] = {
        {"image/heic", "image/heif", false}, {"image/heif", "image/heic", false}, {"text/x-csrc", "text/plain", true},
        {"text/plain", "text/x-csrc", false}, {"image/png", "image/jpeg", false}, {"text/plain", "image/png", false},
        {"text/plain", "application/octet-stream", true}, {"application/x-no-such-type", "application/octet-stream", true},
    };
    for (const auto& c : cases)
        EXPECT_EQ(ImageType(QString::fromLatin1(c.type)).conforms(ImageType(QString::fromLatin1(c.to))), c.conforms)
            << c.type << " to " << c.to;
}

TEST(ImageTypeFromContent, SignaturesOfTheAcceptedTypes)
{
    std::vector<std::pair<QByteArray, ImageType>> cases = {
        {QByteArray("\x89PNG\r\n\x1a\n\0\0\0\x0dIHDR", 16), ImageType::png()},
        {QByteArray("\xff\xd8\xff\xe0\0\x10JFIF", 10), ImageType::jpeg()},
        {QByteArray("II*\0\x08\0\0\0", 8), ImageType::tiff()}, {QByteArray("MM\0*\0\0\0\x08", 8), ImageType::tiff()},
        {QByteArray("II+\0\x08\0\0\0", 8), ImageType::tiff()},
        {QByteArray("BM\x3a\0\0\0\0\0\0\0\x36\0\0\0\x28\0", 16), ImageType::bmp()},
        {QByteArray("GIF87a\1\0\1\0"), ImageType::gif()}, {QByteArray("GIF89a\1\0\1\0"), ImageType::gif()},
        {QByteArray("RIFF\x24\0\0\0WEBPVP8 ", 16), ImageType::webP()},
    };
    for (const char* brand : {"heic", "heix", "hevc", "hevx"})
        cases.push_back({isoBox(brand), ImageType::heic()});
    for (const char* brand : {"mif1", "msf1", "heim", "heis"})
        cases.push_back({isoBox(brand), ImageType::heif()});
    for (const auto& [head, type] : cases) {
        const std::optional<ImageType> found = ImageType::fromContent(head);
        ASSERT_TRUE(found) << head.toHex().toStdString();
        EXPECT_EQ(found->mimeName(), type.mimeName()) << head.toHex().toStdString();
    }
    // An AVIF is an ISO-BMFF image too, but not one of ours; a RIFF that is
    // not WebP (a WAVE file) is not WebP.
    const std::optional<ImageType> avif = ImageType::fromContent(isoBox("avif"));
    EXPECT_TRUE(!avif || !orvane::ImageFile::acceptedTypes().contains(*avif));
    const std::optional<ImageType> wave = ImageType::fromContent(QByteArray("RIFF\x24\0\0\0WAVEfmt ", 16));
    EXPECT_TRUE(!wave || *wave != ImageType::webP());
}

TEST(ImageTypeFromContent, OtherContentFromTheMimeDatabaseOrAbsent)
{
    const QByteArray svg = "<?xml version=\"1.0\"?>\n<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"4\" height=\"4\"/>";
    const std::pair<QByteArray, std::optional<ImageType>> cases[] = {
        {svg, ImageType(QStringLiteral("image/svg+xml"))},
        {"%PDF-1.4\n%\xe2\xe3\xcf\xd3\n", ImageType(QStringLiteral("application/pdf"))},
        {"just some words\n", ImageType(QStringLiteral("text/plain"))}, {QByteArray(), std::nullopt},
        {QByteArray("\x00\x01\x02\x03\xfe\xff\x00\x9c", 8), std::nullopt},
    };
    for (const auto& [head, type] : cases)
        EXPECT_EQ(ImageType::fromContent(head), type) << head.toHex().toStdString();
}

// A name is accepted by the extension of an accepted type, in any case; the
// type of an extension comes from the table, then from the MIME database.
TEST(Accepted, TheExtensionOfAnAcceptedTypeInAnyCase)
{
    const ImageType text(QStringLiteral("text/plain"));
    const struct { const char* name; std::optional<ImageType> type; bool accepted; } cases[] = {
        {"a.png", ImageType::png(), true},   {"photo.PNG", ImageType::png(), true}, {"a.jpg", ImageType::jpeg(), true},
        {"a.JPEG", ImageType::jpeg(), true}, {"a.jpe", ImageType::jpeg(), true},    {"a.tif", ImageType::tiff(), true},
        {"a.tiff", ImageType::tiff(), true}, {"a.bmp", ImageType::bmp(), true},     {"a.gif", ImageType::gif(), true},
        {"a.heic", ImageType::heic(), true}, {"a.HEIF", ImageType::heif(), true},   {"a.webp", ImageType::webP(), true},
        {"/some/folder.d/archive.tar.png", ImageType::png(), true}, {"name with spaces.Png", ImageType::png(), true},
        {"notes.txt", text, false}, {"drawing.svg", ImageType(QStringLiteral("image/svg+xml")), false},
        {"document.PDF", ImageType(QStringLiteral("application/pdf")), false}, {"photo.png.txt", text, false},
        {"noextension", std::nullopt, false}, {"folder.d/file", std::nullopt, false}, {"ends-with-dot.", std::nullopt, false},
        {".png", ImageType::png(), false},   {"a.xyz-unknown", std::nullopt, false}, {"", std::nullopt, false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ImageFile::isAccepted(QString::fromUtf8(c.name)), c.accepted) << c.name;
        EXPECT_EQ(ImageType::fromExtension(QFileInfo(QString::fromUtf8(c.name)).suffix()), c.type) << c.name;
    }
}

// Digits by value and case ignored, in the C locale; the same on every thread.
TEST(NameOrder, DigitsByValueAndCaseIgnoredOnEveryThread)
{
    ASSERT_EQ(QLocale::system().language(), QLocale::C) << "the test runs with LC_ALL=C";
    const struct { QStringList names, sorted; } cases[] = {
        {{"10.png", "2.png"}, {"2.png", "10.png"}}, {{"B.png", "a.jpg"}, {"a.jpg", "B.png"}},
        {{"Page 10.png", "page 9.png"}, {"page 9.png", "Page 10.png"}},
        {{"b.png", "B.png"}, {"b.png", "B.png"}}, // equal: the stable sort keeps them as they came
        {{"B.png", "b.png"}, {"B.png", "b.png"}},
        {{"b.png", "a.jpg", "10.png", "2.png"}, {"2.png", "10.png", "a.jpg", "b.png"}},
        {{"scan 100.tif", "scan 20.tif", "Scan 3.tif"}, {"Scan 3.tif", "scan 20.tif", "scan 100.tif"}},
        {{"img12.png", "IMG2.png", "img1.png", "b.png", "A.png", "img10.png", "10.png", "9.png"},
         {"9.png", "10.png", "A.png", "b.png", "img1.png", "IMG2.png", "img10.png", "img12.png"}},
    };
    for (const auto& c : cases) {
        std::vector<QStringList> results(4);
        std::vector<std::thread> threads;
        for (size_t t = 0; t < results.size(); ++t)
            threads.emplace_back([&, t] { results[t] = sorted(c.names); });
        for (std::thread& thread : threads)
            thread.join();
        for (const QStringList& result : results)
            EXPECT_EQ(result, c.sorted);
    }
}

// A folder becomes its images in name order, not those deeper down; other
// paths stay where they are, unchecked; links are followed: one to a folder
// given directly is expanded, inside a folder a link to a file is an image,
// a link to a folder is a folder, a dangling link an image that will fail.
TEST_F(Folders, AFolderBecomesItsImagesInNameOrder)
{
    for (const char* name : {"top", "top/sub", "top/folder.png", "empty", "nested/deeper", "view"})
        mkdir(QString::fromUtf8(name));
    for (const char* name : {"top/b.png", "top/a.jpg", "top/10.png", "top/2.png", "top/notes.txt", "top/.hidden.png",
                             "top/Photo.WEBP", "top/sub/inside.png", "nested/deeper/image.png", "nested/readme.txt", "single.txt"})
        touch(QString::fromUtf8(name));
    ASSERT_TRUE(QFile::link(path("top/sub"), path("view/linked-folder")));
    ASSERT_TRUE(QFile::link(path("single.txt"), path("view/linked.gif")));
    ASSERT_TRUE(QFile::link(path("gone.png"), path("view/dangling.png")));
    const struct { QStringList in, out; } cases[] = {
        {{"top"}, {"top/2.png", "top/10.png", "top/a.jpg", "top/b.png", "top/Photo.WEBP"}},
        {{"empty", "nested", "top/sub"}, {"top/sub/inside.png"}},
        {{"single.txt", "top/sub", "missing.png", "top/sub"}, {"single.txt", "top/sub/inside.png", "missing.png", "top/sub/inside.png"}},
        {{"view/linked-folder"}, {"view/linked-folder/inside.png"}},
        {{"view"}, {"view/dangling.png", "view/linked.gif"}}, {{}, {}},
    };
    const auto inDir = [&](const QStringList& names) {
        QStringList paths;
        for (const QString& name : names)
            paths << path(name);
        return paths;
    };
    for (const auto& c : cases)
        EXPECT_EQ(ImageFile::expandingFolders(inDir(c.in)), inDir(c.out)) << c.in.join(' ').toStdString();
    EXPECT_EQ(ImageFile::expandingFolders({QStringLiteral("relative/x.gif")}), QStringList{"relative/x.gif"});
}

// The extension as written in the name, not that of the type found in the
// content; without one, the type's preferred extension, or PNG.
TEST(ProposedName, KeepsTheExtensionAsWrittenElseTheTypeDecides)
{
    const struct { const char* name; ImageType type; const char* proposed; } cases[] = {
        {"photo.JPG", ImageType::jpeg(), "photo-cropped.JPG"}, {"photo.png", ImageType::png(), "photo-cropped.png"},
        {"archive.tar.png", ImageType::png(), "archive.tar-cropped.png"},
        {"picture.jpg", ImageType::png(), "picture-cropped.jpg"},
        {"/home/someone/Pictures/photo.gif", ImageType::gif(), "photo-cropped.gif"},
        {"scan", ImageType::tiff(), "scan-cropped.tiff"}, {"scan", ImageType::jpeg(), "scan-cropped.jpeg"},
        {"name", ImageType::data(), "name-cropped.png"},
        {"name", ImageType(QStringLiteral("application/x-no-such-type")), "name-cropped.png"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(ImageFile::proposedName(QString::fromUtf8(c.name), c.type), c.proposed) << c.name;
}

TEST(RawTypes, AreNotAcceptedAndDoNotConformToTiff)
{
    for (const char* extension : {"NEF", "nef", "NRW", "dng", "DNG", "CR2", "ARW", "PEF", "SR2", "K25", "KDC", "DCR"}) {
        EXPECT_FALSE(ImageFile::isAccepted(QStringLiteral("DSC_0001.") + QLatin1String(extension))) << extension;
        const std::optional<ImageType> type = ImageType::fromExtension(QLatin1String(extension));
        ASSERT_TRUE(type) << extension << " is known to shared-mime-info";
        EXPECT_FALSE(type->conforms(ImageType::tiff())) << extension;
        EXPECT_TRUE(type->conforms(ImageType::data())) << extension;
    }
    // Another sub-class of an accepted type is not accepted either.
    EXPECT_FALSE(ImageFile::isAccepted(QStringLiteral("clip.mjpeg")));
}

// A TIFF of three pages, as a raw file is: the first page stands for the
// thumbnail a camera stores. Named directly, the content would open as a
// TIFF; the name is what refuses it.
TEST_F(Folders, RawFilesAreLeftOutAndRefusedWhenNamed)
{
    vips::VImage pages = test::pattern(48, 3 * 32, 3);
    pages.set("page-height", 32);
    for (const char* name : {"b.NEF", "c.dng", "a.tif", "d.CR2"})
        pages.tiffsave(QFile::encodeName(path(QLatin1String(name))).constData());
    EXPECT_EQ(ImageFile::expandingFolders({dir.path()}), QStringList{path("a.tif")});
    for (const char* name : {"b.NEF", "c.dng"}) {
        EXPECT_FALSE(ImageFile::isAccepted(path(QLatin1String(name)))) << name;
        EXPECT_EQ(ImageFile::whyNotOpened(path(QLatin1String(name))).reason, ImageFile::FailureReason::Unsupported) << name;
    }
}

ORVANE_IMAGEFILE_TEST_MAIN(setenv("LC_ALL", "C", 1); setenv("LANG", "C", 1); unsetenv("LANGUAGE"))
