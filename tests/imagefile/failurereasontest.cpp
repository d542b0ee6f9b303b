// Every reason a file can fail to open, each from a file made to fail that
// way: opening refuses it, and whyNotOpened() names the reason with a message
// a person can act on.
#include "imagefile/imagesource.h"

#include <functional>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QDir>
#include <QTemporaryDir>

#include "imagefiletestsupport.h"
#include "support/pngbytes.h"

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
    const char* mentions = ""; ///< a part of the message
};

void PrintTo(const FailureCase& c, std::ostream* out) { *out << c.fileName; }

std::function<void(const QString&)> writing(const QByteArray& bytes)
{
    return [bytes](const QString& p) { ASSERT_TRUE(writeFile(p, bytes)); };
}

// Grey noise as RGB, encoded for the suffix: every pixel costs bytes.
QByteArray noisy(const char* suffix)
{
    const vips::VImage noise = vips::VImage::gaussnoise(64, 64, vips::VImage::option()->set("sigma", 50.0));
    return encoded(orvane::test::tagged(noise.bandjoin({noise, noise}), VIPS_FORMAT_UCHAR), suffix);
}

// A PNG whose header claims a size, with a checksum that holds, and a few rows.
QByteArray pngClaiming(std::uint32_t width, std::uint32_t height)
{
    return orvane::test::png(width, height, 2, orvane::test::zerosZlib(64 * (1 + 64 * 3)));
}

class WhyNotOpened : public ::testing::TestWithParam<FailureCase> {
protected:
    void TearDown() override { ImageFile::setAvailableMemoryForTesting(std::nullopt); }
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
    EXPECT_TRUE(failure.message.contains(QString::fromUtf8(c.mentions))) << failure.message.toStdString();
}

INSTANTIATE_TEST_SUITE_P(
    Files, WhyNotOpened,
    ::testing::Values(
        FailureCase{"missing", "gone.png", [](const QString&) {}, FailureReason::Missing},
        FailureCase{"dangling_link", "dangling.png", [](const QString& p) { ASSERT_TRUE(QFile::link(p + ".target", p)); },
                    FailureReason::Missing},
        FailureCase{"folder", "folder.png", [](const QString& p) { ASSERT_TRUE(QDir().mkpath(p)); }, FailureReason::Unreadable},
        FailureCase{"pipe", "pipe.png", [](const QString& p) { ASSERT_EQ(::mkfifo(QFile::encodeName(p).constData(), 0600), 0); },
                    FailureReason::Unreadable},
        FailureCase{"empty", "empty.png", writing({}), FailureReason::NotAnImage},
        FailureCase{"text_named_png", "notes.png", writing("Shopping list:\nbread\nmilk\n"), FailureReason::NotAnImage},
        FailureCase{"text", "notes.txt", writing("just words\n"), FailureReason::NotAnImage},
        FailureCase{"svg_named_png", "drawing.png",
                    writing("<?xml version=\"1.0\"?>\n<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"10\" height=\"10\">"
                            "<rect width=\"5\" height=\"5\"/></svg>\n"),
                    FailureReason::Unsupported},
        // A camera raw file holds a TIFF and is refused by its name.
        FailureCase{"raw_nef", "DSC_0001.NEF", writing(encoded(pattern(40, 30, 3), ".tif")), FailureReason::Unsupported},
        FailureCase{"png_without_an_image_name", "picture.data", writing(noisy(".png")), FailureReason::Unsupported},
        FailureCase{"truncated_png", "cut.png", writing(noisy(".png").chopped(2000)), FailureReason::Damaged},
        FailureCase{"truncated_jpeg", "broken.jpg", writing(noisy(".jpg").chopped(2000)), FailureReason::Damaged},
        FailureCase{"absurd_size", "huge.png", writing(pngClaiming(200000, 200000)), FailureReason::TooLarge},
        FailureCase{"beyond_the_free_memory", "big.png",
                    [](const QString& p) {
                        ASSERT_TRUE(writeFile(p, pngClaiming(4000, 3000)));
                        ImageFile::setAvailableMemoryForTesting(std::uint64_t(20) << 20);
                    },
                    FailureReason::TooLarge, "4000 × 3000"}),
    [](const ::testing::TestParamInfo<FailureCase>& info) { return std::string(info.param.name); });

// Root reads every file; a child that has given up root's rights cannot.
TEST(WhyNotOpenedPermissions, AFileThatMayNotBeReadIsUnreadable)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root to become another user";
    QTemporaryDir dir;
    const QString path = dir.filePath("private.png");
    ASSERT_TRUE(writeFile(path, noisy(".png")));
    ASSERT_TRUE(::chmod(QFile::encodeName(dir.path()).constData(), 0701) == 0 && ::chmod(QFile::encodeName(path).constData(), 0600) == 0);

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
