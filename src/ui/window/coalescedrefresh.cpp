#include "ui/window/coalescedrefresh.h"

namespace orvane {

CoalescedRefresh::CoalescedRefresh(CropModel* model, QObject* parent, std::function<void()> refresh, Filter filter)
    : QObject(parent)
    , m_refresh(std::move(refresh))
{
    connect(model, &CropModel::willChange, this, [this, filter = std::move(filter)](CropModel::Property property) {
        if (!filter || filter(property))
            schedule();
    });
}

void CoalescedRefresh::schedule()
{
    if (m_pending)
        return;
    m_pending = true;
    // willChange() comes before the assignment: the refresh must run later,
    // when the model holds its new values.
    QMetaObject::invokeMethod(
        this,
        [this] {
            m_pending = false;
            m_refresh();
        },
        Qt::QueuedConnection);
}

} // namespace orvane
