// Runs the images of a batch on several threads and hands the results back in
// input order, with a bounded number of images in flight.
#pragma once

#include <atomic>
#include <functional>

#include "cli/trimjob.h"

namespace orvane {

class BatchRunner {
public:
    using Work = std::function<TrimResult(qsizetype index)>;
    using Deliver = std::function<void(qsizetype index, TrimResult&& result)>;

    /// workers: threads that call work (at least 1). window: how far past the
    /// oldest undelivered index a worker may start (at least workers), which
    /// bounds both the images in flight and the results waiting for delivery.
    BatchRunner(int workers, int window);

    /// Calls work(i) for every i in 0 … count − 1 on the worker threads and
    /// deliver(i, result) on the calling thread in increasing i. Once stop
    /// (optional; may be set from a signal handler) is true no further work
    /// starts: the images in flight finish and are delivered, the rest are
    /// not. Returns the number delivered; the threads are gone by then.
    qsizetype run(qsizetype count, const Work& work, const Deliver& deliver,
                  const std::atomic<bool>* stop = nullptr) const;

private:
    int m_workers;
    int m_window;
};

} // namespace orvane
