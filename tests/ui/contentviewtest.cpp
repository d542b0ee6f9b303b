// The main window's content: which sections show for which model state,
// drops of files (filtering, order, one open, refusals), the drag hover and
// the drop zone's clicks.

#include <QDragEnterEvent>
#include <QDropEvent>
#include <QLabel>
#include <QMimeData>
#include <QPushButton>
#include <QSignalSpy>
#include <QSlider>
#include <QTemporaryDir>
#include <QTest>

#include "model/cropmodel.h"
#include "ui/window/contentview.h"
#include "ui/window/dropzone.h"
#include "ui/controls/elidingbutton.h"
#include "ui/preview/imagepreview.h"
#include "ui/controls/messagelabel.h"
#include "support/heldimagesource.h"
#include "windowtestsupport.h"

using namespace orvane;
using Step = test::HeldImageSource::Step;

namespace {

QStringList queueNames(const CropModel& model)
{
    QStringList names;
    for (const CropModel::Item& item : model.items())
        names << item.url.fileName();
    return names;
}

bool shown(const ContentView& view, const char* name)
{
    const auto* widget = view.findChild<QWidget*>(QLatin1String(name));
    return widget && widget->isVisibleTo(&view);
}

// The view with its drag and drop handlers in reach. Synthesised drag events
// sent through QApplication go to the drag manager's current target, which
// only a real drag sets; the handlers are called directly instead.
class DropTarget : public ContentView {
public:
    explicit DropTarget(std::shared_ptr<ImageSource> source = nullptr) : ContentView(nullptr, std::move(source)) {}
    using ContentView::dragEnterEvent;
    using ContentView::dragLeaveEvent;
    using ContentView::dropEvent;
};

// A drag entering (QDragEnterEvent) or a drop (QDropEvent) of urls at the
// middle of the view, accepted beforehand or not; answers whether the view
// accepted it.
template<typename Event>
bool send(DropTarget& view, const QList<QUrl>& urls, bool acceptedBefore = false)
{
    QMimeData data;
    data.setUrls(urls);
    Event event(QPoint(view.width() / 2, view.height() / 2), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    event.setAccepted(acceptedBefore);
    if constexpr (std::is_same_v<Event, QDropEvent>)
        view.dropEvent(&event);
    else
        view.dragEnterEvent(&event);
    return event.isAccepted();
}

} // namespace

class ContentViewTest : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;

    QUrl image(const QString& name)
    {
        return test::writeImage(QDir(m_dir.path()).filePath(name), {120, 80}, QRect(10, 10, 100, 60),
                                QColor(200, 60, 60));
    }
    QList<QUrl> images(const QString& prefix, int count)
    {
        QList<QUrl> urls;
        for (int i = 0; i < count; ++i)
            urls << image(QStringLiteral("%1-%2.png").arg(prefix).arg(i));
        return urls;
    }

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_dir.isValid()); }

    // Five images, the drawer shown and a save confirmation with a long name:
    // at the smallest window every label is whole or ends in "…" (never cut
    // mid-letter) and the message shows all of its at most two lines; at the
    // default size nothing needs shortening.
    void controlsFitTheWindow_data()
    {
        QTest::addColumn<QSize>("size");
        QTest::addColumn<bool>("shortened");
        QTest::newRow("smallest") << QSize(480, 360) << true;
        QTest::newRow("default") << QSize(720, 540) << false;
    }
    void controlsFitTheWindow()
    {
        QFETCH(QSize, size);
        QFETCH(bool, shortened);
        ContentView view;
        QVERIFY(test::showAt(view, size));
        view.openUrls(QList<QUrl>{image(QStringLiteral("museum-catalogue-cover-spread-final-approved-for-print.png"))}
                      + images(QStringLiteral("fit"), 4));
        QTRY_COMPARE(int(view.model()->items().size()), 5);
        view.model()->saveOverOriginal();
        QTRY_VERIFY(view.model()->saveConfirmation().has_value());
        QTRY_VERIFY(shown(view, "drawerPlace"));
        QTest::qWait(400); // the drawer's slide
        QCOMPARE(view.size(), size);

        bool anyShortened = false;
        QList<ElidingButton*> buttons = view.findChildren<ElidingButton*>();
        buttons.removeIf([&](const ElidingButton* button) { return !button->isVisibleTo(&view); });
        QCOMPARE(buttons.size(), 3);
        for (const ElidingButton* button : buttons) {
            const QString label = button->displayedText();
            QVERIFY2(button->fontMetrics().horizontalAdvance(label) <= button->labelWidth(), qPrintable(label));
            QVERIFY2(label == button->text() || (label.endsWith(QStringLiteral("…")) && label.size() > 1),
                     qPrintable(label));
            anyShortened = anyShortened || label != button->text();
        }
        QCOMPARE(anyShortened, shortened);

        const auto* message = view.findChild<MessageLabel*>(QStringLiteral("statusText"));
        const QString text = message->displayedText();
        const int lines = MessageLabel::lineCount(text, message->font(), message->width());
        QVERIFY(lines >= 1 && lines <= 2);
        QVERIFY2(message->height() >= lines * message->fontMetrics().lineSpacing(), qPrintable(text));
        QVERIFY(text.startsWith(QStringLiteral("Saved museum")));
        QVERIFY(text.endsWith(QStringLiteral(".png — next image ready.")));
        QVERIFY(view.rect().contains(QRect(message->mapTo(&view, QPoint(0, 0)), message->size())));
    }

    // The first image cross-fades in while the header slides open above it;
    // the image is placed where it will settle from the first frame on, so
    // the header never pushes it down mid-reveal.
    void imageStaysPutWhileTheHeaderSlidesIn()
    {
        ContentView view;
        QVERIFY(test::showAt(view, {720, 540}));
        view.openUrls({image(QStringLiteral("arrival.png"))});
        const auto* preview = view.findChild<ImagePreview*>(QStringLiteral("preview"));
        const auto* header = view.findChild<QWidget*>(QStringLiteral("headerPlace"));
        auto place = [&] { return preview->imageRect().translated(preview->mapTo(&view, QPoint(0, 0))); };
        QList<QRectF> places;
        QList<int> headerHeights;
        for (int wait = 0; wait < 1000 && !preview->isVisible(); ++wait)
            QTest::qWait(1);
        for (int frame = 0; frame < 40 && (headerHeights.isEmpty() || header->height() != headerHeights.last());
             ++frame) {
            places << place();
            headerHeights << (header->isVisible() ? header->height() : 0);
            QTest::qWait(8);
        }
        QTest::qWait(300);
        if (headerHeights.first() >= header->height())
            QSKIP("the header was open before the first look: nothing seen mid-slide");
        for (const QRectF& earlier : places)
            QCOMPARE(earlier, place());
    }

    void aDropDuringAnOpenJoinsAfterItInDropOrder()
    {
        auto source = std::make_shared<test::HeldImageSource>();
        source->hold(Step::Index);
        DropTarget view(source);
        view.resize(720, 540);
        view.openUrls({image(QStringLiteral("during.png"))});
        QVERIFY(view.model()->opening());
        const QUrl c = image(QStringLiteral("order-c.png"));
        const QUrl a = image(QStringLiteral("order-a.png"));
        const QUrl b = image(QStringLiteral("order-b.png"));
        QVERIFY(send<QDragEnterEvent>(view, {c}));
        QVERIFY(send<QDropEvent>(view, {QUrl(QStringLiteral("https://example.com/web.png")), c, a,
                                        QUrl(QStringLiteral("data:image/png;base64,AAAA")), b}));
        source->releaseAll();
        QTRY_COMPARE(int(view.model()->items().size()), 4);
        QVERIFY(!view.model()->opening());
        // Drop order, not name order; the web and data URLs never reach the model.
        QCOMPARE(queueNames(*view.model()), (QStringList{"during.png", "order-c.png", "order-a.png", "order-b.png"}));
        QVERIFY(!view.model()->errorMessage());
    }

    void dropWithoutFileUrlsIsRefused_data()
    {
        QTest::addColumn<QList<QUrl>>("urls");
        QTest::newRow("web address") << QList<QUrl>{QUrl(QStringLiteral("https://example.com/a.png"))};
        QTest::newRow("nothing") << QList<QUrl>{};
        QTest::newRow("mail and ftp") << QList<QUrl>{QUrl(QStringLiteral("mailto:someone@example.com")),
                                                     QUrl(QStringLiteral("ftp://example.com/a.png"))};
    }
    void dropWithoutFileUrlsIsRefused()
    {
        QFETCH(QList<QUrl>, urls);
        DropTarget view;
        QSignalSpy changes(view.model(), &CropModel::willChange);
        QVERIFY(!send<QDragEnterEvent>(view, urls, true));
        QVERIFY(!view.isTargeted());
        QVERIFY(!send<QDropEvent>(view, urls, true));
        QCoreApplication::processEvents();
        QCOMPARE(changes.count(), 0);
    }

    void theWindowKeepsUpWithItemsJoiningAndLeaving()
    {
        // The smallest window: the sections, the opening row and the badge follow
        // each item as it joins, the slider works meanwhile, and the sections
        // follow the items leaving again. The drop zone and the preview take turns.
        const QStringList sections{"drawerPlace", "headerPlace", "positionBadge", "dropZone", "toleranceRow"};
        const QStringList expected[] = {{"dropZone"},
                                        {"headerPlace", "toleranceRow"},
                                        {"drawerPlace", "headerPlace", "positionBadge", "toleranceRow"}};
        auto source = std::make_shared<test::HeldImageSource>();
        source->hold(Step::Index);
        DropTarget view(source);
        QVERIFY(test::showAt(view, {480, 360}));
        auto check = [&](int count) {
            QTRY_COMPARE(int(view.model()->items().size()), count);
            for (const QString& section : sections)
                QTRY_COMPARE(shown(view, qPrintable(section)), expected[qMin(count, 2)].contains(section));
            QTRY_COMPARE(shown(view, "preview"), count > 0);
        };
        check(0);
        view.openUrls(images(QStringLiteral("join"), 5));
        auto* openingText = view.findChild<QLabel*>(QStringLiteral("openingText"));
        auto* badge = view.findChild<QLabel*>(QStringLiteral("positionBadge"));
        auto* slider = view.findChild<QSlider*>(QStringLiteral("tolerance"));
        QTRY_COMPARE(openingText->text(), QStringLiteral("Opening 0 of 5 images…"));
        QVERIFY(shown(view, "openingRow"));
        for (int i = 0; i < 5; ++i) {
            source->release(Step::Index, QStringLiteral("join-%1.png").arg(i));
            check(i + 1);
            if (i >= 1)
                QTRY_COMPARE(badge->text(), QStringLiteral("1 of %1").arg(i + 1));
            if (i < 4)
                QTRY_COMPARE(openingText->text(), QStringLiteral("Opening %1 of 5 images…").arg(i + 1));
            slider->setValue(slider->value() == 4000 ? 5000 : 4000);
            QCOMPARE(view.model()->threshold(), slider->value() / 100.0);
        }
        QTRY_VERIFY(!shown(view, "openingRow"));
        QVERIFY(!view.model()->errorMessage());
        for (int i = 4; i >= 0; --i) {
            view.model()->remove(*view.model()->activeID());
            check(i);
        }
    }

    void escapeCancelsTheOpen()
    {
        auto source = std::make_shared<test::HeldImageSource>();
        source->hold(Step::Index);
        DropTarget view(source);
        QVERIFY(test::showAt(view, {480, 360}));
        view.openUrls({image(QStringLiteral("kept.png")), image(QStringLiteral("dropped.png"))});
        source->release(Step::Index, QStringLiteral("kept.png"));
        QTRY_COMPARE(queueNames(*view.model()), QStringList{"kept.png"});
        QVERIFY(shown(view, "openingRow"));

        QTest::keyClick(&view, Qt::Key_Escape);
        QVERIFY(!view.model()->opening());
        QTRY_VERIFY(!shown(view, "openingRow"));
        source->releaseAll();
        QTRY_COMPARE(source->waiting(Step::Index), 0);
        QCoreApplication::processEvents();
        QCOMPARE(queueNames(*view.model()), QStringList{"kept.png"});
    }

    void dragHoverTargetsTheWindow()
    {
        DropTarget view;
        QVERIFY(test::showAt(view, {720, 540}));
        auto* zone = view.findChild<DropZone*>();
        const QRectF restingPanel = zone->panelRect();
        // A drag with a file among other things lights the drop zone up; leaving
        // or dropping puts it out again.
        const QList<QUrl> dragged{QUrl(QStringLiteral("https://example.com/x.png")), image(QStringLiteral("hover.png"))};
        QVERIFY(send<QDragEnterEvent>(view, dragged));
        QVERIFY(view.isTargeted() && zone->isTargeted());
        QTRY_COMPARE(zone->hoverProgress(), 1.0);
        QVERIFY(zone->panelRect() != restingPanel);
        QDragLeaveEvent leave;
        view.dragLeaveEvent(&leave);
        QVERIFY(!view.isTargeted());
        QTRY_COMPARE(zone->hoverProgress(), 0.0);
        QCOMPARE(zone->panelRect(), restingPanel);

        QVERIFY(send<QDragEnterEvent>(view, dragged));
        QVERIFY(view.isTargeted());
        QVERIFY(send<QDropEvent>(view, {image(QStringLiteral("hover.png"))}));
        QVERIFY(!view.isTargeted());
    }

    void clicksAnywhereOnTheDropZoneOpenThePanel()
    {
        ContentView view;
        QVERIFY(test::showAt(view, {720, 540}));
        test::FakePanels panels;
        view.model()->setPanels(&panels);
        auto* zone = view.findChild<DropZone*>();
        auto* choose = zone->findChild<QPushButton*>(QStringLiteral("chooseImages"));
        QCOMPARE(choose->text(), QStringLiteral("Choose Images…"));
        // In the margin outside the dashed border, the panel's empty middle, the
        // button; a right click is no click.
        const QList<QPoint> points{{5, 5}, {zone->width() - 10, zone->height() / 2}, {zone->width() / 2, 60}};
        for (const QPoint& point : points)
            QTest::mouseClick(zone, Qt::LeftButton, {}, point);
        QTest::mouseClick(choose, Qt::LeftButton);
        QCOMPARE(panels.openRequests, 4);
        QTest::mouseClick(zone, Qt::RightButton, {}, QPoint(5, 5));
        QCOMPARE(panels.openRequests, 4);
        // What the panel answers is opened.
        panels.toOpen = {image(QStringLiteral("picked.png"))};
        QTest::mouseClick(zone, Qt::LeftButton, {}, QPoint(5, 5));
        QTRY_COMPARE(queueNames(*view.model()), QStringList{"picked.png"});
    }
};

ORVANE_UI_TEST_MAIN(ContentViewTest)
#include "contentviewtest.moc"
