// One refresh per turn of the event loop, however many changes the model
// announces in between.
#pragma once

#include <functional>

#include <QObject>

#include "model/cropmodel.h"

namespace orvane {

/// Connects model's willChange() to refresh, coalesced: any number of
/// announcements before the event loop turns give one call of refresh, made
/// after the model has stored its new values. Main thread only. The object is
/// a child of parent; refresh must stay valid as long as parent lives.
class CoalescedRefresh : public QObject {
    Q_OBJECT

public:
    /// Which announcements ask for a refresh; an empty filter takes them all.
    using Filter = std::function<bool(CropModel::Property)>;

    CoalescedRefresh(CropModel* model, QObject* parent, std::function<void()> refresh, Filter filter = {});

    /// Asks for a refresh on the next turn of the event loop.
    void schedule();

private:
    std::function<void()> m_refresh;
    bool m_pending = false;
};

} // namespace orvane
