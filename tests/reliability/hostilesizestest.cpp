// Files whose headers claim enormous sizes are refused from the header,
// without the memory, by every reader and through the model; decompression
// bombs, small files that really decode to enormous images, are never decoded
// whole when memory is short.
#include <algorithm>

#include <QFile>
#include <QFileInfo>
#include <QScopeGuard>
#include <QSize>
#include <QTemporaryDir>
#include <QtTest>

#include <vips/vips8>

#include "imagefile/imagefile.h"
#include "imagefile/imagesource.h"
#include "support/queuewaits.h"
#include "model/cropmodel.h"
#include "support/pngbytes.h"
#include "support/testfiles.h"
#include "testimages.h"

using namespace orvane;
using namespace orvane::test;

namespace {

// ------------------------------------------------------------ byte builders

// v in n bytes, least significant first unless bigEndian.
QByteArray le(quint64 v, int n, bool bigEndian = false)
{
    QByteArray b;
    for (int i = 0; i < n; ++i)
        b.append(char(v >> 8 * (bigEndian ? n - 1 - i : i)));
    return b;
}

// An 8-bit grey TIFF in one strip; compression 1 (none) or 8 (deflate). In
// Intel byte order ('I'), Motorola's ('M': SHORT values fill the first two
// bytes of their slot), or as a BigTIFF ('B': every value a LONG8).
QByteArray greyTiff(quint64 width, quint64 height, int compression, const QByteArray& strip, char layout = 'I')
{
    const bool mm = layout == 'M', big = layout == 'B';
    const int word = big ? 8 : 4; // offsets and counts
    const std::pair<quint16, quint64> ifd[] = {
        {256, width}, {257, height}, {258, 8}, {259, quint64(compression)}, {262, 1}, {273, 0}, {277, 1}, {278, height}, {279, quint64(strip.size())},
    };
    QByteArray b = big ? QByteArray("II+\0\x08\0\0\0", 8) : QByteArray(mm ? "MM\0*" : "II*\0", 4);
    b += le(b.size() + word, word, mm) + le(9, big ? 8 : 2, mm); // the directory follows, with 9 entries
    const quint64 dataOffset = b.size() + 9 * (big ? 20 : 12) + word;
    for (const auto& [tag, value] : ifd) {
        const bool isLong = big || tag == 256 || tag == 257 || (tag >= 273 && tag != 277);
        b += le(tag, 2, mm) + le(big ? 16 : isLong ? 4 : 3, 2, mm) + le(1, word, mm);
        b += isLong ? le(tag == 273 ? dataOffset : value, word, mm) : le(value, 2, mm) + le(0, 2);
    }
    return b + le(0, word) + strip;
}

QByteArray bmp(qint32 width, qint32 height)
{
    QByteArray b("BM", 2);
    for (const quint32 v : {14u + 40 + 64, 0u, 14u + 40, 40u, quint32(width), quint32(height), 1u | 24u << 16, 0u, 0u, 2835u, 2835u, 0u, 0u})
        b += le(v, 4); // file header; info header: 1 plane of 24 bits, uncompressed
    return b + QByteArray(64, '\0');
}

// A global table of two colours, and the image as large as the screen.
QByteArray gif(quint16 width, quint16 height)
{
    return "GIF89a" + le(width, 2) + le(height, 2) + QByteArray("\x80\0\0" "\0\0\0\xff\xff\xff" ",", 10) + le(0, 4)
        + le(width, 2) + le(height, 2) + QByteArray("\0\x02\x01\x2c\0;", 6);
}

QByteArray chunk(const char* fourCc, const QByteArray& data) { return QByteArray(fourCc, 4) + le(data.size(), 4) + data; }
QByteArray riff(const QByteArray& chunks) { return chunk("RIFF", "WEBP" + chunks); }

QByteArray vp8l(quint32 width, quint32 height)
{
    return chunk("VP8L", QByteArray(1, char(0x2f)) + le((width - 1) | (height - 1) << 14, 4) + QByteArray(32, '\0'));
}

// A lossy key frame: frame tag (shown, first partition empty), start code,
// then 14 bits of width and of height.
QByteArray vp8(quint32 width, quint32 height)
{
    return chunk("VP8 ", le(0x10, 3) + QByteArray("\x9d\x01\x2a", 3) + le(width, 2) + le(height, 2) + QByteArray(32, '\0'));
}

QByteArray vp8x(quint32 canvasWidth, quint32 canvasHeight, const QByteArray& image)
{
    return chunk("VP8X", le(0, 4) + le(canvasWidth - 1, 3) + le(canvasHeight - 1, 3)) + image;
}

// A real JPEG whose start-of-frame now claims width × height.
QByteArray bigJpeg(quint16 width, quint16 height)
{
    QByteArray b = TestImages::encode(TestImages::framedNoise(64, 48, 8), ".jpg");
    for (qsizetype i = 2; i + 9 < b.size(); i += 2 + (uchar(b[i + 2]) << 8 | uchar(b[i + 3]))) {
        const auto marker = uchar(b[i + 1]);
        if (marker >= 0xc0 && marker <= 0xcf && marker != 0xc4 && marker != 0xc8 && marker != 0xcc)
            return b.replace(i + 5, 4, le(height, 2, true) + le(width, 2, true));
    }
    return {};
}

// A real HEIC whose image spatial extents ('ispe') claim width × height;
// brand replaces the major brand when given. Empty when libvips cannot write HEIC.
QByteArray bigHeif(quint32 width, quint32 height, const char* brand)
{
    QByteArray b;
    try {
        b = TestImages::encode(TestImages::framedNoise(64, 48, 8), ".heic",
                               vips::VImage::option()->set("compression", VIPS_FOREIGN_HEIF_COMPRESSION_HEVC));
    } catch (const vips::VError&) {
        vips_error_clear();
        return {};
    }
    for (qsizetype at = b.indexOf("ispe"); at >= 0; at = b.indexOf("ispe", at + 4))
        b.replace(at + 8, 8, le(width, 4, true) + le(height, 4, true));
    return brand ? b.replace(8, 4, QByteArray(brand, 4)) : b;
}

// ------------------------------------------------------------ measuring

// The peak resident size in kilobytes. When reset (clear_refs 5) the peak
// starts again from the current size, which is returned: a later reading less
// that one is the growth.
qint64 peakKilobytes(bool reset = false)
{
    QFile clear(QStringLiteral("/proc/self/clear_refs")), status(QStringLiteral("/proc/self/status"));
    const bool wasReset = reset && clear.open(QIODevice::WriteOnly) && clear.write("5") == 1;
    clear.close();
    if (status.open(QIODevice::ReadOnly))
        for (const QByteArray& line : status.readAll().split('\n'))
            if (line.startsWith(wasReset ? "VmRSS:" : "VmHWM:"))
                return line.mid(6).trimmed().split(' ').value(0).toLongLong();
    return -1;
}

} // namespace

class HostileSizesTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(VIPS_INIT("reliability_hostilesizes") == 0);
        ImageFile::initialise();
        QVERIFY(m_dir.isValid());
    }

    // The refusals below mean something only if the same builders, asked for
    // sensible sizes, make files that load.
    void buildersMakeLoadableFiles_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QSize>("size");
        QTest::newRow("zeros.png") << zerosPng(300, 200, 6) << QSize(300, 200);
        QTest::newRow("zeros-grey.png") << zerosPng(70, 3000, 0) << QSize(70, 3000);
        QTest::newRow("zeros.tiff") << greyTiff(300, 200, 8, zerosZlib(300 * 200)) << QSize(300, 200);
        QTest::newRow("plain.tiff") << greyTiff(30, 20, 1, QByteArray(600, '\0')) << QSize(30, 20);
        QTest::newRow("motorola.tiff") << greyTiff(4, 4, 1, QByteArray(16, '\0'), 'M') << QSize(4, 4);
        QTest::newRow("big.tiff") << greyTiff(30, 20, 1, QByteArray(600, '\0'), 'B') << QSize(30, 20);
        QTest::newRow("small.jpeg") << bigJpeg(64, 48) << QSize(64, 48);
        // The flattest a sequential JPEG gets, about 255 pixels a byte: a
        // size check on lying headers must still let it through.
        QTest::newRow("flat.jpeg") << TestImages::encode(vips::VImage::black(2000, 2000).cast(VIPS_FORMAT_UCHAR), ".jpg",
                                                         vips::VImage::option()->set("optimize_coding", true))
                                   << QSize(2000, 2000);
    }

    void buildersMakeLoadableFiles()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QSize, size);
        const QString path = m_dir.filePath(QString::fromUtf8(QTest::currentDataTag()));
        QVERIFY(test::writeFile(path, bytes));
        const auto loaded = ImageFile::load(path);
        QVERIFY(loaded);
        QCOMPARE(QSize(loaded->image.width(), loaded->image.height()), size);
    }

    // Headers that claim enormous sizes are refused from the header by the
    // whole decode, the queue's streamed pass and the model. Bombs, complete
    // and valid files of zeros that decode to 120 MB and more, are refused by
    // the whole decode with 200 MB free, more than its half. (The queue's
    // streamed pass holds a few strips and opens them; the image source tests
    // cover that.) The file's name gives the type its content must have.
    void hostileFilesAreRefused_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("name");
        QTest::addColumn<bool>("bomb");
        const QByteArray someRows = zerosZlib(4 * (1 + 100000 * 4));
        QTest::newRow("PNG 100000×100000") << png(100000, 100000, 6, someRows) << "ihdr.png" << false;
        QTest::newRow("PNG 2³¹−1 square") << png(0x7fffffff, 0x7fffffff, 0, someRows) << "ihdr-max.png" << false;
        QTest::newRow("PNG 1×2³¹−1") << png(1, 0x7fffffff, 0, someRows) << "ihdr-tall.png" << false;
        QTest::newRow("JPEG 65500×65500") << bigJpeg(65500, 65500) << "sof.jpeg" << false;
        QTest::newRow("TIFF 1000000×1000000") << greyTiff(1000000, 1000000, 1, QByteArray(16, '\0')) << "ifd.tiff" << false;
        QTest::newRow("TIFF 1000000×1000000, Motorola order") << greyTiff(1000000, 1000000, 1, QByteArray(16, '\0'), 'M') << "ifd-mm.tiff" << false;
        QTest::newRow("BigTIFF 2⁴⁰ square") << greyTiff(1ull << 40, 1ull << 40, 1, QByteArray(4096, '\0'), 'B') << "ifd.btf.tiff" << false;
        QTest::newRow("BMP 100000×100000") << bmp(100000, 100000) << "header.bmp" << false;
        QTest::newRow("BMP 100000×−100000") << bmp(100000, -100000) << "top-down.bmp" << false;
        QTest::newRow("BMP −2³¹ wide") << bmp(qint32(0x80000000u), 1) << "negative.bmp" << false;
        QTest::newRow("GIF 65535×65535") << gif(65535, 65535) << "screen.gif" << false;
        QTest::newRow("WebP VP8X 16383×16383") << riff(vp8x(16383, 16383, vp8l(16383, 16383))) << "canvas.webp" << false;
        QTest::newRow("WebP VP8L 16384×16384") << riff(vp8l(16384, 16384)) << "lossless.webp" << false;
        QTest::newRow("WebP VP8 16383×16383") << riff(vp8(16383, 16383)) << "lossy.webp" << false;
        QTest::newRow("HEIC ispe 100000×100000") << bigHeif(100000, 100000, nullptr) << "ispe.heic" << false;
        QTest::newRow("HEIF ispe 65535×65535") << bigHeif(65535, 65535, "mif1") << "ispe.heif" << false;
        QTest::newRow("bomb PNG 20000×20000 grey") << zerosPng(20000, 20000, 0) << "bomb-grey.png" << true;
        QTest::newRow("bomb PNG 16000×16000 RGBA") << zerosPng(16000, 16000, 6) << "bomb-rgba.png" << true;
        QTest::newRow("bomb PNG 10000×10000 RGB") << zerosPng(10000, 10000, 2) << "bomb-rgb.png" << true;
        QTest::newRow("bomb TIFF 20000×20000 deflate") << greyTiff(20000, 20000, 8, zerosZlib(20000ull * 20000)) << "bomb.tiff" << true;
        QTest::newRow("bomb TIFF 11000×11000") << greyTiff(11000, 11000, 8, zerosZlib(11000ull * 11000)) << "bomb-small.tiff" << true;
    }

    void hostileFilesAreRefused()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, name);
        QFETCH(bool, bomb);
        if (bytes.isEmpty())
            QSKIP("this libvips cannot write the file this row starts from");
        QCOMPARE(ImageType::fromContent(bytes.left(4096)), ImageType::fromExtension(QFileInfo(name).suffix()));
        QVERIFY2(!bomb || bytes.size() < 2 * 1024 * 1024, qPrintable(QStringLiteral("%1 bytes").arg(bytes.size())));
        const QString path = m_dir.filePath(name);
        QVERIFY(test::writeFile(path, bytes));
        if (bomb)
            ImageFile::setAvailableMemoryForTesting(std::uint64_t(200) << 20);
        const auto restore = qScopeGuard([] { ImageFile::setAvailableMemoryForTesting(std::nullopt); });

        const qint64 before = peakKilobytes(true);
        QVERIFY2(!ImageFile::load(path), qPrintable(name + QStringLiteral(" was decoded")));
        // A loose bound: a refusal from the header takes next to no memory;
        // this catches a decoder that ran.
        const qint64 grown = peakKilobytes() - before;
        QVERIFY2(grown < 64 * 1024, qPrintable(QStringLiteral("%1 KiB").arg(grown)));
        if (bomb)
            return;
        QVERIFY2(!ImageFile::index(path, false), qPrintable(name + QStringLiteral(" was streamed")));
        CropModel model;
        test::openAll(model, {QUrl::fromLocalFile(path)});
        QVERIFY(model.items().empty());
        QCOMPARE(model.errorMessage(), std::optional<QString>(QStringLiteral("1 file couldn’t be opened.")));
    }

private:
    QTemporaryDir m_dir;
};

QTEST_GUILESS_MAIN(HostileSizesTest)
#include "hostilesizestest.moc"
