#include "cli/batchrunner.h"

#include <algorithm>
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

void BatchRunner::run(qsizetype count, const Work& work, const Deliver& deliver) const
{
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
                mayStart.wait(lock, [&] { return next >= count || next < delivered + m_window; });
                if (next >= count)
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

    for (qsizetype index = 0; index < count; ++index) {
        TrimResult result;
        {
            std::unique_lock lock(mutex);
            finished.wait(lock, [&] { return ready.contains(index); });
            auto node = ready.extract(index);
            result = std::move(node.mapped());
            delivered = index + 1;
        }
        mayStart.notify_all();
        deliver(index, std::move(result));
    }
}

} // namespace orvane
