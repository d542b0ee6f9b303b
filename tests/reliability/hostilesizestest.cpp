// Files whose headers claim enormous sizes are refused from the header,
// without the memory, by every reader and through the model; decompression
// bombs, small files that really decode to enormous images, are never decoded
// whole when memory is short.
#include <algorithm>
#include <cstring>

#include <QElapsedTimer>
#include <QFile>
#include <QScopeGuard>
#include <QTemporaryDir>
#include <QtEndian>
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

void put16le(QByteArray& b, quint32 v) { b.append(char(v)).append(char(v >> 8)); }
void put32le(QByteArray& b, quint32 v) { put16le(b, v & 0xffff); put16le(b, v >> 16); }
void put24le(QByteArray& b, quint32 v) { b.append(char(v)).append(char(v >> 8)).append(char(v >> 16)); }

// An 8-bit grey TIFF in one strip; compression 1 (none) or 8 (deflate).
QByteArray greyTiff(quint32 width, quint32 height, int compression, const QByteArray& strip)
{
    struct Entry { quint16 tag, type; quint32 value; };
    const quint32 entries = 9;
    const quint32 dataOffset = 8 + 2 + entries * 12 + 4;
    const Entry ifd[entries] = {
        {256, 4, width}, {257, 4, height}, {258, 3, 8}, {259, 3, quint32(compression)}, {262, 3, 1},
        {273, 4, dataOffset}, {277, 3, 1}, {278, 4, height}, {279, 4, quint32(strip.size())},
    };
    QByteArray b("II*\0", 4);
    put32le(b, 8);
    put16le(b, entries);
    for (const Entry& e : ifd) {
        put16le(b, e.tag);
        put16le(b, e.type);
        put32le(b, 1);
        if (e.type == 3) {
            put16le(b, e.value);
            put16le(b, 0);
        } else {
            put32le(b, e.value);
        }
    }
    put32le(b, 0);
    return b + strip;
}

// The same TIFF in Motorola byte order: every number of the header and the
// directory reversed (the SHORT values stay in the first two bytes of their slot).
QByteArray bigEndianTiff(quint32 width, quint32 height)
{
    const QByteArray little = greyTiff(width, height, 1, QByteArray(16, '\0'));
    QByteArray b("MM\0*", 4);
    const auto swapped = [&](qsizetype at, int size) {
        QByteArray part = little.mid(at, size);
        std::reverse(part.begin(), part.end());
        return part;
    };
    b += swapped(4, 4) + swapped(8, 2);
    for (qsizetype e = 10; e + 12 <= 10 + 9 * 12; e += 12) {
        b += swapped(e, 2) + swapped(e + 2, 2) + swapped(e + 4, 4);
        b += little.at(e + 2) == 3 ? swapped(e + 8, 2) + QByteArray(2, '\0') : swapped(e + 8, 4);
    }
    return b + little.mid(10 + 9 * 12);
}

// An 8-bit grey BigTIFF in one uncompressed strip of zeros, its sizes as LONG8.
QByteArray bigTiff(quint64 width, quint64 height)
{
    const quint64 entries = 9;
    const quint64 dataOffset = 16 + 8 + entries * 20 + 8;
    const quint64 stripBytes = std::min<quint64>(width * height, 4096);
    const std::pair<quint16, quint64> ifd[entries] = {
        {256, width}, {257, height}, {258, 8}, {259, 1}, {262, 1}, {273, dataOffset}, {277, 1}, {278, height}, {279, stripBytes},
    };
    QByteArray b("II+\0\x08\0\0\0", 8);
    const auto put64 = [&b](quint64 v) { put32le(b, quint32(v)); put32le(b, quint32(v >> 32)); };
    put64(16);
    put64(entries);
    for (const auto& [tag, value] : ifd) {
        put16le(b, tag);
        put16le(b, 16); // LONG8
        put64(1);
        put64(value);
    }
    put64(0);
    return b + QByteArray(qsizetype(stripBytes), '\0');
}

QByteArray bmp(qint32 width, qint32 height)
{
    QByteArray b("BM", 2);
    put32le(b, 14 + 40 + 64);
    put32le(b, 0);
    put32le(b, 14 + 40);
    put32le(b, 40);
    put32le(b, quint32(width));
    put32le(b, quint32(height));
    put16le(b, 1);
    put16le(b, 24);
    put32le(b, 0);
    put32le(b, 0);
    put32le(b, 2835);
    put32le(b, 2835);
    put32le(b, 0);
    put32le(b, 0);
    return b + QByteArray(64, '\0');
}

QByteArray gif(quint16 width, quint16 height)
{
    QByteArray b("GIF89a", 6);
    put16le(b, width);
    put16le(b, height);
    b.append(char(0x80)).append('\0').append('\0');  // a global table of two colours
    b += QByteArray("\0\0\0\xff\xff\xff", 6);
    b.append(',');                                    // the image, as large as the screen
    put16le(b, 0);
    put16le(b, 0);
    put16le(b, width);
    put16le(b, height);
    b.append('\0');
    b.append(char(2)).append(char(1)).append(char(0x2c)).append('\0');  // clear, end
    return b.append(';');
}

QByteArray riff(const QByteArray& chunks)
{
    QByteArray b("RIFF", 4);
    put32le(b, quint32(4 + chunks.size()));
    return b + "WEBP" + chunks;
}

QByteArray vp8l(quint32 width, quint32 height)
{
    QByteArray data;
    data.append(char(0x2f));
    put32le(data, (width - 1) | (height - 1) << 14);
    data += QByteArray(32, '\0');
    QByteArray chunk("VP8L", 4);
    put32le(chunk, quint32(data.size()));
    return chunk + data;
}

// A lossy key frame: frame tag (shown, first partition empty), start code,
// then 14 bits of width and of height.
QByteArray vp8(quint32 width, quint32 height)
{
    QByteArray data;
    put24le(data, 0x10);
    data += QByteArray("\x9d\x01\x2a", 3);
    put16le(data, width);
    put16le(data, height);
    data += QByteArray(32, '\0');
    QByteArray chunk("VP8 ", 4);
    put32le(chunk, quint32(data.size()));
    return chunk + data;
}

QByteArray vp8x(quint32 canvasWidth, quint32 canvasHeight, const QByteArray& image)
{
    QByteArray chunk("VP8X", 4);
    put32le(chunk, 10);
    put32le(chunk, 0);
    put24le(chunk, canvasWidth - 1);
    put24le(chunk, canvasHeight - 1);
    return chunk + image;
}

// A real JPEG whose start-of-frame now claims width × height.
QByteArray bigJpeg(quint16 width, quint16 height)
{
    QByteArray b = TestImages::encode(TestImages::framedNoise(64, 48, 8), ".jpg");
    for (qsizetype i = 2; i + 9 < b.size();) {
        const auto marker = uchar(b[i + 1]);
        const int length = uchar(b[i + 2]) << 8 | uchar(b[i + 3]);
        if (marker >= 0xc0 && marker <= 0xcf && marker != 0xc4 && marker != 0xc8 && marker != 0xcc) {
            qToBigEndian<quint16>(height, b.data() + i + 5);
            qToBigEndian<quint16>(width, b.data() + i + 7);
            return b;
        }
        i += 2 + length;
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
    for (qsizetype at = b.indexOf("ispe"); at >= 0; at = b.indexOf("ispe", at + 4)) {
        qToBigEndian<quint32>(width, b.data() + at + 8);
        qToBigEndian<quint32>(height, b.data() + at + 12);
    }
    if (brand)
        b.replace(8, 4, QByteArray(brand, 4));
    return b;
}

// ------------------------------------------------------------ measuring

qint64 statusKilobytes(const char* field)
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith(field))
            return line.mid(qsizetype(std::strlen(field))).trimmed().split(' ').value(0).toLongLong();
    }
    return -1;
}

// The peak resident size since the call, in kilobytes: the peak is reset
// first (clear_refs 5), so the answer is the growth above the current size.
class PeakMemory {
public:
    PeakMemory()
    {
        QFile clear(QStringLiteral("/proc/self/clear_refs"));
        m_reset = clear.open(QIODevice::WriteOnly) && clear.write("5") == 1;
        clear.close();
        m_start = statusKilobytes(m_reset ? "VmRSS:" : "VmHWM:");
    }
    qint64 growth() const { return statusKilobytes("VmHWM:") - m_start; }

private:
    bool m_reset = false;
    qint64 m_start = 0;
};

const QString kSkipped = QStringLiteral("1 file couldn’t be opened.");

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

    void buildersMakeLoadableFiles()
    {
        const struct {
            QString name;
            QByteArray bytes;
            int width, height;
        } files[] = {
            {QStringLiteral("zeros.png"), zerosPng(300, 200, 6), 300, 200},
            {QStringLiteral("zeros-grey.png"), zerosPng(70, 3000, 0), 70, 3000},
            {QStringLiteral("zeros.tiff"), greyTiff(300, 200, 8, zerosZlib(300 * 200)), 300, 200},
            {QStringLiteral("plain.tiff"), greyTiff(30, 20, 1, QByteArray(600, '\0')), 30, 20},
            {QStringLiteral("motorola.tiff"), bigEndianTiff(4, 4), 4, 4},
            {QStringLiteral("big.tiff"), bigTiff(30, 20), 30, 20},
            {QStringLiteral("small.jpeg"), bigJpeg(64, 48), 64, 48},
            // The flattest a sequential JPEG gets, about 255 pixels a byte: a
            // size check on lying headers must still let it through.
            {QStringLiteral("flat.jpeg"),
             TestImages::encode(vips::VImage::black(2000, 2000).cast(VIPS_FORMAT_UCHAR), ".jpg",
                                vips::VImage::option()->set("optimize_coding", true)),
             2000, 2000},
        };
        for (const auto& file : files) {
            const QString path = m_dir.filePath(file.name);
            QVERIFY(test::writeFile(path, file.bytes));
            const auto loaded = ImageFile::load(path);
            QVERIFY2(loaded, qPrintable(file.name));
            QCOMPARE(loaded->image.width(), file.width);
            QCOMPARE(loaded->image.height(), file.height);
        }
    }

    void enormousHeadersAreRefused_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("mime");
        const QByteArray someRows = zerosZlib(4 * (1 + 100000 * 4));
        QTest::newRow("PNG 100000×100000") << png(100000, 100000, 6, someRows) << "ihdr.png" << "image/png";
        QTest::newRow("PNG 2³¹−1 square") << png(0x7fffffff, 0x7fffffff, 0, someRows) << "ihdr-max.png" << "image/png";
        QTest::newRow("PNG 1×2³¹−1") << png(1, 0x7fffffff, 0, someRows) << "ihdr-tall.png" << "image/png";
        QTest::newRow("JPEG 65500×65500") << bigJpeg(65500, 65500) << "sof.jpeg" << "image/jpeg";
        QTest::newRow("TIFF 1000000×1000000") << greyTiff(1000000, 1000000, 1, QByteArray(16, '\0')) << "ifd.tiff" << "image/tiff";
        QTest::newRow("TIFF 1000000×1000000, Motorola order") << bigEndianTiff(1000000, 1000000) << "ifd-mm.tiff" << "image/tiff";
        QTest::newRow("BigTIFF 2⁴⁰ square") << bigTiff(1ull << 40, 1ull << 40) << "ifd.btf.tiff" << "image/tiff";
        QTest::newRow("BMP 100000×100000") << bmp(100000, 100000) << "header.bmp" << "image/bmp";
        QTest::newRow("BMP 100000×−100000") << bmp(100000, -100000) << "top-down.bmp" << "image/bmp";
        QTest::newRow("BMP −2³¹ wide") << bmp(qint32(0x80000000u), 1) << "negative.bmp" << "image/bmp";
        QTest::newRow("GIF 65535×65535") << gif(65535, 65535) << "screen.gif" << "image/gif";
        QTest::newRow("WebP VP8X 16383×16383") << riff(vp8x(16383, 16383, vp8l(16383, 16383))) << "canvas.webp" << "image/webp";
        QTest::newRow("WebP VP8L 16384×16384") << riff(vp8l(16384, 16384)) << "lossless.webp" << "image/webp";
        QTest::newRow("WebP VP8 16383×16383") << riff(vp8(16383, 16383)) << "lossy.webp" << "image/webp";
        QTest::newRow("HEIC ispe 100000×100000") << bigHeif(100000, 100000, nullptr) << "ispe.heic" << "image/heic";
        QTest::newRow("HEIF ispe 65535×65535") << bigHeif(65535, 65535, "mif1") << "ispe.heif" << "image/heif";
    }

    void enormousHeadersAreRefused()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, name);
        QFETCH(QString, mime);
        if (bytes.isEmpty())
            QSKIP("this libvips cannot write the file this row starts from");
        refuse(bytes, name, ImageType(mime), Reader::Queue);
    }

    void decompressionBombsAreRefused_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("mime");
        QTest::addColumn<qint64>("availableMegabytes");
        // Complete, valid files of zeros that decode to 120 MB and more: with
        // 200 MB free, more than its half, so no whole decode may start. (The
        // queue's streamed pass holds a few strips and opens them; the image
        // source tests cover that.)
        QTest::newRow("PNG 20000×20000 grey") << zerosPng(20000, 20000, 0) << "bomb-grey.png" << "image/png" << qint64(200);
        QTest::newRow("PNG 16000×16000 RGBA") << zerosPng(16000, 16000, 6) << "bomb-rgba.png" << "image/png" << qint64(200);
        QTest::newRow("TIFF 20000×20000 deflate") << greyTiff(20000, 20000, 8, zerosZlib(20000ull * 20000)) << "bomb.tiff"
                                                  << "image/tiff" << qint64(200);
        QTest::newRow("PNG 10000×10000 RGB") << zerosPng(10000, 10000, 2) << "bomb-rgb.png" << "image/png" << qint64(200);
        QTest::newRow("TIFF 11000×11000") << greyTiff(11000, 11000, 8, zerosZlib(11000ull * 11000)) << "bomb-small.tiff"
                                          << "image/tiff" << qint64(200);
    }

    void decompressionBombsAreRefused()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, name);
        QFETCH(QString, mime);
        QFETCH(qint64, availableMegabytes);
        if (availableMegabytes > 0)
            ImageFile::setAvailableMemoryForTesting(std::uint64_t(availableMegabytes) << 20);
        const auto restore = qScopeGuard([] { ImageFile::setAvailableMemoryForTesting(std::nullopt); });
        QVERIFY2(bytes.size() < 2 * 1024 * 1024, qPrintable(QStringLiteral("%1 bytes").arg(bytes.size())));
        refuse(bytes, name, ImageType(mime), Reader::WholeDecode);
    }

    void modelSkipsAllOfThem()
    {
        if (m_written.isEmpty())
            QSKIP("no hostile file was written");
        QList<QUrl> urls;
        for (const QString& path : std::as_const(m_written))
            urls << QUrl::fromLocalFile(path);
        const PeakMemory peak;
        QElapsedTimer timer;
        timer.start();
        CropModel model;
        test::openAll(model, urls);
        qInfo("%lld hostile files through the model in %lld ms, peak memory +%lld KiB", qint64(urls.size()),
              timer.elapsed(), peak.growth());
        QVERIFY(model.items().empty());
        QCOMPARE(model.errorMessage(), std::optional<QString>(QStringLiteral("%1 files couldn’t be opened.").arg(urls.size())));
    }

private:
    // Which reads must refuse the file: a whole decode only, or the queue's
    // streamed pass as well.
    enum class Reader { WholeDecode, Queue };

    void refuse(const QByteArray& bytes, const QString& name, const ImageType& type, Reader reader)
    {
        QVERIFY(!bytes.isEmpty());
        QCOMPARE(ImageType::fromContent(bytes.left(4096)), std::optional<ImageType>(type));
        const QString path = m_dir.filePath(name);
        QVERIFY(test::writeFile(path, bytes));
        if (reader == Reader::Queue && !m_written.contains(path))
            m_written << path;

        const PeakMemory peak;
        QElapsedTimer timer;
        timer.start();
        const auto loaded = ImageFile::load(path);
        const qint64 elapsed = timer.elapsed();
        const qint64 grown = peak.growth();
        qInfo("%-28s %8lld bytes: refused=%s in %lld ms, peak memory +%lld KiB", qPrintable(name),
              qint64(bytes.size()), loaded ? "no" : "yes", elapsed, grown);
        QVERIFY2(!loaded, qPrintable(name + QStringLiteral(" was decoded")));
        // A loose bound: a refusal from the header takes next to no memory; this
        // catches a decoder that ran. (The time is reported, never asserted.)
        QVERIFY2(grown < 64 * 1024, qPrintable(QStringLiteral("%1 KiB").arg(grown)));

        if (reader == Reader::WholeDecode)
            return;
        QVERIFY2(!ImageFile::index(path, false), qPrintable(name + QStringLiteral(" was streamed")));
        CropModel model;
        test::openAll(model, {QUrl::fromLocalFile(path)});
        QVERIFY(model.items().empty());
        QCOMPARE(model.errorMessage(), std::optional<QString>(kSkipped));
    }

    QTemporaryDir m_dir;
    QStringList m_written;
};

// The refusals below mean something only if the same builders, asked for
// sensible sizes, make files that load.
QTEST_GUILESS_MAIN(HostileSizesTest)
#include "hostilesizestest.moc"
