// Every reason a file can fail to open, each from a file made to fail that
// way: opening refuses it, and whyNotOpened() names the reason with a message
// a person can act on.
#include "imagefile/imagesource.h"

#include <functional>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <zlib.h>

#include <QDir>
#include <QTemporaryDir>

#include "imagefiletestsupport.h"

using namespace orvane;
using orvane::test::encoded;
using orvane::test::pattern;
using orvane::test::writeFile;
using ImageFile::FailureReason;

namespace {

struct FailureCase {
    const char* name;
    const char* fileName;
    std::function<void(const QString& path)> make;
    FailureReason reason;
};

void PrintTo(const FailureCase& c, std::ostream* out) { *out << c.fileName; }

QByteArray noisyPng()
{
    const vips::VImage noise = vips::VImage::gaussnoise(64, 64, vips::VImage::option()->set("sigma", 50.0));
    return encoded(noise.bandjoin({noise, noise}).cast(VIPS_FORMAT_UCHAR).copy(
                       vips::VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB)),
                   ".png");
}

// A PNG whose header claims a size, with a checksum that holds.
QByteArray pngClaiming(std::uint32_t width, std::uint32_t height)
{
    QByteArray png = noisyPng();
    for (int i = 0; i < 4; ++i) {
        png[16 + i] = char(width >> (24 - 8 * i));
        png[20 + i] = char(height >> (24 - 8 * i));
    }
    const std::uint32_t crc = std::uint32_t(::crc32(0, reinterpret_cast<const Bytef*>(png.constData() + 12), 17));
    for (int i = 0; i < 4; ++i)
        png[29 + i] = char(crc >> (24 - 8 * i));
    return png;
}

vips::VImage multiPageTiff()
{
    vips::VImage pages = pattern(40, 90, 3);
    pages.set("page-height", 30);
    return pages;
}

class WhyNotOpened : public ::testing::TestWithParam<FailureCase> {
protected:
    QTemporaryDir dir;
};

} // namespace

TEST_P(WhyNotOpened, NamesTheReasonInASentenceWithoutTheName)
{
    const FailureCase& c = GetParam();
    const QString path = dir.filePath(QString::fromUtf8(c.fileName));
    c.make(path);

    // Refused by its name, or by its content.
    EXPECT_FALSE(ImageFile::isAccepted(path) && ImageFile::index(path)) << "the file opens";
    const ImageFile::Failure failure = ImageFile::whyNotOpened(path);
    EXPECT_EQ(ImageFile::reasonCode(failure.reason), ImageFile::reasonCode(c.reason)) << failure.message.toStdString();
    EXPECT_TRUE(failure.message.endsWith(QLatin1Char('.'))) << failure.message.toStdString();
    EXPECT_FALSE(failure.message.contains(QFileInfo(path).fileName())) << failure.message.toStdString();
    EXPECT_FALSE(failure.message.contains(QLatin1Char('\''))) << "typographic apostrophes only";
}

INSTANTIATE_TEST_SUITE_P(
    Files, WhyNotOpened,
    ::testing::Values(
        FailureCase{"missing", "gone.png", [](const QString&) {}, FailureReason::Missing},
        FailureCase{"dangling_link", "dangling.png",
                    [](const QString& p) { ASSERT_TRUE(QFile::link(p + ".target", p)); }, FailureReason::Missing},
        FailureCase{"folder", "folder.png", [](const QString& p) { ASSERT_TRUE(QDir().mkpath(p)); },
                    FailureReason::Unreadable},
        FailureCase{"pipe", "pipe.png",
                    [](const QString& p) { ASSERT_EQ(::mkfifo(QFile::encodeName(p).constData(), 0600), 0); },
                    FailureReason::Unreadable},
        FailureCase{"empty", "empty.png", [](const QString& p) { ASSERT_TRUE(writeFile(p, {})); },
                    FailureReason::NotAnImage},
        FailureCase{"text_named_png", "notes.png",
                    [](const QString& p) { ASSERT_TRUE(writeFile(p, "Shopping list:\nbread\nmilk\n")); },
                    FailureReason::NotAnImage},
        FailureCase{"text", "notes.txt", [](const QString& p) { ASSERT_TRUE(writeFile(p, "just words\n")); },
                    FailureReason::NotAnImage},
        FailureCase{"svg_named_png", "drawing.png",
                    [](const QString& p) {
                        ASSERT_TRUE(writeFile(p, "<?xml version=\"1.0\"?>\n<svg xmlns=\"http://www.w3.org/2000/svg\" "
                                                 "width=\"10\" height=\"10\"><rect width=\"5\" height=\"5\"/></svg>\n"));
                    },
                    FailureReason::Unsupported},
        FailureCase{"raw_nef", "DSC_0001.NEF",
                    [](const QString& p) { multiPageTiff().tiffsave(QFile::encodeName(p).constData()); },
                    FailureReason::Unsupported},
        FailureCase{"png_without_an_image_name", "picture.data",
                    [](const QString& p) { ASSERT_TRUE(writeFile(p, noisyPng())); }, FailureReason::Unsupported},
        FailureCase{"truncated_png", "cut.png",
                    [](const QString& p) { ASSERT_TRUE(writeFile(p, noisyPng().chopped(2000))); },
                    FailureReason::Damaged},
        FailureCase{"corrupt_jpeg", "broken.jpg",
                    [](const QString& p) {
                        QByteArray jpeg = encoded(pattern(64, 64, 3), ".jpg");
                        jpeg.truncate(jpeg.size() / 2);
                        ASSERT_TRUE(writeFile(p, jpeg));
                    },
                    FailureReason::Damaged},
        FailureCase{"absurd_size", "huge.png",
                    [](const QString& p) { ASSERT_TRUE(writeFile(p, pngClaiming(200000, 200000))); },
                    FailureReason::TooLarge}),
    [](const ::testing::TestParamInfo<FailureCase>& info) { return std::string(info.param.name); });

TEST(WhyNotOpenedMemory, AnImageBeyondTheFreeMemoryIsTooLarge)
{
    QTemporaryDir dir;
    const QString path = dir.filePath("big.png");
    ASSERT_TRUE(writeFile(path, pngClaiming(4000, 3000)));
    ImageFile::setAvailableMemoryForTesting(std::uint64_t(20) << 20);
    EXPECT_FALSE(ImageFile::index(path));
    const ImageFile::Failure failure = ImageFile::whyNotOpened(path);
    ImageFile::setAvailableMemoryForTesting(std::nullopt);
    EXPECT_EQ(failure.reason, FailureReason::TooLarge);
    EXPECT_TRUE(failure.message.contains(QStringLiteral("4000 × 3000"))) << failure.message.toStdString();
}

// Root reads every file; a child that has given up root's rights cannot.
TEST(WhyNotOpenedPermissions, AFileThatMayNotBeReadIsUnreadable)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root to become another user";
    QTemporaryDir dir;
    QFile::setPermissions(dir.path(), QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner
                                          | QFileDevice::ExeOther);
    const QString path = dir.filePath("private.png");
    ASSERT_TRUE(writeFile(path, noisyPng()));
    ASSERT_TRUE(QFile::setPermissions(path, QFileDevice::ReadOwner | QFileDevice::WriteOwner));

    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (::setgid(65534) != 0 || ::setuid(65534) != 0)
            ::_exit(100);
        ::_exit(int(ImageFile::whyNotOpened(path).reason));
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_NE(WEXITSTATUS(status), 100) << "could not become nobody";
    EXPECT_EQ(WEXITSTATUS(status), int(FailureReason::Unreadable));
}

ORVANE_IMAGEFILE_TEST_MAIN({})
