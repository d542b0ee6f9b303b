// Selecting, removing and moving on to the next unsaved item: which item is
// active afterwards, which notifications are sent in which order, and what
// happens to the messages. Letters name the files (A.png, B.png, ...), each
// with its own content rectangle, so the published rectangle tells which item
// it belongs to.
#include "modeltest.h"

class CropModelSelectionTest : public QObject, TempFolder {
    Q_OBJECT

    // The rectangle must be the active item's own, recomputed for it; a save
    // over the original leaves only the block in the file.
    static void verifyRectBelongsToActive(const CropModel& model)
    {
        const CropModel::Item* item = model.active();
        const QRect block = item ? blockFor(int(QStringLiteral("ABCDE").indexOf(item->url.fileName().front()))) : QRect();
        QCOMPARE(toQRect(model.activeContentRect()), item && item->saved ? QRect(QPoint(0, 0), block.size()) : block);
    }
    static QUuid idFor(const CropModel& model, const QString& letter) // "?": an unknown id
    {
        return letter == "?" ? QUuid::createUuid() : idOf(model, letter + ".png");
    }

private Q_SLOTS:
    void init() { fresh(); }

    void select_data()
    {
        QTest::addColumn<QString>("target");
        QTest::newRow("the active item: everything kept") << "B";
        QTest::newRow("another item") << "C";
        QTest::newRow("a saved item") << "A";
        QTest::newRow("an unknown id: none active") << "?";
    }
    void select()
    {
        QFETCH(QString, target);
        CropModel model;
        buildQueue(model, m_dir->path(), "ABC", "A", "B"); // "A.png" confirmed
        openAll(model, files({"missing.png"})); // and an error message beside it
        Notes notes(model);
        const QUuid id = idFor(model, target);
        model.select(id);
        const bool same = target == "B";
        QCOMPARE(notes.seen, same ? QStringList() : (QStringList{"ActiveID", "SaveConfirmation", "ErrorMessage", "ActiveContentRect"}));
        QCOMPARE(model.activeID(), id);
        QCOMPARE(activeName(model), target == "?" ? QString() : target + ".png");
        QCOMPARE(model.saveConfirmation().value_or(""), same ? "A.png" : "");
        QCOMPARE(model.errorMessage().value_or(""), same ? "1 file couldn’t be opened." : "");
        QCOMPARE(letters(model), "ABC");
        verifyRectBelongsToActive(model);
    }

    void remove_data()
    {
        QTest::addColumn<QueueCase>("c");
        const QStringList moved{"Items", "SaveConfirmation", "ErrorMessage", "ActiveID", "ActiveContentRect"};
        const QStringList stayed{"Items", "SaveConfirmation", "ErrorMessage"};
        QTest::newRow("active in the middle") << QueueCase{"ABC", "", "B", "B", "AC", "C", moved};
        QTest::newRow("after the active one") << QueueCase{"ABC", "", "B", "C", "AB", "B", stayed};
        QTest::newRow("before the active one") << QueueCase{"ABC", "", "B", "A", "BC", "B", stayed};
        QTest::newRow("active and last") << QueueCase{"ABC", "", "C", "C", "AB", "B", moved};
        QTest::newRow("active and first") << QueueCase{"ABC", "", "A", "A", "BC", "B", moved};
        QTest::newRow("the only item") << QueueCase{"A", "", "A", "A", "", "", moved};
        QTest::newRow("neighbour saved") << QueueCase{"ABC", "C", "B", "B", "AC", "C", moved};
        QTest::newRow("none active") << QueueCase{"ABC", "", "?", "B", "AC", "", stayed};
        QTest::newRow("unknown id: nothing changes") << QueueCase{"AB", "A", "B", "?", "AB", "B", {}};
    }
    void remove()
    {
        QFETCH(QueueCase, c);
        CropModel model;
        buildQueue(model, m_dir->path(), c.queue, c.saved, c.active);
        openAll(model, files({"missing.png"})); // an error message beside any confirmation
        const std::optional<QString> confirmation = model.saveConfirmation();
        Notes notes(model);
        model.remove(idFor(model, c.target));
        QCOMPARE(letters(model), c.queueAfter);
        QCOMPARE(activeName(model).left(1), c.activeAfter);
        QCOMPARE(notes.seen, c.notes);
        // Any change clears both messages; none keeps them.
        QCOMPARE(bool(model.errorMessage()), c.notes.isEmpty());
        QCOMPARE(model.saveConfirmation(), c.notes.isEmpty() ? confirmation : std::nullopt);
        QVERIFY(!c.queueAfter.isEmpty() || !model.activeID());
        verifyRectBelongsToActive(model);
    }

    void savingMovesOnToTheNextUnsavedItem_data()
    {
        // The target is the active item, saved over its original: its image
        // is replaced, it is marked saved, then the next unsaved one is active.
        QTest::addColumn<QueueCase>("c");
        const QStringList moved{"Items", "Items", "SaveConfirmation", "ErrorMessage", "ActiveID", "ActiveContentRect"};
        const QStringList stayed{"Items", "Items", "SaveConfirmation", "ErrorMessage", "ActiveContentRect"};
        QTest::newRow("forward past saved items") << QueueCase{"ABCDE", "AB", "D", "D", "ABCDE", "E", moved};
        QTest::newRow("round past saved items") << QueueCase{"ABCDE", "ABD", "E", "E", "ABCDE", "C", moved};
        QTest::newRow("round to the start") << QueueCase{"ABC", "", "C", "C", "ABC", "A", moved};
        QTest::newRow("forward from the start") << QueueCase{"ABC", "C", "A", "A", "ABC", "B", moved};
        QTest::newRow("the last unsaved stays active") << QueueCase{"ABC", "AC", "B", "B", "ABC", "B", stayed};
        QTest::newRow("the first unsaved stays active") << QueueCase{"ABC", "BC", "A", "A", "ABC", "A", stayed};
    }
    void savingMovesOnToTheNextUnsavedItem()
    {
        QFETCH(QueueCase, c);
        CropModel model;
        buildQueue(model, m_dir->path(), c.queue, c.saved, c.active);
        Notes notes(model);
        saveOver(model);
        QCOMPARE(letters(model), c.queueAfter);
        QCOMPARE(activeName(model), c.activeAfter + ".png");
        QCOMPARE(model.saveConfirmation(), c.target + ".png"); // moving on keeps the confirmation
        QCOMPARE(model.allSaved(), c.activeAfter == c.target);
        QCOMPARE(notes.seen, c.notes);
        verifyRectBelongsToActive(model);
    }
};

ORVANE_MODEL_TEST_MAIN(CropModelSelectionTest)
#include "cropmodelselectiontest.moc"
