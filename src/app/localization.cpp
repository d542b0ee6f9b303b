#include "app/localization.h"

#include <QCoreApplication>
#include <QLibraryInfo>
#include <QTranslator>

namespace orvane {

bool installTranslations(QCoreApplication& app, const QLocale& locale)
{
    // Qt's own strings (standard buttons, file dialogs) first, so that
    // Orvane's translation, installed last, is asked first.
    auto* qt = new QTranslator(&app);
    if (qt->load(locale, QStringLiteral("qtbase"), QStringLiteral("_"),
                 QLibraryInfo::path(QLibraryInfo::TranslationsPath)))
        app.installTranslator(qt);
    else
        delete qt;

    auto* own = new QTranslator(&app);
    if (own->load(locale, QStringLiteral("orvane"), QStringLiteral("_"), QStringLiteral(":/i18n"))) {
        app.installTranslator(own);
        return true;
    }
    delete own;
    return false;
}

} // namespace orvane
