// Runs the images of a batch as jobs of the worker pool and hands the results
// back in input order, with a bounded number of images in flight.
#pragma once

#include <atomic>
#include <functional>

#include "cli/trimjob.h"
#include "imagefile/workerpool.h"

namespace orvane {

class BatchRunner {
public:
    using Work = std::function<TrimResult(qsizetype index)>;
    using Deliver = std::function<void(qsizetype index, TrimResult&& result)>;
    /// The bytes of memory work(i) may take at most, for the pool's budget.
    using Bytes = std::function<std::uint64_t(qsizetype index)>;

    /// workers: how many calls of work may run at once (at least 1; the pool
    /// and its memory budget may allow fewer). window: how far past the
    /// oldest undelivered index a job may start (at least workers), which
    /// bounds both the images in flight and the results waiting for delivery.
    BatchRunner(int workers, int window, WorkerPool& pool = WorkerPool::shared(), Bytes bytes = {});

    /// Calls work(i) for every i in 0 … count − 1 as jobs of the pool and
    /// deliver(i, result) on the calling thread in increasing i. Once stop
    /// (optional; may be set from a signal handler) is true no further work
    /// starts: the images in flight finish and are delivered, the rest are
    /// not. Returns the number delivered; every job has ended by then.
    qsizetype run(qsizetype count, const Work& work, const Deliver& deliver,
                  const std::atomic<bool>* stop = nullptr) const;

private:
    int m_workers;
    int m_window;
    WorkerPool& m_pool;
    Bytes m_bytes;
};

} // namespace orvane
