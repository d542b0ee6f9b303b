// Opening and saving off the main thread: files join in the order of the
// expanded list whatever order they finish in, the first join follows the
// rules of one whole open, cancelling keeps what joined, saves run while an
// open does, and a file that changed or vanished on disk is never written
// from a stale image.
#include "modeltest.h"
#include "support/heldimagesource.h"

using Step = HeldImageSource::Step;

class CropModelAsyncTest : public QObject, TempFolder {
    Q_OBJECT

    std::shared_ptr<HeldImageSource> m_source;

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
        fresh();
        m_source = std::make_shared<HeldImageSource>();
    }
    void cleanup() { m_source->releaseAll(); }

    void itemsJoinInListOrder_data()
    {
        // A.png, B.png, ... are opened in one go or two; the first file is
        // read alone, the others in any order.
        QTest::addColumn<QStringList>("opens");
        QTest::addColumn<QString>("finishing");
        QTest::newRow("in order") << QStringList{"ABCDE"} << "ABCDE";
        QTest::newRow("reversed") << QStringList{"ABCDE"} << "AEDCB";
        QTest::newRow("middle first") << QStringList{"ABCDE"} << "ACEBD";
        QTest::newRow("last before the rest") << QStringList{"ABCDE"} << "AEBCD";
        QTest::newRow("a second open joins after the first") << QStringList{"AB", "C"} << "CAB";
    }
    void itemsJoinInListOrder()
    {
        QFETCH(QStringList, opens);
        QFETCH(QString, finishing);
        const QString order = opens.join("");
        m_source->hold(Step::Index);
        CropModel model(nullptr, nullptr, m_source);
        const QList<QUrl> files = letterImages(pngNames(order));
        for (qsizetype from = 0; const QString& open : opens) {
            model.open(files.mid(from, open.size()));
            from += open.size();
        }
        QVERIFY(model.items().empty()); // open() returned before any file was read
        QTRY_COMPARE(model.opening(), (CropModel::Opening{0, int(order.size())}));
        QString finished;
        for (QChar letter : finishing) {
            release(model, letter + QStringLiteral(".png"));
            finished += letter;
            // Joined: the longest start of the list whose files are all done.
            int joined = 0;
            while (joined < order.size() && finished.contains(order[joined]))
                ++joined;
            QCOMPARE(letters(model), order.left(joined));
            QCOMPARE(activeName(model), joined ? "A.png" : "");
        }
        QVERIFY(!model.opening() && !model.errorMessage());
    }

    void firstJoinDecidesTheActiveItem_data()
    {
        // D.png and E.png are opened; the queue after is the one D joins.
        QTest::addColumn<QueueCase>("c");
        const QStringList withActive{"Items", "ActiveID", "SaveConfirmation", "ErrorMessage", "ActiveContentRect"};
        const QStringList keepActive{"Items", "SaveConfirmation", "ErrorMessage", "ActiveContentRect"};
        QTest::newRow("empty queue") << QueueCase{"", "", "", "", "D", "D", withActive};
        QTest::newRow("one saved item") << QueueCase{"A", "A", "A", "", "D", "D", withActive};
        QTest::newRow("one saved item, none active") << QueueCase{"A", "A", "?", "", "D", "D", withActive};
        QTest::newRow("one unsaved item") << QueueCase{"A", "", "A", "", "AD", "A", keepActive};
        QTest::newRow("none active") << QueueCase{"AB", "", "?", "", "ABD", "D", withActive};
        QTest::newRow("last active and saved") << QueueCase{"ABC", "C", "C", "", "ABCD", "D", withActive};
        QTest::newRow("last active, not saved") << QueueCase{"ABC", "", "C", "", "ABCD", "C", keepActive};
        QTest::newRow("middle active") << QueueCase{"ABC", "", "B", "", "ABCD", "B", keepActive};
        QTest::newRow("middle active and saved") << QueueCase{"ABC", "B", "B", "", "ABCD", "B", keepActive};
        QTest::newRow("first active, last saved") << QueueCase{"ABC", "C", "A", "", "ABCD", "A", keepActive};
        QTest::newRow("all saved, last active") << QueueCase{"AB", "AB", "B", "", "ABD", "D", withActive};
    }
    void firstJoinDecidesTheActiveItem()
    {
        QFETCH(QueueCase, c);
        CropModel model(nullptr, nullptr, m_source);
        buildQueue(model, m_dir->path(), c.queue, c.saved, c.active);
        m_source->hold(Step::Index);
        Notes recorded(model);
        model.open(letterImages({"D.png", "E.png"}));
        release(model, "D.png");
        QCOMPARE(letters(model), c.queueAfter);
        QCOMPARE(activeName(model), c.activeAfter + ".png");
        QCOMPARE(recorded.seen, c.notes);

        // The next file only adds itself; the active item stays.
        recorded.seen.clear();
        release(model, "E.png");
        QCOMPARE(letters(model), c.queueAfter + "E");
        QCOMPARE(activeName(model), c.activeAfter + ".png");
        QCOMPARE(recorded.seen, QStringList{"Items"});
        QCOMPARE(toQRect(model.activeContentRect()), toQRect(model.active()->summary->contentRect(model.threshold())));
    }

    void cancellingKeepsWhatJoined()
    {
        const QList<QUrl> files = letterImages({"a.png", "gone.png", "c.png", "d.png"});
        QVERIFY(QFile::remove(path("gone.png")));
        m_source->hold(Step::Index);
        CropModel model(nullptr, nullptr, m_source);
        model.open(files);
        release(model, "a.png");
        QTRY_COMPARE(model.opening()->done, 2); // gone.png fails without being read
        release(model, "d.png"); // read, but waits behind c.png
        QCOMPARE(itemNames(model), QStringList{"a.png"});

        model.cancelOpen();
        QVERIFY(!model.opening());
        QCOMPARE(itemNames(model), QStringList{"a.png"});
        QCOMPARE(model.errorMessage(), QStringLiteral("1 file couldn’t be opened."));
        QVERIFY(model.openFailures().size() == 1 && model.openFailures().front().name == "gone.png");

        // The file still being read when the open was cancelled never joins.
        m_source->releaseAll();
        QTRY_COMPARE(m_source->waiting(Step::Index), 0);
        QCoreApplication::processEvents();
        QCOMPARE(itemNames(model), QStringList{"a.png"});
    }

    void aSaveWhileAnOpenRuns()
    {
        const QList<QUrl> files = letterImages(pngNames("ABC"));
        CropModel model(nullptr, nullptr, m_source);
        openAll(model, {files[0]});
        m_source->hold(Step::Index);
        model.open({files[1], files[2]});
        QVERIFY(model.opening());

        model.saveOverOriginal();
        QVERIFY(model.isSaving(model.items().front().id));
        QTRY_VERIFY(!model.isSaving(model.items().front().id));
        QVERIFY(model.opening());
        QCOMPARE(model.saveConfirmation(), QStringLiteral("A.png"));
        QVERIFY(model.allSaved());
        QCOMPARE(readBack(path("A.png")).width(), blockFor(0).width());

        // The lone saved item hands the queue over, as one whole open would.
        m_source->releaseAll();
        QVERIFY(settle(model));
        QCOMPARE(letters(model), "BC");
        QCOMPARE(activeName(model), "B.png");
        QVERIFY(!model.saveConfirmation());
    }

    void aChangedFileIsReadAgainNotSaved_data()
    {
        QTest::addColumn<QString>("when");
        QTest::addColumn<bool>("vanishes");
        QTest::addColumn<QString>("message");
        const QString changed = QStringLiteral("“photo.png” changed on disk and was reloaded.");
        QTest::newRow("changed before its full decode") << "decode" << false << changed;
        QTest::newRow("changed before saving over it") << "over" << false << changed;
        QTest::newRow("changed before saving a new file") << "new" << false << changed;
        QTest::newRow("vanished before its full decode") << "decode" << true << "“photo.png” is no longer there.";
    }
    void aChangedFileIsReadAgainNotSaved()
    {
        QFETCH(QString, when);
        QFETCH(bool, vanishes);
        QFETCH(QString, message);
        const QString file = path("photo.png");
        writeImage(file, whiteImageWithBlock(60, 40, QRect(10, 5, 20, 15)));
        FakePanels panels;
        panels.saveAnswer = QUrl::fromLocalFile(path("copy.png"));
        if (when == "decode")
            m_source->hold(Step::Decode);
        CropModel model(&panels, nullptr, m_source);
        openAll(model, files({"photo.png"}));
        if (when != "decode")
            QTRY_VERIFY(model.hasFullImage(model.items().front().id));

        if (vanishes)
            QVERIFY(QFile::remove(file));
        else
            writeImage(file, whiteImageWithBlock(90, 70, QRect(30, 20, 10, 10)));
        if (when == "decode")
            m_source->releaseAll();
        else if (when == "over")
            saveOver(model);
        else
            saveAsNew(model);
        QTRY_COMPARE(model.errorMessage(), message);
        if (vanishes) // the item stays queued, and a save writes nothing
            saveOver(model);
        QCOMPARE(model.errorMessage(), message);
        QCOMPARE(activeName(model), "photo.png");
        QVERIFY(!model.items().front().saved);
        QCOMPARE(model.items().front().width(), vanishes ? 60 : 90);
        QCOMPARE(toQRect(model.activeContentRect()), vanishes ? QRect(10, 5, 20, 15) : QRect(30, 20, 10, 10));
        QCOMPARE(QFile::exists(file), !vanishes);
        QVERIFY(vanishes || readBack(file).width() == 90);
        QVERIFY(!QFile::exists(path("copy.png")));
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
        CropModel model(nullptr, nullptr, m_source);
        model.setCacheBudget(budget);
        openAll(model, letterImages(pngNames("ABCD")));
        const QUuid a = model.items()[0].id, b = model.items()[1].id, c = model.items()[2].id;
        QTRY_VERIFY(model.hasFullImage(a));
        // The next unsaved image is read ahead while there is room for it.
        if (lastShownKept)
            QTRY_VERIFY(model.hasFullImage(b));

        model.select(c);
        QTRY_VERIFY(model.hasFullImage(c));
        QCOMPARE(model.hasFullImage(a), lastShownKept);
        QVERIFY(!model.hasFullImage(b)); // neither shown last nor next
        QVERIFY(!model.activePreview().isNull());
    }
};

ORVANE_MODEL_TEST_MAIN(CropModelAsyncTest)
#include "cropmodelasynctest.moc"
