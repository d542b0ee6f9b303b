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
        QTest::newRow("tall image") << qint64(100) << qint64(400) << QSizeF(300, 200) << QRectF(125, 0, 50, 200);
        QTest::newRow("exact fit") << qint64(640) << qint64(480) << QSizeF(640, 480) << QRectF(0, 0, 640, 480);
        QTest::newRow("zero-width view") << qint64(400) << qint64(200) << QSizeF(0, 300) << QRectF(0, 0, 0, 0);
        QTest::newRow("zero-height view") << qint64(400) << qint64(200) << QSizeF(300, 0) << QRectF(0, 0, 0, 0);
        QTest::newRow("negative view") << qint64(400) << qint64(200) << QSizeF(-5, 300) << QRectF(0, 0, 0, 0);
        QTest::newRow("image of width 0") << qint64(0) << qint64(200) << QSizeF(300, 300) << QRectF(0, 0, 0, 0);
        QTest::newRow("image of negative height") << qint64(10) << qint64(-1) << QSizeF(300, 300) << QRectF(0, 0, 0, 0);
        QTest::newRow("one-pixel line") << qint64(1) << qint64(1000) << QSizeF(100, 100) << QRectF(49.95, 0, 0.1, 100);
    }

    void fitted()
    {
        QFETCH(qint64, imageW);
        QFETCH(qint64, imageH);
        QFETCH(QSizeF, in);
        QFETCH(QRectF, expected);
        const QRectF f = fittedRect(imageW, imageH, in);
        QCOMPARE(f, expected);
        if (!f.isEmpty()) {
            // The fitted rectangle keeps the image's aspect ratio and stays inside the view.
            QVERIFY(qAbs(f.width() / f.height() - double(imageW) / double(imageH)) < 1e-9);
            QVERIFY(f.left() >= 0 && f.top() >= 0);
            QVERIFY(f.right() <= in.width() + 1e-9 && f.bottom() <= in.height() + 1e-9);
        }
    }

    void targetAndLocal()
    {
        const QRectF f = fittedRect(400, 200, QSizeF(300, 300));
        const QRectF t = targetRect(f, 400, PixelRect{100, 50, 200, 100});
        QCOMPARE(t, QRectF(75, 112.5, 150, 75));
        QCOMPARE(localRect(t, f), QRectF(75, 37.5, 150, 75));

        // The whole image as content maps onto the fitted rectangle, so nothing is darkened.
        QCOMPARE(targetRect(f, 400, PixelRect{0, 0, 400, 200}), f);
        QCOMPARE(localRect(f, f), QRectF(0, 0, 300, 150));

        // mapFromImage is the same mapping for fractional rectangles (used while animating).
        QCOMPARE(mapFromImage(f, 400, QRectF(100, 50, 200, 100)), t);
        QCOMPARE(mapFromImage(f, 400, QRectF(0.5, 0, 1, 1)), QRectF(0.375, 75, 0.75, 0.75));
    }

    void targetWithoutContent()
    {
        const QRectF f(0, 75, 300, 150);
        QCOMPARE(targetRect(f, 400, std::nullopt), f);
        // A fitted rectangle without width (a collapsed view) gives itself back.
        const QRectF empty(0, 0, 0, 0);
        QCOMPARE(targetRect(empty, 400, PixelRect{100, 50, 200, 100}), empty);
        QCOMPARE(targetRect(f, 0, PixelRect{1, 1, 1, 1}), f);
    }

    void checkerboard()
    {
        // On a canvas 40 wide: row 0 has dark squares at 0 and 32, row 1 at 16 only.
        const QList<QRectF> squares = checkerboardSquares(QSizeF(40, 20));
        QCOMPARE(squares, (QList<QRectF>{QRectF(0, 0, 16, 16), QRectF(32, 0, 16, 16), QRectF(16, 16, 16, 16)}));

        QVERIFY(checkerboardSquares(QSizeF(40, 0)).isEmpty());
        QVERIFY(checkerboardSquares(QSizeF(0, 40)).isEmpty());
        QVERIFY(checkerboardSquares(QSizeF(-1, -1)).isEmpty());


        // No two dark squares touch along an edge, and together with the light
        // squares they cover the canvas: half of the 16-point cells are dark.
        const QList<QRectF> many = checkerboardSquares(QSizeF(320, 160));
        QCOMPARE(many.size(), 20 * 10 / 2);
        for (const QRectF& a : many)
            for (const QRectF& b : many)
                if (a != b)
                    QVERIFY2(!(a.adjusted(-1, 0, 1, 0).intersects(b) && a.top() == b.top()),
                             "dark squares side by side");
    }

    void stripes()
    {
        // Width 30, height 20: x = −20, −10, 0, 10, 20 (stops before 30).
        const QList<QLineF> lines = stripeLines(QSizeF(30, 20));
        QCOMPARE(lines.size(), 5);
        QCOMPARE(lines.first(), QLineF(-20, 0, 0, 20));
        QCOMPARE(lines.last(), QLineF(20, 0, 40, 20));
        for (const QLineF& line : lines) {
            // 45 degrees down to the right, spanning the whole height.
            QCOMPARE(line.dx(), 20.0);
            QCOMPARE(line.dy(), 20.0);
        }

        QVERIFY(stripeLines(QSizeF(0, 20)).isEmpty());
        QVERIFY(stripeLines(QSizeF(20, 0)).isEmpty());
    }
};

QTEST_GUILESS_MAIN(PreviewGeometryTest)
#include "previewgeometrytest.moc"
