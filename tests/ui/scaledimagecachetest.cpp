#include <QSignalSpy>
#include <QTest>

#include <vips/vips8>

#include "engine/cropengine.h"
#include "ui/preview/scaledimagecache.h"
#include "viewtestsupport.h"

using namespace orvane;

namespace {

// A raster of width × height: left half red, right half blue, opaque.
Raster makeBuffer(int width, int height)
{
    vips::VImage red = vips::VImage::black(width / 2, height).new_from_image({255, 0, 0, 255});
    vips::VImage blue = vips::VImage::black(width - width / 2, height).new_from_image({0, 0, 255, 255});
    vips::VImage image = red.insert(blue.embed(0, 0, width - width / 2, height), width / 2, 0,
                                    vips::VImage::option()->set("expand", true))
                             .cast(VIPS_FORMAT_UCHAR)
                             .copy(vips::VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB))
                             .copy_memory();
    std::optional<CropEngine::Buffer> buffer = CropEngine::Buffer::make(image);
    if (!buffer)
        qFatal("cannot make a test buffer");
    return Raster{width, height, std::make_shared<const std::vector<std::uint8_t>>(
                                     buffer->pixels(), buffer->pixels() + buffer->byteCount())};
}

} // namespace

class ScaledImageCacheTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void standInThenGoodCopy()
    {
        ScaledImageCache cache(4);
        QSignalSpy ready(&cache, &ScaledImageCache::imageReady);
        const Raster buffer = makeBuffer(2000, 1000);
        const QUuid id = QUuid::createUuid();

        QVERIFY(cache.image(id, buffer, QSize()).isNull());
        QVERIFY(cache.image(id, buffer, QSize(0, 10)).isNull());

        // At once: a small quick copy, no larger than 320 a side, same aspect.
        const QImage first = cache.image(id, buffer, QSize(800, 400));
        QVERIFY(!first.isNull());
        QCOMPARE(first.size(), QSize(320, 160));
        QVERIFY(!cache.isReady(id, buffer, QSize(800, 400)));

        QTRY_VERIFY(!ready.isEmpty());
        QVERIFY(cache.isReady(id, buffer, QSize(800, 400)));
        const QImage good = cache.image(id, buffer, QSize(800, 400));
        QCOMPARE(good.size(), QSize(800, 400));
        QCOMPARE(good.format(), QImage::Format_ARGB32_Premultiplied);
        QCOMPARE(cache.copiesMade(), 1);
    }

    void oneCopyPerImageAndSize()
    {
        ScaledImageCache cache(4);
        const Raster buffer = makeBuffer(1200, 900);
        const QUuid id = QUuid::createUuid();
        // Asking many times while the copy is being made starts it once.
        for (int i = 0; i < 20; ++i)
            cache.image(id, buffer, QSize(400, 300));
        QTRY_VERIFY(cache.isReady(id, buffer, QSize(400, 300)));
        QTest::qWait(50);
        QCOMPARE(cache.copiesMade(), 1);
        for (int i = 0; i < 20; ++i)
            QCOMPARE(cache.image(id, buffer, QSize(400, 300)).size(), QSize(400, 300));
        QCOMPARE(cache.copiesMade(), 1);

        // A second image of the same size is a copy of its own.
        const QUuid other = QUuid::createUuid();
        cache.image(other, buffer, QSize(400, 300));
        QTRY_COMPARE(cache.copiesMade(), 2);
    }

    void otherSizeStandsIn()
    {
        ScaledImageCache cache(4);
        const Raster buffer = makeBuffer(1200, 900);
        const QUuid id = QUuid::createUuid();
        cache.image(id, buffer, QSize(400, 300));
        QTRY_VERIFY(cache.isReady(id, buffer, QSize(400, 300)));

        // While the window is resized the last good copy is drawn stretched.
        const QImage standIn = cache.image(id, buffer, QSize(600, 450));
        QCOMPARE(standIn.size(), QSize(400, 300));
        // Sizes asked for while one copy is being made: only the newest is made next.
        cache.image(id, buffer, QSize(601, 451));
        cache.image(id, buffer, QSize(602, 452));
        QTRY_VERIFY(cache.isReady(id, buffer, QSize(602, 452)));
        QTest::qWait(100);
        QVERIFY(!cache.isReady(id, buffer, QSize(601, 451)));
        QVERIFY(cache.copiesMade() <= 3);
    }

    void reloadedBufferGetsItsOwnCopy()
    {
        // After a save over the original the item keeps its id but gets a new buffer.
        ScaledImageCache cache(4);
        const QUuid id = QUuid::createUuid();
        const Raster before = makeBuffer(800, 800);
        cache.image(id, before, QSize(100, 100));
        QTRY_VERIFY(cache.isReady(id, before, QSize(100, 100)));
        const Raster after = makeBuffer(800, 800);
        QVERIFY(!cache.isReady(id, after, QSize(100, 100)));
        cache.image(id, after, QSize(100, 100));
        QTRY_VERIFY(cache.isReady(id, after, QSize(100, 100)));
        QCOMPARE(cache.copiesMade(), 2);
    }

    void retainOnlyAndCapacity()
    {
        ScaledImageCache cache(2);
        const Raster buffer = makeBuffer(400, 400);
        const QUuid a = QUuid::createUuid();
        const QUuid b = QUuid::createUuid();
        const QUuid c = QUuid::createUuid();
        for (const QUuid& id : {a, b}) {
            cache.image(id, buffer, QSize(50, 50));
            QTRY_VERIFY(cache.isReady(id, buffer, QSize(50, 50)));
        }
        // A removed item's copies go.
        cache.retainOnly({b});
        QVERIFY(!cache.isReady(a, buffer, QSize(50, 50)));
        QVERIFY(cache.isReady(b, buffer, QSize(50, 50)));

        // A copy that arrives after its item was let go is not kept.
        cache.image(c, buffer, QSize(60, 60));
        cache.retainOnly({a, b});
        QTest::qWait(200);
        QVERIFY(!cache.isReady(c, buffer, QSize(60, 60)));
        const int made = cache.copiesMade();

        // Past the capacity, the least recently used copy goes first.
        cache.image(a, buffer, QSize(50, 50));
        QTRY_VERIFY(cache.isReady(a, buffer, QSize(50, 50)));
        cache.image(b, buffer, QSize(50, 50)); // b is now the more recent
        cache.image(c, buffer, QSize(50, 50));
        QTRY_VERIFY(cache.isReady(c, buffer, QSize(50, 50)));
        QVERIFY(cache.isReady(b, buffer, QSize(50, 50)));
        QVERIFY(!cache.isReady(a, buffer, QSize(50, 50)));
        QVERIFY(cache.copiesMade() > made);
    }

    void copiesArePixelFaithful()
    {
        // Halves of red and blue stay halves of red and blue, with a smooth seam.
        const Raster buffer = makeBuffer(1000, 500);
        const QImage copy = ScaledImageCache::scaledCopy(buffer, QSize(100, 50));
        QCOMPARE(copy.size(), QSize(100, 50));
        QCOMPARE(copy.pixelColor(10, 25), QColor(255, 0, 0));
        QCOMPARE(copy.pixelColor(90, 25), QColor(0, 0, 255));
        const QImage wrapped = ScaledImageCache::wrap(buffer);
        QCOMPARE(wrapped.constBits(), buffer.pixels->data()); // no copy of the raster
        QCOMPARE(wrapped.pixelColor(999, 499), QColor(0, 0, 255));
        QCOMPARE(ScaledImageCache::quickCopy(buffer, QSize(1000, 500)).size(), QSize(320, 160));
        QCOMPARE(ScaledImageCache::quickCopy(buffer, QSize(40, 20)).size(), QSize(40, 20));
    }
};

ORVANE_VIEW_TEST_MAIN(ScaledImageCacheTest)
#include "scaledimagecachetest.moc"
