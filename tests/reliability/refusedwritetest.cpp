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
#include "support/queuewaits.h"
#include "model/cropmodel.h"
#include "support/testfiles.h"
#include "testimages.h"

using namespace orvane;

namespace {

const QString kName = QStringLiteral("photo.png");
const QString kRefused = QStringLiteral("Couldn’t write to “photo.png”.");

// What the child printed, as key=value lines.
struct ChildReport {
    bool ran = false;
    QMap<QString, QString> fields;
    QString errors;
};

ChildReport runChild(const QStringList& prefix, const QStringList& arguments)
{
    QProcess child;
    QStringList all = prefix;
    all << QStringLiteral(ORVANE_SAVECHILD) << arguments;
    child.start(all.takeFirst(), all);
    ChildReport report;
    if (!child.waitForStarted(10000) || !child.waitForFinished(60000))
        return report;
    report.errors = QString::fromLocal8Bit(child.readAllStandardError());
    for (const QByteArray& line : child.readAllStandardOutput().split('\n')) {
        const qsizetype eq = line.indexOf('=');
        if (eq > 0)
            report.fields.insert(QString::fromUtf8(line.left(eq)), QString::fromUtf8(line.mid(eq + 1)));
    }
    report.ran = child.exitStatus() == QProcess::NormalExit && child.exitCode() == 0
        && report.fields.contains(QStringLiteral("uid"));
    return report;
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

    void fileSizeLimitRefusesSave()
    {
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        const QString path = dir.filePath(kName);
        QVERIFY(test::writeFile(path, m_original));

        // The limit is set after the image is read: only the write runs into it.
        const ChildReport report = runChild({}, {QStringLiteral("model"), path, QStringLiteral("2048")});
        QVERIFY2(report.ran, qPrintable(report.errors));
        QCOMPARE(report.fields.value(QStringLiteral("items")), QStringLiteral("1"));
        QCOMPARE(report.fields.value(QStringLiteral("error")), kRefused);
        QCOMPARE(report.fields.value(QStringLiteral("saved")), QStringLiteral("0"));
        QCOMPARE(report.fields.value(QStringLiteral("confirmation")), QString());
        QVERIFY(test::readFile(path) == m_original);
        QCOMPARE(test::entries(dir.path()), QStringList{kName});

        // Without the limit the same child succeeds: the refusal above was the limit's.
        const ChildReport free = runChild({}, {QStringLiteral("model"), path});
        QVERIFY2(free.ran, qPrintable(free.errors));
        QCOMPARE(free.fields.value(QStringLiteral("saved")), QStringLiteral("1"));
        QCOMPARE(free.fields.value(QStringLiteral("confirmation")), kName);
    }

    void fullFileSystemRefusesSave()
    {
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        const QByteArray mountPoint = QFile::encodeName(dir.path());
        if (::mount("tmpfs", mountPoint.constData(), "tmpfs", MS_NOSUID | MS_NODEV, "size=64k,mode=0755") != 0)
            QSKIP(qPrintable(QStringLiteral("cannot mount a small file system here: %1").arg(QString::fromLocal8Bit(std::strerror(errno)))));
        const auto unmount = qScopeGuard([&] { ::umount2(mountPoint.constData(), MNT_DETACH); });

        const QString path = dir.filePath(kName);
        QVERIFY(test::writeFile(path, m_original));
        // Fill every block that is left.
        {
            QFile filler(dir.filePath(QStringLiteral("filler")));
            QVERIFY(filler.open(QIODevice::WriteOnly | QIODevice::Unbuffered));
            const QByteArray block(4096, 'x');
            while (filler.write(block) == block.size()) {
            }
        }

        CropModel model;
        test::openAll(model, {QUrl::fromLocalFile(path)});
        QCOMPARE(model.items().size(), std::size_t(1));
        test::saveOver(model);
        QCOMPARE(model.errorMessage(), std::optional<QString>(kRefused));
        QVERIFY(!model.items().front().saved);
        QVERIFY(!model.saveConfirmation());
        QVERIFY(test::readFile(path) == m_original);
        QCOMPARE(test::entries(dir.path()), (QStringList{QStringLiteral("filler"), kName}));

        // Room again: the same save goes through.
        QVERIFY(QFile::remove(dir.filePath(QStringLiteral("filler"))));
        test::saveOver(model);
        QCOMPARE(model.saveConfirmation(), std::optional<QString>(kName));
        QVERIFY(model.items().front().saved);
        QVERIFY(test::readFile(path) != m_original);
    }

    void unprivilegedUserIsRefused_data()
    {
        QTest::addColumn<int>("fileMode");
        // The folder is root's, mode 0755, in both rows: no new file can be made
        // in it. A writable file must still not be written in place, since a
        // failed write would then destroy it.
        QTest::newRow("read-only file") << 0644;
        QTest::newRow("writable file") << 0666;
    }

    void unprivilegedUserIsRefused()
    {
        QFETCH(int, fileMode);
        const QString setpriv = QStandardPaths::findExecutable(QStringLiteral("setpriv"));
        if (setpriv.isEmpty())
            QSKIP("setpriv is not installed");
        if (::geteuid() != 0)
            QSKIP("needs root, to hand the save to another user");

        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        QVERIFY(::chmod(QFile::encodeName(dir.path()).constData(), 0755) == 0);
        const QString path = dir.filePath(kName);
        QVERIFY(test::writeFile(path, m_original));
        QVERIFY(::chmod(QFile::encodeName(path).constData(), mode_t(fileMode)) == 0);

        const ChildReport report = runChild(
            {setpriv, QStringLiteral("--reuid=nobody"), QStringLiteral("--regid=nogroup"), QStringLiteral("--clear-groups")},
            {QStringLiteral("model"), path});
        if (!report.ran)
            QSKIP(qPrintable(QStringLiteral("the child does not run as nobody here: ") + report.errors));
        QVERIFY(report.fields.value(QStringLiteral("uid")) != QStringLiteral("0"));
        QCOMPARE(report.fields.value(QStringLiteral("items")), QStringLiteral("1"));
        QCOMPARE(report.fields.value(QStringLiteral("error")), kRefused);
        QCOMPARE(report.fields.value(QStringLiteral("saved")), QStringLiteral("0"));
        QVERIFY(test::readFile(path) == m_original);
        QCOMPARE(test::entries(dir.path()), QStringList{kName});
    }

    void replacedFileKeepsModeAndOwner_data()
    {
        QTest::addColumn<int>("mode");
        QTest::addColumn<bool>("ownedByNobody");
        QTest::newRow("0640") << 0640 << false;
        QTest::newRow("0600") << 0600 << false;
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
        QVERIFY(dir.isValid());
        const QString path = dir.filePath(kName);
        const QByteArray name = QFile::encodeName(path);
        QVERIFY(test::writeFile(path, m_original));
        QVERIFY(::chmod(name.constData(), mode_t(mode)) == 0);
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
        QVERIFY(!model.errorMessage());
        QVERIFY(model.items().front().saved);
        QCOMPARE(model.items().front().width(), 110 - 2 * 12);

        struct stat after {};
        QVERIFY(::stat(name.constData(), &after) == 0);
        QCOMPARE(int(after.st_mode & 07777), mode);
        QCOMPARE(after.st_uid, uid);
        QCOMPARE(after.st_gid, gid);
        QVERIFY(test::readFile(path) != m_original);
        QCOMPARE(test::entries(dir.path()), QStringList{kName});
    }

private:
    QByteArray m_original; // a PNG with a border to trim, about 20 KB
};

QTEST_GUILESS_MAIN(RefusedWriteTest)
#include "refusedwritetest.moc"
