// Opening from a file system that does not hold still or holds odd things:
// files that vanish or change after the listing, symbolic links to files, to
// folders and in loops, odd and non-UTF-8 names, a folder of 10 000 files and
// folders that cannot be read. Each is counted, skipped or ignored, never a
// crash or a hang.
#include <functional>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "model/cropmodel.h"
#include "modeltest.h"
#include "support/heldimagesource.h"

using namespace orvane;
using namespace orvane::test;

namespace {

bool makeLink(const QString& target, const QString& link)
{
    return ::symlink(QFile::encodeName(target).constData(), QFile::encodeName(link).constData()) == 0;
}

} // namespace

class CropModelFileSystemTest : public QObject {
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_dir;
    QString path(const QString& name) const { return m_dir->filePath(name); }
    QString folder(const QString& name) const
    {
        QDir(m_dir->path()).mkpath(name);
        return path(name);
    }

private Q_SLOTS:
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        QVERIFY(m_dir->isValid());
    }

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
        for (int i = 0; i < 3; ++i)
            writeLetterImage(dir + QStringLiteral("/%1.png").arg(i + 1), i);
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
        if (!vanishes)
            QCOMPARE(model.items()[1].width(), 77);
        QCOMPARE(model.errorMessage(), QStringLiteral("1 file couldn’t be opened."));
    }

    void aLinkToAFolderIsExpandedWhenDroppedButNeverEnteredInside()
    {
        const QString real = folder("real");
        writeLetterImage(real + "/inside.png", 0);
        QVERIFY(makeLink(real, path("dropped-link")));
        const QString outer = folder("outer");
        writeLetterImage(outer + "/top.png", 1);
        QVERIFY(makeLink(real, outer + "/sub"));
        QVERIFY(makeLink(outer, outer + "/self")); // a folder that holds itself
        QVERIFY(makeLink("real/inside.png", path("relative.png"))); // a relative link to a file

        CropModel model;
        openAll(model, urls({path("dropped-link"), outer, path("relative.png")}));
        QCOMPARE(itemNames(model), (QStringList{"inside.png", "top.png", "relative.png"}));
        QCOMPARE(model.items()[0].url, QUrl::fromLocalFile(path("dropped-link") + "/inside.png"));
        QVERIFY(!model.errorMessage());
    }

    void linksInALoopNeitherHangNorOpen()
    {
        const QString dir = folder("loop");
        writeLetterImage(dir + "/good.png", 0);
        QVERIFY(makeLink(dir + "/two.png", dir + "/one.png"));
        QVERIFY(makeLink(dir + "/one.png", dir + "/two.png"));
        QVERIFY(makeLink(dir + "/nowhere.png", dir + "/dangling.png"));

        // Inside a folder the broken links are counted, or dropped by the
        // listing; either way the good file opens.
        CropModel model;
        openAll(model, urls({dir}));
        QCOMPARE(itemNames(model), QStringList{"good.png"});
        const QStringList outcomes{QString(), QStringLiteral("3 files couldn’t be opened.")};
        QVERIFY2(outcomes.contains(model.errorMessage().value_or(QString())),
                 qPrintable(model.errorMessage().value_or(QString())));

        // Dropped by itself a link in a loop is a file that cannot be opened.
        openAll(model, urls({dir + "/one.png", dir + "/dangling.png"}));
        QCOMPARE(itemNames(model), QStringList{"good.png"});
        QCOMPARE(model.errorMessage(), QStringLiteral("2 files couldn’t be opened."));
    }

    void oddNamesOpenAndKeepTheirNames_data()
    {
        QTest::addColumn<QString>("name");
        QTest::newRow("spaces") << " with  spaces .png";
        QTest::newRow("newline") << "new\nline.png";
        QTest::newRow("tab") << "tab\there.png";
        QTest::newRow("URL characters") << "#50%20?&=+;.png";
        QTest::newRow("non-Latin") << "фото 写真 ü.png";
        QTest::newRow("dots") << "name.with..dots.png";
        QTest::newRow("leading dot, dropped directly") << ".dotted.png";
        QTest::newRow("backslash and quotes") << "back\\slash \"“quoted”\".png";
    }
    void oddNamesOpenAndKeepTheirNames()
    {
        QFETCH(QString, name);
        const QString dir = folder("odd");
        writeLetterImage(dir + "/" + name, 0);
        FakePanels panels;
        panels.saveAnswer = QUrl::fromLocalFile(dir + "/out " + name);
        CropModel model(&panels);

        // Hidden entries of a folder are left out; every other name opens
        // both from the folder and dropped on its own.
        const bool hidden = name.startsWith('.');
        openAll(model, urls({dir}));
        QCOMPARE(itemNames(model), hidden ? QStringList{} : QStringList{name});
        openAll(model, urls({dir + "/" + name}));
        QVERIFY(!model.errorMessage());
        QCOMPARE(itemNames(model).last(), name);
        QCOMPARE(model.items().back().url.toLocalFile(), dir + "/" + name);

        model.select(model.items().back().id);
        saveAsNew(model);
        QCOMPARE(panels.proposedName.endsWith("-cropped.png"), true);
        QCOMPARE(model.saveConfirmation(), "out " + name);
        QCOMPARE(readBack(dir + "/out " + name).width(), blockFor(0).width());
        saveOver(model);
        QCOMPARE(model.saveConfirmation(), name);
        QCOMPARE(readBack(dir + "/" + name).width(), blockFor(0).width());
    }

    void aNameThatIsNotUtf8SpoilsNothingElse()
    {
        // Made with the raw bytes: Qt cannot spell this name as a QString.
        const QString dir = folder("bytes");
        writeLetterImage(dir + "/plain.png", 0);
        const QByteArray raw = QFile::encodeName(dir) + "/caf\xe9 \xff.png";
        const QByteArray png = encode(whiteImageWithBlock(20, 20, QRect(2, 2, 4, 4)), ".png");
        const int fd = ::open(raw.constData(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        QVERIFY(fd >= 0);
        QCOMPARE(::write(fd, png.constData(), std::size_t(png.size())), ssize_t(png.size()));
        ::close(fd);

        CropModel model;
        openAll(model, urls({dir}));
        const bool removed = ::unlink(raw.constData()) == 0; // QTemporaryDir cannot spell it either
        QVERIFY(removed);
        // Qt 6.4's listing leaves out names it cannot represent, so the file
        // is ignored like a hidden one; a Qt that kept the bytes would open
        // it, and one that mangled them would count it.
        QVERIFY(itemNames(model).contains("plain.png"));
        if (model.items().size() == 2)
            QVERIFY(!model.errorMessage());
        else if (model.errorMessage())
            QCOMPARE(model.errorMessage(), QStringLiteral("1 file couldn’t be opened."));
        else
            QCOMPARE(itemNames(model), QStringList{"plain.png"});
    }

    void aFolderOfTenThousandFiles()
    {
        const QString dir = folder("many");
        const QByteArray tiny = encode(whiteImageWithBlock(1, 1, QRect(0, 0, 1, 1)), ".png");
        const QByteArray base = QFile::encodeName(dir);
        for (int i = 0; i < 10000; ++i) {
            const QByteArray name = base + "/f" + QByteArray::number(i) + ".png";
            const int fd = ::open(name.constData(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            QVERIFY(fd >= 0);
            QCOMPARE(::write(fd, tiny.constData(), std::size_t(tiny.size())), ssize_t(tiny.size()));
            ::close(fd);
        }
        CropModel model;
        Notes notes(model);
        openAll(model, urls({dir}));
        // The first items join as one whole open would; the rest only add to the queue.
        const QStringList seen = notes.names();
        QCOMPARE(seen.mid(0, 5), (QStringList{"Items", "ActiveID", "SaveConfirmation", "ErrorMessage", "ActiveContentRect"}));
        QCOMPARE(seen.mid(5).count("Items"), seen.size() - 5);
        QCOMPARE(model.items().size(), std::size_t(10000));
        QVERIFY(!model.errorMessage());
        const QStringList names = itemNames(model);
        for (int i = 0; i < 10000; ++i) {
            if (names[i] != QStringLiteral("f%1.png").arg(i))
                QFAIL(qPrintable(QStringLiteral("position %1 holds %2").arg(i).arg(names[i])));
        }
        QCOMPARE(activeName(model), "f0.png");
    }

    void unreadableFoldersAndFiles()
    {
        // As root everything is readable: read as nobody in a child process.
        QTemporaryDir shared(QDir::tempPath() + "/orvane-unreadable-XXXXXX");
        QVERIFY(shared.isValid());
        QVERIFY(::chmod(QFile::encodeName(shared.path()).constData(), 0755) == 0);
        QDir(shared.path()).mkpath("closed");
        const QString closed = shared.filePath("closed");
        writeLetterImage(closed + "/inside.png", 0);
        QVERIFY(::chmod(QFile::encodeName(closed).constData(), 0700) == 0);
        const QString secret = shared.filePath("secret.png");
        writeLetterImage(secret, 1);
        QVERIFY(::chmod(QFile::encodeName(secret).constData(), 0600) == 0);
        const QString open = shared.filePath("open.png");
        writeLetterImage(open, 2);
        QVERIFY(::chmod(QFile::encodeName(open).constData(), 0644) == 0);

        const std::optional<QString> folderOnly = runAsNobody({"--child-open", closed});
        if (!folderOnly)
            QSKIP("cannot run a step as the user nobody here (needs root and setpriv)");
        // A folder that cannot be listed counts as empty.
        QCOMPARE(*folderOnly, QStringLiteral("\nNo supported images found.\n"));

        const std::optional<QString> mixed = runAsNobody({"--child-open", closed, secret, open});
        QVERIFY(mixed);
        QCOMPARE(*mixed, QStringLiteral("open.png\n1 file couldn’t be opened.\n"));
    }
};

ORVANE_MODEL_TEST_MAIN(CropModelFileSystemTest)
#include "cropmodelfilesystemtest.moc"
