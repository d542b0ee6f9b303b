// Orvane: trims the empty border off images.

#include <QApplication>
#include <QIcon>

#include <vips/vips8>

#include "app/buildconfig.h"
#include "app/localization.h"
#include "app/mainwindow.h"
#include "app/shellmenus.h"
#include "app/updatercontroller.h"
#include "imagefile/imagefile.h"

int main(int argc, char* argv[])
{
    if (VIPS_INIT(argv[0]) != 0) {
        vips_error_exit("could not start libvips");
    }
    orvane::ImageFile::initialise();

    QApplication app(argc, argv);
    QApplication::setOrganizationName(QStringLiteral("Orvane"));
    QApplication::setOrganizationDomain(QStringLiteral("orvane.app"));
    QApplication::setApplicationName(QStringLiteral("Orvane"));
    QApplication::setApplicationVersion(QString::fromUtf8(orvane::BuildConfig::version));
    QGuiApplication::setDesktopFileName(QString::fromUtf8(orvane::BuildConfig::appId));
    QApplication::setWindowIcon(orvane::applicationIcon());
    orvane::installTranslations(app);
    // Closing the window ends Orvane; nothing is kept between runs.
    QApplication::setQuitOnLastWindowClosed(true);

    orvane::MainWindow window;
    orvane::installShellMenus(window.helpMenu(), window.aboutAction(), window.moreAppsMenu(), &window);
    window.show();
    window.raise();
    window.activateWindow();
    // Last step of the launch: background update checks start now.
    orvane::UpdaterController::shared().start();

    const int status = app.exec();
    vips_shutdown();
    return status;
}
