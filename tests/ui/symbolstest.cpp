// Every symbol of the window draws on a machine without an icon theme (the
// offscreen platform has none), in exactly the colour asked for.

#include <QApplication>
#include <QIcon>
#include <QTest>

#include "ui/symbols.h"

using namespace orvane;

Q_DECLARE_METATYPE(orvane::Symbol)

class SymbolsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        // No theme: only the bundled drawings can answer.
        QIcon::setThemeName(QString());
        QIcon::setThemeSearchPaths({});
    }

    void drawsInTheColourAsked_data()
    {
        QTest::addColumn<Symbol>("symbol");
        QTest::newRow("photo") << Symbol::Photo;
        QTest::newRow("warning") << Symbol::Warning;
        QTest::newRow("check circle") << Symbol::CheckCircle;
        QTest::newRow("dashed circle") << Symbol::DashedCircle;
        QTest::newRow("dashed circle filled") << Symbol::DashedCircleFilled;
        QTest::newRow("arrow right") << Symbol::ArrowRight;
        QTest::newRow("plus") << Symbol::Plus;
        QTest::newRow("minus") << Symbol::Minus;
        QTest::newRow("refresh") << Symbol::Refresh;
    }
    void drawsInTheColourAsked()
    {
        QFETCH(Symbol, symbol);
        QVERIFY(!Symbols::icon(symbol).isNull());

        const QColor orange(240, 138, 0);
        const QPixmap pixmap = Symbols::tinted(symbol, 24, orange, 2.0);
        QCOMPARE(pixmap.devicePixelRatio(), 2.0);
        const QImage image = pixmap.toImage().convertToFormat(QImage::Format_ARGB32);
        QCOMPARE(image.size(), QSize(48, 48));
        int covered = 0;
        for (int y = 0; y < image.height(); ++y) {
            for (int x = 0; x < image.width(); ++x) {
                const QColor pixel = image.pixelColor(x, y);
                if (pixel.alpha() < 250)
                    continue;
                ++covered;
                QCOMPARE(pixel.rgb(), orange.rgb());
            }
        }
        // Something is drawn, and not a filled square.
        QVERIFY(covered > 20);
        QVERIFY(covered < 48 * 48 * 3 / 4);
    }
};

QTEST_MAIN(SymbolsTest)

#include "symbolstest.moc"
