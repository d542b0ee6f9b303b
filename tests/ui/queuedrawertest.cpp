#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QScrollBar>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QToolButton>
#include <QVBoxLayout>

#include "model/cropmodel.h"
#include "ui/queue/queuedrawer.h"
#include "ui/queue/queuelistmodel.h"
#include "ui/queue/queuerowdelegate.h"
#include "ui/preview/scaledimagecache.h"
#include "ui/style/theme.h"
#include "windowtestsupport.h"

using namespace orvane;
using namespace orvane::test;

class QueueDrawerTest : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;
    FakePanels m_panels;
    std::unique_ptr<CropModel> m_model;
    std::unique_ptr<QWidget> m_window;
    QueueDrawer* m_drawer = nullptr;
    QLineEdit* m_otherFocus = nullptr;

    QList<QUrl> writeImages(int count, const QString& prefix = QStringLiteral("image"))
    {
        QList<QUrl> urls;
        for (int i = 0; i < count; ++i)
            urls << writeBlockImage(QDir(m_dir.path()), QStringLiteral("%1-%2.png").arg(prefix).arg(i, 2, 10, QLatin1Char('0')),
                                    60 + i, 40, QRect(5, 5, 20 + i, 20));
        return urls;
    }

    // Opens count images and shows the window, active, with the drawer in it.
    void openAndShow(int count)
    {
        test::openAll(*m_model, writeImages(count));
        m_window->show();
        m_window->activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(m_window.get()));
        QTRY_COMPARE(list()->model()->rowCount(), count);
    }

    QListView* list() const { return m_drawer->listView(); }
    QModelIndexList selected() const { return list()->selectionModel()->selectedIndexes(); }
    QModelIndexList row(const QUuid& id) const
    {
        return {static_cast<const QueueListModel*>(list()->model())->indexOf(id)};
    }
    QModelIndexList row(const QString& fileName) const { return row(idOf(*m_model, fileName)); }
    void select(const QString& fileName) { m_model->select(idOf(*m_model, fileName)); }

private Q_SLOTS:
    void init()
    {
        m_panels = FakePanels();
        m_model = std::make_unique<CropModel>(&m_panels);
        // A window with the drawer and something else that can take the focus.
        m_window = std::make_unique<QWidget>();
        auto* layout = new QVBoxLayout(m_window.get());
        layout->addWidget(m_drawer = new QueueDrawer(m_model.get(), m_window.get()));
        layout->addWidget(m_otherFocus = new QLineEdit(m_window.get()));
        // What the window does with the drawer's request.
        connect(m_drawer, &QueueDrawer::openRequested, m_model.get(), [this] { m_model->openPanel(); });
        m_window->resize(260, 420);
    }
    void cleanup() { m_window.reset(); }

    void countAndAdd()
    {
        QCOMPARE(m_drawer->findChild<QLabel*>("queueTitle")->text(), QStringLiteral("Queue"));
        QCOMPARE(m_drawer->countText(), QStringLiteral("0/0"));
        openAndShow(2);
        QCOMPARE(m_drawer->countText(), QStringLiteral("0/2"));
        // A save over the original marks its item and moves on to the next unsaved one.
        test::saveOver(*m_model);
        QTRY_COMPARE(m_drawer->countText(), QStringLiteral("1/2"));

        // "Add" asks the panel: cancelled, nothing changes; answered, the images join.
        QCOMPARE(m_drawer->addButton()->text(), QStringLiteral("Add"));
        QTest::mouseClick(m_drawer->addButton(), Qt::LeftButton);
        QCOMPARE(m_panels.openRequests, 1);
        QCOMPARE(m_model->items().size(), std::size_t(2));
        m_panels.toOpen = writeImages(3, QStringLiteral("more"));
        QTest::mouseClick(m_drawer->addButton(), Qt::LeftButton);
        QTRY_COMPARE(m_drawer->countText(), QStringLiteral("1/5"));
        QTRY_COMPARE(list()->model()->rowCount(), 5);
        for (int i = 0; i < 4; ++i)
            test::saveOver(*m_model);
        QTRY_COMPARE(m_drawer->countText(), QStringLiteral("5/5"));
        // Removing a saved item counts it out of both numbers.
        m_model->remove(m_model->items().front().id);
        QTRY_COMPARE(m_drawer->countText(), QStringLiteral("4/4"));
    }

    void selectionFollowsTheModelBothWays()
    {
        openAndShow(3);
        // The first new item is active and its row selected.
        QTRY_COMPARE(selected(), row("image-00.png"));
        // A click on a row makes that item active.
        QTest::mouseClick(list()->viewport(), Qt::LeftButton, {}, list()->visualRect(row("image-02.png")[0]).center());
        QCOMPARE(m_model->activeID(), idOf(*m_model, "image-02.png"));
        QTRY_COMPARE(selected(), row("image-02.png"));
        // The model's own change of the active item moves the selection.
        select("image-01.png");
        QTRY_COMPARE(selected(), row("image-01.png"));
        // Emptying the selection (Ctrl-click on the selected row) calls nothing;
        // the active item stays and its row is marked again.
        QTest::mouseClick(list()->viewport(), Qt::LeftButton, Qt::ControlModifier,
                          list()->visualRect(row("image-01.png")[0]).center());
        QCOMPARE(m_model->activeID(), idOf(*m_model, "image-01.png"));
        QTRY_COMPARE(selected(), row("image-01.png"));
        // Keyboard navigation in the list selects too.
        list()->setFocus();
        QTest::keyClick(list(), Qt::Key_Down);
        QCOMPARE(m_model->activeID(), idOf(*m_model, "image-02.png"));
    }

    void removeByButtonAndKeys()
    {
        openAndShow(5);
        QToolButton* remove = m_drawer->removeButton();
        QCOMPARE(remove->toolTip(), QStringLiteral("Remove the selected image (Delete)"));
        // The button removes the active item; its neighbour becomes active.
        select("image-02.png");
        QTRY_COMPARE(selected(), row("image-02.png"));
        QTest::mouseClick(remove, Qt::LeftButton);
        QCOMPARE(m_model->items().size(), std::size_t(4));
        QVERIFY(idOf(*m_model, "image-02.png").isNull());
        QVERIFY(m_model->activeID().has_value());
        const QUuid next = *m_model->activeID();
        QTRY_COMPARE(selected(), row(next));

        // Backspace removes it, even while another widget of the window has the focus.
        m_otherFocus->setFocus();
        QTRY_VERIFY(m_otherFocus->hasFocus() && remove->isEnabled());
        QTest::keyClick(m_window.get(), Qt::Key_Backspace);
        QCOMPARE(m_model->items().size(), std::size_t(3));
        QVERIFY(!m_model->activeID() || *m_model->activeID() != next);
        // So does Delete, with the list focused.
        list()->setFocus();
        QTRY_VERIFY(remove->isEnabled());
        QTest::keyClick(list(), Qt::Key_Delete);
        QTRY_COMPARE(list()->model()->rowCount(), 2);

        // Nothing is removed without an active item (an unknown id leaves none),
        // nor once the window took the drawer away: its keys are gone with it.
        auto tryToRemove = [&] {
            QTest::keyClick(m_window.get(), Qt::Key_Backspace);
            QTest::keyClick(m_window.get(), Qt::Key_Delete);
            QCOMPARE(m_model->items().size(), std::size_t(2));
        };
        m_model->select(QUuid::createUuid());
        QVERIFY(!m_model->active());
        QTRY_VERIFY(!remove->isEnabled());
        QVERIFY(selected().isEmpty());
        m_drawer->removeActive();
        tryToRemove();
        m_model->select(m_model->items().front().id);
        QTRY_VERIFY(remove->isEnabled());
        m_drawer->hide();
        m_otherFocus->setFocus();
        tryToRemove();
    }

    void scrollsToTheActiveRow()
    {
        openAndShow(30);
        QScrollBar* scrollBar = list()->verticalScrollBar();
        QVERIFY(scrollBar->maximum() > 0);
        // The last row comes into view, just far enough: it ends at the bottom edge.
        select("image-29.png");
        QTRY_COMPARE(list()->visualRect(row("image-29.png")[0]).bottom(), list()->viewport()->height() - 1);
        // A row already visible does not scroll the list.
        const int value = scrollBar->value();
        select("image-28.png");
        QTest::qWait(350);
        QCOMPARE(scrollBar->value(), value);
        // Back to the first row: it ends up at the top edge.
        select("image-00.png");
        QTRY_COMPARE(scrollBar->value(), 0);
    }

    void thumbnailsMadeOncePerItem()
    {
        openAndShow(3);
        const ScaledImageCache& thumbnails = m_drawer->thumbnails();
        QTRY_COMPARE(thumbnails.copiesMade(), 3);
        // Repaints and selection changes make no new ones.
        list()->viewport()->repaint();
        select("image-02.png");
        QTest::qWait(100);
        list()->viewport()->repaint();
        QCOMPARE(thumbnails.copiesMade(), 3);
        // One more item: one more thumbnail.
        test::openAll(*m_model, writeImages(1, QStringLiteral("late")));
        QTRY_COMPARE(thumbnails.copiesMade(), 4);
        QTest::qWait(100);
        QCOMPARE(thumbnails.copiesMade(), 4);
    }

    void thumbnailLetterbox()
    {
        // The whole image in the 34-point box, never thinner than a pixel, small
        // images enlarged, at the screen's pixel density.
        QCOMPARE(QueueRowDelegate::thumbnailPixels(100, 1000, 1.0), QSize(3, 34));
        QCOMPARE(QueueRowDelegate::thumbnailPixels(4000, 1000, 2.0), QSize(68, 17));
        QCOMPARE(QueueRowDelegate::thumbnailPixels(100000, 1, 1.0), QSize(34, 1));
        QCOMPARE(QueueRowDelegate::thumbnailPixels(2, 1, 1.0), QSize(34, 17));
    }

    void savedRowShowsCheckMark()
    {
        openAndShow(2);
        QTRY_COMPARE(m_drawer->thumbnails().copiesMade(), 2);
        // Pixels of the saved colour at the row's right end.
        auto greenPixels = [&](const QString& fileName) {
            const QImage shot = list()->viewport()->grab(list()->visualRect(row(fileName)[0])).toImage();
            const QColor green = Theme::green(list()->palette());
            int count = 0;
            for (int y = 0; y < shot.height(); ++y)
                for (int x = shot.width() - 40; x < shot.width(); ++x) {
                    const QColor c = shot.pixelColor(x, y);
                    count += qAbs(c.red() - green.red()) < 30 && qAbs(c.green() - green.green()) < 30
                             && qAbs(c.blue() - green.blue()) < 30;
                }
            return count;
        };
        QCOMPARE(greenPixels("image-00.png"), 0);
        test::saveOver(*m_model);
        QVERIFY(m_model->items().front().saved);
        QTRY_VERIFY(greenPixels("image-00.png") > 20);
        QCOMPARE(greenPixels("image-01.png"), 0);
    }

    void toleranceLeavesTheListAlone()
    {
        openAndShow(3);
        QTest::qWait(50);
        QSignalSpy changed(list()->model(), &QAbstractItemModel::dataChanged);
        QSignalSpy reset(list()->model(), &QAbstractItemModel::modelReset);
        // Dragging the slider changes nothing the drawer shows.
        for (int i = 0; i < 10; ++i) {
            m_model->setThreshold(10.0 * i);
            QCoreApplication::processEvents();
        }
        QCOMPARE(changed.count() + reset.count(), 0);
    }
};

ORVANE_UI_TEST_MAIN(QueueDrawerTest)
#include "queuedrawertest.moc"
