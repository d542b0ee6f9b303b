// The application shell's additions to a window's menus, and its icon.
#pragma once

#include <QIcon>

class QAction;
class QMenu;
class QWidget;

namespace orvane {

/// Adds "Check for Updates…" to helpMenu directly after about (at the end
/// when about is not in it), run by UpdaterController::shared() over window,
/// and fills moreAppsMenu with one submenu per More Apps category. Either
/// menu may be null. Main thread; needs a QApplication.
void installShellMenus(QMenu* helpMenu, QAction* about, QMenu* moreAppsMenu, QWidget* window);

/// Orvane's icon: the installed one from the icon theme, else the drawing
/// compiled into the application.
QIcon applicationIcon();

} // namespace orvane
