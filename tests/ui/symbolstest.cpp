// Every symbol of the window draws on a machine without an icon theme (the
// offscreen platform has none), in exactly the colour asked for.

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QIcon>
#include <QImage>
#include <QPainter>
#include <QTemporaryDir>
#include <QTest>

#include "ui/style/symbols.h"

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
        const char* names[] = {"photo", "warning", "check circle", "dashed circle", "dashed circle filled",
                               "arrow right", "plus", "trash", "refresh"};
        for (int i = 0; i <= int(Symbol::Refresh); ++i)
            QTest::newRow(names[i]) << Symbol(i);
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
        for (int y = 0; y < image.height(); ++y)
            for (int x = 0; x < image.width(); ++x)
                if (const QColor pixel = image.pixelColor(x, y); pixel.alpha() >= 250) {
                    ++covered;
                    QCOMPARE(pixel.rgb(), orange.rgb());
                }
        // Something is drawn, and not a filled square.
        QVERIFY(covered > 20 && covered < 48 * 48 * 3 / 4);
    }

    void fullColourThemeIconsGiveWayToOurDrawings()
    {
        // A theme whose picture icons are full colour: tinting one would give
        // a blob.
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        const QDir theme(dir.filePath(QStringLiteral("colourful")));
        QVERIFY(theme.mkpath(QStringLiteral("48x48/mimetypes")));
        QFile index(theme.filePath(QStringLiteral("index.theme")));
        QVERIFY(index.open(QIODevice::WriteOnly));
        index.write("[Icon Theme]\nName=colourful\nDirectories=48x48/mimetypes\n\n"
                    "[48x48/mimetypes]\nSize=48\nType=Fixed\n");
        index.close();
        QImage colourful(48, 48, QImage::Format_ARGB32);
        colourful.fill(QColor(220, 40, 40));
        QPainter(&colourful).fillRect(24, 0, 24, 48, QColor(40, 80, 220));
        QVERIFY(colourful.save(theme.filePath(QStringLiteral("48x48/mimetypes/image-x-generic.png"))));
        // Some themes even ship full-colour pictures under the symbolic names.
        QVERIFY(colourful.save(theme.filePath(QStringLiteral("48x48/mimetypes/image-x-generic-symbolic.png"))));

        const QImage ours = Symbols::tinted(Symbol::Photo, 48, Qt::black, 1.0).toImage();
        QIcon::setThemeSearchPaths({dir.path()});
        QIcon::setThemeName(QStringLiteral("colourful"));
        const QImage themed = Symbols::tinted(Symbol::Photo, 48, Qt::black, 1.0).toImage();
        QIcon::setThemeName(QString());
        QIcon::setThemeSearchPaths({});
        QCOMPARE(themed, ours);
    }
};

QTEST_MAIN(SymbolsTest)

#include "symbolstest.moc"
