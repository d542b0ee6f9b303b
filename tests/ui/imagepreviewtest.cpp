#include <QPainter>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include "model/cropmodel.h"
#include "ui/preview/imagepreview.h"
#include "ui/preview/previewgeometry.h"
#include "ui/preview/scaledimagecache.h"
#include "ui/style/theme.h"
#include "viewtestsupport.h"

using namespace orvane;
using namespace orvane::test;

namespace {

// 400 × 200 with content (100, 50, 200, 100); in a 356 × 256 view the image
// area is 300 × 200, so F = (28, 53, 300, 150) and T = (103, 90.5, 150, 75).
const QRect blockContent(100, 50, 200, 100);
const QSize viewSize(356, 256);

bool closeColour(QColor a, QColor b, int tolerance = 6)
{
    return qAbs(a.red() - b.red()) <= tolerance && qAbs(a.green() - b.green()) <= tolerance
        && qAbs(a.blue() - b.blue()) <= tolerance;
}

QString describe(QColor c) { return QString("rgb(%1,%2,%3)").arg(c.red()).arg(c.green()).arg(c.blue()); }

} // namespace

class ImagePreviewTest : public QObject {
    Q_OBJECT

    QTemporaryDir* m_dir = nullptr;
    CropModel* m_model = nullptr;
    ImagePreview* m_preview = nullptr;

    void openAndShow(const QList<QUrl>& urls)
    {
        test::openAll(*m_model, urls);
        QCOMPARE(m_model->items().size(), std::size_t(urls.size()));
        m_preview->show();
        QVERIFY(QTest::qWaitForWindowExposed(m_preview));
    }

    void waitUntilSettled()
    {
        QTRY_VERIFY_WITH_TIMEOUT(m_preview->isRevealed() && !m_preview->isAnimating(), 5000);
    }

private Q_SLOTS:
    void init()
    {
        m_dir = new QTemporaryDir;
        QVERIFY(m_dir->isValid());
        m_model = new CropModel;
        m_preview = new ImagePreview(m_model);
        m_preview->resize(viewSize);
    }

    void cleanup()
    {
        delete m_preview;
        delete m_model;
        delete m_dir;
    }

    void revealPlaysForEachNewImage()
    {
        const QDir dir(m_dir->path());
        const QUrl a = writeBlockImage(dir, "a.png", 400, 200, blockContent);
        const QUrl b = writeBlockImage(dir, "b.png", 300, 300, QRect(10, 20, 30, 40));

        // What the view shows at the moment each reveal starts.
        QList<bool> revealedAtStart;
        QList<QRectF> shownAtStart;
        connect(m_preview, &ImagePreview::revealStarted, this, [&] {
            revealedAtStart << m_preview->isRevealed();
            shownAtStart << m_preview->shownImageRect();
        });

        openAndShow({a, b});
        QTRY_COMPARE(m_preview->revealCount(), 1);
        QCOMPARE(revealedAtStart, QList<bool>{false});
        QCOMPARE(shownAtStart.at(0), QRectF(0, 0, 400, 200)); // darkening gone at once
        // Then it closes in on the content with the 0.55 s spring.
        QTRY_VERIFY(m_preview->isRevealed());
        QCOMPARE(m_preview->targetImageRect(), QRectF(blockContent));
        QCOMPARE(m_preview->currentResponse(), 0.55);
        waitUntilSettled();
        QVERIFY(near(m_preview->shownImageRect(), blockContent, 1e-6));

        // Another image becomes active: the reveal plays again from its whole frame.
        m_model->select(idOf(*m_model, "b.png"));
        QTRY_COMPARE(m_preview->revealCount(), 2);
        QCOMPARE(shownAtStart.at(1), QRectF(0, 0, 300, 300));
        QCOMPARE(revealedAtStart.at(1), false);
        QTRY_VERIFY(m_preview->isRevealed());
        QCOMPARE(m_preview->targetImageRect(), QRectF(10, 20, 30, 40));
        waitUntilSettled();
        QVERIFY(near(m_preview->shownImageRect(), QRectF(10, 20, 30, 40), 1e-6));

        // Selecting the active item again changes nothing the reveal depends on.
        m_model->select(idOf(*m_model, "b.png"));
        QTest::qWait(50);
        QCOMPARE(m_preview->revealCount(), 2);

        // Removing every item leaves nothing to reveal; a new image reveals again.
        m_model->remove(idOf(*m_model, "a.png"));
        m_model->remove(idOf(*m_model, "b.png"));
        QTRY_VERIFY(m_preview->shownImageRect().isNull());
        QCOMPARE(m_preview->revealCount(), 2);
        test::openAll(*m_model, {a});
        QTRY_COMPARE(m_preview->revealCount(), 3);
    }

    void toleranceChangeGlidesWithoutReveal()
    {
        const QUrl a = writeBlockImage(QDir(m_dir->path()), "a.png", 400, 200, blockContent);
        openAndShow({a});
        waitUntilSettled();
        QCOMPARE(m_preview->revealCount(), 1);

        // Tolerance 0 keeps the whole image: the cut-out glides out with the 0.4 s spring.
        m_model->setThreshold(0);
        QTRY_COMPARE(m_preview->targetImageRect(), QRectF(0, 0, 400, 200));
        QCOMPARE(m_preview->currentResponse(), 0.4);
        QVERIFY(m_preview->isRevealed());
        QVERIFY(m_preview->isAnimating());
        // Partway: the shown rectangle has left the content but not reached the edge.
        QTRY_VERIFY(m_preview->shownImageRect().width() > 220);
        if (m_preview->isAnimating())
            QVERIFY(m_preview->shownImageRect() != QRectF(0, 0, 400, 200));
        waitUntilSettled();
        QVERIFY(near(m_preview->shownImageRect(), QRectF(0, 0, 400, 200), 1e-6));

        // Back again, and a change mid-flight takes over from where the motion is.
        m_model->setThreshold(25);
        QTRY_VERIFY(m_preview->shownImageRect().width() < 390);
        m_model->setThreshold(0);
        QTRY_COMPARE(m_preview->targetImageRect(), QRectF(0, 0, 400, 200));
        waitUntilSettled();
        QCOMPARE(m_preview->revealCount(), 1);
    }

    void saveOverOriginalRevealsTheTrimmedImage()
    {
        const QUrl a = writeBlockImage(QDir(m_dir->path()), "a.png", 400, 200, blockContent);
        openAndShow({a});
        waitUntilSettled();
        QTRY_COMPARE(m_preview->imageCache().copiesMade(), 1);

        // The same item comes back 200 × 100: a new revealKey, so the reveal plays
        // again, now with nothing left to darken; the new pixels get their own copy.
        test::saveOver(*m_model);
        QTRY_COMPARE(m_model->active()->width(), 200);
        QVERIFY(!m_model->errorMessage());
        QTRY_COMPARE(m_preview->revealCount(), 2);
        waitUntilSettled();
        QCOMPARE(m_preview->shownImageRect(), QRectF(0, 0, 200, 100));
        QTRY_COMPARE(m_preview->imageCache().copiesMade(), 2);
        const QImage shot = m_preview->grab().toImage();
        // The black content now fills the whole frame.
        QVERIFY(closeColour(shot.pixelColor(viewSize.width() / 2, viewSize.height() / 2), Qt::black));
        QVERIFY(closeColour(shot.pixelColor(40, viewSize.height() / 2), Qt::black));
    }

    void noContentLeavesWholeImage()
    {
        const QUrl empty = writeTransparentImage(QDir(m_dir->path()), "empty.png", 120, 80);
        openAndShow({empty});
        QVERIFY(!m_model->activeContentRect());
        QTRY_COMPARE(m_preview->revealCount(), 1);
        waitUntilSettled();
        QCOMPARE(m_preview->shownImageRect(), QRectF(0, 0, 120, 80));
    }

    void drawsDarkeningAndOutline()
    {
        const QUrl a = writeBlockImage(QDir(m_dir->path()), "a.png", 400, 200, blockContent);
        openAndShow({a});
        waitUntilSettled();
        QTRY_VERIFY(m_preview->imageCache().copiesMade() >= 1);

        const QColor accent = Theme::accent(m_preview->palette());
        QImage shot = m_preview->grab().toImage();
        // White border outside the content, darkened by black at 45%: 255 × 0.55.
        const QColor border = shot.pixelColor(60, 128);
        QVERIFY2(closeColour(border, QColor(140, 140, 140)), qPrintable(describe(border)));
        // The content itself is not darkened.
        QVERIFY(closeColour(shot.pixelColor(178, 128), Qt::black));
        // The outline runs along the inside of the target rectangle's left edge (x 103 to 104.5).
        const QColor outline = shot.pixelColor(103, 128);
        QVERIFY2(closeColour(outline, accent, 40), qPrintable(describe(outline) + " vs " + describe(accent)));
        // Outside the image: the window background with faint stripes, no darkening.
        QVERIFY(shot.pixelColor(5, 128).lightness() > 150);

        // Tolerance 0: nothing trimmed, nothing darkened.
        m_model->setThreshold(0);
        QTRY_COMPARE(m_preview->targetImageRect(), QRectF(0, 0, 400, 200));
        waitUntilSettled();
        shot = m_preview->grab().toImage();
        QVERIFY2(closeColour(shot.pixelColor(60, 128), Qt::white), qPrintable(describe(shot.pixelColor(60, 128))));
        // The outline has moved to the image's edge, its corners rounded (radius 10):
        // the corner pixel itself lies outside the rounded clip.
        QVERIFY(closeColour(shot.pixelColor(28, 128), accent, 40));
        QVERIFY(!closeColour(shot.pixelColor(28, 53), accent, 40));
    }

    void dropHighlightOnlyWithAnImage()
    {
        m_preview->show();
        QVERIFY(QTest::qWaitForWindowExposed(m_preview));
        const QColor accent = Theme::accent(m_preview->palette());

        // No active item: the drop zone shows its own highlight, the preview none.
        m_preview->setTargeted(true);
        QTRY_VERIFY(!m_preview->isAnimating());
        QVERIFY(!closeColour(m_preview->grab().toImage().pixelColor(7, 128), accent, 40));

        const QUrl a = writeBlockImage(QDir(m_dir->path()), "a.png", 400, 200, blockContent);
        test::openAll(*m_model, {a});
        waitUntilSettled();
        // The 3-point border lies 6 points inside the area: x 6 to 9.
        QImage shot = m_preview->grab().toImage();
        QVERIFY(closeColour(shot.pixelColor(7, 128), accent, 40));
        QVERIFY(!closeColour(shot.pixelColor(3, 128), accent, 40));
        QVERIFY(!closeColour(shot.pixelColor(12, 128), accent, 40));

        m_preview->setTargeted(false);
        QVERIFY(m_preview->isAnimating()); // fading out
        QTRY_VERIFY(!m_preview->isAnimating());
        QVERIFY(!closeColour(m_preview->grab().toImage().pixelColor(7, 128), accent, 40));
    }

    void scaledCopyMadeOncePerSize()
    {
        const QUrl a = writeBlockImage(QDir(m_dir->path()), "a.png", 1600, 800, QRect(400, 200, 800, 400));
        openAndShow({a});
        const ScaledImageCache& cache = m_preview->imageCache();
        QTRY_COMPARE(cache.copiesMade(), 1);
        waitUntilSettled();

        // Every frame of the animation and every repaint draws from the one copy.
        for (int i = 0; i < 5; ++i)
            m_preview->repaint();
        m_model->setThreshold(0);
        waitUntilSettled();
        m_model->setThreshold(40);
        waitUntilSettled();
        QCOMPARE(cache.copiesMade(), 1);

        // A new size needs a new copy; going back finds the old one still there.
        m_preview->resize(viewSize + QSize(100, 100));
        QTRY_COMPARE(cache.copiesMade(), 2);
        m_preview->resize(viewSize);
        m_preview->repaint();
        QTest::qWait(100);
        QCOMPARE(cache.copiesMade(), 2);
    }

    void stripesFromTileMatchLines_data()
    {
        QTest::addColumn<QSize>("size");
        QTest::addColumn<double>("dpr");
        QTest::newRow("height a multiple of 10") << QSize(300, 200) << 1.0;
        QTest::newRow("odd height") << QSize(301, 173) << 1.0;
        QTest::newRow("double density") << QSize(157, 91) << 2.0;
        QTest::newRow("one and a half") << QSize(120, 77) << 1.5;
        QTest::newRow("no whole tile (1.3)") << QSize(120, 77) << 1.3;
    }

    void stripesFromTileMatchLines()
    {
        QFETCH(QSize, size);
        QFETCH(double, dpr);
        auto canvas = [&] {
            QImage image(qRound(size.width() * dpr), qRound(size.height() * dpr), QImage::Format_ARGB32_Premultiplied);
            image.setDevicePixelRatio(dpr);
            image.fill(Qt::white);
            return image;
        };
        QImage tiled = canvas();
        {
            QPainter painter(&tiled);
            painter.setRenderHint(QPainter::Antialiasing);
            ImagePreview::paintStripes(painter, QSizeF(size), dpr);
        }
        // The reference: every line stroked, as the stripes are described.
        QImage stroked = canvas();
        {
            QPainter painter(&stroked);
            painter.setRenderHint(QPainter::Antialiasing);
            QColor grey = QColor::fromRgbF(0.5f, 0.5f, 0.5f);
            grey.setAlphaF(0.05f);
            painter.setPen(QPen(grey, 1.5));
            for (const QLineF& line : PreviewGeometry::stripeLines(QSizeF(size)))
                painter.drawLine(line);
        }
        // Antialiasing may round a little differently where a line crosses a tile's
        // edge at a fractional pixel; a missing, doubled or shifted line changes
        // far more pixels by a whole line's shade (about 7 levels on white).
        int worst = 0;
        int differing = 0;
        int striped = 0;
        for (int y = 0; y < tiled.height(); ++y)
            for (int x = 0; x < tiled.width(); ++x) {
                const QRgb a = tiled.pixel(x, y);
                const QRgb b = stroked.pixel(x, y);
                const int difference = std::max({qAbs(qRed(a) - qRed(b)), qAbs(qGreen(a) - qGreen(b)),
                                                 qAbs(qBlue(a) - qBlue(b))});
                worst = std::max(worst, difference);
                differing += difference > 2;
                striped += qRed(b) < 255;
            }
        const int pixels = tiled.width() * tiled.height();
        QVERIFY2(worst <= 5 && differing * 200 < pixels,
                 qPrintable(QString("largest difference %1, %2 of %3 pixels differ").arg(worst).arg(differing).arg(pixels)));
        QVERIFY(striped > pixels / 20); // the lines are really there
    }

    // A 3 × 3 white image with a black centre pixel, its content rectangle, fitted
    // at F = (78, 28, 200, 200): each image pixel becomes a sharp block of 66 or
    // 67 device pixels (the centre one x 145 to 210, y 95 to 160), and the
    // darkening and the 2-pixel outline start exactly at the block's edges; a
    // smoothed enlargement would spill grey past them.
    void tinyImageEnlargedToWholePixels_data()
    {
        QTest::addColumn<QPoint>("at");
        QTest::addColumn<QString>("expected");
        QTest::newRow("left of the centre block") << QPoint(144, 128) << "darkened white";
        QTest::newRow("centre block's left edge") << QPoint(145, 128) << "outline";
        QTest::newRow("inside the outline") << QPoint(147, 128) << "black";
        QTest::newRow("centre block's right edge") << QPoint(210, 128) << "outline";
        QTest::newRow("right of the centre block") << QPoint(211, 128) << "darkened white";
        QTest::newRow("above the centre block") << QPoint(178, 94) << "darkened white";
        QTest::newRow("centre block's top edge") << QPoint(178, 95) << "outline";
        QTest::newRow("centre block's bottom edge") << QPoint(178, 160) << "outline";
        QTest::newRow("below the centre block") << QPoint(178, 161) << "darkened white";
        QTest::newRow("corner block, next to its neighbour") << QPoint(144, 94) << "darkened white";
    }

    void tinyImageEnlargedToWholePixels()
    {
        QFETCH(QPoint, at);
        QFETCH(QString, expected);
        openAndShow({writeBlockImage(QDir(m_dir->path()), "tiny.png", 3, 3, QRect(1, 1, 1, 1))});
        waitUntilSettled();
        QTRY_VERIFY(m_preview->imageCache().copiesMade() >= 1);
        const QImage shot = m_preview->grab().toImage();
        QCOMPARE(shot.devicePixelRatio(), 1.0);
        const QColor colour = shot.pixelColor(at);
        const QColor wanted = expected == "black"     ? QColor(Qt::black)
                              : expected == "outline" ? Theme::accent(m_preview->palette())
                                                      : QColor(140, 140, 140);
        QVERIFY2(closeColour(colour, wanted, 3), qPrintable(describe(colour) + " vs " + describe(wanted)));
    }
};

ORVANE_VIEW_TEST_MAIN(ImagePreviewTest)
#include "imagepreviewtest.moc"
