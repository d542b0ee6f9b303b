// The controls: the status row's choice of message and its list of files that
// failed, which buttons work when (also while a save is written), Ctrl+S, and
// the tolerance slider's two-way binding to the model.

#include <QLabel>
#include <QPushButton>
#include <QSignalSpy>
#include <QSlider>
#include <QStyle>
#include <QTemporaryDir>
#include <QTest>

#include "model/cropmodel.h"
#include "ui/controls/controlsview.h"
#include "ui/controls/messagelabel.h"
#include "ui/style/theme.h"
#include "support/heldimagesource.h"
#include "windowtestsupport.h"

using namespace orvane;

using Kind = ControlsView::Status::Kind;
using Text = std::optional<QString>;
Q_DECLARE_METATYPE(orvane::ControlsView::Status::Kind)
Q_DECLARE_METATYPE(std::optional<QString>)

class ControlsViewTest : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;

    QUrl image(const QString& name)
    {
        return test::writeImage(QDir(m_dir.path()).filePath(name), {200, 100}, QRect(20, 10, 160, 80),
                                QColor(30, 150, 80));
    }

    template<typename T = QPushButton>
    static T* part(const ControlsView& controls, const char* name)
    {
        return controls.findChild<T*>(QLatin1String(name));
    }

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_dir.isValid()); }

    void statusPriorities_data()
    {
        QTest::addColumn<Text>("error");
        QTest::addColumn<bool>("allSaved");
        QTest::addColumn<Text>("confirmation");
        QTest::addColumn<int>("count");
        QTest::addColumn<Kind>("kind");
        QTest::addColumn<QString>("text");
        const Text none;
        const Text error = QStringLiteral("Couldn’t write to “a.png”.");
        const Text saved = QStringLiteral("a.png");
        QTest::newRow("nothing") << none << false << none << 0 << Kind::None << QString();
        QTest::newRow("error over confirmation") << error << false << saved << 3 << Kind::Error << *error;
        QTest::newRow("error over all saved") << error << true << saved << 3 << Kind::Error << *error;
        QTest::newRow("all saved, one image, no singular") << none << true << saved << 1 << Kind::Success << "All 1 images saved.";
        QTest::newRow("all saved, no grouping") << none << true << none << 1234 << Kind::Success << "All 1234 images saved.";
        QTest::newRow("confirmation, one item") << none << false << saved << 1 << Kind::Success << "Saved a.png";
        QTest::newRow("percent sign kept verbatim") << none << false << Text("100%1 <b>.png") << 1 << Kind::Success
                                                    << "Saved 100%1 <b>.png";
    }
    void statusPriorities()
    {
        QFETCH(Text, error);
        QFETCH(bool, allSaved);
        QFETCH(Text, confirmation);
        QFETCH(int, count);
        QFETCH(Kind, kind);
        QFETCH(QString, text);
        const ControlsView::Status status = ControlsView::status(error, allSaved, confirmation, count);
        QCOMPARE(status.kind, kind);
        QCOMPARE(status.text, text);
    }

    // Text must be read on the bar in the light and the dark palette: 4.5:1
    // for the status messages, the sizes, the position badge and every
    // secondary text.
    void textColoursReadOnTheBar_data()
    {
        QTest::addColumn<QPalette>("palette");
        QTest::addColumn<int>("which");
        const char* names[] = {"orange", "green", "accent text", "secondary", "badge", "selected row",
                               "quiet selected row"};
        for (int which = 0; which < 7; ++which) {
            QTest::addRow("light, %s", names[which]) << QApplication::style()->standardPalette() << which;
            QTest::addRow("dark, %s", names[which]) << test::darkPalette() << which;
        }
        // A theme whose own colours are close to the bar's.
        QPalette pale = QApplication::style()->standardPalette();
        pale.setColor(QPalette::Highlight, QColor(0x9C, 0xC8, 0xF0));
        QTest::addRow("pale accent") << pale << 2;
    }
    void textColoursReadOnTheBar()
    {
        QFETCH(QPalette, palette);
        QFETCH(int, which);
        // The badge's text sits on its grey capsule, a marked row's on the
        // marking, the rest on the bar.
        const QColor text = QList<QColor>{Theme::orange(palette), Theme::green(palette), Theme::accentText(palette),
                                          Theme::secondary(palette), Theme::badgeText(palette),
                                          palette.color(QPalette::HighlightedText),
                                          palette.color(QPalette::HighlightedText)}[which];
        const QColor background = which == 4   ? Theme::badge(palette)
                                  : which == 5 ? Theme::selection(palette)
                                  : which == 6 ? Theme::selection(palette, QPalette::Inactive, true)
                                               : Theme::bar(palette);
        const double ratio = Theme::contrast(text, background);
        QVERIFY2(ratio >= 4.5, qPrintable(QStringLiteral("%1:1").arg(ratio, 0, 'f', 2)));
        // The secondary grey also sits on the window colour (the drop zone).
        if (which == 3)
            QVERIFY(Theme::contrast(text, palette.color(QPalette::Window)) >= 4.5);
    }

    void contrastMeasure_data()
    {
        QTest::addColumn<QColor>("foreground");
        QTest::addColumn<QColor>("background");
        QTest::addColumn<double>("ratio");
        QTest::newRow("white on black") << QColor(Qt::white) << QColor(Qt::black) << 21.0;
        QTest::newRow("mid grey on white") << QColor(0x76, 0x76, 0x76) << QColor(Qt::white) << 4.54;
        QTest::newRow("half-transparent black on white") << QColor(0, 0, 0, 128) << QColor(Qt::white) << 4.0;
    }
    void contrastMeasure()
    {
        QFETCH(QColor, foreground);
        QFETCH(QColor, background);
        QFETCH(double, ratio);
        QVERIFY(qAbs(Theme::contrast(foreground, background) - ratio) < 0.02);
    }

    // A message takes at most two lines: a long file name loses letters in
    // its middle (its start and extension stay), and the rest of the message
    // stays whole.
    void longMessagesShortenTheName_data()
    {
        QTest::addColumn<QString>("message");
        QTest::addColumn<QString>("name");
        QTest::addColumn<int>("width");
        const QString name = QStringLiteral("museum-catalogue-cover-spread-final-approved-for-print.png");
        QTest::newRow("fits as it is") << QStringLiteral("Saved a.png") << QStringLiteral("a.png") << 200;
        QTest::newRow("confirmation, narrow") << QStringLiteral("Saved %1 — next image ready.").arg(name) << name << 160;
        QTest::newRow("confirmation, very narrow") << QStringLiteral("Saved %1 — next image ready.").arg(name) << name << 125;
        QTest::newRow("write error") << QStringLiteral("Couldn’t write to “%1”.").arg(name) << name << 150;
        QTest::newRow("no name to shorten")
            << QStringLiteral("Nothing to save. Nothing to save. Nothing to save. Nothing to save.") << QString() << 120;
    }
    void longMessagesShortenTheName()
    {
        QFETCH(QString, message);
        QFETCH(QString, name);
        QFETCH(int, width);
        const QFont font = QApplication::font();
        const QString shown = MessageLabel::fitted(message, name, font, width, 2);
        QVERIFY2(MessageLabel::lineCount(shown, font, width) <= 2, qPrintable(shown));
        if (MessageLabel::lineCount(message, font, width) <= 2)
            QCOMPARE(shown, message);
        else
            QVERIFY2(shown.contains(QStringLiteral("…")), qPrintable(shown));
        if (name.isEmpty() || shown == message)
            return;
        // Only the name changed: what comes before and after it is intact.
        const qsizetype at = message.indexOf(name);
        QVERIFY(shown.startsWith(message.left(at)));
        QVERIFY(shown.endsWith(message.mid(at + name.size())));
        if (width >= 150) // room for both ends of the name
            QVERIFY2(shown.contains(QStringLiteral("museum")) && shown.contains(QStringLiteral(".png")), qPrintable(shown));
    }

    void statusRowFollowsTheModel()
    {
        CropModel model;
        ControlsView controls(&model);
        auto* row = part<QWidget>(controls, "statusRow");
        auto* text = part<MessageLabel>(controls, "statusText");
        auto colour = [&] { return text->palette().color(QPalette::WindowText); };
        QVERIFY(row->isHidden());

        // A failed opening: orange, with the file and its reason in the tool tip.
        test::openAll(model, {test::writeNonImage(QDir(m_dir.path()).filePath(QStringLiteral("status-notes.png")))});
        QTRY_VERIFY(!row->isHidden());
        QVERIFY(model.errorMessage());
        QCOMPARE(text->text(), *model.errorMessage());
        QCOMPARE(colour(), Theme::orange(controls.palette()));
        QVERIFY(row->toolTip().startsWith(QStringLiteral("status-notes.png — ")));

        // A save with another image left: green, "next image ready"; then all saved.
        test::openAll(model, {image(QStringLiteral("status-1.png")), image(QStringLiteral("status-2.png"))});
        const QString first = model.active()->url.fileName();
        test::saveOver(model);
        QTRY_COMPARE(text->text(), QStringLiteral("Saved %1 — next image ready.").arg(first));
        QCOMPARE(colour(), Theme::green(controls.palette()));
        QVERIFY(row->toolTip().isEmpty());
        test::saveOver(model);
        QTRY_COMPARE(text->text(), QStringLiteral("All 2 images saved."));
        QCOMPARE(colour(), Theme::green(controls.palette()));
    }

    void failuresToolTip_data()
    {
        QTest::addColumn<int>("files");
        QTest::addColumn<int>("lines");
        QTest::addColumn<QString>("last");
        QTest::newRow("one") << 1 << 1 << "f0.png — The file isn’t there.";
        QTest::newRow("twenty") << 20 << 20 << "f19.png — The file isn’t there.";
        QTest::newRow("twenty-three") << 23 << 21 << "and 3 more";
    }
    void failuresToolTip()
    {
        QFETCH(int, files);
        QFETCH(int, lines);
        QFETCH(QString, last);
        QList<CropModel::FailedFile> failures;
        for (int i = 0; i < files; ++i)
            failures.append({QStringLiteral("f%1.png").arg(i), QStringLiteral("The file isn’t there.")});
        const QStringList shown = ControlsView::failuresToolTip(failures).split(QLatin1Char('\n'));
        QCOMPARE(shown.size(), lines);
        QCOMPARE(shown.first(), QStringLiteral("f0.png — The file isn’t there."));
        QCOMPARE(shown.last(), last);
    }

    void enabledStatesAndSaveShortcut()
    {
        auto source = std::make_shared<test::HeldImageSource>();
        test::FakePanels panels;
        CropModel model(&panels, nullptr, source);
        ControlsView controls(&model);
        controls.show();
        controls.activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(&controls));
        auto* open = part(controls, "open");
        auto* saveAsNew = part(controls, "saveAsNew");
        auto* saveOver = part(controls, "saveOverOriginal");
        QCOMPARE(open->text(), QStringLiteral("Open…"));
        QCOMPARE(saveAsNew->text(), QStringLiteral("Save as New…"));
        QCOMPARE(saveOver->text(), QStringLiteral("Save Over Original"));

        // Empty queue: only "Open…" works, and Ctrl+S does nothing at all
        // (a save with nothing active would report "Nothing to save.").
        QVERIFY(open->isEnabled() && !saveAsNew->isEnabled() && !saveOver->isEnabled());
        QVERIFY(part<QWidget>(controls, "toleranceRow")->isHidden());
        QSignalSpy changes(&model, &CropModel::willChange);
        QTest::keySequence(&controls, QKeySequence::Save);
        QCoreApplication::processEvents();
        QCOMPARE(changes.count(), 0);
        QSignalSpy openRequests(&controls, &ControlsView::openRequested);
        QTest::mouseClick(open, Qt::LeftButton);
        QCOMPARE(openRequests.count(), 1);

        // An active image: everything works, and Ctrl+S saves over the original.
        const QUrl url = image(QStringLiteral("shortcut.png"));
        test::openAll(model, {url, image(QStringLiteral("next.png"))});
        QTRY_VERIFY(saveOver->isEnabled() && saveAsNew->isEnabled());
        QVERIFY(!part<QWidget>(controls, "toleranceRow")->isHidden());
        QTest::keySequence(&controls, QKeySequence::Save);
        QTRY_VERIFY(model.items().front().saved);
        QCOMPARE(QImage(url.toLocalFile()).size(), QSize(160, 80));
        QCOMPARE(model.active()->url.fileName(), QStringLiteral("next.png"));
        // "Save as New…" asks the panel for a destination.
        QTest::mouseClick(saveAsNew, Qt::LeftButton);
        QCOMPARE(panels.saveRequests, 1);

        // While a file is written, both buttons wait for it.
        source->hold(test::HeldImageSource::Step::Save);
        QTRY_VERIFY(saveOver->isEnabled());
        QTest::mouseClick(saveOver, Qt::LeftButton);
        QTRY_VERIFY(!saveOver->isEnabled());
        QVERIFY(!saveAsNew->isEnabled());
        QVERIFY(part<QWidget>(controls, "toleranceRow")->isVisibleTo(&controls));
        source->releaseAll();
        QTRY_VERIFY(model.items().back().saved);
        QTRY_VERIFY(saveOver->isEnabled() && saveAsNew->isEnabled());
    }

    void sliderAndToleranceStayInStep()
    {
        CropModel model;
        ControlsView controls(&model);
        test::openAll(model, {image(QStringLiteral("slider.png"))});
        controls.refresh();
        auto* slider = part<QSlider>(controls, "tolerance");
        QCOMPARE(slider->value(), 25 * ControlsView::sliderScale);
        int writes = 0;
        connect(&model, &CropModel::willChange, this,
                [&](CropModel::Property property) { writes += property == CropModel::Property::Threshold; });
        // Every position the knob passes is written at once.
        for (int value = 3000; value <= 6000; value += 500) {
            slider->setValue(value);
            QCOMPARE(model.threshold(), value / double(ControlsView::sliderScale));
        }
        QCOMPARE(writes, 7);
        // A tolerance set elsewhere moves the knob without being written back;
        // out-of-range values show at the ends.
        model.setThreshold(33.337);
        QTRY_COMPARE(slider->value(), 3334);
        QCOMPARE(writes, 8);
        QCOMPARE(model.threshold(), 33.337);
        model.setThreshold(250);
        QTRY_COMPARE(slider->value(), slider->maximum());
        QCOMPARE(model.threshold(), 250.0);
    }
};

ORVANE_UI_TEST_MAIN(ControlsViewTest)
#include "controlsviewtest.moc"
