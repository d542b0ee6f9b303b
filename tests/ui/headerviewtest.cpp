// The header: its wide and narrow arrangements, the middle-truncated name,
// the position badge, and the sizes before and after trimming with their
// colours.

#include <QLabel>
#include <QTemporaryDir>
#include <QTest>

#include "model/cropmodel.h"
#include "ui/controls/elidedlabel.h"
#include "ui/window/headerview.h"
#include "ui/style/theme.h"
#include "windowtestsupport.h"

using namespace orvane;

class HeaderViewTest : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;

    QUrl image(const QString& name, QSize size = {100, 100}, QRect content = {10, 10, 50, 50})
    {
        return test::writeImage(QDir(m_dir.path()).filePath(name), size, content, QColor(40, 90, 200));
    }

    template<typename T = QLabel>
    static T* part(const HeaderView& header, const char* name)
    {
        return header.findChild<T*>(QLatin1String(name));
    }
    static QColor colour(const HeaderView& header, const char* name)
    {
        return part<QWidget>(header, name)->palette().color(QPalette::WindowText);
    }

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_dir.isValid()); }

    void sizesAndTheirColours()
    {
        CropModel model;
        HeaderView header(&model);
        test::openAll(model, {image(QStringLiteral("poster.png"), {1200, 800}, QRect(100, 80, 1000, 640))});
        header.refresh();
        QCOMPARE(part<ElidedLabel>(header, "name")->text(), QStringLiteral("poster.png"));
        QCOMPARE(part(header, "dimsBefore")->text(), QStringLiteral("1200×800"));
        QCOMPARE(part(header, "dimsAfter")->text(), QStringLiteral("1000×640"));
        QCOMPARE(colour(header, "dimsAfter"), Theme::accentText(header.palette()));
        QCOMPARE(colour(header, "dimsBefore"), Theme::secondary(header.palette()));
        // Nothing to trim (here at tolerance 0): both sides equal, the right one grey.
        model.setThreshold(0);
        QTRY_COMPARE(part(header, "dimsAfter")->text(), QStringLiteral("1200×800"));
        QCOMPARE(colour(header, "dimsAfter"), Theme::secondary(header.palette()));
        model.setThreshold(25);
        QTRY_COMPARE(part(header, "dimsAfter")->text(), QStringLiteral("1000×640"));

        // A switch to a dark theme reaches every label.
        const QPalette light = QApplication::palette();
        const QPalette dark = test::darkPalette();
        QApplication::setPalette(dark);
        QCoreApplication::processEvents();
        const QList<QColor> colours{colour(header, "name"), colour(header, "dimsBefore"), colour(header, "dimsAfter")};
        QApplication::setPalette(light);
        QCOMPARE(colours, (QList<QColor>{QColor(0xE6, 0xE6, 0xE6), Theme::secondary(dark), Theme::accentText(dark)}));

        // All white: no content rectangle, so no sizes.
        test::openAll(model, {test::writeBlockImage(QDir(m_dir.path()), QStringLiteral("blank.png"), 200, 100, {})});
        model.select(test::idOf(model, QStringLiteral("blank.png")));
        QVERIFY(!model.activeContentRect());
        header.refresh();
        QCOMPARE(part<ElidedLabel>(header, "name")->text(), QStringLiteral("blank.png"));
        QVERIFY(part<QWidget>(header, "dimsRow")->isHidden());
    }

    void badgeShowsPositionWithTwoOrMore()
    {
        CropModel model;
        HeaderView header(&model);
        test::openAll(model, {image(QStringLiteral("one.png"))});
        header.refresh();
        QVERIFY(part(header, "positionBadge")->isHidden());
        test::openAll(model, {image(QStringLiteral("two.png")), image(QStringLiteral("three.png"))});
        header.refresh();
        QVERIFY(!part(header, "positionBadge")->isHidden());
        QCOMPARE(part(header, "positionBadge")->text(), QStringLiteral("%1 of 3").arg(*model.activePosition()));
        model.select(model.items().back().id);
        QTRY_COMPARE(part(header, "positionBadge")->text(), QStringLiteral("3 of 3"));
        QCOMPARE(part<ElidedLabel>(header, "name")->text(), QStringLiteral("three.png"));
    }

    void longNamesTruncateInTheMiddleAndDropTheSizesBelow()
    {
        CropModel model;
        HeaderView header(&model);
        const QString longName = QStringLiteral("a-very-long-file-name-from-a-camera-export-of-the-summer-holiday-"
                                                "pictures-number-0042-final-final.png");
        test::openAll(model, {image(longName, {640, 480}, QRect(20, 20, 600, 440))});
        header.show();
        header.resize(1400, 60);
        header.refresh();
        QTRY_COMPARE(header.arrangement(), HeaderArrangement::Wide);
        auto* name = part<ElidedLabel>(header, "name");
        QTRY_COMPARE(name->displayedText(), longName);
        const int wideHeight = header.sizeHint().height();

        header.resize(360, 60);
        QTRY_COMPARE(header.arrangement(), HeaderArrangement::Narrow);
        QTRY_VERIFY(name->width() <= 360);
        const QString shown = name->displayedText();
        QVERIFY2(shown.startsWith(QStringLiteral("a-very")) && shown.contains(QStringLiteral("…"))
                     && shown.endsWith(QStringLiteral(".png")), qPrintable(shown));
        // The sizes stand under the name, and the header grows to hold them.
        QTRY_VERIFY(part<QWidget>(header, "dimsRow")->y() >= name->mapTo(&header, QPoint(0, name->height())).y());
        QVERIFY(header.sizeHint().height() > wideHeight);
    }
};

ORVANE_UI_TEST_MAIN(HeaderViewTest)
#include "headerviewtest.moc"
