// Selecting, removing and moving on to the next unsaved item: which item is
// active afterwards, which notifications are sent in which order, and what
// happens to the messages.
#include <QCoreApplication>
#include <QTemporaryDir>
#include <QTest>

#include "model/cropmodel.h"
#include "modeltest.h"

using namespace orvane;
using namespace orvane::test;

class CropModelSelectionTest : public QObject {
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_dir;

    // Letters name the files (A.png, B.png, ...); each has its own content
    // rectangle, so the published rectangle tells which item it belongs to.
    void openLetters(CropModel& model, const QString& letters)
    {
        QStringList files;
        for (int i = 0; i < letters.size(); ++i) {
            files.append(m_dir->filePath(letters[i] + QStringLiteral(".png")));
            writeLetterImage(files.last(), i);
        }
        openAll(model, urls(files));
        QCOMPARE(int(model.items().size()), int(letters.size()));
    }
    static QUuid id(const CropModel& model, QChar letter) { return idOf(model, letter + QStringLiteral(".png")); }
    static QString letters(const CropModel& model)
    {
        QString result;
        for (const QString& name : itemNames(model))
            result += name.front();
        return result;
    }
    static QString activeLetter(const CropModel& model)
    {
        const CropModel::Item* item = model.active();
        return item ? QString(item->url.fileName().front()) : QString();
    }
    // The rectangle must be the active item's own, recomputed for it.
    static void verifyRectBelongsToActive(const CropModel& model)
    {
        const CropModel::Item* item = model.active();
        if (!item) {
            QVERIFY(!model.activeContentRect());
            return;
        }
        // A save over the original leaves only the block in the file.
        const QRect block = blockFor(int(QStringLiteral("ABCDE").indexOf(item->url.fileName().front())));
        QCOMPARE(toQRect(model.activeContentRect()), item->saved ? QRect(QPoint(0, 0), block.size()) : block);
    }
    // Saves each letter over its original, one after another.
    void markSaved(CropModel& model, const QString& saved)
    {
        for (QChar letter : saved) {
            model.select(id(model, letter));
            saveOver(model);
            QVERIFY(model.items()[std::size_t(letters(model).indexOf(letter))].saved);
        }
    }
    // Puts an error message and a save confirmation on screen together.
    void showBothMessages(CropModel& model)
    {
        openAll(model, urls({m_dir->filePath("missing.png")}));
        QVERIFY(model.errorMessage());
        QVERIFY(model.saveConfirmation());
    }

private Q_SLOTS:
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        QVERIFY(m_dir->isValid());
    }

    void selectingTheActiveItemKeepsEverything()
    {
        CropModel model;
        openLetters(model, "ABC");
        markSaved(model, "A"); // B becomes active, "A.png" confirmed
        showBothMessages(model);
        QCOMPARE(activeLetter(model), "B");
        Notes notes(model);

        model.select(id(model, 'B'));
        QVERIFY(notes.names().isEmpty());
        QCOMPARE(model.saveConfirmation(), QStringLiteral("A.png"));
        QCOMPARE(model.errorMessage(), QStringLiteral("1 file couldn’t be opened."));
    }

    void selectingAnotherItemClearsTheMessages()
    {
        CropModel model;
        openLetters(model, "ABC");
        markSaved(model, "A");
        showBothMessages(model);
        Notes notes(model);

        model.select(id(model, 'C'));
        QCOMPARE(notes.names(), (QStringList{"ActiveID", "SaveConfirmation", "ErrorMessage", "ActiveContentRect"}));
        QCOMPARE(activeLetter(model), "C");
        QVERIFY(!model.saveConfirmation());
        QVERIFY(!model.errorMessage());
        verifyRectBelongsToActive(model);

        // A saved item can be selected like any other.
        model.select(id(model, 'A'));
        QCOMPARE(activeLetter(model), "A");
        verifyRectBelongsToActive(model);
    }

    void selectingAnUnknownIdLeavesNoActiveItem()
    {
        CropModel model;
        openLetters(model, "AB");
        Notes notes(model);
        const QUuid stranger = QUuid::createUuid();
        model.select(stranger);
        QCOMPARE(notes.names(), (QStringList{"ActiveID", "SaveConfirmation", "ErrorMessage", "ActiveContentRect"}));
        QCOMPARE(model.activeID(), stranger);
        QVERIFY(!model.active());
        QVERIFY(!model.activeContentRect());
        QCOMPARE(letters(model), "AB");
    }

    void remove_data()
    {
        QTest::addColumn<QString>("queue");
        QTest::addColumn<QString>("saved");
        QTest::addColumn<QString>("active");
        QTest::addColumn<QString>("removed");
        QTest::addColumn<QString>("queueAfter");
        QTest::addColumn<QString>("activeAfter");
        QTest::addColumn<QStringList>("notes");
        const QStringList moved{"Items", "SaveConfirmation", "ErrorMessage", "ActiveID", "ActiveContentRect"};
        const QStringList stayed{"Items", "SaveConfirmation", "ErrorMessage"};
        QTest::newRow("active in the middle") << "ABC" << "" << "B" << "B" << "AC" << "C" << moved;
        QTest::newRow("after the active one") << "ABC" << "" << "B" << "C" << "AB" << "B" << stayed;
        QTest::newRow("before the active one") << "ABC" << "" << "B" << "A" << "BC" << "B" << stayed;
        QTest::newRow("active and last") << "ABC" << "" << "C" << "C" << "AB" << "B" << moved;
        QTest::newRow("active and first") << "ABC" << "" << "A" << "A" << "BC" << "B" << moved;
        QTest::newRow("the only item") << "A" << "" << "A" << "A" << "" << "" << moved;
        QTest::newRow("neighbour saved") << "ABC" << "C" << "B" << "B" << "AC" << "C" << moved;
        QTest::newRow("none active") << "ABC" << "" << "?" << "B" << "AC" << "" << stayed;
    }
    void remove()
    {
        QFETCH(QString, queue);
        QFETCH(QString, saved);
        QFETCH(QString, active);
        QFETCH(QString, removed);
        QFETCH(QString, queueAfter);
        QFETCH(QString, activeAfter);
        QFETCH(QStringList, notes);
        CropModel model;
        buildQueue(model, m_dir->path(), queue, saved, active);
        const QUuid removedID = id(model, removed.front());
        openAll(model, urls({m_dir->filePath("missing.png")}));
        QVERIFY(model.errorMessage());
        Notes recorded(model);

        model.remove(removedID);
        QCOMPARE(letters(model), queueAfter);
        QCOMPARE(activeLetter(model), activeAfter);
        QCOMPARE(recorded.names(), notes);
        QVERIFY(!model.errorMessage());
        QVERIFY(!model.saveConfirmation());
        if (activeAfter.isEmpty() && queueAfter.isEmpty())
            QVERIFY(!model.activeID());
        verifyRectBelongsToActive(model);
    }

    void removingAnUnknownIdChangesNothing()
    {
        CropModel model;
        openLetters(model, "AB");
        markSaved(model, "A");
        showBothMessages(model);
        Notes notes(model);
        model.remove(QUuid::createUuid());
        QVERIFY(notes.names().isEmpty());
        QCOMPARE(letters(model), "AB");
        QCOMPARE(activeLetter(model), "B");
        QVERIFY(model.errorMessage());
        QCOMPARE(model.saveConfirmation(), QStringLiteral("A.png"));
    }

    void savingMovesOnToTheNextUnsavedItem()
    {
        // A (saved), B (saved), C, D (saved), E: saving D makes E active;
        // saving E wraps round to C.
        CropModel model;
        openLetters(model, "ABCDE");
        markSaved(model, "AB");
        model.select(id(model, 'D'));
        Notes notes(model);
        saveOver(model);
        QCOMPARE(activeLetter(model), "E");
        QCOMPARE(notes.names().mid(notes.names().size() - 4),
                 (QStringList{"SaveConfirmation", "ErrorMessage", "ActiveID", "ActiveContentRect"}));
        verifyRectBelongsToActive(model);
        QCOMPARE(model.saveConfirmation(), QStringLiteral("D.png")); // moving on keeps the confirmation

        saveOver(model);
        QCOMPARE(activeLetter(model), "C");
        QCOMPARE(model.saveConfirmation(), QStringLiteral("E.png"));
        verifyRectBelongsToActive(model);
        QVERIFY(!model.allSaved());
    }

    void savingTheLastUnsavedItemKeepsItActive()
    {
        // A and C saved; saving B finds no unsaved item: B stays active.
        CropModel model;
        openLetters(model, "ABC");
        markSaved(model, "AC");
        model.select(id(model, 'B'));
        Notes notes(model);
        saveOver(model);
        QCOMPARE(activeLetter(model), "B");
        QVERIFY(model.allSaved());
        QCOMPARE(notes.names().mid(notes.names().size() - 3),
                 (QStringList{"SaveConfirmation", "ErrorMessage", "ActiveContentRect"}));
        QVERIFY(!notes.names().contains("ActiveID"));
        QCOMPARE(model.saveConfirmation(), QStringLiteral("B.png"));
    }

    void onlyTheFirstUnsavedStaysActiveAfterItsSave()
    {
        CropModel model;
        openLetters(model, "ABC");
        markSaved(model, "BC");
        model.select(id(model, 'A'));
        saveOver(model);
        QCOMPARE(activeLetter(model), "A");
        QVERIFY(model.allSaved());
    }

    void savingWrapsRoundToTheStart()
    {
        // Queue A (unsaved), B (unsaved), C: saving C wraps round to A.
        CropModel model;
        openLetters(model, "ABC");
        model.select(id(model, 'C'));
        saveOver(model);
        QCOMPARE(activeLetter(model), "A");
        // and saving A then moves forward to B, skipping nothing.
        saveOver(model);
        QCOMPARE(activeLetter(model), "B");
    }
};

ORVANE_MODEL_TEST_MAIN(CropModelSelectionTest)
#include "cropmodelselectiontest.moc"
