#include <QPainter>
#include <QTemporaryDir>
#include <QTest>

#include "model/cropmodel.h"
#include "ui/preview/imagepreview.h"
#include "ui/preview/previewgeometry.h"
#include "ui/preview/scaledimagecache.h"
#include "ui/style/theme.h"
#include "windowtestsupport.h"

using namespace orvane;
using namespace orvane::test;

namespace {

// 400 × 200 with content (100, 50, 200, 100); in a 356 × 256 view the image
// area is 300 × 200, so F = (28, 53, 300, 150) and T = (103, 90.5, 150, 75).
const QRect blockContent(100, 50, 200, 100);
const QSize viewSize(356, 256);
const QColor darkenedWhite(140, 140, 140); // white under black at 45 %: 255 × 0.55

bool closeColour(QColor a, QColor b, int tolerance = 6)
{
    return qAbs(a.red() - b.red()) <= tolerance && qAbs(a.green() - b.green()) <= tolerance
        && qAbs(a.blue() - b.blue()) <= tolerance;
}

QString describe(QColor c) { return QString("rgb(%1,%2,%3)").arg(c.red()).arg(c.green()).arg(c.blue()); }

} // namespace

class ImagePreviewTest : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;
    std::unique_ptr<CropModel> m_model;
    std::unique_ptr<ImagePreview> m_preview;

    QUrl block(const QString& name = QStringLiteral("a.png"), int width = 400, int height = 200,
               QRect content = blockContent)
    {
        return writeBlockImage(QDir(m_dir.path()), name, width, height, content);
    }

    // Opens urls, shows the preview and waits until the reveal has settled.
    void openAndSettle(const QList<QUrl>& urls)
    {
        test::openAll(*m_model, urls);
        m_preview->show();
        QVERIFY(QTest::qWaitForWindowExposed(m_preview.get()));
        waitUntilSettled();
    }

    void waitUntilSettled()
    {
        QTRY_VERIFY_WITH_TIMEOUT(m_preview->isRevealed() && !m_preview->isAnimating(), 5000);
    }

    QColor pixel(QPoint at) const { return m_preview->grab().toImage().pixelColor(at); }

private Q_SLOTS:
    void init()
    {
        m_model = std::make_unique<CropModel>();
        m_preview = std::make_unique<ImagePreview>(m_model.get());
        m_preview->resize(viewSize);
    }
    void cleanup() { m_preview.reset(); }

    void revealPlaysForEachNewImage()
    {
        const QUrl a = block();
        const QUrl b = block("b.png", 300, 300, QRect(10, 20, 30, 40));
        // What the view shows at the moment each reveal starts.
        QList<bool> revealedAtStart;
        QList<QRectF> shownAtStart;
        connect(m_preview.get(), &ImagePreview::revealStarted, this, [&] {
            revealedAtStart << m_preview->isRevealed();
            shownAtStart << m_preview->shownImageRect();
        });

        openAndSettle({a, b});
        // Darkening gone at once, then it closes in on the content.
        QCOMPARE(m_preview->revealCount(), 1);
        QCOMPARE(shownAtStart, QList<QRectF>{QRectF(0, 0, 400, 200)});
        QCOMPARE(m_preview->shownImageRect(), QRectF(blockContent));

        // Another image becomes active: the reveal plays again from its whole frame.
        m_model->select(idOf(*m_model, "b.png"));
        QTRY_COMPARE(m_preview->revealCount(), 2);
        waitUntilSettled();
        QCOMPARE(shownAtStart.at(1), QRectF(0, 0, 300, 300));
        QCOMPARE(revealedAtStart, (QList<bool>{false, false}));
        QCOMPARE(m_preview->shownImageRect(), QRectF(10, 20, 30, 40));

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

    void toleranceChangeGlidesWithoutRevealFromOneCopy()
    {
        openAndSettle({block()});
        const ScaledImageCache& cache = m_preview->imageCache();
        QTRY_COMPARE(cache.copiesMade(), 1);
        // Tolerance 0 keeps the whole image: the cut-out glides out.
        m_model->setThreshold(0);
        QTRY_COMPARE(m_preview->targetImageRect(), QRectF(0, 0, 400, 200));
        QVERIFY(m_preview->isRevealed() && m_preview->isAnimating());
        waitUntilSettled();
        QCOMPARE(m_preview->shownImageRect(), QRectF(0, 0, 400, 200));

        // Back again, and a change mid-flight takes over from where the motion is.
        m_model->setThreshold(25);
        QTRY_VERIFY(m_preview->shownImageRect().width() < 390);
        m_model->setThreshold(0);
        waitUntilSettled();
        QCOMPARE(m_preview->shownImageRect(), QRectF(0, 0, 400, 200));
        QCOMPARE(m_preview->revealCount(), 1);

        // Every frame of the motion drew from the one scaled copy. A new size needs
        // a new copy; going back finds the old one still there.
        QCOMPARE(cache.copiesMade(), 1);
        m_preview->resize(viewSize + QSize(100, 100));
        QTRY_COMPARE(cache.copiesMade(), 2);
        m_preview->resize(viewSize);
        m_preview->repaint();
        QTest::qWait(100);
        QCOMPARE(cache.copiesMade(), 2);
    }

    void saveOverOriginalRevealsTheTrimmedImage()
    {
        openAndSettle({block()});
        QTRY_COMPARE(m_preview->imageCache().copiesMade(), 1);
        // The same item comes back 200 × 100: the reveal plays again with nothing
        // left to darken, and the new pixels get their own copy.
        test::saveOver(*m_model);
        QTRY_COMPARE(m_preview->revealCount(), 2);
        waitUntilSettled();
        QCOMPARE(m_preview->shownImageRect(), QRectF(0, 0, 200, 100));
        QTRY_COMPARE(m_preview->imageCache().copiesMade(), 2);
        // The black content now fills the whole frame.
        QVERIFY(closeColour(pixel({viewSize.width() / 2, viewSize.height() / 2}), Qt::black));
        QVERIFY(closeColour(pixel({40, viewSize.height() / 2}), Qt::black));
    }

    void noContentLeavesWholeImage()
    {
        openAndSettle({writeImage(QDir(m_dir.path()).filePath("empty.png"), {120, 80}, QRect(), Qt::black)});
        QVERIFY(!m_model->activeContentRect());
        QCOMPARE(m_preview->shownImageRect(), QRectF(0, 0, 120, 80));
    }

    void drawsDarkeningAndOutline()
    {
        openAndSettle({block()});
        QTRY_VERIFY(m_preview->imageCache().copiesMade() >= 1);
        const QColor accent = Theme::accent(m_preview->palette());
        // The white border is darkened, the content is not, the outline runs along
        // the inside of the target's left edge (x 103 to 104.5), and outside the
        // image the window background shows with faint stripes.
        QVERIFY2(closeColour(pixel({60, 128}), darkenedWhite), qPrintable(describe(pixel({60, 128}))));
        QVERIFY(closeColour(pixel({178, 128}), Qt::black));
        QVERIFY2(closeColour(pixel({103, 128}), accent, 40), qPrintable(describe(pixel({103, 128}))));
        QVERIFY(pixel({5, 128}).lightness() > 150);

        // Tolerance 0: nothing darkened; the outline sits on the image's edge with
        // corners rounded (radius 10), so the corner pixel lies outside the clip.
        m_model->setThreshold(0);
        QTRY_COMPARE(m_preview->targetImageRect(), QRectF(0, 0, 400, 200));
        waitUntilSettled();
        QVERIFY2(closeColour(pixel({60, 128}), Qt::white), qPrintable(describe(pixel({60, 128}))));
        QVERIFY(closeColour(pixel({28, 128}), accent, 40));
        QVERIFY(!closeColour(pixel({28, 53}), accent, 40));
    }

    void dropHighlightOnlyWithAnImage()
    {
        m_preview->show();
        QVERIFY(QTest::qWaitForWindowExposed(m_preview.get()));
        const QColor accent = Theme::accent(m_preview->palette());
        // No active item: the drop zone shows its own highlight, the preview none.
        m_preview->setTargeted(true);
        QTRY_VERIFY(!m_preview->isAnimating());
        QVERIFY(!closeColour(pixel({7, 128}), accent, 40));

        // The 3-point border lies 6 points inside the area: x 6 to 9.
        openAndSettle({block()});
        QVERIFY(closeColour(pixel({7, 128}), accent, 40));
        QVERIFY(!closeColour(pixel({3, 128}), accent, 40));
        QVERIFY(!closeColour(pixel({12, 128}), accent, 40));

        m_preview->setTargeted(false);
        QVERIFY(m_preview->isAnimating()); // fading out
        QTRY_VERIFY(!m_preview->isAnimating());
        QVERIFY(!closeColour(pixel({7, 128}), accent, 40));
    }

    void stripesFromTileMatchLines_data()
    {
        QTest::addColumn<QSize>("size");
        QTest::addColumn<double>("dpr");
        QTest::newRow("odd height") << QSize(301, 173) << 1.0;
        QTest::newRow("double density") << QSize(157, 91) << 2.0;
        QTest::newRow("fractional density (1.3)") << QSize(120, 77) << 1.3;
        QTest::newRow("no whole tile (1.33)") << QSize(120, 77) << 1.33;
    }
    void stripesFromTileMatchLines()
    {
        QFETCH(QSize, size);
        QFETCH(double, dpr);
        // The stripes drawn from a tile against every line stroked, as the stripes are described.
        auto draw = [&](auto paint) {
            QImage image(qRound(size.width() * dpr), qRound(size.height() * dpr), QImage::Format_ARGB32_Premultiplied);
            image.setDevicePixelRatio(dpr);
            image.fill(Qt::white);
            QPainter painter(&image);
            painter.setRenderHint(QPainter::Antialiasing);
            paint(painter);
            return image;
        };
        const QImage tiled = draw([&](QPainter& p) { ImagePreview::paintStripes(p, QSizeF(size), dpr); });
        const QImage stroked = draw([&](QPainter& p) {
            QColor grey = QColor::fromRgbF(0.5f, 0.5f, 0.5f);
            grey.setAlphaF(0.05f);
            p.setPen(QPen(grey, 1.5));
            for (const QLineF& line : PreviewGeometry::stripeLines(QSizeF(size)))
                p.drawLine(line);
        });
        // Antialiasing may round a little differently where a line crosses a tile's
        // edge at a fractional pixel; a missing, doubled or shifted line changes
        // hundreds of pixels by a whole line's shade (about 7 levels on white).
        int differing = 0, striped = 0;
        for (int y = 0; y < tiled.height(); ++y)
            for (int x = 0; x < tiled.width(); ++x) {
                const QRgb a = tiled.pixel(x, y), b = stroked.pixel(x, y);
                differing += std::max({qAbs(qRed(a) - qRed(b)), qAbs(qGreen(a) - qGreen(b)), qAbs(qBlue(a) - qBlue(b))}) > 2;
                striped += qRed(b) < 255;
            }
        const int pixels = tiled.width() * tiled.height();
        QVERIFY2(differing * 200 < pixels, qPrintable(QString("%1 of %2 pixels differ").arg(differing).arg(pixels)));
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
        QTest::newRow("left of the centre block") << QPoint(144, 128) << "darkened";
        QTest::newRow("centre block's left edge") << QPoint(145, 128) << "outline";
        QTest::newRow("inside the outline") << QPoint(147, 128) << "black";
        QTest::newRow("centre block's right edge") << QPoint(210, 128) << "outline";
        QTest::newRow("right of the centre block") << QPoint(211, 128) << "darkened";
        QTest::newRow("above the centre block") << QPoint(178, 94) << "darkened";
        QTest::newRow("centre block's top edge") << QPoint(178, 95) << "outline";
    }
    void tinyImageEnlargedToWholePixels()
    {
        QFETCH(QPoint, at);
        QFETCH(QString, expected);
        openAndSettle({block("tiny.png", 3, 3, QRect(1, 1, 1, 1))});
        QTRY_VERIFY(m_preview->imageCache().copiesMade() >= 1);
        const QImage shot = m_preview->grab().toImage();
        QCOMPARE(shot.devicePixelRatio(), 1.0);
        const QColor wanted = expected == "black"     ? QColor(Qt::black)
                              : expected == "outline" ? Theme::accent(m_preview->palette())
                                                      : darkenedWhite;
        QVERIFY2(closeColour(shot.pixelColor(at), wanted, 3), qPrintable(describe(shot.pixelColor(at))));
    }
};

ORVANE_UI_TEST_MAIN(ImagePreviewTest)
#include "imagepreviewtest.moc"
