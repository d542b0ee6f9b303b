// Writes that the system refuses (file size limit, full file system, no
// permission) leave the original byte for byte, report "Couldn’t write to
// “name”." and leave the item unsaved; a replaced file keeps its mode and owner.
#include <grp.h>
#include <pwd.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <QDir>
#include <QMap>
#include <QProcess>
#include <QScopeGuard>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

#include <vips/vips8>

#include "imagefile/imagefile.h"
#include "model/cropmodel.h"
#include "support/queuewaits.h"
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
    QStringList all = prefix;
    all << QStringLiteral(ORVANE_SAVECHILD) << arguments;
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
    QStringList values;
    for (const char* key : {"items", "saved", "error", "confirmation"})
        values << fields.value(QLatin1String(key));
    return values;
}

} // namespace

class RefusedWriteTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(VIPS_INIT("reliability_refusedwrite") == 0);
        ImageFile::initialise();
        QVERIFY2(QFileInfo(QStringLiteral(ORVANE_SAVECHILD)).isExecutable(), ORVANE_SAVECHILD);
        m_original = TestImages::encode(TestImages::framedNoise(110, 90, 12), ".png");
        QVERIFY(m_original.size() > 4096 && m_original.size() < 32 * 1024);
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
        if (ownedByNobody && ::geteuid() != 0)
            QSKIP("needs root, to give the file away");

        QTemporaryDir dir;
        const QString path = dir.filePath(kName);
        const QByteArray name = QFile::encodeName(path);
        QVERIFY(test::writeFile(path, m_original) && ::chmod(name.constData(), mode_t(mode)) == 0);
        uid_t uid = ::geteuid();
        gid_t gid = ::getegid();
        if (ownedByNobody) {
            const passwd* nobody = ::getpwnam("nobody");
            if (!nobody)
                QSKIP("there is no user nobody");
            uid = nobody->pw_uid;
            gid = nobody->pw_gid;
            QVERIFY(::chown(name.constData(), uid, gid) == 0);
        }

        CropModel model;
        test::openAll(model, {QUrl::fromLocalFile(path)});
        QCOMPARE(model.items().size(), std::size_t(1));
        test::saveOver(model);
        QCOMPARE(model.saveConfirmation(), std::optional<QString>(kName));
        QVERIFY(!model.errorMessage() && model.items().front().saved);
        QCOMPARE(model.items().front().width(), 110 - 2 * 12);

        struct stat after {};
        QVERIFY(::stat(name.constData(), &after) == 0);
        QCOMPARE(int(after.st_mode & 07777), mode);
        QCOMPARE(std::pair(after.st_uid, after.st_gid), std::pair(uid, gid));
        QVERIFY(test::readFile(path) != m_original);
        QCOMPARE(test::entries(dir.path()), QStringList{kName});
    }

private:
    QByteArray m_original; // a PNG with a border to trim, about 20 KB
};

QTEST_GUILESS_MAIN(RefusedWriteTest)
#include "refusedwritetest.moc"
