#include "cli/batchrunner.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace orvane {

BatchRunner::BatchRunner(int workers, int window)
    : m_workers(std::max(1, workers))
    , m_window(std::max(m_workers, window))
{
}

qsizetype BatchRunner::run(qsizetype count, const Work& work, const Deliver& deliver,
                          const std::atomic<bool>* stop) const
{
    const auto stopped = [stop] { return stop && stop->load(); };
    std::mutex mutex;
    std::condition_variable mayStart; // a worker may take the next index
    std::condition_variable finished; // a result arrived
    qsizetype next = 0;
    qsizetype delivered = 0;
    std::map<qsizetype, TrimResult> ready;

    const auto worker = [&] {
        for (;;) {
            qsizetype index;
            {
                std::unique_lock lock(mutex);
                // A slow early image must not let the others race ahead and
                // pile up decoded images or results: wait for the window.
                mayStart.wait(lock, [&] { return next >= count || next < delivered + m_window || stopped(); });
                if (next >= count || stopped())
                    return;
                index = next++;
            }
            TrimResult result = work(index);
            {
                std::lock_guard lock(mutex);
                ready.emplace(index, std::move(result));
            }
            finished.notify_one();
        }
    };

    const int threads = static_cast<int>(std::min<qsizetype>(m_workers, std::max<qsizetype>(count, 1)));
    std::vector<std::jthread> pool;
    pool.reserve(threads);
    for (int i = 0; i < threads; ++i)
        pool.emplace_back(worker);

    qsizetype index = 0;
    for (; index < count; ++index) {
        TrimResult result;
        {
            std::unique_lock lock(mutex);
            const auto arrived = [&] { return ready.contains(index); };
            // A signal handler cannot notify; look at the flag now and then.
            while (!finished.wait_for(lock, std::chrono::milliseconds(100), arrived)) {
                if (stopped() && index >= next)
                    break;
            }
            if (!arrived()) {
                mayStart.notify_all();
                break;
            }
            auto node = ready.extract(index);
            result = std::move(node.mapped());
            delivered = index + 1;
        }
        mayStart.notify_all();
        deliver(index, std::move(result));
    }
    return index;
}

} // namespace orvane
