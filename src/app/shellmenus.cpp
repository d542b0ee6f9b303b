#include "app/shellmenus.h"

#include <QAction>
#include <QMenu>

#include "app/buildconfig.h"
#include "app/moreapps.h"
#include "app/updatercontroller.h"

namespace orvane {

void installShellMenus(QMenu* helpMenu, QAction* about, QMenu* moreAppsMenu, QWidget* window)
{
    if (helpMenu) {
        QAction* check = UpdaterController::shared().makeCheckForUpdatesAction(window, helpMenu);
        const QList<QAction*> actions = helpMenu->actions();
        const qsizetype at = actions.indexOf(about);
        if (at >= 0 && at + 1 < actions.size())
            helpMenu->insertAction(actions[at + 1], check);
        else
            helpMenu->addAction(check);
    }
    if (moreAppsMenu)
        MoreApps::fillMenu(moreAppsMenu);
}

QIcon applicationIcon()
{
    return QIcon::fromTheme(QString::fromUtf8(BuildConfig::appId),
                            QIcon(QStringLiteral(":/orvane/icons/app.orvane.Orvane.svg")));
}

} // namespace orvane
