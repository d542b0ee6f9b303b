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
#include "viewtestsupport.h"

using namespace orvane;
using namespace orvane::test;

namespace {

// Answers the open panel as the test says.
class AnsweringPanels : public Panels {
public:
    QList<QUrl> chooseImagesToOpen(const QList<ImageType>&) override
    {
        ++openCalls;
        return answer;
    }
    std::optional<QUrl> chooseSaveDestination(const QString&, const ImageType&) override { return std::nullopt; }

    QList<QUrl> answer;
    int openCalls = 0;
};

} // namespace

class QueueDrawerTest : public QObject {
    Q_OBJECT

    QTemporaryDir* m_dir = nullptr;
    AnsweringPanels* m_panels = nullptr;
    CropModel* m_model = nullptr;
    QWidget* m_window = nullptr;
    QueueDrawer* m_drawer = nullptr;
    QLineEdit* m_otherFocus = nullptr;

    QList<QUrl> writeImages(int count, const QString& prefix = QStringLiteral("image"))
    {
        QList<QUrl> urls;
        const QDir dir(m_dir->path());
        for (int i = 0; i < count; ++i)
            urls << writeBlockImage(dir, QStringLiteral("%1-%2.png").arg(prefix).arg(i, 2, 10, QLatin1Char('0')),
                                    60 + i, 40, QRect(5, 5, 20 + i, 20));
        return urls;
    }

    void showDrawer()
    {
        m_window->show();
        QVERIFY(QTest::qWaitForWindowExposed(m_window));
        m_window->activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(m_window));
    }

    QModelIndex rowOf(const QString& fileName) const
    {
        const auto* rows = static_cast<const QueueListModel*>(m_drawer->listView()->model());
        return rows->indexOf(idOf(*m_model, fileName));
    }

private Q_SLOTS:
    void init()
    {
        m_dir = new QTemporaryDir;
        QVERIFY(m_dir->isValid());
        m_panels = new AnsweringPanels;
        m_model = new CropModel(m_panels);
        // A window with the drawer and something else that can take the focus.
        m_window = new QWidget;
        auto* layout = new QVBoxLayout(m_window);
        m_drawer = new QueueDrawer(m_model, m_window);
        // What the window does with the drawer's request.
        connect(m_drawer, &QueueDrawer::openRequested, m_model, [this] { m_model->openPanel(); });
        m_otherFocus = new QLineEdit(m_window);
        layout->addWidget(m_drawer);
        layout->addWidget(m_otherFocus);
        m_window->resize(260, 420);
    }

    void cleanup()
    {
        delete m_window;
        delete m_model;
        delete m_panels;
        delete m_dir;
    }

    void countText()
    {
        QCOMPARE(m_drawer->findChild<QLabel*>("queueTitle")->text(), QStringLiteral("Queue"));
        QCOMPARE(m_drawer->countText(), QStringLiteral("0/0"));
        QCOMPARE(m_drawer->width(), 208);

        test::openAll(*m_model, writeImages(5));
        QTRY_COMPARE(m_drawer->countText(), QStringLiteral("0/5"));

        // Each save over the original marks its item and moves on to the next unsaved one.
        test::saveOver(*m_model);
        test::saveOver(*m_model);
        QVERIFY(!m_model->errorMessage());
        QTRY_COMPARE(m_drawer->countText(), QStringLiteral("2/5"));
        for (int i = 0; i < 3; ++i)
            test::saveOver(*m_model);
        QTRY_COMPARE(m_drawer->countText(), QStringLiteral("5/5"));

        // Removing a saved item counts it out of both numbers.
        m_model->remove(m_model->items().front().id);
        QTRY_COMPARE(m_drawer->countText(), QStringLiteral("4/4"));
    }

    void selectionFollowsTheModelBothWays()
    {
        test::openAll(*m_model, writeImages(3));
        showDrawer();
        QListView* list = m_drawer->listView();
        QTRY_COMPARE(list->model()->rowCount(), 3);
        // The first new item is active and its row selected.
        QTRY_COMPARE(list->selectionModel()->selectedIndexes(), QModelIndexList{rowOf("image-00.png")});

        // A click on a row makes that item active.
        const QModelIndex third = rowOf("image-02.png");
        QTest::mouseClick(list->viewport(), Qt::LeftButton, {}, list->visualRect(third).center());
        QCOMPARE(m_model->activeID(), idOf(*m_model, "image-02.png"));
        QTRY_COMPARE(list->selectionModel()->selectedIndexes(), QModelIndexList{third});

        // The model's own change of the active item moves the selection.
        m_model->select(idOf(*m_model, "image-01.png"));
        QTRY_COMPARE(list->selectionModel()->selectedIndexes(), QModelIndexList{rowOf("image-01.png")});

        // Emptying the selection (Ctrl-click on the selected row) calls nothing;
        // the active item stays and its row is marked again.
        QTest::mouseClick(list->viewport(), Qt::LeftButton, Qt::ControlModifier,
                          list->visualRect(rowOf("image-01.png")).center());
        QCOMPARE(m_model->activeID(), idOf(*m_model, "image-01.png"));
        QTRY_COMPARE(list->selectionModel()->selectedIndexes(), QModelIndexList{rowOf("image-01.png")});

        // Keyboard navigation in the list selects too.
        list->setFocus();
        QTest::keyClick(list, Qt::Key_Down);
        QCOMPARE(m_model->activeID(), idOf(*m_model, "image-02.png"));
    }

    void removeByButtonAndKeys()
    {
        test::openAll(*m_model, writeImages(5));
        showDrawer();
        QTRY_VERIFY(m_drawer->removeButton()->isEnabled());
        QCOMPARE(m_drawer->removeButton()->toolTip(), QStringLiteral("Remove the selected image (Delete)"));
        QVERIFY(m_drawer->removeButton()->text().isEmpty() || m_drawer->removeButton()->toolButtonStyle() == Qt::ToolButtonIconOnly);

        // The button removes the active item; its neighbour becomes active.
        m_model->select(idOf(*m_model, "image-02.png"));
        QTRY_COMPARE(m_drawer->listView()->selectionModel()->selectedIndexes(), QModelIndexList{rowOf("image-02.png")});
        QTest::mouseClick(m_drawer->removeButton(), Qt::LeftButton);
        QCOMPARE(m_model->items().size(), std::size_t(4));
        QVERIFY(idOf(*m_model, "image-02.png").isNull());
        QVERIFY(m_model->activeID().has_value());
        const QUuid next = *m_model->activeID();
        QTRY_COMPARE(m_drawer->listView()->selectionModel()->selectedIndexes(),
                     QModelIndexList{static_cast<QueueListModel*>(m_drawer->listView()->model())->indexOf(next)});

        // Backspace removes it, even while another widget of the window has the focus.
        m_otherFocus->setFocus();
        QTRY_VERIFY(m_otherFocus->hasFocus());
        QTRY_VERIFY(m_drawer->removeButton()->isEnabled());
        QTest::keyClick(m_window, Qt::Key_Backspace);
        QCOMPARE(m_model->items().size(), std::size_t(3));
        QVERIFY(!m_model->activeID() || *m_model->activeID() != next);

        // So does Delete, with the list focused.
        m_drawer->listView()->setFocus();
        QTRY_VERIFY(m_drawer->removeButton()->isEnabled());
        QTest::keyClick(m_drawer->listView(), Qt::Key_Delete);
        QCOMPARE(m_model->items().size(), std::size_t(2));
        QTRY_COMPARE(m_drawer->listView()->model()->rowCount(), 2);
    }

    void removeNeedsAnActiveItemAndTheDrawerShown()
    {
        test::openAll(*m_model, writeImages(2));
        showDrawer();
        // An unknown id leaves no item active.
        m_model->select(QUuid::createUuid());
        QVERIFY(!m_model->active());
        QTRY_VERIFY(!m_drawer->removeButton()->isEnabled());
        QVERIFY(m_drawer->listView()->selectionModel()->selectedIndexes().isEmpty());

        m_drawer->removeActive();
        QTest::keyClick(m_window, Qt::Key_Backspace);
        QTest::keyClick(m_window, Qt::Key_Delete);
        QCOMPARE(m_model->items().size(), std::size_t(2));

        m_model->select(idOf(*m_model, "image-00.png"));
        QTRY_VERIFY(m_drawer->removeButton()->isEnabled());
        // The window took the drawer away: its keys are gone with it.
        m_drawer->hide();
        m_otherFocus->setFocus();
        QTest::keyClick(m_window, Qt::Key_Backspace);
        QTest::keyClick(m_window, Qt::Key_Delete);
        QCOMPARE(m_model->items().size(), std::size_t(2));
    }

    void scrollsToTheActiveRow()
    {
        test::openAll(*m_model, writeImages(30));
        showDrawer();
        QListView* list = m_drawer->listView();
        QTRY_COMPARE(list->model()->rowCount(), 30);
        QVERIFY(list->verticalScrollBar()->maximum() > 0);

        auto inView = [list](const QModelIndex& index) {
            const QRect row = list->visualRect(index);
            return row.top() >= 0 && row.bottom() < list->viewport()->height();
        };

        // The last row comes into view, just far enough: it ends at the bottom edge.
        m_model->select(idOf(*m_model, "image-29.png"));
        QTRY_VERIFY(inView(rowOf("image-29.png")));
        QTRY_COMPARE(list->visualRect(rowOf("image-29.png")).bottom(), list->viewport()->height() - 1);

        // A row already visible does not scroll the list.
        const int value = list->verticalScrollBar()->value();
        m_model->select(idOf(*m_model, "image-28.png"));
        QTest::qWait(350);
        QCOMPARE(list->verticalScrollBar()->value(), value);

        // Back to the first row: it ends up at the top edge.
        m_model->select(idOf(*m_model, "image-00.png"));
        QTRY_COMPARE(list->verticalScrollBar()->value(), 0);
    }

    void addOpensThePanel()
    {
        test::openAll(*m_model, writeImages(2));
        showDrawer();
        QCOMPARE(m_drawer->addButton()->text(), QStringLiteral("Add"));

        // Cancelled: nothing changes.
        QTest::mouseClick(m_drawer->addButton(), Qt::LeftButton);
        QCOMPARE(m_panels->openCalls, 1);
        QCOMPARE(m_model->items().size(), std::size_t(2));

        m_panels->answer = writeImages(2, QStringLiteral("more"));
        QTest::mouseClick(m_drawer->addButton(), Qt::LeftButton);
        QCOMPARE(m_panels->openCalls, 2);
        QTRY_COMPARE(m_model->items().size(), std::size_t(4));
        QTRY_COMPARE(m_drawer->countText(), QStringLiteral("0/4"));
        QTRY_COMPARE(m_drawer->listView()->model()->rowCount(), 4);
    }

    void thumbnailsMadeOncePerItem()
    {
        test::openAll(*m_model, writeImages(3));
        showDrawer();
        const ScaledImageCache& thumbnails = m_drawer->thumbnails();
        QTRY_COMPARE(thumbnails.copiesMade(), 3);

        // Repaints, selection changes and saves of other items make no new ones.
        for (int i = 0; i < 3; ++i)
            m_drawer->listView()->viewport()->repaint();
        m_model->select(idOf(*m_model, "image-02.png"));
        QTest::qWait(100);
        m_drawer->listView()->viewport()->repaint();
        QCOMPARE(thumbnails.copiesMade(), 3);

        // One more item: one more thumbnail.
        test::openAll(*m_model, writeImages(1, QStringLiteral("late")));
        QTRY_COMPARE(thumbnails.copiesMade(), 4);
        QTest::qWait(100);
        QCOMPARE(thumbnails.copiesMade(), 4);
    }

    void thumbnailLetterbox_data()
    {
        QTest::addColumn<qint64>("width");
        QTest::addColumn<qint64>("height");
        QTest::addColumn<double>("dpr");
        QTest::addColumn<QSize>("expected");
        QTest::newRow("square") << qint64(500) << qint64(500) << 1.0 << QSize(34, 34);
        QTest::newRow("panorama") << qint64(4000) << qint64(1000) << 1.0 << QSize(34, 9);
        QTest::newRow("tall strip") << qint64(100) << qint64(1000) << 1.0 << QSize(3, 34);
        QTest::newRow("panorama at 2x") << qint64(4000) << qint64(1000) << 2.0 << QSize(68, 17);
        QTest::newRow("hairline") << qint64(100000) << qint64(1) << 1.0 << QSize(34, 1);
        QTest::newRow("tiny image enlarged") << qint64(2) << qint64(1) << 1.0 << QSize(34, 17);
    }

    void thumbnailLetterbox()
    {
        QFETCH(qint64, width);
        QFETCH(qint64, height);
        QFETCH(double, dpr);
        QFETCH(QSize, expected);
        QCOMPARE(QueueRowDelegate::thumbnailPixels(width, height, dpr), expected);
    }

    void savedRowShowsCheckMark()
    {
        test::openAll(*m_model, writeImages(2));
        showDrawer();
        QListView* list = m_drawer->listView();
        QTRY_COMPARE(m_drawer->thumbnails().copiesMade(), 2);

        auto greenPixels = [&](const QString& fileName) {
            const QRect row = list->visualRect(rowOf(fileName));
            const QImage shot = list->viewport()->grab(row).toImage();
            int count = 0;
            const QColor green = Theme::green(list->palette());
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
        test::openAll(*m_model, writeImages(3));
        showDrawer();
        QAbstractItemModel* rows = m_drawer->listView()->model();
        QTRY_COMPARE(rows->rowCount(), 3);
        QTest::qWait(50);
        QSignalSpy changed(rows, &QAbstractItemModel::dataChanged);
        QSignalSpy reset(rows, &QAbstractItemModel::modelReset);
        // Dragging the slider changes nothing the drawer shows.
        for (int i = 0; i < 10; ++i) {
            m_model->setThreshold(10.0 * i);
            QCoreApplication::processEvents();
        }
        QCOMPARE(changed.count(), 0);
        QCOMPARE(reset.count(), 0);
    }
};

ORVANE_VIEW_TEST_MAIN(QueueDrawerTest)
#include "queuedrawertest.moc"
