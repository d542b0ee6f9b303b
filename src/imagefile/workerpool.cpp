#include "imagefile/workerpool.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include <vips/vips.h>

#include "imagefile/imagefile.h"

namespace orvane {

struct WorkerPool::Impl {
    struct Job {
        Ticket ticket = 0;
        std::uint64_t bytes = 0;
        std::function<void()> work;
    };

    int threads = 1;
    std::optional<std::uint64_t> fixedBudget;

    std::mutex mutex;
    std::condition_variable changed;
    std::deque<Job> queued;
    std::vector<std::thread> workers;
    int idle = 0;
    int running = 0;
    std::uint64_t runningBytes = 0;
    std::uint64_t budget = 0;
    Ticket lastTicket = 0;
    bool stopping = false;

    // Whether the oldest queued job may start now. Called with the mutex held.
    bool headMayStart()
    {
        if (queued.empty())
            return false;
        if (running == 0) {
            // The memory in use by nobody's jobs is the system's answer now.
            budget = fixedBudget ? *fixedBudget : ImageFile::availableMemory() / 2;
            return true;
        }
        const std::uint64_t bytes = queued.front().bytes;
        return bytes <= budget && runningBytes <= budget - bytes;
    }

    void work()
    {
        std::unique_lock lock(mutex);
        for (;;) {
            ++idle;
            changed.wait(lock, [&] { return stopping || headMayStart(); });
            --idle;
            if (stopping)
                return;
            Job job = std::move(queued.front());
            queued.pop_front();
            ++running;
            runningBytes += job.bytes;
            // The next job may fit beside this one.
            changed.notify_all();
            lock.unlock();
            try {
                job.work();
            } catch (...) {
            }
            job.work = nullptr; // whatever the job captured goes before it counts as done
            // libvips keeps buffers per thread; give them back between jobs,
            // so that an idle pool holds no image memory.
            vips_thread_shutdown();
            lock.lock();
            --running;
            runningBytes -= job.bytes;
            changed.notify_all();
        }
    }
};

WorkerPool& WorkerPool::shared()
{
    static WorkerPool pool(int(std::max(1u, std::thread::hardware_concurrency())));
    return pool;
}

WorkerPool::WorkerPool(int threads, std::optional<std::uint64_t> budget)
    : d(std::make_unique<Impl>())
{
    d->threads = std::max(1, threads);
    d->fixedBudget = budget;
}

WorkerPool::~WorkerPool()
{
    {
        std::lock_guard lock(d->mutex);
        d->stopping = true;
        d->queued.clear();
    }
    d->changed.notify_all();
    for (std::thread& worker : d->workers)
        worker.join();
}

void WorkerPool::run(std::uint64_t bytes, std::function<void()> job)
{
    queue(bytes, std::move(job));
}

WorkerPool::Ticket WorkerPool::queue(std::uint64_t bytes, std::function<void()> job)
{
    Ticket ticket = 0;
    {
        std::lock_guard lock(d->mutex);
        ticket = ++d->lastTicket;
        d->queued.push_back(Impl::Job{ticket, bytes, std::move(job)});
        // Threads are started as work arrives, up to the pool's size.
        if (d->idle == 0 && int(d->workers.size()) < d->threads)
            d->workers.emplace_back([this] { d->work(); });
    }
    d->changed.notify_all();
    return ticket;
}

bool WorkerPool::cancel(Ticket ticket)
{
    std::lock_guard lock(d->mutex);
    const auto it = std::find_if(d->queued.begin(), d->queued.end(), [&](const Impl::Job& j) { return j.ticket == ticket; });
    if (it == d->queued.end())
        return false;
    d->queued.erase(it);
    // A smaller job behind the cancelled one may now start.
    d->changed.notify_all();
    return true;
}

void WorkerPool::waitForDone()
{
    std::unique_lock lock(d->mutex);
    d->changed.wait(lock, [&] { return d->queued.empty() && d->running == 0; });
}

int WorkerPool::threadCount() const
{
    return d->threads;
}

} // namespace orvane
