// Opening from a file system that does not hold still or holds odd things:
// files that vanish or change after the listing, symbolic links to files, to
// folders and in loops, odd and non-UTF-8 names, a folder of 10 000 files and
// folders that cannot be read. Each is counted, skipped or ignored, never a
// crash or a hang.
#include <fcntl.h>
#include <sys/stat.h>

#include "modeltest.h"
#include "support/heldimagesource.h"

namespace {

bool makeLink(const QString& target, const QString& link) { return ::symlink(QFile::encodeName(target), QFile::encodeName(link)) == 0; }

// Writes by the raw bytes of the name, which Qt may not be able to spell.
bool writeRaw(const QByteArray& name, const QByteArray& bytes)
{
    const int fd = ::open(name.constData(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const bool written = fd >= 0 && ::write(fd, bytes.constData(), std::size_t(bytes.size())) == ssize_t(bytes.size());
    return ::close(fd) == 0 && written;
}

bool setMode(const QString& path, mode_t mode) { return ::chmod(QFile::encodeName(path).constData(), mode) == 0; }

} // namespace

class CropModelFileSystemTest : public QObject, TempFolder {
    Q_OBJECT

private Q_SLOTS:
    void init() { fresh(); }

    void aFileThatVanishesOrChangesAfterTheListing_data()
    {
        QTest::addColumn<bool>("vanishes");
        QTest::newRow("vanishes: counted") << true;
        QTest::newRow("changes: read as it is now") << false;
    }
    void aFileThatVanishesOrChangesAfterTheListing()
    {
        QFETCH(bool, vanishes);
        const QString dir = folder("drop");
        letterImages({"drop/1.png", "drop/2.png", "drop/3.png"});
        auto source = std::make_shared<HeldImageSource>();
        source->hold(HeldImageSource::Step::Index);
        CropModel model(nullptr, nullptr, source);
        model.open(urls({dir}));
        QTRY_COMPARE(model.opening(), (CropModel::Opening{0, 3}));
        if (vanishes) {
            QVERIFY(QFile::remove(dir + "/2.png"));
        } else {
            writeBytes(dir + "/1.png", "no longer an image");
            writeImage(dir + "/3.png", whiteImageWithBlock(77, 33, QRect(1, 1, 2, 2)));
        }
        source->releaseAll();
        QVERIFY(settle(model));
        QCOMPARE(itemNames(model), vanishes ? (QStringList{"1.png", "3.png"}) : (QStringList{"2.png", "3.png"}));
        QCOMPARE(model.items()[1].width(), vanishes ? 40 : 77);
        QCOMPARE(model.errorMessage(), QStringLiteral("1 file couldn’t be opened."));
    }

    void linksAreFollowedButNeverIntoAFolderInsideAFolder()
    {
        const QString real = folder("real");
        const QString outer = folder("outer");
        const QString loop = folder("loop");
        letterImages({"real/inside.png", "outer/top.png", "loop/good.png"});
        QVERIFY(makeLink(real, path("dropped-link")));
        QVERIFY(makeLink(real, outer + "/sub"));
        QVERIFY(makeLink(outer, outer + "/self")); // a folder that holds itself
        QVERIFY(makeLink("real/inside.png", path("relative.png"))); // a relative link to a file
        QVERIFY(makeLink(loop + "/two.png", loop + "/one.png")); // links in a loop
        QVERIFY(makeLink(loop + "/one.png", loop + "/two.png"));
        QVERIFY(makeLink(loop + "/nowhere.png", loop + "/dangling.png"));
        CropModel model;
        openAll(model, files({"dropped-link", "outer", "relative.png"}));
        QCOMPARE(itemNames(model), (QStringList{"inside.png", "top.png", "relative.png"}));
        QCOMPARE(model.items()[0].url, QUrl::fromLocalFile(path("dropped-link") + "/inside.png"));
        QVERIFY(!model.errorMessage());

        // Inside a folder the broken links are counted, or dropped by the
        // listing; either way the good file opens.
        CropModel looped;
        openAll(looped, files({"loop"}));
        QCOMPARE(itemNames(looped), QStringList{"good.png"});
        const QString message = looped.errorMessage().value_or(QString());
        QVERIFY2(message.isEmpty() || message == QStringLiteral("3 files couldn’t be opened."), qPrintable(message));
        // Dropped by itself a link in a loop is a file that cannot be opened.
        openAll(looped, files({"loop/one.png", "loop/dangling.png"}));
        QCOMPARE(itemNames(looped), QStringList{"good.png"});
        QCOMPARE(looped.errorMessage(), QStringLiteral("2 files couldn’t be opened."));
    }

    void oddNamesOpenAndKeepTheirNames_data()
    {
        QTest::addColumn<QString>("name");
        QTest::newRow("spaces") << " with  spaces .png";
        QTest::newRow("newline") << "new\nline.png";
        QTest::newRow("URL characters") << "#50%20?&=+;.png";
        QTest::newRow("non-Latin") << "фото 写真 ü.png";
        QTest::newRow("leading dot, dropped directly") << ".dotted.png";
        QTest::newRow("backslash and quotes") << "back\\slash \"“quoted”\".png";
    }
    void oddNamesOpenAndKeepTheirNames()
    {
        QFETCH(QString, name);
        const QString file = folder("odd") + "/" + name;
        writeLetterImage(file, 0);
        FakePanels panels;
        panels.saveAnswer = QUrl::fromLocalFile(path("odd/out " + name));
        CropModel model(&panels);
        // Hidden entries of a folder are left out; every other name opens
        // both from the folder and dropped on its own.
        openAll(model, files({"odd"}));
        QCOMPARE(itemNames(model), name.startsWith('.') ? QStringList{} : QStringList{name});
        openAll(model, urls({file}));
        QVERIFY(!model.errorMessage());
        QCOMPARE(model.items().back().url.toLocalFile(), file);

        model.select(model.items().back().id);
        saveAsNew(model);
        QVERIFY(panels.proposedName.endsWith("-cropped.png"));
        QCOMPARE(model.saveConfirmation(), "out " + name);
        QCOMPARE(readBack(path("odd/out " + name)).width(), blockFor(0).width());
        saveOver(model);
        QCOMPARE(model.saveConfirmation(), name);
        QCOMPARE(readBack(file).width(), blockFor(0).width());
    }

    void aNameThatIsNotUtf8SpoilsNothingElse()
    {
        const QString dir = folder("bytes");
        letterImages({"bytes/plain.png"});
        const QByteArray raw = QFile::encodeName(dir) + "/caf\xe9 \xff.png";
        QVERIFY(writeRaw(raw, encode(whiteImageWithBlock(20, 20, QRect(2, 2, 4, 4)), ".png")));
        CropModel model;
        openAll(model, urls({dir}));
        QVERIFY(::unlink(raw.constData()) == 0); // QTemporaryDir cannot spell it either
        // Qt 6.4's listing leaves out names it cannot represent, so the file
        // is ignored like a hidden one; a Qt that kept the bytes would open
        // it, and one that mangled them would count it.
        QVERIFY(itemNames(model).contains("plain.png"));
        const QString message = model.errorMessage().value_or(QString());
        QCOMPARE(message, model.items().size() == 1 && !message.isEmpty() ? "1 file couldn’t be opened." : "");
    }

    void aFolderOfTenThousandFiles()
    {
        const QString dir = folder("many");
        const QByteArray tiny = encode(whiteImageWithBlock(1, 1, QRect(0, 0, 1, 1)), ".png");
        QStringList names;
        for (int i = 0; i < 10000; ++i) {
            names.append(QStringLiteral("f%1.png").arg(i));
            QVERIFY(writeRaw(QFile::encodeName(dir + "/" + names.last()), tiny));
        }
        CropModel model;
        Notes notes(model);
        openAll(model, urls({dir}));
        // The first items join as one whole open would; the rest only add to the queue.
        QCOMPARE(notes.seen.mid(0, 5), (QStringList{"Items", "ActiveID", "SaveConfirmation", "ErrorMessage", "ActiveContentRect"}));
        QCOMPARE(notes.seen.mid(5).count("Items"), notes.seen.size() - 5);
        QVERIFY(!model.errorMessage());
        QCOMPARE(itemNames(model), names);
        QCOMPARE(activeName(model), "f0.png");
    }

    void unreadableFoldersAndFiles()
    {
        // As root everything is readable: read as nobody in a child process.
        const QString closed = folder("closed");
        letterImages({"closed/inside.png", "secret.png", "open.png"});
        QVERIFY(setMode(m_dir->path(), 0755) && setMode(closed, 0700) && setMode(path("secret.png"), 0600)
                && setMode(path("open.png"), 0644));
        const std::optional<QString> folderOnly = runSelf({"--child-open", closed}, {}, true);
        if (!folderOnly)
            QSKIP("cannot run a step as the user nobody here (needs root and setpriv)");
        // A folder that cannot be listed counts as empty.
        QCOMPARE(*folderOnly, QStringLiteral("\nNo supported images found.\n"));
        QCOMPARE(runSelf({"--child-open", closed, path("secret.png"), path("open.png")}, {}, true),
                 QStringLiteral("open.png\n1 file couldn’t be opened.\n"));
    }
};

ORVANE_MODEL_TEST_MAIN(CropModelFileSystemTest)
#include "cropmodelfilesystemtest.moc"
