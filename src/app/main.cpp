// Orvane: trims the empty border off images.

#include <QApplication>
#include <QIcon>

#include <vips/vips8>

#include "app/buildconfig.h"
#include "app/mainwindow.h"
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
    QApplication::setWindowIcon(QIcon::fromTheme(QString::fromUtf8(orvane::BuildConfig::appId)));
    // Closing the window ends Orvane; nothing is kept between runs.
    QApplication::setQuitOnLastWindowClosed(true);

    orvane::MainWindow window;
    window.show();
    window.raise();
    window.activateWindow();

    const int status = app.exec();
    vips_shutdown();
    return status;
}
