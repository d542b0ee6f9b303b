// orvane-release end to end: a key pair, a release file and a feed signed by
// the tool, served on 127.0.0.1, found, downloaded and verified by the
// updater; and what a hostile server could change, refused.
#include <QFile>
#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include "support/testfiles.h"
#include "updatetestsupport.h"

using namespace orvane;
using namespace orvane::test;

namespace {

struct Run {
    int status = -1;
    QByteArray out;
    QByteArray err;
};

Run release(const QStringList& args)
{
    QProcess process;
    process.start(QStringLiteral(ORVANE_RELEASE_TOOL), args);
    if (!process.waitForFinished(kWait))
        qFatal("orvane-release did not finish");
    return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1, process.readAllStandardOutput(),
            process.readAllStandardError()};
}

QByteArray wrapFeed(const QByteArray& items)
{
    return "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
           "<rss version=\"2.0\" xmlns:orvane=\"https://orvane.app/xml/appcast\">\n<channel>\n"
        + items + "\n</channel>\n</rss>\n";
}

} // namespace

class ReleaseToolTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void roundTrip_data()
    {
        QTest::addColumn<QString>("tamper"); // "", "feed" or "file"
        QTest::addColumn<QString>("error");
        QTest::newRow("genuine release") << "" << "";
        QTest::newRow("tampered feed") << "feed" << "signature isn’t valid";
        QTest::newRow("tampered file") << "file" << "signature doesn’t match";
    }

    void roundTrip()
    {
        QFETCH(QString, tamper);
        QFETCH(QString, error);
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        LocalHttpServer server;
        if (!server.start())
            QSKIP("cannot listen on 127.0.0.1");

        const QString key = dir.filePath(QStringLiteral("release.key"));
        const Run keygen = release({QStringLiteral("keygen"), key});
        QVERIFY2(keygen.status == 0, keygen.err.constData());
        const QByteArray publicKey = keygen.out.trimmed();
        QCOMPARE(QByteArray::fromBase64(publicKey).size(), 32);
        QCOMPARE(QFile::permissions(key) & (QFileDevice::ReadGroup | QFileDevice::ReadOther), 0);
        QCOMPARE(release({QStringLiteral("public-key"), key}).out.trimmed(), publicKey);
        QCOMPARE(release({QStringLiteral("keygen"), key}).status, 1); // never replaces a key

        const QByteArray build = QByteArray("Orvane 2.0.1").repeated(4000);
        const QString buildPath = dir.filePath(QStringLiteral("Orvane-2.0.1.tar.gz"));
        QVERIFY(writeFile(buildPath, build));
        const QString downloadPath = QStringLiteral("/dl/Orvane-2.0.1.tar.gz");
        const Run item = release({QStringLiteral("item"), QStringLiteral("-k"), key, QStringLiteral("--version"),
                                  QStringLiteral("2.0.1"), QStringLiteral("--url"), server.url(downloadPath).toString(),
                                  buildPath});
        QVERIFY2(item.status == 0, item.err.constData());
        QVERIFY(item.out.contains("length=\"" + QByteArray::number(build.size()) + '"'));

        const QString feedPath = dir.filePath(QStringLiteral("appcast.xml"));
        QByteArray feed = wrapFeed(item.out);
        QVERIFY(writeFile(feedPath, feed));
        const Run signFeed = release({QStringLiteral("sign-feed"), QStringLiteral("-k"), key, feedPath});
        QVERIFY2(signFeed.status == 0, signFeed.err.constData());

        QByteArray served = build;
        if (tamper == QLatin1String("feed"))
            feed.replace("<title>Orvane", "<title>Orvane!");
        if (tamper == QLatin1String("file"))
            served[served.size() / 2] = '!';
        server.setResponse(QStringLiteral("/feed.xml"), {200, "OK", feed, "application/rss+xml"});
        server.setResponse(QStringLiteral("/feed.xml.sig"), {200, "OK", readFile(feedPath + ".sig"), "text/plain"});
        server.setResponse(downloadPath, {200, "OK", served});
        UpdateChecker checker(testConfig(server, publicKey, dir.filePath(QStringLiteral("downloads"))));
        QSignalSpy checked(&checker, &UpdateChecker::checkFinished);
        checker.check();
        QVERIFY(checked.wait(kWait));
        const auto check = checked.at(0).at(0).value<UpdateChecker::CheckResult>();
        if (tamper == QLatin1String("feed")) {
            QCOMPARE(check.status, UpdateChecker::CheckStatus::Failed);
            QVERIFY2(check.error.contains(error), qPrintable(check.error));
            return;
        }
        QCOMPARE(check.status, UpdateChecker::CheckStatus::UpdateAvailable);
        QCOMPARE(check.update->version, QStringLiteral("2.0.1"));
        QSignalSpy downloaded(&checker, &UpdateChecker::downloadFinished);
        checker.download(*check.update);
        QVERIFY(downloaded.wait(kWait));
        const auto result = downloaded.at(0).at(0).value<UpdateChecker::DownloadResult>();
        QCOMPARE(result.ok, error.isEmpty());
        QVERIFY2(result.error.contains(error), qPrintable(result.error));
        QCOMPARE(readFile(result.filePath), result.ok ? build : QByteArray());
    }

    // The tool signs nothing the updater would refuse or misread.
    void refusesWhatOrvaneWouldNotAccept_data()
    {
        QTest::addColumn<QStringList>("itemArgs"); // after item -k KEY
        QTest::addColumn<QByteArray>("feed");      // for sign-feed, when not empty
        QTest::newRow("plain http download") << QStringList{"--version", "2.0", "--url", "http://orvane.app/a.tar.gz"}
                                             << QByteArray();
        QTest::newRow("version with letters") << QStringList{"--version", "2.0b1", "--url", "https://orvane.app/a.tar.gz"}
                                              << QByteArray();
        QTest::newRow("feed not XML") << QStringList() << QByteArray("<rss><channel>");
        QTest::newRow("feed item without signature")
            << QStringList() << wrapFeed("<item><orvane:version>2.0</orvane:version>"
                                         "<enclosure url=\"https://orvane.app/a.tar.gz\" length=\"5\"/></item>");
    }

    void refusesWhatOrvaneWouldNotAccept()
    {
        QFETCH(QStringList, itemArgs);
        QFETCH(QByteArray, feed);
        QTemporaryDir dir;
        const QString key = dir.filePath(QStringLiteral("k"));
        QCOMPARE(release({QStringLiteral("keygen"), key}).status, 0);
        const QString file = dir.filePath(QStringLiteral("a.tar.gz"));
        QVERIFY(writeFile(file, feed.isEmpty() ? QByteArray("build") : feed));
        const Run run = feed.isEmpty()
            ? release(QStringList{QStringLiteral("item"), QStringLiteral("-k"), key} + itemArgs + QStringList{file})
            : release({QStringLiteral("sign-feed"), QStringLiteral("-k"), key, file});
        QVERIFY2(run.status != 0, run.out.constData());
        QVERIFY(run.out.isEmpty());
        QVERIFY(!run.err.isEmpty());
        QVERIFY(!QFile::exists(file + QStringLiteral(".sig")));
    }
};

QTEST_GUILESS_MAIN(ReleaseToolTest)
#include "releasetooltest.moc"
