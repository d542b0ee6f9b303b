// The update feed parser and version comparison, over bytes made in the test.
#include <QTest>

#include "app/appcast.h"
#include "updatetestsupport.h"

using namespace orvane;
using orvane::test::FeedItem;
using orvane::test::makeFeed;

namespace {

const QByteArray kSignature = QByteArray(64, 'S').toBase64();

FeedItem goodItem(const QString& version = QStringLiteral("2.0"))
{
    return {version, QString(), QStringLiteral("https://orvane.app/dl/Orvane-%1.tar.gz").arg(version),
            QStringLiteral("1234"), kSignature, QString(), QString()};
}

} // namespace

class AppcastTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void compareVersions_data()
    {
        QTest::addColumn<QString>("a");
        QTest::addColumn<QString>("b");
        QTest::addColumn<int>("expected");
        QTest::newRow("equal") << "1.0" << "1.0" << 0;
        QTest::newRow("missing components are zero") << "1.0" << "1.0.0" << 0;
        QTest::newRow("numeric, not textual") << "1.2" << "1.10" << -1;
        QTest::newRow("first component decides") << "2" << "1.99.99" << 1;
        QTest::newRow("longer is newer when the rest is equal") << "1.0.1" << "1.0" << 1;
        QTest::newRow("leading zeros carry no value") << "01.002" << "1.2" << 0;
        QTest::newRow("beyond 64 bits") << "99999999999999999999" << "100000000000000000000" << -1;
    }

    void compareVersions()
    {
        QFETCH(QString, a);
        QFETCH(QString, b);
        QFETCH(int, expected);
        QCOMPARE(Appcast::compareVersions(a, b), expected);
        QCOMPARE(Appcast::compareVersions(b, a), -expected);
    }

    void isValidVersion_data()
    {
        QTest::addColumn<QString>("version");
        QTest::addColumn<bool>("valid");
        QTest::newRow("one number") << "1" << true;
        QTest::newRow("three numbers") << "1.20.300" << true;
        QTest::newRow("empty") << "" << false;
        QTest::newRow("trailing dot") << "1." << false;
        QTest::newRow("empty component") << "1..2" << false;
        QTest::newRow("letter") << "1.2a" << false;
        QTest::newRow("space") << " 1" << false;
        QTest::newRow("sign") << "1.-2" << false;
        QTest::newRow("non-ASCII digit") << QStringLiteral("1.\u0661") << false;
    }

    void isValidVersion()
    {
        QFETCH(QString, version);
        QFETCH(bool, valid);
        QCOMPARE(Appcast::isValidVersion(version), valid);
    }

    void readsEveryFieldOfAnItem()
    {
        FeedItem item = goodItem(QStringLiteral("2.1.0"));
        item.shortVersion = QStringLiteral("2.1");
        item.releaseNotes = QStringLiteral("https://orvane.app/notes/2.1.html");
        const auto result = Appcast::parse(makeFeed({item}));
        QVERIFY2(result.ok(), qPrintable(result.error));
        QCOMPARE(result.items.size(), size_t(1));
        const AppcastItem& read = result.items.front();
        QCOMPARE(read.version, QStringLiteral("2.1.0"));
        QCOMPARE(read.displayVersion(), QStringLiteral("2.1"));
        QCOMPARE(read.releaseNotesLink, QUrl(QStringLiteral("https://orvane.app/notes/2.1.html")));
        QCOMPARE(read.enclosureUrl, QUrl(QStringLiteral("https://orvane.app/dl/Orvane-2.1.0.tar.gz")));
        QCOMPARE(read.enclosureLength, qint64(1234));
        QCOMPARE(read.edSignature, QByteArray(64, 'S'));
    }

    // One item of a feed is spoilt by replacing a piece of its XML; the other stays.
    void leavesOutItemsThatCannotBeOffered_data()
    {
        QTest::addColumn<QByteArray>("from");
        QTest::addColumn<QByteArray>("to");
        QTest::newRow("no version") << QByteArray("<orvane:version>5.0</orvane:version>") << QByteArray();
        QTest::newRow("version not numeric") << QByteArray(">5.0<") << QByteArray(">5.x<");
        QTest::newRow("enclosure not http") << QByteArray("https://orvane.app/dl/Orvane-5") << QByteArray("ftp://orvane.app/5");
        QTest::newRow("enclosure relative") << QByteArray("https://orvane.app/dl/Orvane-5") << QByteArray("/dl/5");
        QTest::newRow("length zero") << QByteArray("5.0.tar.gz\" length=\"1234\"") << QByteArray("5.0\" length=\"0\"");
        QTest::newRow("length negative") << QByteArray("5.0.tar.gz\" length=\"1234\"") << QByteArray("5.0\" length=\"-5\"");
        QTest::newRow("length not a number") << QByteArray("5.0.tar.gz\" length=\"1234\"") << QByteArray("5.0\" length=\"12kB\"");
        QTest::newRow("signature too short") << kSignature + "\"/></item>\n</channel>" << QByteArray(63, 'S').toBase64() + "\"/></item></channel>";
    }

    void leavesOutItemsThatCannotBeOffered()
    {
        QFETCH(QByteArray, from);
        QFETCH(QByteArray, to);
        const QByteArray feed = makeFeed({goodItem(QStringLiteral("1.5")), goodItem(QStringLiteral("5.0"))});
        QVERIFY(feed.count(from) == 1);
        const auto result = Appcast::parse(QByteArray(feed).replace(from, to));
        QVERIFY2(result.ok(), qPrintable(result.error));
        QCOMPARE(result.items.size(), size_t(1));
        QCOMPARE(result.items.front().version, QStringLiteral("1.5"));
    }

    void foreignElementsAndUnsafeLinksAreIgnored()
    {
        const QByteArray feed =
            "<rss version=\"2.0\" xmlns:orvane=\"https://orvane.app/xml/appcast\" xmlns:x=\"urn:other\">"
            "<channel><item>"
            "<x:version>9.9</x:version><orvane:version>2.0</orvane:version>"
            "<orvane:releaseNotesLink>javascript:alert(1)</orvane:releaseNotesLink>"
            "<enclosure url=\"https://orvane.app/a.tar.gz\" length=\"10\" x:edSignature=\"AAAA\" "
            "orvane:edSignature=\"" + kSignature + "\"/>"
            "</item></channel></rss>";
        const auto result = Appcast::parse(feed);
        QVERIFY2(result.ok(), qPrintable(result.error));
        QCOMPARE(result.items.size(), size_t(1));
        QCOMPARE(result.items.front().version, QStringLiteral("2.0"));
        QVERIFY(result.items.front().releaseNotesLink.isEmpty());
        QCOMPARE(result.items.front().edSignature.size(), 64);
    }

    void refusesDocumentsThatAreNotFeeds_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::newRow("empty") << QByteArray();
        QTest::newRow("unclosed") << QByteArray("<rss version=\"2.0\"><channel><item>");
        QTest::newRow("other root") << QByteArray("<feed xmlns=\"http://www.w3.org/2005/Atom\"/>");
        QTest::newRow("root in a namespace") << QByteArray("<x:rss xmlns:x=\"urn:x\"/>");
        QTest::newRow("damage after the items") << (makeFeed({goodItem()}) + "<oops");
        QTest::newRow("entity expansion")
            << QByteArray("<?xml version=\"1.0\"?><!DOCTYPE rss [<!ENTITY a \"aaaaaaaaaa\">"
                          "<!ENTITY b \"&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;\">]><rss>&b;</rss>");
    }

    void refusesDocumentsThatAreNotFeeds()
    {
        QFETCH(QByteArray, bytes);
        const auto result = Appcast::parse(bytes);
        QVERIFY(!result.ok());
        QVERIFY(result.items.empty());
        QVERIFY(!result.error.trimmed().isEmpty());
    }

    void newestAboveChoosesTheNewest()
    {
        const auto result = Appcast::parse(makeFeed({goodItem(QStringLiteral("1.1")), goodItem(QStringLiteral("2.0")),
                                                     goodItem(QStringLiteral("1.10")), goodItem(QStringLiteral("2.0.0"))}));
        QCOMPARE(result.items.size(), size_t(4));
        QCOMPARE(result.items.front().displayVersion(), QStringLiteral("1.1")); // no short version: the version
        QCOMPARE(Appcast::newestAbove(result.items, u"1.0"), &result.items[1]); // the first of the equal newest
        QCOMPARE(Appcast::newestAbove(result.items, u"1.10")->version, QStringLiteral("2.0"));
        QCOMPARE(Appcast::newestAbove(result.items, u"2.0"), nullptr);
        QCOMPARE(Appcast::newestAbove(result.items, u"10"), nullptr);
        QCOMPARE(Appcast::newestAbove({}, u"0"), nullptr);
    }
};

QTEST_GUILESS_MAIN(AppcastTest)
#include "appcasttest.moc"
