// WorkerPool: jobs start in order, as many at once as their bytes fit the
// budget, a job larger than the budget alone, and queued jobs can be taken back.
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "imagefile/workerpool.h"
#include "imagefiletestsupport.h"

using namespace orvane;

namespace {

// Records which jobs run together; a job can be held until released. The
// records are read once the pool is done.
struct Recorder {
    std::function<void()> job(int id, std::uint64_t bytes, bool hold = false)
    {
        return [this, id, bytes, hold] {
            std::unique_lock lock(mutex);
            started.push_back(id);
            peakBytes = std::max(peakBytes, inFlight += bytes);
            peakJobs = std::max(peakJobs, ++jobs);
            changed.notify_all();
            if (hold)
                changed.wait(lock, [&] { return released; });
            else // give others the chance to overlap, if the budget allows it
                changed.wait_for(lock, std::chrono::milliseconds(5));
            inFlight -= bytes;
            --jobs;
        };
    }
    void waitForStarts(std::size_t count)
    {
        std::unique_lock lock(mutex);
        changed.wait(lock, [&] { return started.size() >= count; });
    }
    void release()
    {
        std::lock_guard lock(mutex);
        released = true;
        changed.notify_all();
    }

    std::mutex mutex;
    std::condition_variable changed;
    std::vector<int> started;
    std::uint64_t inFlight = 0, peakBytes = 0;
    int jobs = 0, peakJobs = 0;
    bool released = false;
};

} // namespace

TEST(WorkerPool, BytesInFlightNeverExceedTheBudgetAndOrderIsKept)
{
    // The peak bytes in flight, at most.
    const struct { const char* name; std::vector<std::uint64_t> bytes; std::uint64_t peak; } cases[] = {
        {"one at a time", {60, 60, 60, 60, 60, 60}, 100},
        {"an oversized job runs alone", {10, 10, 500, 10, 10, 10}, 500},
        {"mixed", {30, 70, 20, 90, 10, 50, 50, 40}, 100},
    };
    for (const auto& c : cases) {
        WorkerPool pool(4, 100);
        Recorder recorder;
        for (std::size_t i = 0; i < c.bytes.size(); ++i)
            pool.run(c.bytes[i], recorder.job(int(i), c.bytes[i]));
        pool.waitForDone();
        EXPECT_EQ(recorder.started.size(), c.bytes.size()) << c.name;
        // Jobs that each run alone start in order.
        EXPECT_TRUE(c.bytes.front() <= 50 || std::is_sorted(recorder.started.begin(), recorder.started.end())) << c.name;
        EXPECT_LE(recorder.peakBytes, c.peak) << c.name;
    }
}

// Two held jobs that fit the budget run side by side (neither is released
// before both run); a queued job can be taken back, a running one cannot.
TEST(WorkerPool, JobsThatFitRunSideBySideAndQueuedOnesCanBeCancelled)
{
    WorkerPool pool(2, 100);
    Recorder recorder;
    const WorkerPool::Ticket running = pool.queue(40, recorder.job(1, 40, true));
    pool.run(40, recorder.job(2, 40, true));
    recorder.waitForStarts(2);
    const WorkerPool::Ticket queued = pool.queue(10, recorder.job(3, 10));
    pool.run(10, recorder.job(4, 10));
    EXPECT_TRUE(pool.cancel(queued));
    EXPECT_FALSE(pool.cancel(queued));
    EXPECT_FALSE(pool.cancel(running));
    recorder.release();
    pool.waitForDone();
    EXPECT_EQ(recorder.peakJobs, 2);
    std::sort(recorder.started.begin(), recorder.started.begin() + 2); // the two held ones start in either order
    EXPECT_EQ(recorder.started, (std::vector<int>{1, 2, 4}));
}

// The pool gives libvips' per-thread buffers back after each job: libvips is started first.
ORVANE_IMAGEFILE_TEST_MAIN((void)0)
