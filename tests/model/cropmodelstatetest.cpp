// The model's state: initial values, the tolerance, the derived values and the
// notification sent before every assignment.
#include <QCoreApplication>
#include <QSet>
#include <QTemporaryDir>
#include <QTest>

#include "imagefile/imagefile.h"
#include "model/cropmodel.h"
#include "modeltest.h"

using namespace orvane;
using namespace orvane::test;

class CropModelStateTest : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString path(const QString& name) const { return m_dir.filePath(name); }

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_dir.isValid()); }

    void newModelIsEmpty()
    {
        CropModel model;
        QVERIFY(model.items().empty());
        QVERIFY(!model.activeID());
        QVERIFY(!model.activeContentRect());
        QVERIFY(!model.errorMessage());
        QVERIFY(!model.saveConfirmation());
        QCOMPARE(model.threshold(), 25.0);
        QVERIFY(!model.active());
        QVERIFY(!model.activePosition());
        QVERIFY(!model.willTrim());
        QVERIFY(!model.allSaved());
        QCOMPARE(model.revealKey(), QStringLiteral("#0x0"));
    }

    void settingTheToleranceAlwaysRecomputes()
    {
        writeLetterImage(path("a.png"), 0);
        CropModel model;
        openAll(model, urls({path("a.png")}));
        Notes notes(model);

        // The same value again still stores and recomputes: two notifications.
        model.setThreshold(25.0);
        QCOMPARE(notes.names(), (QStringList{"Threshold", "ActiveContentRect"}));
        QCOMPARE(toQRect(model.activeContentRect()), blockFor(0));

        notes.clear();
        model.setThreshold(0.0);
        QCOMPARE(notes.names(), (QStringList{"Threshold", "ActiveContentRect"}));
        QCOMPARE(toQRect(model.activeContentRect()), QRect(0, 0, 40, 30));
        QVERIFY(!model.willTrim());
    }

    void eachNotificationComesBeforeItsValueChanges()
    {
        // Observers see the old value when notified: record what each
        // property holds at the moment of its notification.
        writeLetterImage(path("before.png"), 0);
        CropModel model;
        QStringList seen;
        connect(&model, &CropModel::willChange, this, [&](CropModel::Property property) {
            switch (property) {
            case CropModel::Property::Items:
                seen << QStringLiteral("items %1").arg(model.items().size());
                break;
            case CropModel::Property::ActiveID:
                seen << QStringLiteral("activeID %1").arg(model.activeID() ? "set" : "absent");
                break;
            case CropModel::Property::ActiveContentRect:
                seen << QStringLiteral("rect %1").arg(model.activeContentRect() ? "set" : "absent");
                break;
            case CropModel::Property::ErrorMessage:
                seen << QStringLiteral("error %1").arg(model.errorMessage().value_or("absent"));
                break;
            case CropModel::Property::SaveConfirmation:
                seen << QStringLiteral("confirmation %1").arg(model.saveConfirmation().value_or("absent"));
                break;
            case CropModel::Property::Threshold:
                seen << QStringLiteral("threshold %1").arg(model.threshold());
                break;
            }
        });
        model.setThreshold(40.0);
        openAll(model, urls({path("missing.png")}));
        openAll(model, urls({path("before.png")}));
        model.remove(model.items().front().id);
        QCOMPARE(seen, (QStringList{
                           "threshold 25", "rect absent",                           // setThreshold
                           "error absent",                                          // failed open
                           "items 0", "activeID absent", "confirmation absent",     // open
                           "error 1 file couldn’t be opened.", "rect absent",
                           "items 1", "confirmation absent", "error absent",        // remove
                           "activeID set", "rect set",
                       }));
    }

    void willTrim_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QRect>("content");
        QTest::addColumn<bool>("hasRect");
        QTest::addColumn<bool>("willTrim");
        QTest::newRow("content fills the image") << "block" << QRect(0, 0, 100, 80) << true << false;
        QTest::newRow("one white row below") << "block" << QRect(0, 0, 100, 79) << true << true;
        QTest::newRow("one white column") << "block" << QRect(1, 0, 99, 80) << true << true;
        QTest::newRow("fully transparent") << "transparent" << QRect() << false << false;
        QTest::newRow("all white") << "block" << QRect() << false << false;
    }
    void willTrim()
    {
        QFETCH(QString, kind);
        QFETCH(QRect, content);
        QFETCH(bool, hasRect);
        QFETCH(bool, willTrim);
        const QString file = path("trim.png");
        writeImage(file, kind == "transparent" ? transparentImage(100, 80) : whiteImageWithBlock(100, 80, content));
        CropModel model;
        openAll(model, urls({file}));
        QVERIFY(model.active());
        QCOMPARE(bool(model.activeContentRect()), hasRect);
        if (hasRect)
            QCOMPARE(toQRect(model.activeContentRect()), content);
        QCOMPARE(model.willTrim(), willTrim);
    }

    void positionAndRevealKeyFollowTheActiveItem()
    {
        for (int i = 0; i < 3; ++i)
            writeLetterImage(path(QStringLiteral("p%1.png").arg(i)), i);
        CropModel model;
        openAll(model, urls({path("p0.png"), path("p1.png"), path("p2.png")}));
        QCOMPARE(model.activePosition(), 1);

        const QUuid third = model.items()[2].id;
        model.select(third);
        QCOMPARE(model.activePosition(), 3);
        QCOMPARE(model.active()->id, third);
        QCOMPARE(model.revealKey(), third.toString(QUuid::WithoutBraces).toUpper() + "#40x30");
        model.setThreshold(80.0);
        QCOMPARE(model.revealKey(), third.toString(QUuid::WithoutBraces).toUpper() + "#40x30"); // the tolerance is not in the key

        // An id that names no queued item: no active item, no position, but
        // the key still carries the id.
        const QUuid stranger = QUuid::createUuid();
        model.select(stranger);
        QVERIFY(!model.activePosition());
        QVERIFY(!model.willTrim());
        QCOMPARE(model.revealKey(), stranger.toString(QUuid::WithoutBraces).toUpper() + "#0x0");
    }

    void allSavedFollowsTheQueue()
    {
        writeLetterImage(path("s1.png"), 0);
        writeLetterImage(path("s2.png"), 1);
        CropModel model;
        QVERIFY(!model.allSaved());

        openAll(model, urls({path("s1.png")}));
        QVERIFY(!model.allSaved());
        saveOver(model);
        QVERIFY(model.items().front().saved);
        QVERIFY(model.allSaved());

        // A lone saved item makes way for new ones; with two items one saved
        // and one not, the queue is no longer all saved.
        openAll(model, urls({path("s2.png"), path("s1.png")}));
        QCOMPARE(itemNames(model), (QStringList{"s2.png", "s1.png"}));
        QVERIFY(!model.allSaved());
        saveOver(model);
        saveOver(model);
        QVERIFY(model.allSaved());

        model.remove(model.items().front().id);
        QVERIFY(model.allSaved());
        model.remove(model.items().front().id);
        QVERIFY(model.items().empty());
        QVERIFY(!model.allSaved());
    }

    void theSameFileTwiceMakesTwoItems()
    {
        writeLetterImage(path("twice.png"), 0);
        CropModel model;
        openAll(model, urls({path("twice.png"), path("twice.png")}));
        openAll(model, urls({path("twice.png")}));
        QCOMPARE(model.items().size(), std::size_t(3));
        QCOMPARE(model.items()[0].url, model.items()[1].url);
        QCOMPARE(QSet<QUuid>({model.items()[0].id, model.items()[1].id, model.items()[2].id}).size(), 3);
    }

    void itemsStartUnsavedWithTheLoadedType()
    {
        // A PNG under a JPEG name is queued as PNG: the type comes from the content.
        writeBytes(path("picture.jpg"), encode(whiteImageWithBlock(20, 20, QRect(2, 2, 5, 5)), ".png"));
        CropModel model;
        openAll(model, urls({path("picture.jpg")}));
        QCOMPARE(model.items().size(), std::size_t(1));
        const CropModel::Item& item = model.items().front();
        QCOMPARE(item.type, ImageType::png());
        QCOMPARE(item.url, QUrl::fromLocalFile(path("picture.jpg")));
        QVERIFY(!item.saved);
        QVERIFY(!item.id.isNull());
    }
};

ORVANE_MODEL_TEST_MAIN(CropModelStateTest)
#include "cropmodelstatetest.moc"
