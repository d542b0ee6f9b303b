#include "imagefile/workerpool.h"

#include <QThreadPool>

namespace orvane {

WorkerPool& WorkerPool::shared()
{
    static WorkerPool pool;
    return pool;
}

void WorkerPool::run(std::uint64_t, std::function<void()> job)
{
    QThreadPool::globalInstance()->start(std::move(job));
}

void WorkerPool::waitForDone()
{
    QThreadPool::globalInstance()->waitForDone();
}

} // namespace orvane
