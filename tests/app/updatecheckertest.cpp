// The updater's network core against a real HTTP server on 127.0.0.1 (plain
// http through the test-only loopback switch): the signed feed, the address
// rules, the limits, and downloads kept only when they verify.
#include <csignal>

#include <sys/resource.h>

#include <QNetworkAccessManager>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include "support/testfiles.h"
#include "updatetestsupport.h"

using namespace orvane;
using namespace orvane::test;
using namespace std::chrono_literals;
using Response = LocalHttpServer::Response;
using Status = UpdateChecker::CheckStatus;

namespace {

const QString kBuild = QStringLiteral("/dl/Orvane-2.0.tar.gz");

Response silent()
{
    Response response;
    response.neverAnswer = true;
    return response;
}

// The response sent without a Content-Length: the body ends with the connection.
Response streamed(Response response)
{
    response.sendLength = false;
    return response;
}

// One download: what the server sends for the offered file and what the feed says of it.
struct Download {
    Response served = {};    // at kBuild
    QByteArray published = {}; // the file the feed signs and announces; null: the served body
    QString url = {};        // announced instead of kBuild's address
    QString length = {};     // announced instead of the published length
    qint64 cap = UpdateChecker::maxUpdateBytes;
    QString error = {};      // a part of it; empty: the download is kept
};

// Calls start and returns what signal then reports, exactly once.
template <typename Result>
Result await(UpdateChecker& checker, void (UpdateChecker::*signal)(const Result&), const std::function<void()>& start)
{
    QSignalSpy spy(&checker, signal);
    start();
    if (!spy.wait(kWait) || spy.size() != 1)
        qFatal("the updater did not answer once");
    return spy.at(0).at(0).template value<Result>();
}

UpdateChecker::CheckResult runCheck(UpdateChecker& checker)
{
    return await(checker, &UpdateChecker::checkFinished, [&] { checker.check(); });
}

UpdateChecker::DownloadResult runDownload(UpdateChecker& checker, const AppcastItem& update)
{
    return await(checker, &UpdateChecker::downloadFinished, [&] { checker.download(update); });
}

} // namespace

Q_DECLARE_METATYPE(Response)
Q_DECLARE_METATYPE(Download)

class UpdateCheckerTest : public QObject {
    Q_OBJECT

private:
    SigningKey m_key;
    std::unique_ptr<LocalHttpServer> m_server;
    std::unique_ptr<QTemporaryDir> m_downloads;

    UpdateChecker::Config config() const
    {
        UpdateChecker::Config c = testConfig(*m_server, m_key.publicKeyBase64(), m_downloads->path());
        c.checkDeadline = 10s;
        c.maxFeedBytes = 64 * 1024;
        return c;
    }

    // payload offered as version 2.0 at kBuild.
    FeedItem build(const QByteArray& payload) const
    {
        return {QStringLiteral("2.0"), QString(), m_server->url(kBuild).toString(), QString::number(payload.size()),
                m_key.signBase64(payload), QString(), QString()};
    }

    AppcastItem offer(UpdateChecker& checker, const FeedItem& feedItem)
    {
        serveFeed(*m_server, m_key, makeFeed({feedItem}));
        const auto result = runCheck(checker);
        if (result.status != Status::UpdateAvailable)
            qFatal("the feed offered nothing: %s", qPrintable(result.error));
        return *result.update;
    }

    QStringList downloaded() const { return entries(m_downloads->path()); }

private Q_SLOTS:
    void init()
    {
        m_server = std::make_unique<LocalHttpServer>();
        if (!m_server->start())
            QSKIP("cannot listen on 127.0.0.1");
        m_downloads = std::make_unique<QTemporaryDir>();
    }

    void checkOutcomes_data()
    {
        QTest::addColumn<Response>("response");
        QTest::addColumn<QByteArray>("signature"); // null: the key's signature of the response; "none": not served
        QTest::addColumn<Status>("status");
        QTest::addColumn<QString>("offeredOrError");

        auto feed = [&](const QStringList& versions) {
            QList<FeedItem> items;
            for (const QString& v : versions)
                items.append({v, QString(), QStringLiteral("http://127.0.0.1:1/x.tar.gz"), QStringLiteral("9"),
                              QByteArray(64, 'S').toBase64(), QString(), QString()});
            return Response{200, "OK", makeFeed(items), "application/rss+xml"};
        };
        const QByteArray none;
        const Response big{200, "OK", QByteArray(200 * 1024, ' '), "application/rss+xml"};
        // A small deflate stream that expands far beyond the feed limit. Asked
        // for unencoded bytes, Orvane reads it as it is: not a feed, and never
        // "couldn't reach" a server that answered.
        Response bomb{200, "OK", qCompress(QByteArray(64 << 20, ' '), 9).mid(4), "application/rss+xml"};
        bomb.headers = {{"Content-Encoding", "deflate"}};
        QTest::newRow("newer version") << feed({"1.1", "2.0", "1.9"}) << none << Status::UpdateAvailable << "2.0";
        QTest::newRow("same version") << feed({"1.0", "1.0.0"}) << none << Status::UpToDate << "";
        QTest::newRow("404") << Response{404, "Not Found", "gone", "text/plain"} << none << Status::Failed << "404";
        QTest::newRow("malformed XML") << Response{200, "OK", "<rss><channel><item>", "application/xml"} << none
                                       << Status::Failed << "not valid XML";
        QTest::newRow("server never answers") << silent() << none << Status::Failed << "didn’t answer in time";
        QTest::newRow("oversized feed, announced") << big << none << Status::Failed << "larger than";
        QTest::newRow("oversized feed, unannounced") << streamed(big) << none << Status::Failed << "larger than";
        QTest::newRow("compressed bomb") << bomb << none << Status::Failed << "not valid XML";
        // A feed is believed only with the key's signature of its exact bytes:
        // otherwise whoever serves it could offer an old signed build as 99.0.
        const Response rollback = feed({"99.0"});
        QTest::newRow("no signature") << rollback << QByteArray("none") << Status::Failed << "isn’t signed";
        QTest::newRow("signed by another key") << rollback << SigningKey().signBase64(rollback.body) << Status::Failed
                                               << "isn’t valid";
        QTest::newRow("signature of the previous feed") << rollback << m_key.signBase64(makeFeed({}))
                                                        << Status::Failed << "isn’t valid";
        QTest::newRow("signature file past its size limit")
            << rollback << m_key.signBase64(rollback.body) + QByteArray(2000, ' ') << Status::Failed << "isn’t valid";
    }

    void checkOutcomes()
    {
        QFETCH(Response, response);
        QFETCH(QByteArray, signature);
        QFETCH(Status, status);
        QFETCH(QString, offeredOrError);
        serveFeed(*m_server, m_key, response.body, signature);
        m_server->setResponse(QStringLiteral("/feed.xml"), response);
        if (signature == "none")
            m_server->setResponse(QStringLiteral("/feed.xml.sig"), {404, "Not Found", "", "text/plain"});

        UpdateChecker checker(config());
        const auto result = runCheck(checker);
        QCOMPARE(result.status, status);
        QCOMPARE(result.update ? result.update->version : QString(), status == Status::UpdateAvailable ? offeredOrError : QString());
        QCOMPARE(result.error.isEmpty(), status != Status::Failed);
        if (status == Status::Failed)
            QVERIFY2(result.error.contains(offeredOrError) && result.error.endsWith(u'.'), qPrintable(result.error));
        QCOMPARE(m_server->requests().first(), QStringLiteral("/feed.xml"));
        QCOMPARE(m_server->lastRequestHeaders().value("accept-encoding"), QByteArray("identity"));
    }

    // Nothing is asked of the network when there is no feed, no usable key or no https address.
    void refusedBeforeAsking_data()
    {
        QTest::addColumn<bool>("feed");
        QTest::addColumn<QByteArray>("key"); // null: the right one
        QTest::addColumn<bool>("loopbackHttp");
        QTest::addColumn<Status>("status");
        QTest::addColumn<QString>("error");
        QTest::newRow("no feed") << false << QByteArray() << true << Status::NoFeed << "";
        QTest::newRow("no key") << true << QByteArray("") << true << Status::Failed << "no valid key";
        QTest::newRow("key of the wrong size") << true << QByteArray(31, 'k').toBase64() << true << Status::Failed
                                               << "no valid key";
        QTest::newRow("plain http feed") << true << QByteArray() << false << Status::Failed << "isn’t an https address";
    }

    void refusedBeforeAsking()
    {
        QFETCH(bool, feed);
        QFETCH(QByteArray, key);
        QFETCH(bool, loopbackHttp);
        QFETCH(Status, status);
        QFETCH(QString, error);
        UpdateChecker::Config c = config();
        c.feedUrl = feed ? c.feedUrl : QUrl();
        c.publicKey = key.isNull() ? c.publicKey : key;
        c.allowLoopbackHttp = loopbackHttp;
        serveFeed(*m_server, m_key, makeFeed({}));
        UpdateChecker checker(c);
        QCOMPARE(checker.hasFeed(), feed);
        const auto result = runCheck(checker);
        QCOMPARE(result.status, status);
        QVERIFY2(error.isEmpty() ? result.error.isEmpty() : result.error.contains(error), qPrintable(result.error));
        QCOMPARE(checker.findChild<QNetworkAccessManager*>(), nullptr);
        QVERIFY(m_server->requests().isEmpty());
    }

    void unreachableServerIsReported()
    {
        QTcpServer closed;
        QVERIFY(closed.listen(QHostAddress::LocalHost, 0));
        UpdateChecker::Config c = config();
        c.feedUrl = QUrl(QStringLiteral("http://127.0.0.1:%1/feed.xml").arg(closed.serverPort()));
        closed.close();
        UpdateChecker checker(c);
        const auto result = runCheck(checker);
        QCOMPARE(result.status, Status::Failed);
        QVERIFY2(result.error.startsWith(QStringLiteral("Couldn’t reach")), qPrintable(result.error));
    }

    void secondCheckJoinsTheRunningOne()
    {
        serveFeed(*m_server, m_key, makeFeed({}));
        UpdateChecker checker(config());
        QSignalSpy spy(&checker, &UpdateChecker::checkFinished);
        checker.check();
        checker.check();
        QVERIFY(spy.wait(kWait));
        QTest::qWait(50); // a second answer would be queued by now
        QCOMPARE(spy.size(), 1);
        QCOMPARE(m_server->requests().size(), 2); // the feed and its signature, once
    }

    void downloads_data()
    {
        QTest::addColumn<Download>("d");
        const QByteArray payload = QByteArray("Orvane 2.0 ").repeated(3000);
        QByteArray tampered = payload;
        tampered[100] = 'X';
        // Servers often label a .tar.gz as gzip-encoded; the signature covers
        // the file as published, so it must arrive as it is.
        Response gzip{200, "OK", gzipped(payload), "application/gzip"};
        gzip.headers = {{"Content-Encoding", "gzip"}};
        auto bad = [&](const Response& served, const char* error) {
            return Download{.served = served, .published = payload, .error = QString::fromUtf8(error)};
        };
        const Response whole{200, "OK", payload};
        QTest::newRow("verified") << Download{.served = whole};
        QTest::newRow("gzip-encoded, kept as published") << Download{.served = gzip};
        QTest::newRow("wrong signature") << bad({200, "OK", tampered}, "signature");
        QTest::newRow("shorter than announced") << bad({200, "OK", payload.chopped(1)}, "bytes instead of");
        QTest::newRow("longer than announced") << bad({200, "OK", payload + "more"}, "larger than");
        QTest::newRow("longer, unannounced length") << bad(streamed({200, "OK", payload + QByteArray(100'000, 'x')}),
                                                          "larger than");
        QTest::newRow("server never answers") << bad(silent(), "didn’t answer in time");
        // Refused before a byte is asked for.
        QTest::newRow("announced above the cap")
            << Download{.served = whole, .length = "10737418240", .error = "more than the 1 GiB Orvane accepts"};
        QTest::newRow("more than the disk holds")
            << Download{.served = whole, .length = "1125899906842624", .cap = qint64(1) << 62, .error = "enough free space"};
        QTest::newRow("plain http elsewhere")
            << Download{.served = whole, .url = "http://192.0.2.1/O.tar.gz", .error = "isn’t an https address"};
    }

    void downloads()
    {
        QFETCH(Download, d);
        const QByteArray published = d.published.isNull() ? d.served.body : d.published;
        FeedItem item = build(published);
        item.url = d.url.isEmpty() ? item.url : d.url;
        item.length = d.length.isEmpty() ? item.length : d.length;
        m_server->setResponse(kBuild, d.served);
        UpdateChecker::Config c = config();
        c.maxDownloadBytes = d.cap;
        UpdateChecker checker(c);
        const AppcastItem update = offer(checker, item);
        const qsizetype asked = m_server->requests().size();
        QSignalSpy progress(&checker, &UpdateChecker::downloadProgress);
        const auto result = runDownload(checker, update);
        QVERIFY2(result.ok == d.error.isEmpty() && result.error.contains(d.error), qPrintable(result.error));
        QCOMPARE(m_server->requests().size(), asked + (d.url.isEmpty() && d.length.isEmpty() ? 1 : 0));
        QCOMPARE(downloaded(), result.ok ? QStringList{QStringLiteral("Orvane-2.0.tar.gz")} : QStringList());
        QCOMPARE(result.filePath.isEmpty(), !result.ok);
        if (!result.ok)
            return;
        QCOMPARE(result.filePath, QDir(m_downloads->path()).filePath(QStringLiteral("Orvane-2.0.tar.gz")));
        QCOMPARE(readFile(result.filePath), published);
        QCOMPARE(progress.last(), (QVariantList{qint64(published.size()), qint64(published.size())}));
        QCOMPARE(m_server->lastRequestHeaders().value("accept-encoding"), QByteArray("identity"));
    }

    void downloadNeverOverwritesAnExistingFile()
    {
        QVERIFY(writeFile(QDir(m_downloads->path()).filePath(QStringLiteral("Orvane-2.0.tar.gz")), "the user's own file"));
        m_server->setResponse(kBuild, {200, "OK", "fresh"});
        UpdateChecker checker(config());
        const auto result = runDownload(checker, offer(checker, build("fresh")));
        QVERIFY2(result.ok, qPrintable(result.error));
        QCOMPARE(downloaded(), (QStringList{QStringLiteral("Orvane-2.0 (2).tar.gz"), QStringLiteral("Orvane-2.0.tar.gz")}));
        QCOMPARE(readFile(QDir(m_downloads->path()).filePath(QStringLiteral("Orvane-2.0.tar.gz"))), "the user's own file");
    }

    void downloadThatCannotBeStored()
    {
        const QByteArray payload = QByteArray("x").repeated(256 * 1024);
        m_server->setResponse(kBuild, {200, "OK", payload});
        UpdateChecker checker(config());
        const AppcastItem update = offer(checker, build(payload));

        // A folder that cannot exist: its parent is a file.
        const QString blocker = QDir(m_downloads->path()).filePath(QStringLiteral("file"));
        QVERIFY(writeFile(blocker, {}));
        UpdateChecker::Config c = config();
        c.downloadDirectory = blocker + QStringLiteral("/Downloads");
        UpdateChecker blocked(c);
        auto result = runDownload(blocked, update);
        QVERIFY2(result.error.startsWith(QStringLiteral("Couldn’t create the folder")), qPrintable(result.error));

        // A full disk, as a file size limit: the partial file goes, the reason is given.
        struct rlimit old {};
        QCOMPARE(getrlimit(RLIMIT_FSIZE, &old), 0);
        const auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
        struct rlimit small = old;
        small.rlim_cur = 64 * 1024;
        QCOMPARE(setrlimit(RLIMIT_FSIZE, &small), 0);
        result = runDownload(checker, update);
        setrlimit(RLIMIT_FSIZE, &old);
        std::signal(SIGXFSZ, oldHandler);
        QVERIFY2(result.error.startsWith(QStringLiteral("Couldn’t save the download")), qPrintable(result.error));
        QCOMPARE(downloaded(), QStringList{QStringLiteral("file")});
    }

    void cancelledDownloadLeavesNothing()
    {
        m_server->setResponse(kBuild, silent());
        UpdateChecker::Config c = config();
        c.transferTimeout = 60s; // only the cancel may end it
        UpdateChecker checker(c);
        const AppcastItem update = offer(checker, build("abc"));

        QSignalSpy spy(&checker, &UpdateChecker::downloadFinished);
        checker.download(update);
        QVERIFY(checker.isDownloading());
        QTRY_COMPARE(m_server->requests().size(), 2);
        checker.cancelDownload();
        QCOMPARE(spy.size(), 0); // reported later, not from inside the call
        QVERIFY(spy.wait(kWait));
        QCOMPARE(spy.size(), 1);
        QVERIFY(spy.at(0).at(0).value<UpdateChecker::DownloadResult>().error.contains(QStringLiteral("cancelled")));
        QVERIFY(!checker.isDownloading());
        QCOMPARE(downloaded(), QStringList());
    }

    void addressRules_data()
    {
        QTest::addColumn<bool>("loopbackHttp");
        QTest::addColumn<QString>("from");
        QTest::addColumn<QString>("to");
        QTest::addColumn<bool>("allowed"); // to as an address; a redirect from from to to
        QTest::newRow("https, same host") << false << "https://orvane.app/a" << "https://orvane.app/b" << true;
        QTest::newRow("host case differs") << false << "https://orvane.app/a" << "https://ORVANE.app:8443/b" << true;
        QTest::newRow("down to http") << false << "https://orvane.app/a" << "http://orvane.app/b" << false;
        QTest::newRow("another host") << false << "https://orvane.app/a" << "https://dl.orvane.app/b" << false;
        QTest::newRow("credentials") << false << "https://orvane.app/a" << "https://u:p@orvane.app/b" << false;
        QTest::newRow("loopback http without the switch") << false << "http://127.0.0.1:8/a" << "http://127.0.0.1:9/b" << false;
        QTest::newRow("loopback http with the switch") << true << "http://127.0.0.1:8/a" << "http://127.0.0.1:9/b" << true;
        QTest::newRow("the switch is for loopback only") << true << "http://orvane.app/a" << "http://orvane.app/b" << false;
        QTest::newRow("loopback https to http") << true << "https://127.0.0.1/a" << "http://127.0.0.1/b" << false;
    }

    void addressRules()
    {
        QFETCH(bool, loopbackHttp);
        QFETCH(QString, from);
        QFETCH(QString, to);
        QFETCH(bool, allowed);
        UpdateChecker::Config c = config();
        c.allowLoopbackHttp = loopbackHttp;
        const UpdateChecker checker(c);
        QCOMPARE(checker.isAllowedRedirect(QUrl(from), QUrl(to)), allowed);
        if (QUrl(from).scheme() == QUrl(to).scheme() && QUrl(to).userInfo().isEmpty())
            QCOMPARE(checker.isAllowedAddress(QUrl(to)), checker.isAllowedAddress(QUrl(from)));
    }

    void redirects_data()
    {
        QTest::addColumn<QString>("redirectedPath"); // /feed.xml or the download
        QTest::addColumn<QString>("location");
        QTest::addColumn<bool>("followed");
        QTest::newRow("feed, another host") << "/feed.xml" << "http://localhost:%1/moved/feed.xml" << false;
        QTest::newRow("download, same host") << kBuild << "/moved/Orvane-2.0.tar.gz" << true;
        QTest::newRow("download, another host") << kBuild << "http://localhost:%1/moved/Orvane-2.0.tar.gz" << false;
    }

    void redirects()
    {
        QFETCH(QString, redirectedPath);
        QFETCH(QString, location);
        QFETCH(bool, followed);
        location = location.arg(m_server->url(QStringLiteral("/")).port());
        const QByteArray payload = "Orvane 2.0";
        const QByteArray feed = makeFeed({build(payload)});
        const QString target = QUrl(location).path();
        serveFeed(*m_server, m_key, feed);
        serveFeed(*m_server, m_key, feed, {}, target);
        m_server->setResponse(redirectedPath == kBuild ? target : kBuild, {200, "OK", payload});
        Response moved{302, "Found", "", "text/plain"};
        moved.headers = {{"Location", location.toLatin1()}};
        m_server->setResponse(redirectedPath, moved);

        UpdateChecker checker(config());
        const auto check = runCheck(checker);
        const QString refused = QStringLiteral("isn’t an https address on the same server");
        QCOMPARE(check.status, redirectedPath == kBuild ? Status::UpdateAvailable : Status::Failed);
        const QString error = check.update ? runDownload(checker, *check.update).error : check.error;
        QVERIFY2(followed ? error.isEmpty() : error.contains(refused), qPrintable(error));
        QCOMPARE(m_server->requests().contains(target), followed);
        QCOMPARE(downloaded().size(), followed ? 1 : 0);
    }

    void signatureVerification()
    {
        const QByteArray message = "payload";
        const QByteArray signature = QByteArray::fromBase64(m_key.signBase64(message));
        QVERIFY(UpdateChecker::verifySignature(message, signature, m_key.publicKey));
        QVERIFY(!UpdateChecker::verifySignature("payloaD", signature, m_key.publicKey));
        QVERIFY(!UpdateChecker::verifySignature(message, signature.left(63), m_key.publicKey));
        QVERIFY(!UpdateChecker::verifySignature(message, signature, m_key.publicKey.left(31)));
        QVERIFY(!UpdateChecker::verifySignature(message, signature, SigningKey().publicKey));
    }
};

QTEST_GUILESS_MAIN(UpdateCheckerTest)
#include "updatecheckertest.moc"
