#include "app/openexternal.h"

#include <QDesktopServices>
#include <QUrl>

namespace orvane {

void openExternal(const QString& address)
{
    const QUrl url(address, QUrl::StrictMode);
    if (!url.isValid() || url.isRelative())
        return;
    QDesktopServices::openUrl(url);
}

} // namespace orvane
