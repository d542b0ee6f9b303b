#include <QPainter>
#include <QSignalSpy>
#include <QTest>

#include "ui/preview/scaledimagecache.h"
#include "windowtestsupport.h"

using namespace orvane;

namespace {

// A raster of width × height: left half red, right half blue, opaque.
Raster makeBuffer(int width, int height)
{
    QImage image(width, height, QImage::Format_RGBA8888_Premultiplied);
    image.fill(Qt::red);
    QPainter(&image).fillRect(width / 2, 0, width - width / 2, height, Qt::blue);
    return Raster{width, height, std::make_shared<const std::vector<std::uint8_t>>(
                                     image.constBits(), image.constBits() + image.sizeInBytes())};
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
        QCOMPARE(cache.image(id, buffer, QSize(800, 400)).size(), QSize(320, 160));
        QVERIFY(!cache.isReady(id, buffer, QSize(800, 400)));
        QTRY_VERIFY(!ready.isEmpty());
        QVERIFY(cache.isReady(id, buffer, QSize(800, 400)));
        const QImage good = cache.image(id, buffer, QSize(800, 400));
        QCOMPARE(good.size(), QSize(800, 400));
        QCOMPARE(good.format(), QImage::Format_ARGB32_Premultiplied);
        QCOMPARE(cache.copiesMade(), 1);
    }

    void oneCopyPerImageSizeAndBuffer()
    {
        ScaledImageCache cache(4);
        const Raster buffer = makeBuffer(1200, 900);
        const QUuid id = QUuid::createUuid();
        // Asking many times while the copy is being made starts it once.
        for (int i = 0; i < 20; ++i)
            cache.image(id, buffer, QSize(400, 300));
        QTRY_VERIFY(cache.isReady(id, buffer, QSize(400, 300)));
        QTest::qWait(50);
        QCOMPARE(cache.image(id, buffer, QSize(400, 300)).size(), QSize(400, 300));
        QCOMPARE(cache.copiesMade(), 1);

        // While the window is resized the last good copy is drawn stretched; of
        // the sizes asked for while one copy is made, only the newest is made next.
        QCOMPARE(cache.image(id, buffer, QSize(600, 450)).size(), QSize(400, 300));
        cache.image(id, buffer, QSize(601, 451));
        cache.image(id, buffer, QSize(602, 452));
        QTRY_VERIFY(cache.isReady(id, buffer, QSize(602, 452)));
        QTest::qWait(100);
        QVERIFY(!cache.isReady(id, buffer, QSize(601, 451)));
        QVERIFY(cache.copiesMade() <= 3);

        // A second image of the same size is a copy of its own, and so is the
        // new buffer an item gets after a save over the original.
        const int made = cache.copiesMade();
        cache.image(QUuid::createUuid(), buffer, QSize(400, 300));
        QTRY_COMPARE(cache.copiesMade(), made + 1);
        const Raster reloaded = makeBuffer(1200, 900);
        QVERIFY(!cache.isReady(id, reloaded, QSize(400, 300)));
        cache.image(id, reloaded, QSize(400, 300));
        QTRY_VERIFY(cache.isReady(id, reloaded, QSize(400, 300)));
    }

    void retainOnlyAndCapacity()
    {
        ScaledImageCache cache(2);
        const Raster buffer = makeBuffer(400, 400);
        const QUuid a = QUuid::createUuid(), b = QUuid::createUuid(), c = QUuid::createUuid();
        auto ready = [&](const QUuid& id) { return cache.isReady(id, buffer, QSize(50, 50)); };
        for (const QUuid& id : {a, b}) {
            cache.image(id, buffer, QSize(50, 50));
            QTRY_VERIFY(ready(id));
        }
        // A removed item's copies go.
        cache.retainOnly({b});
        QVERIFY(!ready(a) && ready(b));
        // A copy that arrives after its item was let go is not kept.
        cache.image(c, buffer, QSize(60, 60));
        cache.retainOnly({a, b});
        QTest::qWait(200);
        QVERIFY(!cache.isReady(c, buffer, QSize(60, 60)));
        // Past the capacity, the least recently used copy goes first.
        cache.image(a, buffer, QSize(50, 50));
        QTRY_VERIFY(ready(a));
        cache.image(b, buffer, QSize(50, 50)); // b is now the more recent
        cache.image(c, buffer, QSize(50, 50));
        QTRY_VERIFY(ready(c));
        QVERIFY(ready(b) && !ready(a));
    }

    void copiesArePixelFaithful()
    {
        // Halves of red and blue stay halves of red and blue.
        const Raster buffer = makeBuffer(1000, 500);
        const QImage copy = ScaledImageCache::scaledCopy(buffer, QSize(100, 50));
        QCOMPARE(copy.size(), QSize(100, 50));
        QCOMPARE(copy.pixelColor(10, 25), QColor(255, 0, 0));
        QCOMPARE(copy.pixelColor(90, 25), QColor(0, 0, 255));
        const QImage wrapped = ScaledImageCache::wrap(buffer);
        QCOMPARE(wrapped.constBits(), buffer.pixels->data()); // no copy of the raster
        QCOMPARE(wrapped.pixelColor(999, 499), QColor(0, 0, 255));
        QCOMPARE(ScaledImageCache::quickCopy(buffer, QSize(40, 20)).size(), QSize(40, 20));
    }
};

ORVANE_UI_TEST_MAIN(ScaledImageCacheTest)
#include "scaledimagecachetest.moc"
