// Choosing the translation of Orvane's texts by the user's locale.
#pragma once

#include <QLocale>

class QCoreApplication;

namespace orvane {

/// Installs Orvane's translation and Qt's own (qtbase) for locale's UI
/// languages on app; the translators are children of app. Call once, after
/// the application object exists and before any window is made. Returns
/// true when a translation of Orvane's texts was found (English needs none).
bool installTranslations(QCoreApplication& app, const QLocale& locale = QLocale::system());

} // namespace orvane
