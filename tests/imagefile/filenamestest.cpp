// The file-name rules shared by the window and the command-line tool: the
// accepted test, name order, folder expansion and the proposed name. The
// process runs in the C locale, like CI and headless sessions.
#include "imagefile/imagefile.h"

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

class Folders : public ::testing::Test {
protected:
    QString path(const QString& name) const { return dir.filePath(name); }
    void touch(const QString& name) const { ASSERT_TRUE(writeFile(path(name), "x")); }
    void mkdir(const QString& name) const { ASSERT_TRUE(QDir(dir.path()).mkpath(name)); }

    QTemporaryDir dir;
};

} // namespace

TEST(Accepted, TheExtensionOfAnAcceptedTypeInAnyCase)
{
    const std::pair<const char*, bool> cases[] = {
        {"a.png", true},        {"photo.PNG", true},     {"a.jpg", true},         {"a.JPEG", true},
        {"a.jpe", true},        {"a.tif", true},         {"a.tiff", true},        {"a.bmp", true},
        {"a.gif", true},        {"a.heic", true},        {"a.HEIF", true},        {"a.webp", true},
        {"/some/folder.d/archive.tar.png", true},        {"name with spaces.Png", true},
        {"notes.txt", false},   {"drawing.svg", false},  {"document.pdf", false}, {"noextension", false},
        {"photo.png.txt", false}, {"folder.d/file", false}, {"ends-with-dot.", false}, {".png", false},
        {"a.xyz-unknown", false}, {"", false},
    };
    for (const auto& [name, accepted] : cases)
        EXPECT_EQ(ImageFile::isAccepted(QString::fromUtf8(name)), accepted) << name;
}

TEST(NameOrder, DigitsByValueAndCaseIgnoredInTheCLocale)
{
    ASSERT_EQ(QLocale::system().language(), QLocale::C) << "the test runs with LC_ALL=C";
    EXPECT_TRUE(ImageFile::fileNameLessThan("2.png", "10.png"));
    EXPECT_FALSE(ImageFile::fileNameLessThan("10.png", "2.png"));
    EXPECT_TRUE(ImageFile::fileNameLessThan("a.jpg", "B.png"));
    EXPECT_TRUE(ImageFile::fileNameLessThan("page 9.png", "Page 10.png"));
    EXPECT_FALSE(ImageFile::fileNameLessThan("b.png", "B.png"));
    EXPECT_FALSE(ImageFile::fileNameLessThan("B.png", "b.png"));
    EXPECT_EQ(sorted({"b.png", "a.jpg", "10.png", "2.png"}), (QStringList{"2.png", "10.png", "a.jpg", "b.png"}));
    EXPECT_EQ(sorted({"scan 100.tif", "scan 20.tif", "Scan 3.tif"}),
              (QStringList{"Scan 3.tif", "scan 20.tif", "scan 100.tif"}));
}

TEST(NameOrder, TheSameOnEveryThread)
{
    const QStringList names{"img12.png", "IMG2.png", "img1.png", "b.png", "A.png", "img10.png", "10.png", "9.png"};
    const QStringList expected = sorted(names);
    std::vector<QStringList> results(4);
    std::vector<std::thread> threads;
    for (size_t t = 0; t < results.size(); ++t)
        threads.emplace_back([&, t] { results[t] = sorted(names); });
    for (std::thread& thread : threads)
        thread.join();
    for (const QStringList& result : results)
        EXPECT_EQ(result, expected);
    EXPECT_EQ(expected, (QStringList{"9.png", "10.png", "A.png", "b.png", "img1.png", "IMG2.png", "img10.png", "img12.png"}));
}

TEST_F(Folders, AFolderBecomesItsImagesInNameOrder)
{
    for (const char* name : {"b.png", "a.jpg", "10.png", "2.png", "notes.txt", ".hidden.png", "Photo.WEBP"})
        touch(QString::fromUtf8(name));
    mkdir("sub");
    touch("sub/inside.png");
    mkdir("folder.png"); // a folder named like an image is still a folder

    EXPECT_EQ(ImageFile::expandingFolders({dir.path()}),
              (QStringList{path("2.png"), path("10.png"), path("a.jpg"), path("b.png"), path("Photo.WEBP")}));
    // Folders without images of their own (only deeper down) contribute nothing.
    mkdir("empty");
    mkdir("nested/deeper");
    touch("nested/deeper/image.png");
    touch("nested/readme.txt");
    EXPECT_EQ(ImageFile::expandingFolders({path("empty"), path("nested"), path("sub")}), QStringList{path("sub/inside.png")});
    EXPECT_TRUE(ImageFile::expandingFolders({}).isEmpty());
}

TEST_F(Folders, OtherPathsStayWhereTheyAreUnchecked)
{
    mkdir("one");
    touch("one/b.png");
    touch("one/a.png");
    touch("single.txt");
    const QStringList input{path("single.txt"), path("one"), path("missing.png"), QStringLiteral("relative/x.gif")};
    EXPECT_EQ(ImageFile::expandingFolders(input),
              (QStringList{path("single.txt"), path("one/a.png"), path("one/b.png"), path("missing.png"),
                           QStringLiteral("relative/x.gif")}));
    // The same folder twice is listed twice: no duplicate detection.
    EXPECT_EQ(ImageFile::expandingFolders({path("one"), path("one")}).size(), 4);
}

TEST_F(Folders, LinksAreFollowed)
{
    mkdir("real");
    touch("real/x.png");
    touch("target.gif");
    mkdir("view");
    ASSERT_TRUE(QFile::link(path("real"), path("view/linked-folder")));
    ASSERT_TRUE(QFile::link(path("target.gif"), path("view/linked.gif")));
    ASSERT_TRUE(QFile::link(path("gone.png"), path("view/dangling.png")));
    // A link to a folder given directly is expanded; inside a folder a link
    // to a file is an image, a link to a folder is a folder, a dangling link
    // an image that will fail to open.
    EXPECT_EQ(ImageFile::expandingFolders({path("view/linked-folder")}), QStringList{path("view/linked-folder/x.png")});
    EXPECT_EQ(ImageFile::expandingFolders({path("view")}), (QStringList{path("view/dangling.png"), path("view/linked.gif")}));
}

// The extension as written in the name, not that of the type found in the
// content; without one, the type's preferred extension, or PNG.
TEST(ProposedName, KeepsTheExtensionAsWrittenElseTheTypeDecides)
{
    const struct {
        const char* name;
        ImageType type;
        const char* proposed;
    } cases[] = {
        {"photo.JPG", ImageType::jpeg(), "photo-cropped.JPG"},
        {"photo.png", ImageType::png(), "photo-cropped.png"},
        {"archive.tar.png", ImageType::png(), "archive.tar-cropped.png"},
        {"picture.jpg", ImageType::png(), "picture-cropped.jpg"},
        {"/home/someone/Pictures/photo.gif", ImageType::gif(), "photo-cropped.gif"},
        {"scan", ImageType::tiff(), "scan-cropped.tiff"},
        {"scan", ImageType::jpeg(), "scan-cropped.jpeg"},
        {"name", ImageType::data(), "name-cropped.png"},
        {"name", ImageType(QStringLiteral("application/x-no-such-type")), "name-cropped.png"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(ImageFile::proposedName(QString::fromUtf8(c.name), c.type), c.proposed) << c.name;
}

ORVANE_IMAGEFILE_TEST_MAIN(setenv("LC_ALL", "C", 1); setenv("LANG", "C", 1); unsetenv("LANGUAGE"))
