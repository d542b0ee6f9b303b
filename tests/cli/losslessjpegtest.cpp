// orvane-trim --lossless end to end: JPEGs cut on their block grid keep every
// content pixel exactly as the source decodes, in the rectangle the decoded
// image has, and other types are written as usual with one note.

#include <gtest/gtest.h>

#include <QDir>
#include <QFileInfo>
#include <QHash>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

#include <vips/vips8>

#include "clitestsupport.h"
#include "support/libvipspng.h"

namespace {

using namespace orvane::test;
using vips::VImage;

// The JSON objects of a run by file name.
QHash<QString, QJsonObject> byName(const QByteArray& out)
{
    QHash<QString, QJsonObject> objects;
    for (const QByteArray& line : out.split('\n')) {
        if (line.isEmpty())
            continue;
        const QJsonObject object = QJsonDocument::fromJson(line).object();
        objects.insert(QFileInfo(object.value(QLatin1String("path")).toString()).fileName(), object);
    }
    return objects;
}

struct Rect {
    int x = 0, y = 0, w = 0, h = 0;
    int right() const { return x + w; }
    int bottom() const { return y + h; }
};

Rect rectOf(const QJsonValue& value)
{
    const QJsonArray a = value.toArray();
    return a.size() == 4 ? Rect{a[0].toInt(), a[1].toInt(), a[2].toInt(), a[3].toInt()} : Rect{};
}

VImage decoded(const QString& path)
{
    return VImage::new_from_file(QFile::encodeName(path).constData()).copy_memory();
}

// Grainy content (every pixel differs, so any change shows) on white.
VImage sample(int width, int height, int x, int y, int w, int h, int bands, int seed)
{
    VImage content = VImage::gaussnoise(w, h, VImage::option()->set("mean", 110.0)->set("sigma", 50.0)->set("seed", seed));
    for (int b = 1; b < bands; ++b)
        content = content.bandjoin(VImage::gaussnoise(w, h, VImage::option()->set("mean", 90.0 + 20 * b)->set("sigma", 50.0)->set("seed", seed + b)));
    content = content.cast(VIPS_FORMAT_UCHAR);
    const VImage image = content.embed(x, y, width, height,
                                       VImage::option()->set("extend", VIPS_EXTEND_WHITE));
    return image.copy(VImage::option()->set("interpretation", bands == 1 ? VIPS_INTERPRETATION_B_W : VIPS_INTERPRETATION_sRGB));
}

} // namespace

TEST(LosslessJpeg, EveryContentPixelIsKeptExactlyInARectangleOnTheGrid)
{
    const struct {
        const char* name;
        int bands;
        bool subsampled; // 4:2:0, an iMCU of 16 × 16; else 8 × 8
        bool progressive;
        int x, y, w, h; // the content
        int restarts = 0; // a restart marker every so many MCUs
        bool steps = false; // flat rows of 100 and 101 instead of grain, with optimised Huffman tables
    } cases[] = {
        {"on-grid-420.jpg", 3, true, false, 32, 48, 101, 70},   // edges on the grid, an even end
        {"off-grid-420.jpg", 3, true, false, 37, 21, 90, 57},   // between grid lines
        {"odd-end-420.jpg", 3, true, true, 17, 33, 60, 40},     // progressive
        {"to-the-edge-420.jpg", 3, true, false, 96, 104, 104, 56}, // reaches the right and bottom edges
        {"on-grid-444.jpg", 3, false, false, 40, 16, 64, 50},
        {"off-grid-444.jpg", 3, false, true, 13, 27, 77, 31},
        {"grey.jpg", 1, false, false, 9, 70, 120, 33},
        // Rows of the cut start inside restart intervals that span rows.
        {"restarts-420.jpg", 3, true, false, 37, 21, 90, 57, 3},
        {"restarts-grey.jpg", 1, false, false, 9, 70, 120, 33, 7},
        // The cut's rows start with a DC difference the file's tables
        // never needed, so they have no code for it.
        {"uncodable-difference.jpg", 1, false, false, 16, 24, 64, 48, 0, true},
    };
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString in = dir.filePath(QStringLiteral("in")), out = dir.filePath(QStringLiteral("out"));
    QDir().mkpath(in);
    QDir().mkpath(out);
    int seed = 1;
    for (const auto& c : cases) {
        VImage image = sample(200, 160, c.x, c.y, c.w, c.h, c.bands, seed += 7);
        if (c.steps)
            image = ((VImage::xyz(c.w, c.h)[1] / 8).cast(VIPS_FORMAT_UCHAR) % 2 + 100)
                        .cast(VIPS_FORMAT_UCHAR)
                        .embed(c.x, c.y, 200, 160, VImage::option()->set("extend", VIPS_EXTEND_WHITE))
                        .copy(VImage::option()->set("interpretation", VIPS_INTERPRETATION_B_W));
        image.jpegsave(QFile::encodeName(QDir(in).filePath(QLatin1String(c.name))).constData(),
                       VImage::option()
                           ->set("Q", 90)
                           ->set("subsample_mode", c.subsampled ? VIPS_FOREIGN_SUBSAMPLE_ON : VIPS_FOREIGN_SUBSAMPLE_OFF)
                           ->set("interlace", c.progressive)
                           ->set("restart_interval", c.restarts)
                           ->set("optimize_coding", c.steps));
    }

    const TrimRun run = trim({QStringLiteral("--json"), QStringLiteral("--lossless"), QStringLiteral("-o"), out, in});
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    EXPECT_FALSE(run.err.contains("--lossless")) << "JPEGs only: no note";
    const QHash<QString, QJsonObject> results = byName(run.out);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const QJsonObject o = results.value(QLatin1String(c.name));
        ASSERT_EQ(o.value(QLatin1String("status")).toString(), QStringLiteral("trimmed"));
        const Rect exact = rectOf(o.value(QLatin1String("rects")).toArray().at(0).toObject().value(QLatin1String("rect")));
        const Rect written = rectOf(o.value(QLatin1String("written")));
        const int block = c.subsampled ? 16 : 8;
        ASSERT_GT(exact.w, 0);
        // On the grid, holding the content, and no more than the grid (and one colour sample) asks for.
        EXPECT_TRUE(written.x % block == 0 && written.x <= exact.x && written.x > exact.x - 2 * block) << written.x;
        EXPECT_TRUE(written.y % block == 0 && written.y <= exact.y && written.y > exact.y - 2 * block) << written.y;
        // Where colour is subsampled the pixel after an edge may be kept for
        // the colour sample the edge pixel is blended with.
        EXPECT_TRUE(written.right() >= exact.right() && written.right() <= exact.right() + c.subsampled) << written.right();
        EXPECT_TRUE(written.bottom() >= exact.bottom() && written.bottom() <= exact.bottom() + c.subsampled) << written.bottom();

        const VImage source = decoded(QDir(in).filePath(QLatin1String(c.name)));
        const VImage result = decoded(QDir(out).filePath(QLatin1String(c.name)));
        ASSERT_EQ(result.width(), written.w);
        ASSERT_EQ(result.height(), written.h);
        EXPECT_TRUE(pixelBytes(result.extract_area(exact.x - written.x, exact.y - written.y, exact.w, exact.h))
                    == pixelBytes(source.extract_area(exact.x, exact.y, exact.w, exact.h)))
            << "content pixels differ from the decoded source";
        EXPECT_EQ(result.get_typeof("interlaced") != 0, c.progressive);
    }
}

// The rectangle found from the compressed blocks must be the decoded image's
// own, also where a border sits right at the whiteness cut-off (226 at the
// default tolerance), is grainy, or hides one dark pixel far from the rest.
TEST(LosslessJpeg, FindsTheDecodedImagesRectangle)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const auto save = [&](const VImage& image, const QString& name, bool subsampled, bool progressive = false) {
        image.jpegsave(QFile::encodeName(dir.filePath(name)).constData(),
                       VImage::option()->set("Q", 90)->set("interlace", progressive)->set(
                           "subsample_mode", subsampled ? VIPS_FOREIGN_SUBSAMPLE_ON : VIPS_FOREIGN_SUBSAMPLE_OFF));
    };
    const VImage content = sample(60, 40, 0, 0, 60, 40, 3, 11);
    for (const int level : {224, 225, 226, 227}) {
        for (int channel = 0; channel < 3; ++channel) { // the smallest byte decides
            std::vector<double> border{255, 250, 255};
            border[std::size_t(channel)] = level;
            const VImage image = content.embed(70, 50, 210, 150, VImage::option()->set("extend", VIPS_EXTEND_BACKGROUND)->set("background", border));
            save(image, QStringLiteral("border-%1-%2.jpg").arg(level).arg(channel), channel != 1);
        }
        const VImage grey = content.extract_band(1).embed(70, 50, 210, 150, VImage::option()->set("extend", VIPS_EXTEND_BACKGROUND)->set("background", std::vector<double>{double(level)}));
        save(grey.copy(VImage::option()->set("interpretation", VIPS_INTERPRETATION_B_W)), QStringLiteral("grey-%1.jpg").arg(level), false, level % 2);
    }
    const VImage grain = (VImage::gaussnoise(300, 200, VImage::option()->set("mean", 236.0)->set("sigma", 5.0)->set("seed", 4)))
                             .cast(VIPS_FORMAT_UCHAR);
    save(grain.bandjoin(grain).bandjoin(grain).insert(content, 150, 90).copy(VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB)),
         QStringLiteral("grainy.jpg"), true);
    VImage speck = sample(400, 300, 250, 150, 60, 40, 3, 5).copy_memory();
    speck.draw_rect({0, 0, 0}, 3, 290, 1, 1);
    save(speck, QStringLiteral("speck.jpg"), true, true);
    save(sample(90, 70, 0, 0, 1, 1, 3, 1).extract_area(1, 1, 89, 69), QStringLiteral("white.jpg"), true);
    save(sample(120, 90, 0, 0, 120, 90, 3, 1), QStringLiteral("full.jpg"), true);
    for (const char* name : {"a.png", "b.png"}) // other types are written as usual, with one note
        sample(80, 60, 10, 12, 30, 20, 3, 5).write_to_file(QFile::encodeName(dir.filePath(QLatin1String(name))).constData());

    const TrimRun measured = trim({QStringLiteral("--json"), QStringLiteral("-n"), dir.path()});
    QDir(dir.path()).mkdir(QStringLiteral("out"));
    const TrimRun cut = trim({QStringLiteral("--json"), QStringLiteral("--lossless"), QStringLiteral("-o"), dir.filePath(QStringLiteral("out")), dir.path()});
    ASSERT_EQ(cut.exitCode, 0) << cut.err.toStdString();
    EXPECT_EQ(cut.err.count("--lossless applies to JPEG images only"), 1) << cut.err.toStdString();
    const QHash<QString, QJsonObject> expected = byName(measured.out), got = byName(cut.out);
    ASSERT_EQ(expected.size(), 22);
    const auto rectIn = [](const QJsonObject& o) {
        const QJsonValue rect = o.value(QLatin1String("rects")).toArray().at(0).toObject().value(QLatin1String("rect"));
        return QJsonDocument(rect.toArray()).toJson(QJsonDocument::Compact).toStdString();
    };
    for (auto it = expected.begin(); it != expected.end(); ++it) {
        SCOPED_TRACE(it.key().toStdString());
        EXPECT_EQ(rectIn(got.value(it.key())), rectIn(it.value()));
    }
    EXPECT_EQ(got.value(QStringLiteral("white.jpg")).value(QLatin1String("status")).toString(), QStringLiteral("nothing"));
    EXPECT_EQ(got.value(QStringLiteral("a.png")).value(QLatin1String("status")).toString(), QStringLiteral("trimmed"));
    EXPECT_FALSE(got.value(QStringLiteral("b.png")).contains(QLatin1String("written")));
    EXPECT_EQ(got.value(QStringLiteral("full.jpg")).value(QLatin1String("status")).toString(), QStringLiteral("unchanged"));
    EXPECT_EQ(rectIn(got.value(QStringLiteral("speck.jpg"))).substr(0, 3), "[3,");
}

TEST(LosslessJpeg, KeepsTheProfileAndDropsOtherMetadata)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    VipsBlob* blob = nullptr;
    ASSERT_EQ(vips_profile_load("srgb", &blob, nullptr), 0);
    size_t profileLength = 0;
    const void* profile = vips_blob_get(blob, &profileLength);
    const VImage image = sample(120, 90, 20, 30, 50, 40, 3, 3).copy();
    vips_image_set_blob_copy(image.get_image(), VIPS_META_ICC_NAME, profile, profileLength);
    vips_area_unref(VIPS_AREA(blob));
    const QByteArray xmp = "<x:xmpmeta xmlns:x='adobe:ns:meta/'></x:xmpmeta>";
    vips_image_set_blob_copy(image.get_image(), VIPS_META_XMP_NAME, xmp.constData(), size_t(xmp.size()));
    const QString source = dir.filePath(QStringLiteral("p.jpg"));
    image.jpegsave(QFile::encodeName(source).constData(), VImage::option()->set("Q", 90));
    ASSERT_NE(decoded(source).get_typeof(VIPS_META_XMP_NAME), 0u);

    const TrimRun run = trim({QStringLiteral("--lossless"), source});
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    const VImage original = decoded(source);
    const VImage result = decoded(dir.filePath(QStringLiteral("p-cropped.jpg")));
    const auto blobOf = [](const VImage& i, const char* name) {
        const void* data = nullptr;
        size_t length = 0;
        if (i.get_typeof(name) == 0 || vips_image_get_blob(i.get_image(), name, &data, &length) != 0)
            return QByteArray();
        return QByteArray(static_cast<const char*>(data), qsizetype(length));
    };
    EXPECT_FALSE(blobOf(result, VIPS_META_ICC_NAME).isEmpty());
    EXPECT_EQ(blobOf(result, VIPS_META_ICC_NAME), blobOf(original, VIPS_META_ICC_NAME));
    EXPECT_EQ(result.get_typeof(VIPS_META_XMP_NAME), 0u);
    EXPECT_EQ(result.get_typeof(VIPS_META_EXIF_NAME), 0u);
}

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    if (VIPS_INIT(argv[0]) != 0)
        return 1;
    return RUN_ALL_TESTS();
}
