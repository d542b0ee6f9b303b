// The main window: title, sizes, and the menus the shell promises (no New
// Window, no Ctrl+S, the Help items, an own "More Apps" menu).

#include <algorithm>

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

// Every action of a menu bar or menu, and of the menus under them.
QList<QAction*> allActions(const QWidget* barOrMenu)
{
    QList<QAction*> actions;
    for (QAction* action : barOrMenu->actions()) {
        actions << action;
        if (action->menu())
            actions << allActions(action->menu());
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
        // Shrinking stops where the content's minimum does.
        window.resize(200, 100);
        QTRY_VERIFY(window.contentView()->width() >= 480);
        QVERIFY(window.contentView()->height() >= 360);
    }

    void menusOfTheShell()
    {
        MainWindow window;
        for (QAction* action : allActions(window.menuBar())) {
            QVERIFY2(!action->text().contains(QLatin1String("New Window"), Qt::CaseInsensitive),
                     qPrintable(action->text()));
            // Ctrl+S belongs to "Save Over Original" alone.
            QVERIFY2(!action->shortcuts().contains(QKeySequence(QKeySequence::Save)), qPrintable(action->text()));
        }

        const QList<QAction*> helpItems = window.helpMenu()->actions();
        QVERIFY(helpItems.size() >= 3);
        QCOMPARE(helpItems[0]->text(), QStringLiteral("Orvane Help"));
        QVERIFY(helpItems[1]->isSeparator());
        QCOMPARE(helpItems[2]->text(), QStringLiteral("About Orvane"));

        // "More Apps" is a menu of its own in the menu bar.
        QMenu* moreApps = window.moreAppsMenu();
        QCOMPARE(moreApps->title(), QStringLiteral("&More Apps"));
        QVERIFY(std::ranges::any_of(window.menuBar()->actions(), [&](QAction* a) { return a->menu() == moreApps; }));
    }
};

ORVANE_UI_TEST_MAIN(MainWindowTest)

#include "mainwindowtest.moc"
