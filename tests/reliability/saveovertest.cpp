// Saving over the original, in a child process. Killed with SIGKILL at
// random moments while it encodes and writes, it never leaves anything but
// the complete old file or the complete new one. Writes that the system
// refuses (file size limit, full file system, no permission) leave the
// original byte for byte, report "Couldn’t write to “name”." and leave the
// item unsaved; a replaced file keeps its mode and owner.
#include <pwd.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <QElapsedTimer>
#include <QMap>
#include <QProcess>
#include <QRandomGenerator>
#include <QScopeGuard>
#include <QSize>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>

#include <vips/vips8>

#include "imagefile/imagefile.h"
#include "support/testfiles.h"
#include "testimages.h"

using namespace orvane;

namespace {

const QString kName = QStringLiteral("photo.png");
const QString kRefused = QStringLiteral("Couldn’t write to “photo.png”.");

// What the child printed, as key=value lines; "ran" is set when it ran to the end.
QMap<QString, QString> runChild(const QStringList& prefix, const QStringList& arguments, QString* errors = nullptr)
{
    QProcess child;
    QStringList all = prefix + QStringList{QStringLiteral(ORVANE_SAVECHILD)} + arguments;
    child.start(all.takeFirst(), all);
    QMap<QString, QString> fields;
    if (!child.waitForStarted(10000) || !child.waitForFinished(60000))
        return fields;
    if (errors)
        *errors = QString::fromLocal8Bit(child.readAllStandardError());
    for (const QByteArray& line : child.readAllStandardOutput().split('\n'))
        if (const qsizetype eq = line.indexOf('='); eq > 0)
            fields.insert(QString::fromUtf8(line.left(eq)), QString::fromUtf8(line.mid(eq + 1)));
    if (child.exitStatus() == QProcess::NormalExit && child.exitCode() == 0 && fields.contains(QStringLiteral("uid")))
        fields.insert(QStringLiteral("ran"), QStringLiteral("1"));
    return fields;
}

// The outcome the child reports: items, saved, error, confirmation.
QStringList outcome(const QMap<QString, QString>& fields)
{
    return {fields.value("items"), fields.value("saved"), fields.value("error"), fields.value("confirmation")};
}

} // namespace

class SaveOverOriginalTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(VIPS_INIT("reliability_saveover") == 0);
        ImageFile::initialise();
        QVERIFY2(QFileInfo(QStringLiteral(ORVANE_SAVECHILD)).isExecutable(), ORVANE_SAVECHILD);
        m_original = TestImages::encode(TestImages::framedNoise(110, 90, 12), ".png");
        QVERIFY(m_original.size() > 4096 && m_original.size() < 32 * 1024);
    }

    void killedSaveLeavesOldOrNewFile_data()
    {
        QTest::addColumn<QString>("suffix");
        QTest::addColumn<QSize>("size");
        // Uncompressed TIFF: little encoding, megabytes to write and sync.
        QTest::newRow("tiff") << QStringLiteral(".tiff") << QSize(1200, 900);
        // PNG at level 9: mostly encoding, then a shorter write.
        QTest::newRow("png") << QStringLiteral(".png") << QSize(500, 400);
    }

    void killedSaveLeavesOldOrNewFile()
    {
        QFETCH(QString, suffix);
        QFETCH(QSize, size);
        QTemporaryDir dir, reference;
        QVERIFY(dir.isValid() && reference.isValid());
        const QString name = QStringLiteral("photo") + suffix, original = dir.filePath(name);
        const QByteArray oldBytes = TestImages::encode(TestImages::framedNoise(size.width(), size.height(), 40), suffix.toLatin1().constData());

        // The complete new file, made by the same child on a copy; two runs must
        // agree or "complete new file" would mean nothing.
        const QString copy = reference.filePath(name);
        QByteArray newBytes;
        qint64 saveTime = 1;
        for (int run = 0; run < 2; ++run) {
            QVERIFY(test::writeFile(copy, oldBytes));
            const qint64 time = saveToEnd(copy);
            QVERIFY2(time >= 0, "the child could not save");
            // Syncing to disk varies most; the slower run covers more of the saves.
            saveTime = std::max(saveTime, time);
            QVERIFY(run == 0 || test::readFile(copy) == newBytes);
            newBytes = test::readFile(copy);
        }
        QVERIFY(newBytes != oldBytes && ImageFile::load(copy).has_value());

        // Every other delay is spread over the whole save and a little past it,
        // so that kills land in the encoding, the writing, the sync, the rename
        // and after it; the others fall into the second half of the save, where
        // the bytes reach the disk (encoding comes first).
        const quint32 seed = QRandomGenerator::global()->generate();
        QRandomGenerator random(seed);
        const qint64 saveMicroseconds = saveTime * 1000;
        int keptOld = 0, gotNew = 0, leftovers = 0;
        for (int kill = 0; kill < 50; ++kill) {
            QVERIFY(test::writeFile(original, oldBytes));
            QProcess child;
            QVERIFY2(startSave(child, original), "the child did not start saving");
            const qint64 delay = kill % 2 == 0 ? qint64(random.bounded(quint64(saveMicroseconds * 5 / 4)))
                                               : saveMicroseconds / 2 + qint64(random.bounded(quint64(saveMicroseconds / 2)));
            QThread::usleep(static_cast<unsigned long>(delay));
            child.kill();
            QVERIFY(child.waitForFinished(30000));

            const QByteArray now = test::readFile(original);
            const QString where = QStringLiteral("kill %1 after %2 µs (seed %3)").arg(kill).arg(delay).arg(seed);
            QVERIFY2(now == oldBytes || now == newBytes,
                     qPrintable(where + QStringLiteral(": the original is neither the old nor the new file (%1 bytes)").arg(now.size())));
            (now == oldBytes ? keptOld : gotNew)++;

            // The new file is written unnamed (O_TMPFILE), given a temporary name
            // once complete and synced, then renamed over the original. A kill
            // between those two steps leaves that name behind: always a complete
            // copy of the new file, never a part of one.
            for (const QString& entry : test::entries(dir.path())) {
                if (entry == name)
                    continue;
                QVERIFY2(entry.startsWith(name + QLatin1Char('.')) && test::readFile(dir.filePath(entry)) == newBytes,
                         qPrintable(where + QStringLiteral(": stray or partial file ") + entry));
                ++leftovers;
                QVERIFY(QFile::remove(dir.filePath(entry)));
            }
        }
        qInfo("%s: save takes %lld ms; 50 kills: %d kept the old file, %d found the new one, %d left a complete temporary",
              qPrintable(suffix), saveTime, keptOld, gotNew, leftovers);
    }

    void refusedSaveLeavesTheOriginal_data()
    {
        QTest::addColumn<QString>("refusal");
        QTest::newRow("file size limit") << "limit";
        QTest::newRow("full file system") << "full";
        // The folder is root's, mode 0755, in both rows: no new file can be made
        // in it. A writable file must still not be written in place, since a
        // failed write would then destroy it.
        QTest::newRow("read-only file, another user") << "0644";
        QTest::newRow("writable file, another user") << "0666";
    }

    void refusedSaveLeavesTheOriginal()
    {
        QFETCH(QString, refusal);
        QTemporaryDir dir;
        const QString path = dir.filePath(kName), filler = dir.filePath(QStringLiteral("filler"));
        const QByteArray folder = QFile::encodeName(dir.path());
        QStringList prefix, arguments{QStringLiteral("model"), path};
        bool mounted = false;
        const auto unmount = qScopeGuard([&] {
            if (mounted)
                ::umount2(folder.constData(), MNT_DETACH);
        });
        if (refusal == QLatin1String("limit")) {
            arguments << QStringLiteral("2048"); // set after the image is read: only the write runs into it
        } else if (refusal == QLatin1String("full")) {
            mounted = ::mount("tmpfs", folder.constData(), "tmpfs", MS_NOSUID | MS_NODEV, "size=64k,mode=0755") == 0;
            if (!mounted)
                QSKIP(qPrintable(QStringLiteral("cannot mount a small file system here: ") + QString::fromLocal8Bit(std::strerror(errno))));
        } else {
            const QString setpriv = QStandardPaths::findExecutable(QStringLiteral("setpriv"));
            if (setpriv.isEmpty() || ::geteuid() != 0)
                QSKIP("needs root and setpriv, to hand the save to another user");
            prefix = QStringList{setpriv, QStringLiteral("--reuid=nobody"), QStringLiteral("--regid=nogroup"), QStringLiteral("--clear-groups")};
            QVERIFY(::chmod(folder.constData(), 0755) == 0);
        }
        QVERIFY(test::writeFile(path, m_original));
        if (!prefix.isEmpty())
            QVERIFY(::chmod(QFile::encodeName(path).constData(), mode_t(refusal.toInt(nullptr, 8))) == 0);
        if (mounted) { // fill every block that is left
            QFile fill(filler);
            QVERIFY(fill.open(QIODevice::WriteOnly | QIODevice::Unbuffered));
            while (fill.write(QByteArray(4096, 'x')) == 4096) {
            }
        }

        QString errors;
        const auto report = runChild(prefix, arguments, &errors);
        if (!prefix.isEmpty() && !report.contains(QStringLiteral("ran")))
            QSKIP(qPrintable(QStringLiteral("the child does not run as nobody here: ") + errors));
        QVERIFY2(report.contains(QStringLiteral("ran")), qPrintable(errors));
        QCOMPARE(outcome(report), (QStringList{"1", "0", kRefused, ""}));
        QVERIFY(test::readFile(path) == m_original);
        QCOMPARE(test::entries(dir.path()), (mounted ? QStringList{QStringLiteral("filler"), kName} : QStringList{kName}));
        if (!prefix.isEmpty()) {
            QVERIFY(report.value(QStringLiteral("uid")) != QStringLiteral("0"));
            return;
        }
        // Without the limit, or with room again, the same save goes through.
        QFile::remove(filler);
        QCOMPARE(outcome(runChild({}, {QStringLiteral("model"), path})), (QStringList{"1", "1", "", kName}));
    }

    void replacedFileKeepsModeAndOwner_data()
    {
        QTest::addColumn<int>("mode");
        QTest::addColumn<bool>("ownedByNobody");
        QTest::newRow("0604") << 0604 << false;
        QTest::newRow("0755") << 0755 << false;
        QTest::newRow("0640, another owner") << 0640 << true;
    }

    void replacedFileKeepsModeAndOwner()
    {
        QFETCH(int, mode);
        QFETCH(bool, ownedByNobody);
        QTemporaryDir dir;
        const QString path = dir.filePath(kName);
        const QByteArray name = QFile::encodeName(path);
        QVERIFY(test::writeFile(path, m_original) && ::chmod(name.constData(), mode_t(mode)) == 0);
        const passwd* nobody = ownedByNobody ? ::getpwnam("nobody") : nullptr;
        if (ownedByNobody && (::geteuid() != 0 || !nobody))
            QSKIP("needs root and a user nobody, to give the file away");
        const uid_t uid = nobody ? nobody->pw_uid : ::geteuid();
        const gid_t gid = nobody ? nobody->pw_gid : ::getegid();
        QVERIFY(::chown(name.constData(), uid, gid) == 0);

        QCOMPARE(outcome(runChild({}, {QStringLiteral("model"), path})), (QStringList{"1", "1", "", kName}));
        struct stat after {};
        QVERIFY(::stat(name.constData(), &after) == 0);
        QCOMPARE(int(after.st_mode & 07777), mode);
        QCOMPARE(std::pair(after.st_uid, after.st_gid), std::pair(uid, gid));
        QVERIFY(test::readFile(path) != m_original);
        QCOMPARE(test::entries(dir.path()), QStringList{kName});
    }

private:
    // Starts the child on path and waits until it starts encoding; the
    // process then runs on. False when it did not get that far.
    bool startSave(QProcess& child, const QString& path)
    {
        child.start(QStringLiteral(ORVANE_SAVECHILD), {QStringLiteral("save"), path, QStringLiteral("25")});
        if (!child.waitForStarted(10000))
            return false;
        while (!child.canReadLine())
            if (!child.waitForReadyRead(30000))
                return false;
        return child.readLine().trimmed() == "encoding";
    }

    // Runs one save to the end; the milliseconds from "encoding" to "saved",
    // or -1 when it failed.
    qint64 saveToEnd(const QString& path)
    {
        QProcess child;
        if (!startSave(child, path))
            return -1;
        QElapsedTimer timer;
        timer.start();
        const bool saved = child.waitForFinished(60000) && child.exitCode() == 0 && child.readAll().trimmed() == "saved";
        return saved ? timer.elapsed() : -1;
    }

    QByteArray m_original; // a PNG with a border to trim, about 20 KB
};

QTEST_GUILESS_MAIN(SaveOverOriginalTest)
#include "saveovertest.moc"
