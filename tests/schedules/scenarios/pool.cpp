// The thread pool: queue, run, stop, force, and its watcher.

#include <poll.h>
#include <tern/threading/signals.h>
#include <tern/threading/stop_signal.h>
#include <tern/threading/thread_pool.h>
#include <tern/threading/threads_monitor.h>
#include <tern/threading/threads_watcher.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "../scenario.h"
#include "no_watcher.h"

namespace tern::schedules {

namespace {

using mwl::Threading::Signals;
using mwl::Threading::StopSignal;
using mwl::Threading::ThreadsMonitor;
using mwl::Threading::ThreadsWatcher;
using Pool = mwl::Threading::ThreadPool::ThreadPool;

}  // namespace

TERN_SCENARIO(pool_run, "two threads queue a job each, two workers, then a stop") {
    NoWatcher watcher;
    Signals signals;
    int runs[2] = {0, 0};
    {
        Pool pool(2, watcher, signals);
        pool.Start();
        std::thread other([&] {
            Call("other");
            pool.QueueJob([&] { ++runs[0]; });
        });
        pool.QueueJob([&] { ++runs[1]; });
        other.join();
        const Stopping stopping;
        pool.Stop(false);
        const int done = runs[0] + runs[1];
        Promise(pool.HasPendingJobs() == (done < 2), "a job has run or is still queued");
    }
    Promise(runs[0] <= 1 && runs[1] <= 1, "no job runs twice");
}

TERN_SCENARIO(pool_runs_all, "every job that is queued runs, without anybody waiting for a time-out") {
    NoWatcher watcher;
    Signals signals;
    std::atomic<int> runs{0};
    Pool pool(2, watcher, signals);
    pool.QueueJob([&] { ++runs; });
    pool.Start();
    std::mutex mutex;
    std::condition_variable done;
    bool isDone = false;
    pool.QueueJob([&] {
        const std::lock_guard lock(mutex);
        isDone = true;
        done.notify_one();
    });
    {
        std::unique_lock lock(mutex);
        done.wait(lock, [&] { return isDone; });
    }
    Promise(Engine::Get()->IdleTime() == 0, "a queued job is run at once");
    pool.Stop(false);
    Promise(runs == 1, "the job that was queued before the start has run before the later one's stop");
}

TERN_SCENARIO(pool_one_worker, "the one worker is told of each job, however far it is on its way to sleep") {
    NoWatcher watcher;
    Signals signals;
    std::atomic<int> runs{0};
    Pool pool(1, watcher, signals);
    pool.Start();
    pool.QueueJob([&] { ++runs; });
    while (runs == 0) {
        const timespec pause{0, 1000000};
        nanosleep(&pause, nullptr);
        Promise(Engine::Get()->IdleTime() < 100000000, "a queued job is run at once");
    }
    const Stopping stopping;
    pool.Stop(false);
}

TERN_SCENARIO(pool_job_queues, "a job queues another one while the pool is stopped") {
    NoWatcher watcher;
    Signals signals;
    static_cast<void>(StopSignal::Register());
    int runs = 0;
    Pool pool(1, watcher, signals);
    pool.Start();
    pool.QueueJob([&] { pool.QueueJob([&] { ++runs; }); });
    {
        const Stopping stopping;
        pool.Stop(false);
    }
    pool.Start();
    {
        const Stopping stopping;
        pool.Stop(true);
    }
    Promise(runs <= 1, "no job runs twice");
}

TERN_SCENARIO(pool_force, "a job in a system call is interrupted when the pool is stopped by force") {
    NoWatcher watcher;
    Signals signals;
    static_cast<void>(StopSignal::Register());
    int ends[2];
    Promise(pipe(ends) == 0, "there are pipes");
    std::atomic<bool> isStopped{false};
    bool hasRun = false;
    {
        Pool pool(1, watcher, signals);
        pool.Start();
        pool.QueueJob([&] {
            hasRun = true;
            pollfd descriptor{ends[0], POLLIN, 0};
            // One that has not reached its call when the signal comes misses it: so it has a limit.
            while (!isStopped) {
                if (poll(&descriptor, 1, 50) < 0) {
                    Promise(errno == EINTR && isStopped, "interrupted only by the stop");
                }
            }
        });
        isStopped = true;
        const Stopping stopping(50);
        pool.Stop(true);
        Promise(hasRun != pool.HasPendingJobs(), "a job has run or is still queued");
    }
    close(ends[0]);
    close(ends[1]);
}

TERN_SCENARIO(pool_watched, "one worker with the real watcher, and a job") {
    Signals signals;
    ThreadsMonitor monitor(signals);
    {
        ThreadsWatcher watcher(monitor);
        int runs = 0;
        Pool pool(1, watcher, signals);
        pool.Start();
        pool.QueueJob([&] { ++runs; });
        const Stopping stopping;
        pool.Stop(false);
        Promise((runs == 1) != pool.HasPendingJobs(), "a job has run or is still queued");
    }
}

}  // namespace tern::schedules
