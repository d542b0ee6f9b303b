// Orvane: trims the empty border off images.

#include <QApplication>
#include <QDir>
#include <QIcon>
#include <QTimer>
#include <QUrl>

#include <vips/vips8>

#include "app/buildconfig.h"
#include "app/localization.h"
#include "app/mainwindow.h"
#include "app/shellmenus.h"
#include "app/updatercontroller.h"
#include "imagefile/imagefile.h"
#include "ui/window/contentview.h"

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
    // Files and folders named on the command line (a file manager's "Open
    // With") join the queue as a drop would, once the window is on screen so
    // that a long open shows its progress.
    QList<QUrl> urls;
    const QStringList arguments = app.arguments().mid(1);
    for (const QString& argument : arguments) {
        if (!argument.startsWith(QLatin1Char('-')))
            urls.append(QUrl::fromLocalFile(QDir::current().absoluteFilePath(argument)));
    }
    if (!urls.isEmpty())
        QTimer::singleShot(0, window.contentView(), [&window, urls] { window.contentView()->openUrls(urls); });
    // Last step of the launch: background update checks start now.
    orvane::UpdaterController::shared().start();

    const int status = app.exec();
    vips_shutdown();
    return status;
}
