// A save over the original, killed with SIGKILL at random moments while it
// encodes and writes, never leaves anything but the complete old file or the
// complete new one.
#include <QDir>
#include <QElapsedTimer>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>

#include <vips/vips8>

#include "imagefile/imagefile.h"
#include "support/testfiles.h"
#include "testimages.h"

using namespace orvane;

class KilledSaveTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(VIPS_INIT("reliability_killedsave") == 0);
        ImageFile::initialise();
        QVERIFY2(QFileInfo(QStringLiteral(ORVANE_SAVECHILD)).isExecutable(), ORVANE_SAVECHILD);
    }

    void killedSaveLeavesOldOrNewFile_data()
    {
        QTest::addColumn<QString>("suffix");
        QTest::addColumn<int>("width");
        QTest::addColumn<int>("height");
        // Uncompressed TIFF: little encoding, megabytes to write and sync.
        QTest::newRow("tiff") << QStringLiteral(".tiff") << 1200 << 900;
        // PNG at level 9: mostly encoding, then a shorter write.
        QTest::newRow("png") << QStringLiteral(".png") << 500 << 400;
    }

    void killedSaveLeavesOldOrNewFile()
    {
        QFETCH(QString, suffix);
        QFETCH(int, width);
        QFETCH(int, height);
        constexpr int kills = 50;
        QTemporaryDir dir, reference;
        QVERIFY(dir.isValid() && reference.isValid());
        const QString name = QStringLiteral("photo") + suffix;
        const QString original = dir.filePath(name);
        const QByteArray oldBytes = TestImages::encode(TestImages::framedNoise(width, height, 40), suffix.toLatin1().constData());

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
        for (int kill = 0; kill < kills; ++kill) {
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
                QVERIFY2(entry.startsWith(name + QLatin1Char('.')), qPrintable(where + QStringLiteral(": stray file ") + entry));
                QVERIFY2(test::readFile(dir.filePath(entry)) == newBytes,
                         qPrintable(where + QStringLiteral(": partial temporary file ") + entry));
                ++leftovers;
                QVERIFY(QFile::remove(dir.filePath(entry)));
            }
        }
        qInfo("%s: save takes %lld ms; %d kills: %d kept the old file, %d found the new one, %d left a complete temporary",
              qPrintable(suffix), saveTime, kills, keptOld, gotNew, leftovers);
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
};

QTEST_GUILESS_MAIN(KilledSaveTest)
#include "killedsavetest.moc"
