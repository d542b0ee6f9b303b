// The model's state: the derived values from the empty model on, and the
// notification sent before every assignment, the tolerance's included.
#include "modeltest.h"

class CropModelStateTest : public QObject, TempFolder {
    Q_OBJECT

private Q_SLOTS:
    void init() { fresh(); }

    void eachNotificationComesBeforeItsValueChanges()
    {
        // Observers see the old value when notified: record what each
        // property holds at the moment of its notification.
        CropModel model;
        QStringList seen;
        const auto set = [](const auto& value) { return value ? "set" : "absent"; };
        connect(&model, &CropModel::willChange, this, [&](CropModel::Property property) {
            using P = CropModel::Property;
            if (property > P::Threshold) // the window's own properties
                return;
            seen << (property == P::Items              ? QStringLiteral("items %1").arg(model.items().size())
                     : property == P::ActiveID         ? QStringLiteral("activeID %1").arg(set(model.activeID()))
                     : property == P::ActiveContentRect ? QStringLiteral("rect %1").arg(set(model.activeContentRect()))
                     : property == P::ErrorMessage     ? "error " + model.errorMessage().value_or("absent")
                     : property == P::SaveConfirmation ? "confirmation " + model.saveConfirmation().value_or("absent")
                                                       : QStringLiteral("threshold %1").arg(model.threshold()));
        });
        model.setThreshold(40.0);
        openAll(model, files({"missing.png"}));
        openAll(model, letterImages({"before.png"}));
        // The same tolerance again still stores and recomputes.
        model.setThreshold(40.0);
        QCOMPARE(toQRect(model.activeContentRect()), blockFor(0));
        model.setThreshold(0.0);
        QCOMPARE(toQRect(model.activeContentRect()), QRect(0, 0, 40, 30));
        QVERIFY(!model.willTrim());
        model.remove(model.items().front().id);
        QCOMPARE(seen, (QStringList{
                           "threshold 25", "rect absent",                           // setThreshold
                           "error absent",                                          // failed open
                           "items 0", "activeID absent", "confirmation absent",     // open
                           "error 1 file couldn’t be opened.", "rect absent",
                           "threshold 40", "rect set", "threshold 40", "rect set",  // setThreshold twice
                           "items 1", "confirmation absent", "error absent",        // remove
                           "activeID set", "rect set",
                       }));
    }

    void willTrim_data()
    {
        QTest::addColumn<bool>("transparent");
        QTest::addColumn<QRect>("content");
        QTest::addColumn<bool>("willTrim");
        QTest::newRow("content fills the image") << false << QRect(0, 0, 100, 80) << false;
        QTest::newRow("one white row below") << false << QRect(0, 0, 100, 79) << true;
        QTest::newRow("one white column") << false << QRect(1, 0, 99, 80) << true;
        QTest::newRow("fully transparent") << true << QRect() << false;
    }
    void willTrim()
    {
        QFETCH(bool, transparent);
        QFETCH(QRect, content);
        QFETCH(bool, willTrim);
        writeImage(path("trim.png"), transparent ? transparentImage(100, 80) : whiteImageWithBlock(100, 80, content));
        CropModel model;
        openAll(model, files({"trim.png"}));
        QVERIFY(model.active());
        QCOMPARE(bool(model.activeContentRect()), !content.isEmpty());
        QCOMPARE(toQRect(model.activeContentRect()), content);
        QCOMPARE(model.willTrim(), willTrim);
    }

    void positionAndRevealKeyFollowTheActiveItem()
    {
        CropModel model;
        QCOMPARE(model.threshold(), 25.0);
        QCOMPARE(model.revealKey(), QStringLiteral("#0x0"));
        QVERIFY(!model.activePosition() && !model.willTrim() && !model.allSaved() && !model.activeContentRect());
        buildQueue(model, m_dir->path(), "ABC", "", "");
        QCOMPARE(model.activePosition(), 1);
        const QUuid third = model.items()[2].id;
        const QString key = third.toString(QUuid::WithoutBraces).toUpper();
        model.select(third);
        QCOMPARE(model.activePosition(), 3);
        QCOMPARE(model.revealKey(), key + "#40x30");
        model.setThreshold(80.0);
        QCOMPARE(model.revealKey(), key + "#40x30"); // the tolerance is not in the key

        // An id that names no queued item: no active item, no position, but
        // the key still carries the id.
        const QUuid stranger = QUuid::createUuid();
        model.select(stranger);
        QVERIFY(!model.activePosition() && !model.willTrim());
        QCOMPARE(model.revealKey(), stranger.toString(QUuid::WithoutBraces).toUpper() + "#0x0");
    }

    void theSameFileTwiceMakesTwoItems()
    {
        CropModel model;
        openAll(model, letterImages({"twice.png"}));
        openAll(model, files({"twice.png", "twice.png"}));
        QCOMPARE(itemNames(model), QStringList(3, "twice.png"));
        QCOMPARE(QSet<QUuid>({model.items()[0].id, model.items()[1].id, model.items()[2].id}).size(), 3);
    }
};

ORVANE_MODEL_TEST_MAIN(CropModelStateTest)
#include "cropmodelstatetest.moc"
