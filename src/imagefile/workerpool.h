// The one pool of worker threads that opens, decodes and writes images for
// the window and for orvane-trim.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

namespace orvane {

/// Runs jobs on a few threads. A job states how many bytes of memory it may
/// need at most; jobs start in the order they were queued, each when a
/// thread is free and its bytes fit the memory budget beside the jobs
/// running (a job larger than the whole budget runs alone). libvips' buffers
/// of a worker thread are given back after each job, so libvips must be
/// started (VIPS_INIT) before the first job is queued. Thread-safe.
class WorkerPool {
public:
    /// The process's pool: one thread per core, budget from the memory available.
    static WorkerPool& shared();

    /// A pool of threads threads (at least 1). With a budget, that many bytes
    /// always; without, half of ImageFile::availableMemory(), read again
    /// whenever no job is running.
    explicit WorkerPool(int threads, std::optional<std::uint64_t> budget = std::nullopt);
    /// Drops the jobs that have not started and waits for the running ones.
    ~WorkerPool();
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    /// Queues job. It runs on a worker thread; exceptions must not escape it.
    void run(std::uint64_t bytes, std::function<void()> job);

    /// Identifies a queued job for cancel(); never 0.
    using Ticket = std::uint64_t;
    /// As run(), and returns the job's ticket.
    Ticket queue(std::uint64_t bytes, std::function<void()> job);
    /// Removes the job from the queue if it has not started. True when it was
    /// removed (it will never run); false when it started, ended or is unknown.
    bool cancel(Ticket ticket);

    /// Blocks until every queued job has finished. For tests and the CLI's end.
    void waitForDone();

    /// Threads of the pool.
    int threadCount() const;

private:
    struct Impl;
    std::unique_ptr<Impl> d;
};

} // namespace orvane
