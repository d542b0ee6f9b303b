// Opening web addresses in the user's default browser.
#pragma once

#include <QString>

namespace orvane {

/// Opens address in the default browser (QDesktopServices). An address that
/// does not parse as an absolute URL is dropped without a message; the result
/// of the request is ignored. Main thread.
void openExternal(const QString& address);

} // namespace orvane
