// The main window's content: which sections show for which model state,
// drops of files (filtering, order, one open, refusals), the drag hover and
// the drop zone's clicks.

#include <QApplication>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QLabel>
#include <QListView>
#include <QMimeData>
#include <QPushButton>
#include <QSignalSpy>
#include <QSlider>
#include <QStackedLayout>
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
    explicit DropTarget(std::shared_ptr<ImageSource> source = nullptr)
        : ContentView(nullptr, std::move(source))
    {
    }
    using ContentView::dragEnterEvent;
    using ContentView::dragLeaveEvent;
    using ContentView::dropEvent;
};

// A drop at the middle of the view, accepted beforehand or not; answers
// whether the view accepted it.
bool sendDrop(DropTarget& view, const QList<QUrl>& urls, bool acceptedBefore)
{
    QMimeData data;
    data.setUrls(urls);
    QDropEvent drop(QPointF(view.width() / 2.0, view.height() / 2.0), Qt::CopyAction, &data, Qt::LeftButton,
                    Qt::NoModifier);
    drop.setAccepted(acceptedBefore);
    view.dropEvent(&drop);
    return drop.isAccepted();
}

bool sendDragEnter(DropTarget& view, const QList<QUrl>& urls, bool acceptedBefore)
{
    QMimeData data;
    data.setUrls(urls);
    QDragEnterEvent enter(QPoint(100, 100), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    enter.setAccepted(acceptedBefore);
    view.dragEnterEvent(&enter);
    return enter.isAccepted();
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

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_dir.isValid()); }

    void sectionsFollowTheQueue_data()
    {
        QTest::addColumn<int>("images");
        QTest::addColumn<bool>("drawer");
        QTest::addColumn<bool>("header");
        QTest::addColumn<bool>("badge");
        QTest::addColumn<bool>("dropZone");
        QTest::addColumn<bool>("toleranceRow");
        QTest::newRow("empty queue") << 0 << false << false << false << true << false;
        QTest::newRow("one image") << 1 << false << true << false << false << true;
        QTest::newRow("two images") << 2 << true << true << true << false << true;
        QTest::newRow("three images") << 3 << true << true << true << false << true;
    }
    void sectionsFollowTheQueue()
    {
        QFETCH(int, images);
        ContentView view;
        QVERIFY(test::showAt(view, {720, 540}));
        QList<QUrl> urls;
        for (int i = 0; i < images; ++i)
            urls << image(QStringLiteral("section-%1.png").arg(i));
        if (!urls.isEmpty())
            view.openUrls(urls);
        QTRY_COMPARE(int(view.model()->items().size()), images);

        QFETCH(bool, drawer);
        QFETCH(bool, header);
        QFETCH(bool, badge);
        QFETCH(bool, dropZone);
        QFETCH(bool, toleranceRow);
        QTRY_COMPARE(shown(view, "drawerPlace"), drawer);
        QTRY_COMPARE(shown(view, "headerPlace"), header);
        QTRY_COMPARE(shown(view, "positionBadge"), badge);
        QTRY_COMPARE(shown(view, "dropZone"), dropZone);
        QTRY_COMPARE(shown(view, "preview"), !dropZone);
        QTRY_COMPARE(shown(view, "toleranceRow"), toleranceRow);
        // Whatever is shown, the window's content never gets smaller than this.
        QCOMPARE(view.minimumSize(), QSize(480, 360));
    }

    // Five images, the drawer shown and a save confirmation with a long name:
    // at the smallest window every label is whole or ends in "…" (never cut
    // mid-letter) and the message shows all of its at most two lines; at the
    // default size nothing needs shortening.
    void controlsFitTheWindow_data()
    {
        QTest::addColumn<QSize>("size");
        QTest::addColumn<bool>("shortened");
        QTest::newRow("smallest") << QSize(480, 360) << true;
        QTest::newRow("smallest, tall") << QSize(480, 600) << true;
        QTest::newRow("default") << QSize(720, 540) << false;
    }
    void controlsFitTheWindow()
    {
        QFETCH(QSize, size);
        QFETCH(bool, shortened);
        ContentView view;
        QVERIFY(test::showAt(view, size));
        QList<QUrl> urls{image(QStringLiteral("museum-catalogue-cover-spread-final-approved-for-print.png"))};
        for (int i = 1; i < 5; ++i)
            urls << image(QStringLiteral("fit-%1.png").arg(i));
        view.openUrls(urls);
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
        const QRect inWindow(message->mapTo(&view, QPoint(0, 0)), message->size());
        QVERIFY(view.rect().contains(inWindow));
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
        QList<QRectF> places;
        QList<int> headerHeights;
        for (int wait = 0; wait < 1000 && !preview->isVisible(); ++wait)
            QTest::qWait(1);
        for (int frame = 0; frame < 40 && (headerHeights.isEmpty() || header->height() != headerHeights.last());
             ++frame) {
            places << preview->imageRect().translated(preview->mapTo(&view, QPoint(0, 0)));
            headerHeights << (header->isVisible() ? header->height() : 0);
            QTest::qWait(8);
        }
        QTest::qWait(300);
        const QRectF settled = preview->imageRect().translated(preview->mapTo(&view, QPoint(0, 0)));
        if (headerHeights.first() >= header->height())
            QSKIP("the header was open before the first look: nothing seen mid-slide");
        for (const QRectF& place : places)
            QCOMPARE(place, settled);
    }

    void removingItemsHidesDrawerThenHeader()
    {
        ContentView view;
        QVERIFY(test::showAt(view, {720, 540}));
        view.openUrls({image(QStringLiteral("keep-a.png")), image(QStringLiteral("keep-b.png"))});
        QTRY_VERIFY(shown(view, "drawerPlace"));
        QTRY_VERIFY(shown(view, "headerPlace"));

        CropModel* model = view.model();
        model->remove(*model->activeID());
        QTRY_VERIFY(!shown(view, "drawerPlace"));
        QTRY_VERIFY(!shown(view, "positionBadge"));
        QVERIFY(shown(view, "headerPlace"));

        model->remove(*model->activeID());
        QTRY_VERIFY(!shown(view, "headerPlace"));
        QTRY_VERIFY(shown(view, "dropZone"));
        QVERIFY(!shown(view, "toleranceRow"));
    }

    void dropOpensFileUrlsInDropOrderWithOneOpen()
    {
        DropTarget view;
        view.resize(720, 540);
        const QUrl c = image(QStringLiteral("order-c.png"));
        const QUrl a = image(QStringLiteral("order-a.png"));
        const QUrl b = image(QStringLiteral("order-b.png"));
        const bool accepted = sendDrop(view,
                                       {QUrl(QStringLiteral("https://example.com/web.png")), c, a,
                                        QUrl(QStringLiteral("data:image/png;base64,AAAA")), b},
                                       false);
        QVERIFY(accepted);
        QTRY_COMPARE(int(view.model()->items().size()), 3);
        // Drop order, not name order; the web and data URLs never reach the model.
        QCOMPARE(queueNames(*view.model()), (QStringList{"order-c.png", "order-a.png", "order-b.png"}));
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
        QVERIFY(!sendDragEnter(view, urls, true));
        QVERIFY(!view.isTargeted());
        QVERIFY(!sendDrop(view, urls, true));

        QCoreApplication::processEvents();
        QCOMPARE(changes.count(), 0);
    }

    void aDropDuringAnOpenJoinsAfterIt()
    {
        auto source = std::make_shared<test::HeldImageSource>();
        source->hold(test::HeldImageSource::Step::Index);
        DropTarget view(source);
        const QUrl first = image(QStringLiteral("during-1.png"));
        const QUrl second = image(QStringLiteral("during-2.png"));
        view.openUrls({first});
        QVERIFY(view.model()->opening());
        QVERIFY(sendDragEnter(view, {second}, false));
        QVERIFY(sendDrop(view, {second}, false));
        source->releaseAll();
        QTRY_VERIFY(!view.model()->opening());
        QCOMPARE(queueNames(*view.model()), (QStringList{"during-1.png", "during-2.png"}));
    }

    void theWindowKeepsUpWithItemsJoining()
    {
        // The smallest window: the drawer, header and status row follow each
        // item as it joins, and the slider works meanwhile.
        auto source = std::make_shared<test::HeldImageSource>();
        source->hold(test::HeldImageSource::Step::Index);
        DropTarget view(source);
        QVERIFY(test::showAt(view, {480, 360}));
        QList<QUrl> files;
        for (int i = 0; i < 5; ++i)
            files << image(QStringLiteral("join-%1.png").arg(i));
        view.openUrls(files);
        auto* openingText = view.findChild<QLabel*>(QStringLiteral("openingText"));
        auto* list = view.findChild<QListView*>(QStringLiteral("queueList"));
        auto* badge = view.findChild<QLabel*>(QStringLiteral("positionBadge"));
        auto* slider = view.findChild<QSlider*>(QStringLiteral("tolerance"));
        QVERIFY(openingText && list && badge && slider);
        QTRY_COMPARE(openingText->text(), QStringLiteral("Opening 0 of 5 images…"));
        QVERIFY(shown(view, "openingRow"));

        for (int i = 0; i < 5; ++i) {
            source->release(test::HeldImageSource::Step::Index, QStringLiteral("join-%1.png").arg(i));
            QTRY_COMPARE(list->model()->rowCount(), i + 1);
            QTRY_VERIFY(shown(view, "preview"));
            if (i >= 1) {
                QTRY_VERIFY(shown(view, "drawerPlace"));
                QTRY_COMPARE(badge->text(), QStringLiteral("1 of %1").arg(i + 1));
            }
            if (i < 4)
                QTRY_COMPARE(openingText->text(), QStringLiteral("Opening %1 of 5 images…").arg(i + 1));
            slider->setValue(slider->value() == 4000 ? 5000 : 4000);
            QCOMPARE(view.model()->threshold(), slider->value() / 100.0);
        }
        QTRY_VERIFY(!shown(view, "openingRow"));
        QVERIFY(!view.model()->errorMessage());
    }

    void escapeCancelsTheOpen()
    {
        auto source = std::make_shared<test::HeldImageSource>();
        source->hold(test::HeldImageSource::Step::Index);
        DropTarget view(source);
        QVERIFY(test::showAt(view, {480, 360}));
        view.openUrls({image(QStringLiteral("kept.png")), image(QStringLiteral("dropped.png"))});
        source->release(test::HeldImageSource::Step::Index, QStringLiteral("kept.png"));
        QTRY_COMPARE(queueNames(*view.model()), QStringList{"kept.png"});
        QVERIFY(shown(view, "openingRow"));

        QTest::keyClick(&view, Qt::Key_Escape);
        QVERIFY(!view.model()->opening());
        QTRY_VERIFY(!shown(view, "openingRow"));
        source->releaseAll();
        QTRY_COMPARE(source->waiting(test::HeldImageSource::Step::Index), 0);
        QCoreApplication::processEvents();
        QCOMPARE(queueNames(*view.model()), QStringList{"kept.png"});
    }

    void dragHoverTargetsTheWindow()
    {
        DropTarget view;
        QVERIFY(test::showAt(view, {720, 540}));
        auto* zone = view.findChild<DropZone*>();
        QVERIFY(zone);
        const QRectF restingPanel = zone->panelRect();

        const QList<QUrl> dragged{QUrl(QStringLiteral("https://example.com/x.png")), image(QStringLiteral("hover.png"))};
        QVERIFY(sendDragEnter(view, dragged, false));
        QVERIFY(view.isTargeted());
        QVERIFY(zone->isTargeted());
        QTRY_COMPARE(zone->hoverProgress(), 1.0);
        // The panel grows by 1 % about its centre.
        const QRectF grown = zone->panelRect();
        QVERIFY(qAbs(grown.width() - restingPanel.width() * 1.01) < 0.01);
        QVERIFY(qAbs(grown.center().x() - restingPanel.center().x()) < 0.01);

        QDragLeaveEvent leave;
        view.dragLeaveEvent(&leave);
        QVERIFY(!view.isTargeted());
        QTRY_COMPARE(zone->hoverProgress(), 0.0);
        QCOMPARE(zone->panelRect(), restingPanel);

        // A drop ends the hover too.
        QVERIFY(sendDragEnter(view, dragged, false));
        QVERIFY(view.isTargeted());
        QVERIFY(sendDrop(view, {image(QStringLiteral("hover.png"))}, false));
        QVERIFY(!view.isTargeted());
    }

    void clicksAnywhereOnTheDropZoneOpenThePanel()
    {
        ContentView view;
        QVERIFY(test::showAt(view, {720, 540}));
        test::FakePanels panels;
        view.model()->setPanels(&panels);
        auto* zone = view.findChild<DropZone*>();
        QVERIFY(zone);

        // Inside the 28-pixel margin, outside the dashed border.
        QTest::mouseClick(zone, Qt::LeftButton, {}, QPoint(5, 5));
        QCOMPARE(panels.openRequests, 1);
        QTest::mouseClick(zone, Qt::LeftButton, {}, QPoint(zone->width() - 10, zone->height() / 2));
        QCOMPARE(panels.openRequests, 2);
        // The empty middle of the panel.
        QTest::mouseClick(zone, Qt::LeftButton, {}, QPoint(zone->width() / 2, 60));
        QCOMPARE(panels.openRequests, 3);
        // The button.
        auto* choose = zone->findChild<QPushButton*>(QStringLiteral("chooseImages"));
        QVERIFY(choose);
        QCOMPARE(choose->text(), QStringLiteral("Choose Images…"));
        QTest::mouseClick(choose, Qt::LeftButton);
        QCOMPARE(panels.openRequests, 4);
        // A right click is no click.
        QTest::mouseClick(zone, Qt::RightButton, {}, QPoint(5, 5));
        QCOMPARE(panels.openRequests, 4);

        // What the panel answers is opened.
        panels.toOpen = {image(QStringLiteral("picked.png"))};
        QTest::mouseClick(zone, Qt::LeftButton, {}, QPoint(5, 5));
        QTRY_COMPARE(queueNames(*view.model()), QStringList{"picked.png"});
    }
};

int main(int argc, char* argv[])
{
    test::initialiseImaging(argv[0]);
    QApplication app(argc, argv);
    ContentViewTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "contentviewtest.moc"
