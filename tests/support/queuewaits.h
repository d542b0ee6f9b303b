// Waiting for the queue model's work off the main thread: tests open and
// save, then wait here until the results have been taken in.
#pragma once

#include <algorithm>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QList>
#include <QTest>
#include <QUrl>

#include "model/cropmodel.h"

namespace orvane::test {

/// Waits until no open runs and no save is being written (at most 30 s);
/// false when still busy then.
inline bool settle(CropModel& model)
{
    auto busy = [&] {
        return model.opening()
            || std::any_of(model.items().begin(), model.items().end(),
                           [&](const CropModel::Item& item) { return model.isSaving(item.id); });
    };
    // Woken by each result the workers post, not by polling.
    QDeadlineTimer deadline(30000);
    while (busy() && !deadline.hasExpired())
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 50);
    return !busy();
}

/// Opens urls and waits until every file has joined or been counted.
inline void openAll(CropModel& model, const QList<QUrl>& urls)
{
    model.open(urls);
    QVERIFY(settle(model));
}

/// Runs the save command and waits until the write is done.
inline void saveOver(CropModel& model)
{
    model.saveOverOriginal();
    QVERIFY(settle(model));
}

inline void saveAsNew(CropModel& model)
{
    model.saveAsNewFile();
    QVERIFY(settle(model));
}

} // namespace orvane::test
