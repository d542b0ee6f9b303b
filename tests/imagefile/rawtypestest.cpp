// Camera raw files are TIFF-like containers whose first directory is often a
// small thumbnail. They are not TIFFs: never accepted by name, left out of
// folders, and said to be unsupported when named directly, so that no raw
// file is ever replaced by a trimmed TIFF of its thumbnail.
#include "imagefile/imagesource.h"

#include <QDir>
#include <QTemporaryDir>

#include "imagefiletestsupport.h"

using namespace orvane;

namespace {

const char* const kRawExtensions[] = {"NEF", "nef", "NRW", "dng", "DNG", "CR2", "ARW", "PEF", "SR2", "K25", "KDC", "DCR"};

// A TIFF of three pages, as a raw file is: the first page stands for the
// thumbnail a camera stores.
void writeMultiPageTiff(const QString& path)
{
    vips::VImage pages = test::pattern(48, 3 * 32, 3);
    pages.set("page-height", 32);
    pages.tiffsave(QFile::encodeName(path).constData());
}

} // namespace

TEST(RawTypes, AreNotAcceptedAndDoNotConformToTiff)
{
    for (const char* extension : kRawExtensions) {
        EXPECT_FALSE(ImageFile::isAccepted(QStringLiteral("DSC_0001.") + QLatin1String(extension))) << extension;
        const std::optional<ImageType> type = ImageType::fromExtension(QLatin1String(extension));
        ASSERT_TRUE(type) << extension << " is known to shared-mime-info";
        EXPECT_FALSE(type->conforms(ImageType::tiff())) << extension;
        EXPECT_TRUE(type->conforms(ImageType::data())) << extension;
    }
    // Another sub-class of an accepted type is not accepted either.
    EXPECT_FALSE(ImageFile::isAccepted(QStringLiteral("clip.mjpeg")));
    EXPECT_TRUE(ImageFile::isAccepted(QStringLiteral("scan.TIF")));
}

TEST(RawTypes, AreLeftOutOfAFolderAndRefusedWhenNamed)
{
    QTemporaryDir dir;
    for (const char* name : {"b.NEF", "c.dng", "a.tif", "d.CR2"})
        writeMultiPageTiff(dir.filePath(QLatin1String(name)));

    EXPECT_EQ(ImageFile::expandingFolders({dir.path()}), QStringList{dir.filePath("a.tif")});
    // Named directly, the content would open as a TIFF; the name is what refuses it.
    for (const char* name : {"b.NEF", "c.dng"}) {
        const QString path = dir.filePath(QLatin1String(name));
        EXPECT_FALSE(ImageFile::isAccepted(path)) << name;
        EXPECT_EQ(ImageFile::whyNotOpened(path).reason, ImageFile::FailureReason::Unsupported) << name;
    }
}

ORVANE_IMAGEFILE_TEST_MAIN({})
