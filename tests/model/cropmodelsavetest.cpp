// Saving: as a new file through the save panel and over the original; the
// proposed names, the messages, a refused write, the reload after a save over
// the original, and a type that has no encoder. Saves that the system refuses
// or cuts short are the reliability tests' part.
#include <atomic>

#include "model/imagesource.h"
#include "modeltest.h"

class CropModelSaveTest : public QObject, TempFolder {
    Q_OBJECT

private Q_SLOTS:
    void init() { fresh(); }
    void cleanup() { ImageFile::setSaverProbeForTesting({}); }

    void nothingToSave_data()
    {
        QTest::addColumn<bool>("withItems");
        QTest::newRow("empty queue") << false;
        QTest::newRow("active item without content") << true;
    }
    void nothingToSave()
    {
        QFETCH(bool, withItems);
        // A fully transparent image has no content rectangle at tolerance 25.
        writeImage(path("clear.png"), transparentImage(30, 20));
        const QByteArray before = readFile(path("clear.png"));
        FakePanels panels;
        panels.saveAnswer = QUrl::fromLocalFile(path("out.png"));
        CropModel model(&panels);
        if (withItems) {
            openAll(model, letterImages({"done.png"}) + files({"clear.png"}));
            saveOver(model); // done.png saved and confirmed, clear.png active
            QVERIFY(!model.activeContentRect());
        }
        Notes notes(model);
        saveAsNew(model);
        QCOMPARE(model.errorMessage(), QStringLiteral("Nothing to save."));
        saveOver(model);
        QCOMPARE(model.errorMessage(), QStringLiteral("Nothing to save."));
        QCOMPARE(notes.seen, (QStringList{"ErrorMessage", "ErrorMessage"}));
        QVERIFY(panels.proposedName.isEmpty()); // never asked
        QCOMPARE(model.saveConfirmation().value_or(""), withItems ? "done.png" : "");
        QVERIFY(model.items().empty() || !model.items()[1].saved);
        QVERIFY(!QFile::exists(path("out.png")));
        QCOMPARE(readFile(path("clear.png")), before);
    }

    void aSaveAsNewThatWritesNothing_data()
    {
        QTest::addColumn<QString>("answer");
        QTest::addColumn<QStringList>("notes");
        QTest::addColumn<QString>("message");
        QTest::newRow("panel cancelled") << "" << QStringList() << "1 file couldn’t be opened.";
        QTest::newRow("refused write") << "no such folder/out.png" << QStringList{"ErrorMessage"} << "Couldn’t write to “out.png”.";
    }
    void aSaveAsNewThatWritesNothing()
    {
        QFETCH(QString, answer);
        QFETCH(QStringList, notes);
        QFETCH(QString, message);
        FakePanels panels;
        if (!answer.isEmpty())
            panels.saveAnswer = QUrl::fromLocalFile(path(answer));
        CropModel model(&panels);
        buildQueue(model, m_dir->path(), "AB", "A", "B"); // "A.png" confirmed
        openAll(model, files({"missing.png"}));
        const QByteArray before = readFile(path("B.png"));
        Notes recorded(model);
        saveAsNew(model);
        QCOMPARE(panels.proposedName, QStringLiteral("B-cropped.png"));
        QCOMPARE(recorded.seen, notes);
        QCOMPARE(model.errorMessage(), message);
        QCOMPARE(model.saveConfirmation(), QStringLiteral("A.png"));
        QCOMPARE(activeName(model), "B.png");
        QVERIFY(!model.items()[1].saved);
        QCOMPARE(readFile(path("B.png")), before);
        QCOMPARE(entries(m_dir->path()), (QStringList{"A.png", "B.png"}));
    }

    void saveAsNewFileWritesTheTrimmedImage()
    {
        // A PNG named .jpg: the panel proposes the file's own name and is
        // limited to the type found from the content.
        letterImages({"a.jpg", "b.png"});
        writeBytes(path("a.jpg"), encode(whiteImageWithBlock(50, 40, QRect(5, 6, 20, 10)), ".png"));
        const QByteArray original = readFile(path("a.jpg"));
        FakePanels panels;
        panels.saveAnswer = QUrl::fromLocalFile(path("chosen name.png"));
        CropModel model(&panels);
        openAll(model, files({"a.jpg", "b.png", "missing.png"}));
        const CropModel::Item before = model.items().front();
        Notes notes(model);
        saveAsNew(model);
        QCOMPARE(panels.proposedName, QStringLiteral("a-cropped.jpg"));
        QCOMPARE(panels.restrictedType, ImageType::png());
        QCOMPARE(notes.seen, (QStringList{"Items", "SaveConfirmation", "ErrorMessage", "ActiveID", "ActiveContentRect"}));
        const vips::VImage written = readBack(path("chosen name.png"));
        QCOMPARE(QSize(written.width(), written.height()), QSize(20, 10));
        QCOMPARE(written.max(), 0.0); // only the black block is left
        QCOMPARE(model.saveConfirmation(), QStringLiteral("chosen name.png"));
        QVERIFY(!model.errorMessage());
        // The item still refers to its source, which is untouched.
        const CropModel::Item& item = model.items().front();
        QVERIFY(item.saved && item.url == before.url && item.type == before.type);
        QCOMPARE(item.width(), 50);
        QCOMPARE(readFile(path("a.jpg")), original);
        QCOMPARE(activeName(model), "b.png");
    }

    void aTypeWithoutEncoderIsWrittenAsPng()
    {
        writeImage(path("web.webp"), whiteImageWithBlock(40, 30, QRect(4, 5, 20, 10)));
        CropModel model;
        openAll(model, files({"web.webp"}));
        QCOMPARE(model.items().front().type, ImageType::webP());
        ImageFile::setSaverProbeForTesting([](const ImageType& type) { return type != ImageType::webP(); });
        saveOver(model);
        QCOMPARE(model.saveConfirmation(), QStringLiteral("web.webp"));
        QVERIFY(readFile(path("web.webp")).startsWith("\x89PNG\r\n\x1a\n"));
        QCOMPARE(model.items().front().type, ImageType::webP());
        QCOMPARE(model.items().front().width(), 20);
    }

    void saveOverOriginalReloadsTheTrimmedImage_data()
    {
        // The buffer is replaced (when it can be), then the item marked saved;
        // no other item is unsaved, so it stays active and its rectangle is
        // recomputed.
        QTest::addColumn<bool>("reloadFails");
        QTest::addColumn<QStringList>("notes");
        QTest::newRow("reloaded") << false << QStringList{"Items", "Items", "SaveConfirmation", "ErrorMessage", "ActiveContentRect"};
        QTest::newRow("written, not read back: the old image stays")
            << true << QStringList{"Items", "SaveConfirmation", "ErrorMessage", "ActiveContentRect"};
    }
    void saveOverOriginalReloadsTheTrimmedImage()
    {
        QFETCH(bool, reloadFails);
        QFETCH(QStringList, notes);
        struct Source : ImageSource {
            explicit Source(bool failing) : failReload(failing) {}
            std::optional<ImageFile::Decoded> decode(const QString& path) override
            {
                return failReload && written ? std::nullopt : ImageSource::decode(path);
            }
            bool saveCropped(const ImageFile::Decoded& decoded, const PixelRect& rect, const QString& path,
                             const ImageType& type) override
            {
                return written = ImageSource::saveCropped(decoded, rect, path, type);
            }
            const bool failReload;
            std::atomic<bool> written{false};
        };
        writeImage(path("photo.png"), whiteImageWithBlock(1000, 800, QRect(100, 200, 600, 400)));
        CropModel model(nullptr, nullptr, std::make_shared<Source>(reloadFails));
        openAll(model, files({"photo.png"}));
        QTRY_VERIFY(model.hasFullImage(model.items().front().id));
        const CropModel::Item before = model.items().front();
        const QString id = before.id.toString(QUuid::WithoutBraces).toUpper();
        QCOMPARE(model.revealKey(), id + "#1000x800");
        QVERIFY(model.willTrim());
        Notes recorded(model);
        saveOver(model);
        QCOMPARE(recorded.seen, notes);
        const vips::VImage onDisk = readBack(path("photo.png"));
        QCOMPARE(QSize(onDisk.width(), onDisk.height()), QSize(600, 400));
        const CropModel::Item& item = model.items().front();
        QVERIFY(item.saved && item.type == before.type && item.url == before.url && item.id == before.id);
        QCOMPARE(model.saveConfirmation(), QStringLiteral("photo.png"));
        QVERIFY(!model.errorMessage());
        const QSize size = reloadFails ? QSize(1000, 800) : QSize(600, 400);
        QCOMPARE(QSize(item.width(), item.height()), size);
        QCOMPARE(model.revealKey(), id + QStringLiteral("#%1x%2").arg(size.width()).arg(size.height()));
        QCOMPARE(toQRect(model.activeContentRect()), reloadFails ? QRect(100, 200, 600, 400) : QRect(0, 0, 600, 400));
        QCOMPARE(model.willTrim(), reloadFails);

        // A saved item can be saved again: written and confirmed the same way
        // (after a failed reload the file no longer matches the old image).
        if (reloadFails)
            return;
        recorded.seen.clear();
        saveOver(model);
        QCOMPARE(model.saveConfirmation(), QStringLiteral("photo.png"));
        QVERIFY(recorded.seen.contains("SaveConfirmation"));
    }
};

ORVANE_MODEL_TEST_MAIN(CropModelSaveTest)
#include "cropmodelsavetest.moc"
