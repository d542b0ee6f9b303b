// The main window: title, sizes, and the menus the shell promises (no New
// Window, no Ctrl+S, the Help items, an own "More Apps" menu).

#include <QAction>
#include <QApplication>
#include <QMenu>
#include <QMenuBar>
#include <QTest>

#include "app/mainwindow.h"
#include "ui/window/contentview.h"
#include "windowtestsupport.h"

using namespace orvane;

namespace {

QList<QAction*> allActions(QMenuBar* bar)
{
    QList<QAction*> actions;
    QList<QMenu*> pending;
    for (QAction* action : bar->actions())
        if (action->menu())
            pending << action->menu();
    while (!pending.isEmpty()) {
        QMenu* menu = pending.takeFirst();
        for (QAction* action : menu->actions()) {
            actions << action;
            if (action->menu())
                pending << action->menu();
        }
    }
    return actions;
}

} // namespace

class MainWindowTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void windowTitleAndSizes()
    {
        MainWindow window;
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        QCOMPARE(window.windowTitle(), QStringLiteral("Orvane"));
        QCOMPARE(window.size(), QSize(720, 540));
        QVERIFY(window.contentView());
        QCOMPARE(window.contentView()->minimumSize(), QSize(480, 360));
        // Shrinking stops where the content's minimum does.
        window.resize(200, 100);
        QTRY_VERIFY(window.contentView()->width() >= 480);
        QVERIFY(window.contentView()->height() >= 360);
    }

    void menusOfTheShell()
    {
        MainWindow window;
        const QList<QAction*> actions = allActions(window.menuBar());
        for (QAction* action : actions) {
            QVERIFY2(!action->text().contains(QLatin1String("New Window"), Qt::CaseInsensitive),
                     qPrintable(action->text()));
            // Ctrl+S belongs to "Save Over Original" alone.
            QVERIFY2(!action->shortcuts().contains(QKeySequence(QKeySequence::Save)), qPrintable(action->text()));
        }

        QMenu* help = window.helpMenu();
        QVERIFY(help);
        const QList<QAction*> helpItems = help->actions();
        QVERIFY(helpItems.size() >= 3);
        QCOMPARE(helpItems[0]->text(), QStringLiteral("Orvane Help"));
        QVERIFY(helpItems[1]->isSeparator());
        QCOMPARE(helpItems[2]->text(), QStringLiteral("About Orvane"));
        QCOMPARE(window.aboutAction(), helpItems[2]);

        QMenu* moreApps = window.moreAppsMenu();
        QVERIFY(moreApps);
        QCOMPARE(moreApps->title(), QStringLiteral("&More Apps"));
        // A menu of its own in the menu bar.
        bool inBar = false;
        for (QAction* action : window.menuBar()->actions())
            inBar = inBar || action->menu() == moreApps;
        QVERIFY(inBar);
    }
};

int main(int argc, char* argv[])
{
    test::initialiseImaging(argv[0]);
    QApplication app(argc, argv);
    MainWindowTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "mainwindowtest.moc"
