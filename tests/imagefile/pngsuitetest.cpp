// The PNG suite: every valid file loads with the right pixels, every
// deliberately corrupt one (x*.png) yields absent.
#include "imagefile/imagefile.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>

#include "imagefiletestsupport.h"

using namespace orvane;

namespace {

const QString kSuite = QStringLiteral(ORVANE_TEST_DATA_DIR "/pngsuite");

QStringList suiteFiles(bool corrupt)
{
    QStringList names = QDir(kSuite + QStringLiteral("/png")).entryList({QStringLiteral("*.png")}, QDir::Files, QDir::Name);
    QStringList picked;
    for (const QString& name : names) {
        if (name.startsWith(QLatin1Char('x')) == corrupt)
            picked << name;
    }
    return picked;
}

// The decoded image as un-premultiplied RGBA samples (8 or 16 bits, as
// decoded), the layout of the reference files.
std::vector<std::uint32_t> rgba(const vips::VImage& image)
{
    const std::uint32_t opaque = image.format() == VIPS_FORMAT_USHORT ? 65535 : 255;
    const std::vector<std::uint32_t> in = test::samples(image);
    const int bands = image.bands();
    std::vector<std::uint32_t> out;
    out.reserve(size_t(image.width()) * size_t(image.height()) * 4);
    for (size_t i = 0; i + size_t(bands) <= in.size(); i += size_t(bands)) {
        const bool grey = bands <= 2;
        out.push_back(in[i]);
        out.push_back(grey ? in[i] : in[i + 1]);
        out.push_back(grey ? in[i] : in[i + 2]);
        out.push_back(bands == 2 ? in[i + 1] : bands == 4 ? in[i + 3] : opaque);
    }
    return out;
}

std::vector<std::uint32_t> reference(const QString& base)
{
    QFile file(kSuite + QStringLiteral("/json/") + base + QStringLiteral(".json"));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const QJsonArray array = QJsonDocument::fromJson(file.readAll()).array();
    std::vector<std::uint32_t> values;
    values.reserve(size_t(array.size()));
    for (const QJsonValue& value : array)
        values.push_back(std::uint32_t(value.toInt()));
    return values;
}

} // namespace

// One test per group rather than per file: each test is a process of its own
// under CTest, and starting one costs more than decoding the whole suite.
TEST(PngSuite, EveryValidFileLoadsWithTheReferencePixels)
{
    for (const QString& name : suiteFiles(false)) {
        SCOPED_TRACE(name.toStdString());
        const std::optional<ImageFile::LoadResult> loaded = ImageFile::load(kSuite + QStringLiteral("/png/") + name);
        ASSERT_TRUE(loaded);
        EXPECT_EQ(loaded->type, ImageType::png());

        const std::vector<std::uint32_t> expected = reference(name.chopped(4));
        ASSERT_FALSE(expected.empty()) << "no reference";
        const std::vector<std::uint32_t> actual = rgba(loaded->image);
        ASSERT_EQ(actual.size(), expected.size());
        // The references, like libvips, take the stored samples as they are:
        // no gAMA, cHRM, sRGB or iCCP chunk is applied, so the gamma files
        // (g*.png) match exactly too, and so does the scaling of 1, 2 and
        // 4-bit samples.
        size_t mismatches = 0;
        size_t first = 0;
        for (size_t i = 0; i < actual.size(); ++i) {
            if (actual[i] != expected[i] && mismatches++ == 0)
                first = i;
        }
        EXPECT_EQ(mismatches, 0u) << "first at sample " << first << ": " << actual[first] << " instead of "
                                  << expected[first];
    }
}

TEST(PngSuite, EveryCorruptFileIsAbsent)
{
    for (const QString& name : suiteFiles(true))
        EXPECT_FALSE(ImageFile::load(kSuite + QStringLiteral("/png/") + name)) << name.toStdString();
}

TEST(PngSuite, AllFilesAreThere)
{
    EXPECT_EQ(suiteFiles(false).size(), 161);
    EXPECT_EQ(suiteFiles(true).size(), 14);
}

ORVANE_IMAGEFILE_TEST_MAIN((void)0)
