// The header: the choice between its wide and narrow arrangements, the
// middle-truncated name, the position badge, and the sizes before and after
// trimming with their colours.

#include <QApplication>
#include <QLabel>
#include <QTemporaryDir>
#include <QTest>

#include "model/cropmodel.h"
#include "ui/controls/elidedlabel.h"
#include "ui/window/headerlayout.h"
#include "ui/window/headerview.h"
#include "ui/style/theme.h"
#include "windowtestsupport.h"

using namespace orvane;

Q_DECLARE_METATYPE(orvane::HeaderArrangement)

class HeaderViewTest : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;

    QUrl image(const QString& name, QSize size, QRect content, bool white = false)
    {
        return test::writeImage(QDir(m_dir.path()).filePath(name), size, content, QColor(40, 90, 200), white);
    }

    template<typename T = QLabel>
    static T* part(const HeaderView& header, const char* name)
    {
        return header.findChild<T*>(QLatin1String(name));
    }

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_dir.isValid()); }

    void arrangementChoice_data()
    {
        QTest::addColumn<int>("name");
        QTest::addColumn<int>("dims");
        QTest::addColumn<int>("available");
        QTest::addColumn<HeaderArrangement>("expected");
        // Wide needs max(name, 110) + 8 + 12 + 8 + dims.
        QTest::newRow("plenty of room") << 150 << 160 << 600 << HeaderArrangement::Wide;
        QTest::newRow("exactly enough") << 150 << 160 << 338 << HeaderArrangement::Wide;
        QTest::newRow("one pixel short") << 150 << 160 << 337 << HeaderArrangement::Narrow;
        QTest::newRow("short name still counts 110") << 40 << 160 << 297 << HeaderArrangement::Narrow;
        QTest::newRow("short name at 110 fits") << 40 << 160 << 298 << HeaderArrangement::Wide;
        QTest::newRow("no dims row: no spacing for it") << 200 << 0 << 220 << HeaderArrangement::Wide;
        QTest::newRow("no dims row, too narrow") << 200 << 0 << 219 << HeaderArrangement::Narrow;
        QTest::newRow("nothing fits: narrow") << 500 << 300 << 100 << HeaderArrangement::Narrow;
    }
    void arrangementChoice()
    {
        QFETCH(int, name);
        QFETCH(int, dims);
        QFETCH(int, available);
        QFETCH(HeaderArrangement, expected);
        QCOMPARE(headerArrangement(name, dims, available), expected);
    }

    void sizesAndTheirColours()
    {
        CropModel model;
        HeaderView header(&model);
        header.resize(700, 60);
        test::openAll(model, {image(QStringLiteral("poster.png"), {1200, 800}, QRect(100, 80, 1000, 640))});
        header.refresh();

        QCOMPARE(part<ElidedLabel>(header, "name")->text(), QStringLiteral("poster.png"));
        QCOMPARE(part(header, "dimsBefore")->text(), QStringLiteral("1200×800"));
        QCOMPARE(part(header, "dimsAfter")->text(), QStringLiteral("1000×640"));
        QVERIFY(!part<QWidget>(header, "dimsRow")->isHidden());
        const QPalette& palette = header.palette();
        QCOMPARE(part(header, "dimsAfter")->palette().color(QPalette::WindowText), Theme::accentText(palette));
        QCOMPARE(part(header, "dimsBefore")->palette().color(QPalette::WindowText), Theme::secondary(palette));

        // Nothing to trim (here at tolerance 0): both sides equal, the right one grey.
        model.setThreshold(0);
        QTRY_COMPARE(part(header, "dimsAfter")->text(), QStringLiteral("1200×800"));
        QCOMPARE(part(header, "dimsAfter")->palette().color(QPalette::WindowText), Theme::secondary(palette));
    }

    void noContentRectangleLeavesTheSizesEmpty()
    {
        CropModel model;
        HeaderView header(&model);
        // All white: nothing counts as content above tolerance 0.
        const QString path = QDir(m_dir.path()).filePath(QStringLiteral("blank.png"));
        QImage blank(200, 100, QImage::Format_RGB32);
        blank.fill(Qt::white);
        QVERIFY(blank.save(path));
        test::openAll(model, {QUrl::fromLocalFile(path)});
        QVERIFY(model.active());
        QVERIFY(!model.activeContentRect());
        header.refresh();
        QCOMPARE(part<ElidedLabel>(header, "name")->text(), QStringLiteral("blank.png"));
        QVERIFY(part<QWidget>(header, "dimsRow")->isHidden());
    }

    void badgeShowsPositionWithTwoOrMore()
    {
        CropModel model;
        HeaderView header(&model);
        test::openAll(model, {image(QStringLiteral("one.png"), {100, 100}, QRect(10, 10, 50, 50))});
        header.refresh();
        QVERIFY(part(header, "positionBadge")->isHidden());

        test::openAll(model, {image(QStringLiteral("two.png"), {100, 100}, QRect(10, 10, 50, 50)),
                    image(QStringLiteral("three.png"), {100, 100}, QRect(10, 10, 50, 50))});
        header.refresh();
        QVERIFY(!part(header, "positionBadge")->isHidden());
        const int position = *model.activePosition();
        QCOMPARE(part(header, "positionBadge")->text(), QStringLiteral("%1 of 3").arg(position));

        model.select(model.items().back().id);
        QTRY_COMPARE(part(header, "positionBadge")->text(), QStringLiteral("3 of 3"));
        QCOMPARE(part<ElidedLabel>(header, "name")->text(), QStringLiteral("three.png"));
    }

    void aThemeSwitchReachesEveryLabel()
    {
        CropModel model;
        HeaderView header(&model);
        header.show();
        test::openAll(model, {image(QStringLiteral("theme.png"), {400, 300}, QRect(50, 50, 300, 200))});
        header.refresh();

        const QPalette light = QApplication::palette();
        const QPalette dark = test::darkPalette();
        QApplication::setPalette(dark);
        QCoreApplication::processEvents();

        const QColor nameColour = part<ElidedLabel>(header, "name")->palette().color(QPalette::WindowText);
        const QColor before = part(header, "dimsBefore")->palette().color(QPalette::WindowText);
        const QColor after = part(header, "dimsAfter")->palette().color(QPalette::WindowText);
        QApplication::setPalette(light);
        QCOMPARE(nameColour, QColor(0xE6, 0xE6, 0xE6));
        QCOMPARE(before, Theme::secondary(dark));
        QCOMPARE(after, Theme::accentText(dark));
    }

    void longNamesTruncateInTheMiddleAndDropTheSizesBelow()
    {
        CropModel model;
        HeaderView header(&model);
        const QString longName = QStringLiteral("a-very-long-file-name-from-a-camera-export-of-the-summer-holiday-") +
                                 QStringLiteral("pictures-number-0042-final-final.png");
        test::openAll(model, {image(longName, {640, 480}, QRect(20, 20, 600, 440))});
        header.show();
        header.resize(1400, 60);
        header.refresh();
        QTRY_COMPARE(header.arrangement(), HeaderArrangement::Wide);
        auto* name = part<ElidedLabel>(header, "name");
        QTRY_COMPARE(name->displayedText(), longName);
        auto* dims = part<QWidget>(header, "dimsRow");
        const int wideHeight = header.sizeHint().height();

        header.resize(360, 60);
        QTRY_COMPARE(header.arrangement(), HeaderArrangement::Narrow);
        QTRY_VERIFY(name->width() <= 360);
        const QString shown = name->displayedText();
        QVERIFY(shown.contains(QStringLiteral("…")));
        QVERIFY(shown.endsWith(QStringLiteral(".png")));
        QVERIFY(shown.startsWith(QStringLiteral("a-very")));
        // The sizes stand under the name, aligned with its start.
        QTRY_VERIFY(dims->geometry().top() >= name->mapTo(&header, QPoint(0, name->height())).y());
        QTRY_COMPARE(dims->x(), name->mapTo(&header, QPoint(0, 0)).x());
        QVERIFY(header.sizeHint().height() > wideHeight);
    }
};

int main(int argc, char* argv[])
{
    test::initialiseImaging(argv[0]);
    QApplication app(argc, argv);
    HeaderViewTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "headerviewtest.moc"
