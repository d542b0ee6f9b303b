#include <QTest>

#include "ui/preview/previewgeometry.h"

using namespace orvane;
using namespace orvane::PreviewGeometry;

class PreviewGeometryTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void fitted_data()
    {
        QTest::addColumn<qint64>("imageW");
        QTest::addColumn<qint64>("imageH");
        QTest::addColumn<QSizeF>("in");
        QTest::addColumn<QRectF>("expected");
        QTest::newRow("wide image in a square view") << qint64(400) << qint64(200) << QSizeF(300, 300) << QRectF(0, 75, 300, 150);
        QTest::newRow("small image enlarged") << qint64(100) << qint64(100) << QSizeF(400, 200) << QRectF(100, 0, 200, 200);
        QTest::newRow("one-pixel line") << qint64(1) << qint64(1000) << QSizeF(100, 100) << QRectF(49.95, 0, 0.1, 100);
        QTest::newRow("zero-height view") << qint64(400) << qint64(200) << QSizeF(300, 0) << QRectF();
        QTest::newRow("image of width 0") << qint64(0) << qint64(200) << QSizeF(300, 300) << QRectF();
        QTest::newRow("image of negative height") << qint64(10) << qint64(-1) << QSizeF(300, 300) << QRectF();
    }
    void fitted()
    {
        QFETCH(qint64, imageW);
        QFETCH(qint64, imageH);
        QFETCH(QSizeF, in);
        QFETCH(QRectF, expected);
        QCOMPARE(fittedRect(imageW, imageH, in), expected);
    }

    void targetRectangles()
    {
        const QRectF f = fittedRect(400, 200, QSizeF(300, 300));
        const QRectF t = targetRect(f, 400, PixelRect{100, 50, 200, 100});
        QCOMPARE(t, QRectF(75, 112.5, 150, 75));
        // The whole image as content, or none, maps onto the fitted rectangle, so
        // nothing is darkened; so does a collapsed view or an image without width.
        QCOMPARE(targetRect(f, 400, PixelRect{0, 0, 400, 200}), f);
        QCOMPARE(targetRect(f, 400, std::nullopt), f);
        QCOMPARE(targetRect(QRectF(), 400, PixelRect{100, 50, 200, 100}), QRectF());
        QCOMPARE(targetRect(f, 0, PixelRect{1, 1, 1, 1}), f);
        // mapFromImage is the same mapping for fractional rectangles (used while animating).
        QCOMPARE(mapFromImage(f, 400, QRectF(100, 50, 200, 100)), t);
        QCOMPARE(mapFromImage(f, 400, QRectF(0.5, 0, 1, 1)), QRectF(0.375, 75, 0.75, 0.75));
    }

    void checkerboardAndStripes()
    {
        // On a canvas 40 wide: row 0 has dark squares at 0 and 32, row 1 at 16 only.
        QCOMPARE(checkerboardSquares(QSizeF(40, 20)),
                 (QList<QRectF>{QRectF(0, 0, 16, 16), QRectF(32, 0, 16, 16), QRectF(16, 16, 16, 16)}));
        QVERIFY(checkerboardSquares(QSizeF(40, 0)).isEmpty());
        QVERIFY(checkerboardSquares(QSizeF(-1, -1)).isEmpty());
        // Width 30, height 20: lines at 45° spanning the height from x = −20, −10,
        // 0, 10, 20 (stopping before 30).
        QCOMPARE(stripeLines(QSizeF(30, 20)), (QList<QLineF>{QLineF(-20, 0, 0, 20), QLineF(-10, 0, 10, 20),
                                                             QLineF(0, 0, 20, 20), QLineF(10, 0, 30, 20),
                                                             QLineF(20, 0, 40, 20)}));
        QVERIFY(stripeLines(QSizeF(0, 20)).isEmpty());
        QVERIFY(stripeLines(QSizeF(20, 0)).isEmpty());
    }
};

QTEST_GUILESS_MAIN(PreviewGeometryTest)
#include "previewgeometrytest.moc"
