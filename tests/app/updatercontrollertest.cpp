// The updater as the user meets it: the automatic-check setting, background
// checks, and the dialog of a user-initiated check, against a local server.
#include <QAction>
#include <QApplication>
#include <QMainWindow>
#include <QTimer>
#include <QCheckBox>
#include <QDir>
#include <QFile>
#include <QLabel>
#include <QNetworkAccessManager>
#include <QPushButton>
#include <QSettings>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include "app/updatedialog.h"
#include "app/updatercontroller.h"
#include "localhttpserver.h"
#include "updatetestsupport.h"

using namespace orvane;
using namespace std::chrono_literals;
using orvane::test::FeedItem;
using orvane::test::LocalHttpServer;
using orvane::test::makeFeed;
using orvane::test::SigningKey;

namespace {

constexpr int kWait = 20'000;

template <typename T>
T* child(UpdateDialog* dialog, const char* name)
{
    return dialog ? dialog->findChild<T*>(QString::fromLatin1(name)) : nullptr;
}

} // namespace

class UpdaterControllerTest : public QObject {
    Q_OBJECT

private:
    SigningKey m_key;
    std::unique_ptr<LocalHttpServer> m_server;
    std::unique_ptr<QTemporaryDir> m_dir;
    const QByteArray m_payload = QByteArray("Orvane 2.0 ").repeated(1000);

    QString settingsPath() const { return m_dir->filePath(QStringLiteral("settings.ini")); }

    std::unique_ptr<UpdaterController> makeController(bool withFeed = true)
    {
        UpdateChecker::Config config;
        if (withFeed)
            config.feedUrl = m_server->url(QStringLiteral("/feed.xml"));
        config.publicKey = m_key.publicKeyBase64();
        config.currentVersion = QStringLiteral("1.0");
        config.transferTimeout = 300ms;
        config.downloadDirectory = m_dir->filePath(QStringLiteral("downloads"));
        config.allowLoopbackHttp = true;
        return std::make_unique<UpdaterController>(
            config, std::make_unique<QSettings>(settingsPath(), QSettings::IniFormat));
    }

    void serveFeed(const QString& version)
    {
        const FeedItem item{version, QString(), m_server->url(QStringLiteral("/dl/Orvane.tar.gz")).toString(),
                            QString::number(m_payload.size()), m_key.signBase64(m_payload),
                            QStringLiteral("https://orvane.app/notes.html"), QString()};
        const QByteArray feed = makeFeed({item});
        m_server->setResponse(QStringLiteral("/feed.xml"), {200, "OK", feed, "application/rss+xml"});
        m_server->setResponse(QStringLiteral("/feed.xml.sig"), {200, "OK", m_key.signBase64(feed), "text/plain"});
        m_server->setResponse(QStringLiteral("/dl/Orvane.tar.gz"), {200, "OK", m_payload});
    }

private Q_SLOTS:
    void init()
    {
        m_server = std::make_unique<LocalHttpServer>();
        if (!m_server->start())
            QSKIP("cannot listen on 127.0.0.1");
        m_dir = std::make_unique<QTemporaryDir>();
        QVERIFY(m_dir->isValid());
    }

    void cleanup()
    {
        m_server.reset();
        m_dir.reset();
    }

    void withoutFeedTheCheckPointsToThePackageManager()
    {
        auto controller = makeController(false);
        QVERIFY(!controller->automaticallyChecksForUpdates());
        controller->start();
        controller->checkForUpdates();
        UpdateDialog* dialog = controller->dialog();
        QVERIFY(dialog);
        QVERIFY(dialog->isVisible());
        QTRY_COMPARE(dialog->headline(), QStringLiteral("Updates come from your system."));
        QVERIFY(dialog->message().contains(QStringLiteral("package manager")));
        QVERIFY(!child<QCheckBox>(dialog, "automaticChecks")->isEnabled());
        QVERIFY(!child<QCheckBox>(dialog, "automaticChecks")->isChecked());
        QVERIFY(!child<QPushButton>(dialog, "download")->isVisible());
        QCOMPARE(controller->findChild<QNetworkAccessManager*>(), nullptr);
        QVERIFY(m_server->requests().isEmpty());
    }

    void automaticChecksSettingIsKept()
    {
        {
            auto controller = makeController();
            QVERIFY(controller->automaticallyChecksForUpdates()); // on by default with a feed
            serveFeed(QStringLiteral("1.0"));
            QSignalSpy finished(&controller->checker(), &UpdateChecker::checkFinished);
            controller->checkForUpdates();
            QVERIFY(finished.wait(kWait));
            QCheckBox* box = child<QCheckBox>(controller->dialog(), "automaticChecks");
            QVERIFY(box && box->isEnabled() && box->isChecked());
            box->click();
            QVERIFY(!controller->automaticallyChecksForUpdates());
        }
        QSettings stored(settingsPath(), QSettings::IniFormat);
        QCOMPARE(stored.allKeys().size(), 1); // the only state Orvane keeps
        auto reopened = makeController();
        QVERIFY(!reopened->automaticallyChecksForUpdates());
        const qsizetype requestsBefore = m_server->requests().size();
        reopened->start();
        QVERIFY(!reopened->checker().isChecking()); // no background check when off
        QTest::qWait(100);
        QCOMPARE(m_server->requests().size(), requestsBefore);
    }

    void userCheckOutcomes_data()
    {
        QTest::addColumn<QString>("feedVersion");
        QTest::addColumn<bool>("serverFails");
        QTest::addColumn<QString>("headline");
        QTest::addColumn<QString>("message");
        QTest::addColumn<bool>("downloadOffered");
        QTest::newRow("update available") << "2.0" << false << "A new version of Orvane is available."
                                          << "Orvane 2.0 is available — you have 1.0. Download it now?" << true;
        QTest::newRow("up to date") << "1.0" << false << "You’re up to date."
                                    << "Orvane 1.0 is the newest version available." << false;
        QTest::newRow("error") << "" << true << "Couldn’t check for updates."
                               << "The update server answered with status 404 (Not Found)." << false;
    }

    void userCheckOutcomes()
    {
        QFETCH(QString, feedVersion);
        QFETCH(bool, serverFails);
        QFETCH(QString, headline);
        QFETCH(QString, message);
        QFETCH(bool, downloadOffered);
        if (!serverFails)
            serveFeed(feedVersion);

        auto controller = makeController();
        QSignalSpy finished(&controller->checker(), &UpdateChecker::checkFinished);
        controller->checkForUpdates();
        UpdateDialog* dialog = controller->dialog();
        QCOMPARE(dialog->headline(), QStringLiteral("Checking for updates…"));
        QVERIFY(finished.wait(kWait));
        QCOMPARE(dialog->headline(), headline);
        QCOMPARE(dialog->message(), message);
        QCOMPARE(child<QPushButton>(dialog, "download")->isVisible(), downloadOffered);
        QCOMPARE(child<QLabel>(dialog, "releaseNotes")->isVisible(), downloadOffered);
    }

    void downloadFromTheDialog()
    {
        serveFeed(QStringLiteral("2.0"));
        auto controller = makeController();
        QSignalSpy checked(&controller->checker(), &UpdateChecker::checkFinished);
        controller->checkForUpdates();
        QVERIFY(checked.wait(kWait));

        QSignalSpy downloaded(&controller->checker(), &UpdateChecker::downloadFinished);
        UpdateDialog* dialog = controller->dialog();
        child<QPushButton>(dialog, "download")->click();
        QVERIFY(downloaded.wait(kWait));
        QCOMPARE(dialog->headline(), QStringLiteral("The update is ready."));
        QVERIFY(dialog->message().contains(QStringLiteral("“Orvane.tar.gz”")));
        QVERIFY(child<QPushButton>(dialog, "showInFolder")->isVisible());
        QFile kept(QDir(m_dir->filePath(QStringLiteral("downloads"))).filePath(QStringLiteral("Orvane.tar.gz")));
        QVERIFY(kept.open(QIODevice::ReadOnly));
        QCOMPARE(kept.readAll(), m_payload);
    }

    void failedDownloadIsReportedAndCanBeRetried()
    {
        serveFeed(QStringLiteral("2.0"));
        m_server->setResponse(QStringLiteral("/dl/Orvane.tar.gz"), {200, "OK", m_payload.left(10)});
        auto controller = makeController();
        QSignalSpy checked(&controller->checker(), &UpdateChecker::checkFinished);
        controller->checkForUpdates();
        QVERIFY(checked.wait(kWait));

        QSignalSpy downloaded(&controller->checker(), &UpdateChecker::downloadFinished);
        child<QPushButton>(controller->dialog(), "download")->click();
        QVERIFY(downloaded.wait(kWait));
        QCOMPARE(controller->dialog()->headline(), QStringLiteral("Couldn’t download the update."));
        QVERIFY(controller->dialog()->message().contains(QStringLiteral("deleted")));
        QVERIFY(child<QPushButton>(controller->dialog(), "download")->isVisible());
        QVERIFY(QDir(m_dir->filePath(QStringLiteral("downloads")))
                    .entryList(QDir::Files | QDir::Hidden | QDir::NoDotAndDotDot)
                    .isEmpty());
    }

    void backgroundCheckSpeaksOnlyOfUpdates()
    {
        serveFeed(QStringLiteral("1.0"));
        auto quiet = makeController();
        QSignalSpy quietSpy(&quiet->checker(), &UpdateChecker::checkFinished);
        quiet->start();
        QVERIFY(quietSpy.wait(kWait));
        QCOMPARE(quiet->dialog(), nullptr);

        serveFeed(QStringLiteral("2.0"));
        auto announcing = makeController();
        QSignalSpy spy(&announcing->checker(), &UpdateChecker::checkFinished);
        announcing->start();
        announcing->start(); // a second start does not check again
        QVERIFY(spy.wait(kWait));
        QVERIFY(announcing->dialog());
        QVERIFY(announcing->dialog()->isVisible());
        QCOMPARE(announcing->dialog()->headline(), QStringLiteral("A new version of Orvane is available."));
        QCOMPARE(m_server->requests().size(), 4); // two feeds, two signatures
    }

    // A background check may finish while another application is active: the
    // dialog still belongs to the window, and closing the window ends Orvane.
    void dialogBelongsToTheWindow()
    {
        serveFeed(QStringLiteral("2.0"));
        auto controller = makeController();
        QMainWindow window;
        window.show();
        delete controller->makeCheckForUpdatesAction(&window, nullptr);
        QApplication::setActiveWindow(nullptr);
        QSignalSpy finished(&controller->checker(), &UpdateChecker::checkFinished);
        controller->start();
        QVERIFY(finished.wait(kWait));
        QVERIFY(controller->dialog() && controller->dialog()->isVisible());
        QCOMPARE(controller->dialog()->parentWidget(), &window);

        const bool quitOnClose = QApplication::quitOnLastWindowClosed();
        QApplication::setQuitOnLastWindowClosed(true);
        QTimer::singleShot(0, &window, &QWidget::close);
        QTimer giveUp; // gone with the test, so it cannot end a later one's wait
        giveUp.setSingleShot(true);
        connect(&giveUp, &QTimer::timeout, qApp, [] { QCoreApplication::exit(1); });
        giveUp.start(kWait);
        const int status = QApplication::exec();
        QApplication::setQuitOnLastWindowClosed(quitOnClose);
        QCOMPARE(status, 0);
    }

    void checkingTwiceShowsOneDialog()
    {
        serveFeed(QStringLiteral("1.0"));
        auto controller = makeController();
        QSignalSpy finished(&controller->checker(), &UpdateChecker::checkFinished);
        controller->checkForUpdates();
        UpdateDialog* first = controller->dialog();
        controller->checkForUpdates();
        QCOMPARE(controller->dialog(), first);
        QVERIFY(finished.wait(kWait));
        QCOMPARE(first->headline(), QStringLiteral("You’re up to date."));
    }

    void commandAction()
    {
        auto controller = makeController(false);
        QWidget window;
        QAction* action = controller->makeCheckForUpdatesAction(&window, &window);
        QCOMPARE(action->text(), QStringLiteral("Check for Updates…"));
        QVERIFY(action->isEnabled());
        QVERIFY(action->shortcut().isEmpty());
        QVERIFY(!action->icon().isNull());
        QVERIFY(!action->icon().availableSizes().isEmpty() || !action->icon().pixmap(16).isNull());
        action->trigger();
        QVERIFY(controller->dialog());
        QCOMPARE(controller->dialog()->parentWidget(), &window);
        QTRY_COMPARE(controller->dialog()->headline(), QStringLiteral("Updates come from your system."));
    }
};

QTEST_MAIN(UpdaterControllerTest)
#include "updatercontrollertest.moc"
