// Saving: as a new file through the save panel and over the original; the
// proposed names, the messages, refused writes, the reload after a save over
// the original, and a type that has no encoder.
#include <atomic>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>

#include "imagefile/imagefile.h"
#include "model/cropmodel.h"
#include "model/imagesource.h"
#include "modeltest.h"
#include "support/testfiles.h"

using namespace orvane;
using namespace orvane::test;

class CropModelSaveTest : public QObject {
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_dir;
    QString path(const QString& name) const { return m_dir->filePath(name); }

private Q_SLOTS:
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        QVERIFY(m_dir->isValid());
    }
    void cleanup()
    {
        ImageFile::setSaverProbeForTesting({});
        ImageFile::setAvailableMemoryForTesting(std::nullopt);
    }

    void nothingToSaveWithAnEmptyQueue()
    {
        FakePanels panels;
        CropModel model(&panels);
        Notes notes(model);
        saveAsNew(model);
        QCOMPARE(model.errorMessage(), QStringLiteral("Nothing to save."));
        saveOver(model);
        QCOMPARE(model.errorMessage(), QStringLiteral("Nothing to save."));
        QCOMPARE(notes.names(), (QStringList{"ErrorMessage", "ErrorMessage"}));
        QCOMPARE(panels.saveCalls, 0);
    }

    void nothingToSaveWithoutContent()
    {
        // A fully transparent image has no content rectangle at tolerance 25.
        writeImage(path("clear.png"), transparentImage(30, 20));
        writeLetterImage(path("done.png"), 0);
        const QByteArray before = readFile(path("clear.png"));
        FakePanels panels;
        panels.saveAnswer = QUrl::fromLocalFile(path("out.png"));
        CropModel model(&panels);
        openAll(model, urls({path("done.png"), path("clear.png")}));
        saveOver(model); // done.png saved: confirmation set, clear.png active
        QCOMPARE(activeName(model), "clear.png");
        QVERIFY(!model.activeContentRect());

        saveAsNew(model);
        QCOMPARE(model.errorMessage(), QStringLiteral("Nothing to save."));
        saveOver(model);
        QCOMPARE(model.errorMessage(), QStringLiteral("Nothing to save."));
        QCOMPARE(panels.saveCalls, 0);
        QCOMPARE(model.saveConfirmation(), QStringLiteral("done.png"));
        QVERIFY(!model.items()[1].saved);
        QVERIFY(!QFile::exists(path("out.png")));
        QCOMPARE(readFile(path("clear.png")), before);
    }

    void theProposedNameAndType_data()
    {
        QTest::addColumn<QString>("fileName");
        QTest::addColumn<QString>("format");
        QTest::addColumn<QString>("proposed");
        QTest::addColumn<QString>("type");
        QTest::newRow("photo.JPG") << "photo.JPG" << ".jpg" << "photo-cropped.JPG" << "image/jpeg";
        QTest::newRow("photo.png") << "photo.png" << ".png" << "photo-cropped.png" << "image/png";
        QTest::newRow("archive.tar.png") << "archive.tar.png" << ".png" << "archive.tar-cropped.png" << "image/png";
        // The panel is limited to the item's own type, found from the content.
        QTest::newRow("PNG named jpg") << "picture.jpg" << ".png" << "picture-cropped.jpg" << "image/png";
        QTest::newRow("TIFF") << "scan.tif" << ".tif" << "scan-cropped.tif" << "image/tiff";
    }
    void theProposedNameAndType()
    {
        QFETCH(QString, fileName);
        QFETCH(QString, format);
        QFETCH(QString, proposed);
        QFETCH(QString, type);
        writeBytes(path(fileName), encode(whiteImageWithBlock(30, 20, QRect(3, 4, 10, 8)), qPrintable(format)));
        FakePanels panels;
        CropModel model(&panels);
        openAll(model, urls({path(fileName)}));
        QCOMPARE(itemNames(model), QStringList{fileName});
        saveAsNew(model); // cancelled
        QCOMPARE(panels.saveCalls, 1);
        QCOMPARE(panels.proposedName, proposed);
        QCOMPARE(panels.restrictedType, ImageType(type));
    }

    void cancellingTheSavePanelChangesNothing()
    {
        writeLetterImage(path("a.png"), 0);
        writeLetterImage(path("b.png"), 1);
        FakePanels panels;
        CropModel model(&panels);
        openAll(model, urls({path("a.png"), path("b.png")}));
        saveOver(model); // a saved and confirmed, b active
        openAll(model, urls({path("missing.png")}));
        const QByteArray before = readFile(path("b.png"));
        Notes notes(model);

        saveAsNew(model);
        QCOMPARE(panels.saveCalls, 1);
        QVERIFY(notes.names().isEmpty());
        QCOMPARE(model.errorMessage(), QStringLiteral("1 file couldn’t be opened."));
        QCOMPARE(model.saveConfirmation(), QStringLiteral("a.png"));
        QCOMPARE(activeName(model), "b.png");
        QVERIFY(!model.items()[1].saved);
        QCOMPARE(readFile(path("b.png")), before);
        QCOMPARE(QDir(m_dir->path()).entryList(QDir::Files).size(), 2);
    }

    void saveAsNewFileWritesTheTrimmedImage()
    {
        writeImage(path("a.png"), whiteImageWithBlock(50, 40, QRect(5, 6, 20, 10)));
        writeLetterImage(path("b.png"), 1);
        const QByteArray original = readFile(path("a.png"));
        FakePanels panels;
        panels.saveAnswer = QUrl::fromLocalFile(path("chosen name.png"));
        CropModel model(&panels);
        openAll(model, urls({path("a.png"), path("b.png"), path("missing.png")}));
        QVERIFY(model.errorMessage());
        const CropModel::Item before = model.items().front();
        Notes notes(model);

        saveAsNew(model);
        QCOMPARE(notes.names(),
                 (QStringList{"Items", "SaveConfirmation", "ErrorMessage", "ActiveID", "ActiveContentRect"}));
        const vips::VImage written = readBack(path("chosen name.png"));
        QCOMPARE(written.width(), 20);
        QCOMPARE(written.height(), 10);
        QCOMPARE(written.max(), 0.0); // only the black block is left
        QCOMPARE(model.saveConfirmation(), QStringLiteral("chosen name.png"));
        QVERIFY(!model.errorMessage());

        // The item still refers to its source, which is untouched.
        const CropModel::Item& item = model.items().front();
        QVERIFY(item.saved);
        QCOMPARE(item.url, before.url);
        QCOMPARE(item.type, before.type);
        QCOMPARE(item.width(), 50);
        QCOMPARE(readFile(path("a.png")), original);
        QCOMPARE(activeName(model), "b.png");
    }

    void aRefusedWriteNamesTheDestination()
    {
        writeLetterImage(path("a.png"), 0);
        writeLetterImage(path("b.png"), 1);
        FakePanels panels;
        panels.saveAnswer = QUrl::fromLocalFile(path("no such folder/out.png"));
        CropModel model(&panels);
        openAll(model, urls({path("a.png"), path("b.png")}));
        saveOver(model); // a confirmed, b active
        Notes notes(model);

        saveAsNew(model);
        QCOMPARE(notes.names(), QStringList{"ErrorMessage"});
        QCOMPARE(model.errorMessage(), QStringLiteral("Couldn’t write to “out.png”."));
        QCOMPARE(model.saveConfirmation(), QStringLiteral("a.png"));
        QCOMPARE(activeName(model), "b.png");
        QVERIFY(!model.items()[1].saved);
        QVERIFY(!QFileInfo::exists(path("no such folder")));
    }

    void saveOverOriginalReloadsTheTrimmedImage()
    {
        writeImage(path("photo.png"), whiteImageWithBlock(1000, 800, QRect(100, 200, 600, 400)));
        CropModel model;
        openAll(model, urls({path("photo.png")}));
        const CropModel::Item before = model.items().front();
        const QString id = before.id.toString(QUuid::WithoutBraces).toUpper();
        QCOMPARE(model.revealKey(), id + "#1000x800");
        QVERIFY(model.willTrim());
        Notes notes(model);

        saveOver(model);
        // The buffer is replaced, then the item marked saved; no other item
        // is unsaved, so it stays active and its rectangle is recomputed.
        QCOMPARE(notes.names(),
                 (QStringList{"Items", "Items", "SaveConfirmation", "ErrorMessage", "ActiveContentRect"}));
        const CropModel::Item& item = model.items().front();
        QCOMPARE(item.width(), 600);
        QCOMPARE(item.height(), 400);
        QCOMPARE(item.type, before.type);
        QCOMPARE(item.url, before.url);
        QCOMPARE(item.id, before.id);
        QVERIFY(item.saved);
        QCOMPARE(model.saveConfirmation(), QStringLiteral("photo.png"));
        QVERIFY(!model.errorMessage());
        QCOMPARE(model.revealKey(), id + "#600x400");
        QCOMPARE(toQRect(model.activeContentRect()), QRect(0, 0, 600, 400));
        QVERIFY(!model.willTrim());
        const vips::VImage onDisk = readBack(path("photo.png"));
        QCOMPARE(onDisk.width(), 600);
        QCOMPARE(onDisk.height(), 400);

        // A saved item can be saved again: written and confirmed the same way.
        notes.clear();
        saveOver(model);
        QCOMPARE(model.saveConfirmation(), QStringLiteral("photo.png"));
        QVERIFY(notes.names().contains("SaveConfirmation"));
    }

    void aTypeWithoutEncoderIsWrittenAsPng()
    {
        writeImage(path("web.webp"), whiteImageWithBlock(40, 30, QRect(4, 5, 20, 10)));
        CropModel model;
        openAll(model, urls({path("web.webp")}));
        QCOMPARE(model.items().front().type, ImageType::webP());
        ImageFile::setSaverProbeForTesting([](const ImageType& type) { return type != ImageType::webP(); });

        saveOver(model);
        QCOMPARE(model.saveConfirmation(), QStringLiteral("web.webp"));
        QVERIFY(readFile(path("web.webp")).startsWith("\x89PNG\r\n\x1a\n"));
        QCOMPARE(model.items().front().type, ImageType::webP());
        QCOMPARE(model.items().front().width(), 20);
    }

    void aFailedReloadKeepsTheOldBuffer()
    {
        // The write succeeds, reading the file back does not.
        class FailingReload : public ImageSource {
        public:
            std::optional<ImageFile::Decoded> decode(const QString& path) override
            {
                if (written)
                    return std::nullopt;
                return ImageSource::decode(path);
            }
            bool saveCropped(const ImageFile::Decoded& decoded, const PixelRect& rect, const QString& path,
                             const ImageType& type) override
            {
                written = ImageSource::saveCropped(decoded, rect, path, type);
                return written;
            }
            std::atomic<bool> written{false};
        };
        writeImage(path("tight.png"), whiteImageWithBlock(50, 40, QRect(5, 5, 10, 10)));
        CropModel model(nullptr, nullptr, std::make_shared<FailingReload>());
        openAll(model, urls({path("tight.png")}));
        QTRY_VERIFY(model.hasFullImage(model.items().front().id));
        const QString key = model.revealKey();
        saveOver(model);

        QCOMPARE(readBack(path("tight.png")).width(), 10);
        const CropModel::Item& item = model.items().front();
        QVERIFY(item.saved);
        QCOMPARE(item.width(), 50);
        QCOMPARE(model.revealKey(), key);
        QCOMPARE(model.saveConfirmation(), QStringLiteral("tight.png"));
        QVERIFY(!model.errorMessage());
        QCOMPARE(toQRect(model.activeContentRect()), QRect(5, 5, 10, 10));
    }

    void aWriteCutShortLeavesTheOriginalUntouched()
    {
        // The trimmed image needs far more than the 4 KiB the child may write.
        writeImage(path("noisy.png"),
                   vips::VImage::gaussnoise(300, 200, vips::VImage::option()->set("sigma", 60.0))
                       .bandjoin({vips::VImage::gaussnoise(300, 200), vips::VImage::gaussnoise(300, 200)})
                       .cast(VIPS_FORMAT_UCHAR)
                       .copy(vips::VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB))
                       .embed(10, 10, 320, 220, vips::VImage::option()->set("extend", VIPS_EXTEND_WHITE)));
        const QByteArray before = readFile(path("noisy.png"));
        QVERIFY(before.size() > 4096 * 4);

        const std::optional<QString> output = runSelf({"--child-save-over-limited", path("noisy.png")}, {});
        QVERIFY(output);
        QCOMPARE(*output, QStringLiteral("Couldn’t write to “noisy.png”.\nunsaved\n"));
        QCOMPARE(readFile(path("noisy.png")), before);
        QCOMPARE(QDir(m_dir->path()).entryList(QDir::Files | QDir::Hidden), QStringList{"noisy.png"});
    }

    void aRefusedWriteOverTheOriginalLeavesItUntouched()
    {
        // As root every folder is writable; the save runs as nobody in a
        // child process, in a folder nobody may read but not write.
        QTemporaryDir shared(QDir::tempPath() + "/orvane-refused-XXXXXX");
        QVERIFY(shared.isValid());
        QVERIFY(::chmod(QFile::encodeName(shared.path()).constData(), 0755) == 0);
        const QString file = shared.filePath("photo.png");
        writeImage(file, whiteImageWithBlock(60, 40, QRect(10, 10, 20, 10)));
        const QByteArray before = readFile(file);

        const std::optional<QString> output = runAsNobody({"--child-save-over", file});
        if (!output)
            QSKIP("cannot run a step as the user nobody here (needs root and setpriv)");
        QCOMPARE(*output, QStringLiteral("Couldn’t write to “photo.png”.\nunsaved\n"));
        QCOMPARE(readFile(file), before);
        QCOMPARE(QDir(shared.path()).entryList(QDir::Files | QDir::Hidden), QStringList{"photo.png"});
    }
};

ORVANE_MODEL_TEST_MAIN(CropModelSaveTest)
#include "cropmodelsavetest.moc"
