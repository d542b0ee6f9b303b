// ImageType: the table of accepted types, conformance, and types from names
// and from content.
#include "imagefile/imagetype.h"

#include "imagefiletestsupport.h"

using orvane::ImageType;

namespace {

QByteArray isoBox(const char* brand)
{
    QByteArray box("\0\0\0\x18" "ftyp", 8);
    box += brand;
    box += QByteArray("\0\0\0\0", 4);
    box += "mif1";
    box += "miaf";
    return box;
}

} // namespace

TEST(ImageTypeTable, AcceptedTypesInOrderWithPreferredExtensions)
{
    const QList<ImageType>& accepted = orvane::ImageFile::acceptedTypes();
    QStringList names;
    QStringList extensions;
    for (const ImageType& type : accepted) {
        names << type.mimeName();
        extensions << type.preferredExtension();
    }
    EXPECT_EQ(names.join(' '),
              "image/png image/jpeg image/tiff image/bmp image/gif image/heic image/heif image/webp");
    EXPECT_EQ(extensions.join(' '), "png jpeg tiff bmp gif heic heif webp");
}

TEST(ImageTypeTable, NamesAndExtensionsOfOtherTypesComeFromTheMimeDatabase)
{
    const struct {
        const char* name;
        const char* canonical;
        const char* extension;
    } cases[] = {
        {"image/pjpeg", "image/jpeg", "jpeg"}, {"image/heic", "image/heic", "heic"},
        {"application/pdf", "application/pdf", "pdf"}, {"application/octet-stream", "application/octet-stream", ""},
        {"application/x-no-such-type", "application/x-no-such-type", ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ImageType(QString::fromLatin1(c.name)).mimeName(), c.canonical) << c.name;
        EXPECT_EQ(ImageType(QString::fromLatin1(c.name)).preferredExtension(), c.extension) << c.name;
    }
}

TEST(ImageTypeConformance, FollowsTheMimeDatabaseAndKeepsHeicApart)
{
    for (const ImageType& type : orvane::ImageFile::acceptedTypes()) {
        EXPECT_TRUE(type.conforms(type)) << type.mimeName().toStdString();
        EXPECT_TRUE(type.conforms(ImageType::data())) << type.mimeName().toStdString();
        EXPECT_FALSE(ImageType::data().conforms(type)) << type.mimeName().toStdString();
    }
    const struct {
        const char* type;
        const char* to;
        bool conforms;
    } cases[] = {
        {"image/heic", "image/heif", false}, {"image/heif", "image/heic", false},
        {"text/x-csrc", "text/plain", true}, {"text/plain", "text/x-csrc", false},
        {"image/png", "image/jpeg", false},  {"text/plain", "image/png", false},
        {"text/plain", "application/octet-stream", true},
        {"application/x-no-such-type", "application/octet-stream", true},
    };
    for (const auto& c : cases)
        EXPECT_EQ(ImageType(QString::fromLatin1(c.type)).conforms(ImageType(QString::fromLatin1(c.to))), c.conforms)
            << c.type << " to " << c.to;
}

TEST(ImageTypeFromExtension, TableExtensionsInAnyCaseThenTheMimeDatabase)
{
    const std::pair<const char*, std::optional<ImageType>> cases[] = {
        {"png", ImageType::png()},   {"PNG", ImageType::png()},   {"jpg", ImageType::jpeg()},
        {"JPEG", ImageType::jpeg()}, {"jpe", ImageType::jpeg()},  {"tif", ImageType::tiff()},
        {"tiff", ImageType::tiff()}, {"bmp", ImageType::bmp()},   {"gif", ImageType::gif()},
        {"heic", ImageType::heic()}, {"HEIF", ImageType::heif()}, {"webp", ImageType::webP()},
        {"txt", ImageType(QStringLiteral("text/plain"))},         {"svg", ImageType(QStringLiteral("image/svg+xml"))},
        {"PDF", ImageType(QStringLiteral("application/pdf"))},   {"xyz-unknown", std::nullopt}, {"", std::nullopt},
    };
    for (const auto& [extension, type] : cases)
        EXPECT_EQ(ImageType::fromExtension(QString::fromLatin1(extension)), type) << extension;
}

TEST(ImageTypeFromContent, SignaturesOfTheAcceptedTypes)
{
    const std::pair<QByteArray, ImageType> cases[] = {
        {QByteArray("\x89PNG\r\n\x1a\n\0\0\0\x0dIHDR", 16), ImageType::png()},
        {QByteArray("\xff\xd8\xff\xe0\0\x10JFIF", 10), ImageType::jpeg()},
        {QByteArray("II*\0\x08\0\0\0", 8), ImageType::tiff()},
        {QByteArray("MM\0*\0\0\0\x08", 8), ImageType::tiff()},
        {QByteArray("II+\0\x08\0\0\0", 8), ImageType::tiff()},
        {QByteArray("BM\x3a\0\0\0\0\0\0\0\x36\0\0\0\x28\0", 16), ImageType::bmp()},
        {QByteArray("GIF87a\1\0\1\0"), ImageType::gif()},
        {QByteArray("GIF89a\1\0\1\0"), ImageType::gif()},
        {QByteArray("RIFF\x24\0\0\0WEBPVP8 ", 16), ImageType::webP()},
        {isoBox("heic"), ImageType::heic()},
        {isoBox("heix"), ImageType::heic()},
        {isoBox("hevc"), ImageType::heic()},
        {isoBox("hevx"), ImageType::heic()},
        {isoBox("mif1"), ImageType::heif()},
        {isoBox("msf1"), ImageType::heif()},
        {isoBox("heim"), ImageType::heif()},
        {isoBox("heis"), ImageType::heif()},
    };
    for (const auto& [head, type] : cases) {
        const std::optional<ImageType> found = ImageType::fromContent(head);
        ASSERT_TRUE(found) << head.toHex().toStdString();
        EXPECT_EQ(found->mimeName(), type.mimeName()) << head.toHex().toStdString();
    }
}

TEST(ImageTypeFromContent, OtherBrandsAndFormatsAreNotAccepted)
{
    // An AVIF is an ISO-BMFF image too, but not one of ours.
    const std::optional<ImageType> avif = ImageType::fromContent(isoBox("avif"));
    EXPECT_TRUE(!avif || !orvane::ImageFile::acceptedTypes().contains(*avif));
    // A RIFF that is not WebP (a WAVE file) is not WebP.
    const std::optional<ImageType> wave = ImageType::fromContent(QByteArray("RIFF\x24\0\0\0WAVEfmt ", 16));
    EXPECT_TRUE(!wave || *wave != ImageType::webP());
}

TEST(ImageTypeFromContent, OtherContentFromTheMimeDatabaseOrAbsent)
{
    const QByteArray svg = "<?xml version=\"1.0\"?>\n<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"4\" height=\"4\"/>";
    const std::pair<QByteArray, std::optional<ImageType>> cases[] = {
        {svg, ImageType(QStringLiteral("image/svg+xml"))},
        {"%PDF-1.4\n%\xe2\xe3\xcf\xd3\n", ImageType(QStringLiteral("application/pdf"))},
        {"just some words\n", ImageType(QStringLiteral("text/plain"))},
        {QByteArray(), std::nullopt},
        {QByteArray("\x00\x01\x02\x03\xfe\xff\x00\x9c", 8), std::nullopt},
    };
    for (const auto& [head, type] : cases)
        EXPECT_EQ(ImageType::fromContent(head), type) << head.toHex().toStdString();
}

ORVANE_IMAGEFILE_TEST_MAIN((void)0)
