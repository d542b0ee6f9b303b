// The shell's menu additions on a window shaped like Orvane's: where
// "Check for Updates…" goes, and the filled More Apps menu.
#include <QAction>
#include <QMainWindow>
#include <QMenu>
#include <QMenuBar>
#include <QStandardPaths>
#include <QTest>

#include "app/buildconfig.h"
#include "app/moreapps.h"
#include "app/shellmenus.h"
#include "app/updatercontroller.h"

using namespace orvane;

class ShellMenusTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        // The shared updater reads its setting; keep the user's own file out of it.
        QStandardPaths::setTestModeEnabled(true);
    }

    void checkForUpdatesFollowsAbout_data()
    {
        QTest::addColumn<bool>("somethingAfterAbout");
        QTest::newRow("About is last") << false;
        QTest::newRow("an item follows About") << true;
    }

    void checkForUpdatesFollowsAbout()
    {
        QFETCH(bool, somethingAfterAbout);
        QMainWindow window;
        QMenu* moreApps = window.menuBar()->addMenu(QStringLiteral("More Apps"));
        QMenu* help = window.menuBar()->addMenu(QStringLiteral("Help"));
        help->addAction(QStringLiteral("Orvane Help"));
        help->addSeparator();
        QAction* about = help->addAction(QStringLiteral("About Orvane"));
        QAction* later = somethingAfterAbout ? help->addAction(QStringLiteral("Later")) : nullptr;

        installShellMenus(help, about, moreApps, &window);

        const QList<QAction*> items = help->actions();
        const qsizetype at = items.indexOf(about);
        QVERIFY(at + 1 < items.size());
        QAction* check = items[at + 1];
        QCOMPARE(check->text(), QStringLiteral("Check for Updates…"));
        QVERIFY(check->isEnabled());
        QVERIFY(!check->icon().isNull());
        QVERIFY(check->shortcut().isEmpty());
        if (later)
            QCOMPARE(items.last(), later);
        QCOMPARE(items.size(), somethingAfterAbout ? 5 : 4);

        // More Apps is filled: one submenu per category.
        QCOMPARE(moreApps->actions().size(), qsizetype(MoreApps::categories().size()));
        for (QAction* action : moreApps->actions())
            QVERIFY(action->menu() && !action->menu()->isEmpty());
    }

    void commandRunsTheSharedUpdater()
    {
        if (QByteArrayView(BuildConfig::updateFeedUrl).size() != 0)
            QSKIP("this build has an update feed; the check would go to the network");
        QMainWindow window;
        QMenu* help = window.menuBar()->addMenu(QStringLiteral("Help"));
        QAction* about = help->addAction(QStringLiteral("About Orvane"));
        installShellMenus(help, about, nullptr, &window);
        help->actions().last()->trigger();
        UpdateDialog* dialog = UpdaterController::shared().dialog();
        QVERIFY(dialog);
        QVERIFY(dialog->isVisible());
        QTRY_COMPARE(dialog->headline(), QStringLiteral("Updates come from your system."));
        QVERIFY(!UpdaterController::shared().automaticallyChecksForUpdates());
    }

    void applicationIconIsAvailable()
    {
        const QIcon icon = applicationIcon();
        QVERIFY(!icon.isNull());
        QVERIFY(!icon.pixmap(64, 64).isNull());
    }
};

QTEST_MAIN(ShellMenusTest)
#include "shellmenustest.moc"
