// Opening and saving off the main thread: files join in the order of the
// expanded list whatever order they finish in, the first join follows the
// rules of one whole open, cancelling keeps what joined, saves run while an
// open does, and a file that changed or vanished on disk is never written
// from a stale image.
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include "model/cropmodel.h"
#include "modeltest.h"
#include "support/heldimagesource.h"

using namespace orvane;
using namespace orvane::test;
using Step = HeldImageSource::Step;

class CropModelAsyncTest : public QObject {
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_dir;
    std::shared_ptr<HeldImageSource> m_source;

    QString path(const QString& name) const { return m_dir->filePath(name); }
    QStringList letters(const QString& names)
    {
        QStringList files;
        for (int i = 0; i < names.size(); ++i) {
            files.append(path(names[i] + QStringLiteral(".png")));
            writeLetterImage(files.last(), i);
        }
        return files;
    }
    static QStringList named(const QString& names)
    {
        QStringList result;
        for (QChar letter : names)
            result.append(letter + QStringLiteral(".png"));
        return result;
    }
    // Lets one file through and waits until the model has taken it in.
    void release(CropModel& model, const QString& fileName)
    {
        const int before = model.opening() ? model.opening()->done : 0;
        m_source->release(Step::Index, fileName);
        QTRY_VERIFY(!model.opening() || model.opening()->done > before);
    }

private Q_SLOTS:
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        QVERIFY(m_dir->isValid());
        m_source = std::make_shared<HeldImageSource>();
    }
    void cleanup()
    {
        m_source->releaseAll();
    }

    void itemsJoinInListOrder_data()
    {
        QTest::addColumn<QString>("finishing");
        // The first file is read alone; the others in any order.
        QTest::newRow("in order") << "ABCDE";
        QTest::newRow("reversed") << "AEDCB";
        QTest::newRow("middle first") << "ACEBD";
        QTest::newRow("last before the rest") << "AEBCD";
    }
    void itemsJoinInListOrder()
    {
        QFETCH(QString, finishing);
        const QString order = QStringLiteral("ABCDE");
        const QStringList files = letters(order);
        m_source->hold(Step::Index);
        CropModel model(nullptr, nullptr, m_source);
        model.open(urls(files));
        QVERIFY(model.items().empty()); // open() returned before any file was read
        QTRY_COMPARE(model.opening(), (CropModel::Opening{0, 5}));

        QString finished;
        for (QChar letter : finishing) {
            release(model, letter + QStringLiteral(".png"));
            finished += letter;
            // Joined: the longest start of the list whose files are all done.
            int joined = 0;
            while (joined < order.size() && finished.contains(order[joined]))
                ++joined;
            QCOMPARE(itemNames(model), named(order.left(joined)));
            if (joined > 0)
                QCOMPARE(activeName(model), "A.png");
        }
        QVERIFY(!model.opening());
        QVERIFY(!model.errorMessage());
    }

    void firstJoinDecidesTheActiveItem_data()
    {
        QTest::addColumn<QString>("queue");
        QTest::addColumn<QString>("saved");
        QTest::addColumn<QString>("active");
        QTest::addColumn<QString>("queueAfter");
        QTest::addColumn<QString>("activeAfter");
        QTest::addColumn<QStringList>("notes");
        const QStringList withActive{"Items", "ActiveID", "SaveConfirmation", "ErrorMessage", "ActiveContentRect"};
        const QStringList keepActive{"Items", "SaveConfirmation", "ErrorMessage", "ActiveContentRect"};
        QTest::newRow("empty queue") << "" << "" << "" << "D" << "D" << withActive;
        QTest::newRow("one saved item") << "A" << "A" << "A" << "D" << "D" << withActive;
        QTest::newRow("one saved item, none active") << "A" << "A" << "?" << "D" << "D" << withActive;
        QTest::newRow("one unsaved item") << "A" << "" << "A" << "AD" << "A" << keepActive;
        QTest::newRow("none active") << "AB" << "" << "?" << "ABD" << "D" << withActive;
        QTest::newRow("last active and saved") << "ABC" << "C" << "C" << "ABCD" << "D" << withActive;
        QTest::newRow("last active, not saved") << "ABC" << "" << "C" << "ABCD" << "C" << keepActive;
        QTest::newRow("middle active") << "ABC" << "" << "B" << "ABCD" << "B" << keepActive;
        QTest::newRow("middle active and saved") << "ABC" << "B" << "B" << "ABCD" << "B" << keepActive;
        QTest::newRow("first active, last saved") << "ABC" << "C" << "A" << "ABCD" << "A" << keepActive;
        QTest::newRow("all saved, last active") << "AB" << "AB" << "B" << "ABD" << "D" << withActive;
    }
    void firstJoinDecidesTheActiveItem()
    {
        QFETCH(QString, queue);
        QFETCH(QString, saved);
        QFETCH(QString, active);
        QFETCH(QString, queueAfter);
        QFETCH(QString, activeAfter);
        QFETCH(QStringList, notes);
        CropModel model(nullptr, nullptr, m_source);
        buildQueue(model, m_dir->path(), queue, saved, active);
        writeLetterImage(path("D.png"), 3);
        writeLetterImage(path("E.png"), 4);
        m_source->hold(Step::Index);
        Notes recorded(model);

        model.open(urls({path("D.png"), path("E.png")}));
        release(model, "D.png");
        QCOMPARE(itemNames(model), named(queueAfter));
        QCOMPARE(activeName(model), activeAfter + ".png");
        QCOMPARE(recorded.names(), notes);

        // The next file only adds itself; the active item stays.
        recorded.clear();
        release(model, "E.png");
        QCOMPARE(itemNames(model), named(queueAfter + "E"));
        QCOMPARE(activeName(model), activeAfter + ".png");
        QCOMPARE(recorded.names(), QStringList{"Items"});
        QCOMPARE(toQRect(model.activeContentRect()),
                 toQRect(model.active()->summary->contentRect(model.threshold())));
    }

    void cancellingKeepsWhatJoined()
    {
        const QStringList files{path("a.png"), path("gone.png"), path("c.png"), path("d.png")};
        writeLetterImage(files[0], 0);
        writeLetterImage(files[2], 2);
        writeLetterImage(files[3], 3);
        m_source->hold(Step::Index);
        CropModel model(nullptr, nullptr, m_source);
        model.open(urls(files));
        release(model, "a.png");
        QTRY_COMPARE(model.opening()->done, 2); // gone.png fails without being read
        release(model, "d.png"); // read, but waits behind c.png
        QCOMPARE(itemNames(model), QStringList{"a.png"});

        model.cancelOpen();
        QVERIFY(!model.opening());
        QCOMPARE(itemNames(model), QStringList{"a.png"});
        QCOMPARE(activeName(model), "a.png");
        QCOMPARE(model.errorMessage(), QStringLiteral("1 file couldn’t be opened."));
        QCOMPARE(model.openFailures().size(), 1);
        QCOMPARE(model.openFailures().front().name, QStringLiteral("gone.png"));

        // The file still being read when the open was cancelled never joins.
        m_source->releaseAll();
        QTRY_COMPARE(m_source->waiting(Step::Index), 0);
        QCoreApplication::processEvents();
        QCOMPARE(itemNames(model), QStringList{"a.png"});
    }

    void aSecondOpenJoinsAfterTheFirst()
    {
        const QStringList files = letters("ABC");
        m_source->hold(Step::Index);
        CropModel model(nullptr, nullptr, m_source);
        model.open(urls({files[0], files[1]}));
        model.open(urls({files[2]}));
        QTRY_COMPARE(model.opening(), (CropModel::Opening{0, 3}));
        release(model, "C.png");
        QVERIFY(model.items().empty());
        release(model, "A.png");
        QCOMPARE(itemNames(model), named("A"));
        release(model, "B.png");
        QCOMPARE(itemNames(model), named("ABC"));
        QCOMPARE(activeName(model), "A.png");
        QVERIFY(!model.opening());
    }

    void failedFilesAreNamedWithTheirReason()
    {
        QStringList files{path("good.png")};
        writeLetterImage(files[0], 0);
        for (int i = 0; i < 23; ++i)
            files.append(path(QStringLiteral("missing%1.png").arg(i)));
        writeBytes(path("notes.txt"), "plain text");
        files.append(path("notes.txt"));
        CropModel model(nullptr, nullptr, m_source);
        openAll(model, urls(files));
        QCOMPARE(model.errorMessage(), QStringLiteral("24 files couldn’t be opened."));
        const QList<CropModel::FailedFile> failures = model.openFailures();
        QCOMPARE(failures.size(), 24);
        QCOMPARE(failures[0].name, QStringLiteral("missing0.png"));
        QCOMPARE(failures[23].name, QStringLiteral("notes.txt"));
        for (const CropModel::FailedFile& failure : failures)
            QVERIFY(!failure.reason.isEmpty());
        // Any other message takes the list with it.
        model.select(QUuid::createUuid());
        QVERIFY(model.openFailures().isEmpty());
    }

    void aSaveWhileAnOpenRuns()
    {
        const QStringList files = letters("ABC");
        CropModel model(nullptr, nullptr, m_source);
        openAll(model, urls({files[0]}));
        m_source->hold(Step::Index);
        model.open(urls({files[1], files[2]}));
        QVERIFY(model.opening());

        model.saveOverOriginal();
        QVERIFY(model.isSaving(model.items().front().id));
        QTRY_VERIFY(!model.isSaving(model.items().front().id));
        QVERIFY(model.opening());
        QCOMPARE(model.saveConfirmation(), QStringLiteral("A.png"));
        QVERIFY(model.allSaved());
        QCOMPARE(readBack(files[0]).width(), blockFor(0).width());

        // The lone saved item hands the queue over, as one whole open would.
        m_source->releaseAll();
        QVERIFY(settle(model));
        QCOMPARE(itemNames(model), named("BC"));
        QCOMPARE(activeName(model), "B.png");
        QVERIFY(!model.saveConfirmation());
    }

    void aChangedFileIsReadAgainNotSaved_data()
    {
        QTest::addColumn<QString>("when");
        QTest::newRow("before its full decode") << "decode";
        QTest::newRow("before saving over it") << "over";
        QTest::newRow("before saving a new file") << "new";
    }
    void aChangedFileIsReadAgainNotSaved()
    {
        QFETCH(QString, when);
        const QString file = path("photo.png");
        writeImage(file, whiteImageWithBlock(60, 40, QRect(10, 5, 20, 15)));
        FakePanels panels;
        panels.saveAnswer = QUrl::fromLocalFile(path("copy.png"));
        if (when == "decode")
            m_source->hold(Step::Decode);
        CropModel model(&panels, nullptr, m_source);
        openAll(model, urls({file}));
        if (when != "decode")
            QTRY_VERIFY(model.hasFullImage(model.items().front().id));

        writeImage(file, whiteImageWithBlock(90, 70, QRect(30, 20, 10, 10)));
        if (when == "decode")
            m_source->releaseAll();
        else if (when == "over")
            saveOver(model);
        else
            saveAsNew(model);

        QTRY_COMPARE(model.errorMessage(), QStringLiteral("“photo.png” changed on disk and was reloaded."));
        const CropModel::Item& item = model.items().front();
        QVERIFY(!item.saved);
        QCOMPARE(item.width(), 90);
        QCOMPARE(toQRect(model.activeContentRect()), QRect(30, 20, 10, 10));
        QCOMPARE(readBack(file).width(), 90);
        QVERIFY(!QFile::exists(path("copy.png")));
    }

    void aVanishedFileStaysQueued()
    {
        const QString file = path("photo.png");
        writeLetterImage(file, 0);
        m_source->hold(Step::Decode);
        CropModel model(nullptr, nullptr, m_source);
        openAll(model, urls({file}));
        QVERIFY(QFile::remove(file));
        m_source->releaseAll();

        QTRY_COMPARE(model.errorMessage(), QStringLiteral("“photo.png” is no longer there."));
        QCOMPARE(itemNames(model), QStringList{"photo.png"});
        QCOMPARE(activeName(model), "photo.png");
        saveOver(model);
        QCOMPARE(model.errorMessage(), QStringLiteral("“photo.png” is no longer there."));
        QVERIFY(!model.items().front().saved);
        QVERIFY(!QFile::exists(file));
    }

    void fullImagesFollowTheItemsInView_data()
    {
        QTest::addColumn<quint64>("budget");
        QTest::addColumn<bool>("lastShownKept");
        QTest::newRow("room for three") << (quint64(1) << 30) << true;
        QTest::newRow("room for one") << quint64(1) << false;
    }
    void fullImagesFollowTheItemsInView()
    {
        QFETCH(quint64, budget);
        QFETCH(bool, lastShownKept);
        const QStringList files = letters("ABCD");
        CropModel model(nullptr, nullptr, m_source);
        model.setCacheBudget(budget);
        openAll(model, urls(files));
        const QUuid a = idOf(model, "A.png");
        const QUuid b = idOf(model, "B.png");
        QTRY_VERIFY(model.hasFullImage(a));
        // The next unsaved image is read ahead while there is room for it.
        if (lastShownKept)
            QTRY_VERIFY(model.hasFullImage(b));

        model.select(idOf(model, "C.png"));
        QTRY_VERIFY(model.hasFullImage(idOf(model, "C.png")));
        QCOMPARE(model.hasFullImage(a), lastShownKept);
        QVERIFY(!model.hasFullImage(b)); // neither shown last nor next
        QVERIFY(!model.activePreview().isNull());
    }
};

ORVANE_MODEL_TEST_MAIN(CropModelAsyncTest)
#include "cropmodelasynctest.moc"
