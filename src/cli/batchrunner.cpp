#include "cli/batchrunner.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>

namespace orvane {

BatchRunner::BatchRunner(int workers, int window, WorkerPool& pool, Bytes bytes)
    : m_workers(std::max(1, workers))
    , m_window(std::max(m_workers, window))
    , m_pool(pool)
    , m_bytes(std::move(bytes))
{
}

qsizetype BatchRunner::run(qsizetype count, const Work& work, const Deliver& deliver,
                          const std::atomic<bool>* stop) const
{
    const auto stopped = [stop] { return stop && stop->load(); };
    std::mutex mutex;
    std::condition_variable finished; // a result arrived
    qsizetype next = 0;               // the next index to hand to the pool
    qsizetype delivered = 0;
    int inFlight = 0;
    std::map<qsizetype, TrimResult> ready;

    // Hands the pool as many jobs as the window and the worker count allow.
    // A slow early image must not let the others race ahead and pile up
    // decoded images or results. Called with the mutex held.
    const auto topUp = [&] {
        while (!stopped() && next < count && next < delivered + m_window && inFlight < m_workers) {
            const qsizetype index = next++;
            ++inFlight;
            m_pool.run(m_bytes ? m_bytes(index) : 0, [&, index] {
                TrimResult result;
                try {
                    result = work(index);
                } catch (...) {
                    result.error = QStringLiteral("Couldn’t be processed.");
                }
                std::lock_guard lock(mutex);
                ready.emplace(index, std::move(result));
                --inFlight;
                finished.notify_all();
            });
        }
    };

    qsizetype index = 0;
    {
        std::unique_lock lock(mutex);
        for (; index < count; ++index) {
            topUp();
            const auto arrived = [&] { return ready.contains(index); };
            while (!arrived()) {
                // A signal handler cannot notify; look at the flag now and then.
                finished.wait_for(lock, std::chrono::milliseconds(100));
                if (stopped() && index >= next)
                    break;
                topUp(); // a later image finished: another may start
            }
            if (!arrived())
                break;
            auto node = ready.extract(index);
            delivered = index + 1;
            topUp();
            lock.unlock();
            deliver(index, std::move(node.mapped()));
            lock.lock();
        }
        // Jobs refer to this frame: wait for every one handed out.
        finished.wait(lock, [&] { return inFlight == 0; });
    }
    return index;
}

} // namespace orvane
