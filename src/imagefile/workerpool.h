// The one pool of worker threads that opens, decodes and writes images for
// the window and for orvane-trim.
#pragma once

#include <cstdint>
#include <functional>

namespace orvane {

/// Runs jobs on a few threads. A job states how many bytes of memory it may
/// need at most; jobs start in the order they were queued, each when a
/// thread is free and its bytes fit the memory budget beside the jobs
/// running (a job larger than the whole budget runs alone). Thread-safe.
class WorkerPool {
public:
    /// The process's pool: one thread per core, budget from the memory available.
    static WorkerPool& shared();

    /// Queues job. It runs on a worker thread; exceptions must not escape it.
    void run(std::uint64_t bytes, std::function<void()> job);

    /// Blocks until every queued job has finished. For tests and the CLI's end.
    void waitForDone();
};

} // namespace orvane
