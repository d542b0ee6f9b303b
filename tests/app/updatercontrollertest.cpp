// The updater as the user meets it: the automatic-check setting, background
// checks, and the dialog of a user-initiated check, against a local server.
#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QDir>
#include <QLabel>
#include <QMainWindow>
#include <QNetworkAccessManager>
#include <QPushButton>
#include <QSettings>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include "app/updatedialog.h"
#include "app/updatercontroller.h"
#include "updatetestsupport.h"

using namespace orvane;
using namespace orvane::test;

namespace {

template <typename T>
T* child(UpdateDialog* dialog, const QString& name)
{
    return dialog ? dialog->findChild<T*>(name) : nullptr;
}

// Calls start, then waits for signal from the controller's checker.
template <typename Signal>
bool finishes(UpdaterController& controller, Signal signal, const std::function<void()>& start)
{
    QSignalSpy spy(&controller.checker(), signal);
    start();
    return spy.wait(kWait);
}

bool userCheckFinishes(UpdaterController& controller)
{
    return finishes(controller, &UpdateChecker::checkFinished, [&] { controller.checkForUpdates(); });
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
        UpdateChecker::Config config = testConfig(*m_server, m_key.publicKeyBase64(), m_dir->filePath(QStringLiteral("downloads")));
        config.feedUrl = withFeed ? config.feedUrl : QUrl();
        return std::make_unique<UpdaterController>(
            config, std::make_unique<QSettings>(settingsPath(), QSettings::IniFormat));
    }

    void serveFeed(const QString& version)
    {
        const FeedItem item{version, QString(), m_server->url(QStringLiteral("/dl/Orvane.tar.gz")).toString(),
                            QString::number(m_payload.size()), m_key.signBase64(m_payload),
                            QStringLiteral("https://orvane.app/notes.html"), QString()};
        orvane::test::serveFeed(*m_server, m_key, makeFeed({item}));
        m_server->setResponse(QStringLiteral("/dl/Orvane.tar.gz"), {200, "OK", m_payload});
    }

private Q_SLOTS:
    void init()
    {
        m_server = std::make_unique<LocalHttpServer>();
        if (!m_server->start())
            QSKIP("cannot listen on 127.0.0.1");
        m_dir = std::make_unique<QTemporaryDir>();
    }

    void withoutFeedTheCommandPointsToThePackageManager()
    {
        auto controller = makeController(false);
        QVERIFY(!controller->automaticallyChecksForUpdates());
        controller->start();
        QWidget window;
        controller->makeCheckForUpdatesAction(&window, &window)->trigger();
        UpdateDialog* dialog = controller->dialog();
        QVERIFY(dialog && dialog->isVisible());
        QCOMPARE(dialog->parentWidget(), &window);
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
            QVERIFY(userCheckFinishes(*controller));
            QCheckBox* box = child<QCheckBox>(controller->dialog(), "automaticChecks");
            QVERIFY(box && box->isEnabled() && box->isChecked());
            box->click();
            QVERIFY(!controller->automaticallyChecksForUpdates());
        }
        QCOMPARE(QSettings(settingsPath(), QSettings::IniFormat).allKeys().size(), 1); // the only state Orvane keeps
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
        QTest::addColumn<QString>("feedVersion"); // empty: the server has no feed
        QTest::addColumn<QString>("headline");
        QTest::addColumn<QString>("message");
        QTest::newRow("update available") << "2.0" << "A new version of Orvane is available."
                                          << "Orvane 2.0 is available — you have 1.0. Download it now?";
        QTest::newRow("up to date") << "1.0" << "You’re up to date." << "Orvane 1.0 is the newest version available.";
        QTest::newRow("error") << "" << "Couldn’t check for updates."
                               << "The update server answered with status 404 (Not Found).";
    }

    void userCheckOutcomes()
    {
        QFETCH(QString, feedVersion);
        QFETCH(QString, headline);
        QFETCH(QString, message);
        if (!feedVersion.isEmpty())
            serveFeed(feedVersion);
        auto controller = makeController();
        QSignalSpy finished(&controller->checker(), &UpdateChecker::checkFinished);
        controller->checkForUpdates();
        UpdateDialog* dialog = controller->dialog();
        QCOMPARE(dialog->headline(), QStringLiteral("Checking for updates…"));
        controller->checkForUpdates(); // joins: the same dialog
        QCOMPARE(controller->dialog(), dialog);
        QVERIFY(finished.wait(kWait));
        QCOMPARE(dialog->headline(), headline);
        QCOMPARE(dialog->message(), message);
        const bool offered = feedVersion == QLatin1String("2.0");
        QCOMPARE(child<QPushButton>(dialog, "download")->isVisible(), offered);
        QCOMPARE(child<QLabel>(dialog, "releaseNotes")->isVisible(), offered);
    }

    void downloadFromTheDialog_data()
    {
        QTest::addColumn<bool>("cutShort");
        QTest::addColumn<QString>("headline");
        QTest::addColumn<QString>("message"); // a part of it
        QTest::addColumn<QString>("button");  // shown afterwards
        QTest::newRow("verified") << false << "The update is ready." << "“Orvane.tar.gz”" << "showInFolder";
        QTest::newRow("cut short, can be retried") << true << "Couldn’t download the update." << "deleted" << "download";
    }

    void downloadFromTheDialog()
    {
        QFETCH(bool, cutShort);
        QFETCH(QString, headline);
        QFETCH(QString, message);
        QFETCH(QString, button);
        serveFeed(QStringLiteral("2.0"));
        if (cutShort)
            m_server->setResponse(QStringLiteral("/dl/Orvane.tar.gz"), {200, "OK", m_payload.left(10)});
        auto controller = makeController();
        QVERIFY(userCheckFinishes(*controller));
        UpdateDialog* dialog = controller->dialog();
        QVERIFY(finishes(*controller, &UpdateChecker::downloadFinished,
                         [&] { child<QPushButton>(dialog, "download")->click(); }));
        QCOMPARE(dialog->headline(), headline);
        QVERIFY2(dialog->message().contains(message), qPrintable(dialog->message()));
        QVERIFY(child<QPushButton>(dialog, button)->isVisible());
        QCOMPARE(QDir(m_dir->filePath(QStringLiteral("downloads"))).entryList(QDir::Files | QDir::Hidden),
                 cutShort ? QStringList() : QStringList{QStringLiteral("Orvane.tar.gz")});
    }

    void backgroundCheckSpeaksOnlyOfUpdates()
    {
        serveFeed(QStringLiteral("1.0"));
        auto quiet = makeController();
        QVERIFY(finishes(*quiet, &UpdateChecker::checkFinished, [&] { quiet->start(); }));
        QCOMPARE(quiet->dialog(), nullptr);

        serveFeed(QStringLiteral("2.0"));
        auto announcing = makeController();
        // A second start does not check again.
        QVERIFY(finishes(*announcing, &UpdateChecker::checkFinished, [&] { announcing->start(), announcing->start(); }));
        QVERIFY(announcing->dialog() && announcing->dialog()->isVisible());
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
        QVERIFY(finishes(*controller, &UpdateChecker::checkFinished, [&] { controller->start(); }));
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
};

QTEST_MAIN(UpdaterControllerTest)
#include "updatercontrollertest.moc"
