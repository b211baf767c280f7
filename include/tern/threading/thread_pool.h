#pragma once

#include <tern/foundation/api.h>
#include <tern/threading/condition_variable.h>
#include <tern/threading/mutex.h>
#include <tern/threading/signals_interface.h>
#include <tern/threading/thread_pool_thread.h>
#include <tern/threading/threads_watcher_interface.h>
#include <tern/threading/unique_function.h>

#include <deque>
#include <functional>
#include <memory>
#include <vector>

namespace mwl::Threading::ThreadPool {

/// Runs queued jobs on a fixed number of watched threads, taken in the order of queueing, in parallel.
///
///     ThreadPool::ThreadPool pool(2, watcher, signals);
///     pool.Start();
///     pool.QueueJob([] { ... });
///     pool.Stop(false);
///
/// `QueueJob`, `QueueUnique` and `HasPendingJobs` may be called by any thread, jobs included; all else by the
/// one thread that owns the pool, and never by a job. Watcher and signals outlive the pool; the destructor
/// stops it politely.
///
/// Jobs run with no lock held. A job that runs for more than 120 s is taken as blocked and the watcher kills
/// the process. An exception that leaves a job ends the process (std::terminate). An empty job is dropped
/// when its turn comes.
///
/// | | not running | running |
/// |---|---|---|
/// | Start | creates the workers | nothing |
/// | QueueJob, QueueUnique | kept until Start | run |
/// | Stop | nothing, not even to the watcher | ends the workers; what is queued stays queued |
class TERN_API ThreadPool {
public:
    /// Nothing starts yet. With 0 threads the pool stays idle and jobs are never run.
    ThreadPool(unsigned int threadCount, ThreadsWatcherInterface& watcher, SignalsInterface& signals);
    /// Stops it politely. In a forked child it never returns for a pool that runs in the parent: leave that
    /// child with _exit(2).
    virtual ~ThreadPool();
    ThreadPool(const ThreadPool&) = delete;
    ThreadPool& operator=(const ThreadPool&) = delete;

    /// Creates the workers, also again after `Stop`, and returns when the watcher has them all. Throws
    /// std::system_error when the system refuses a thread, the watcher's own included: the workers that had
    /// started are joined, and the pool is not running. It may be started again.
    void Start();
    /// Appends a copy of the job and wakes one worker, for each job. Not for threads of real-time priority:
    /// pthread_cond_signal(3) waits until workers woken before have got the processor, whatever their
    /// priority. With three workers of lowest priority beside three busy threads on one processor that took
    /// up to a second; priority inheritance does not help there.
    void QueueJob(const std::function<void()>& job);
    /// The same for a job that cannot be copied; it is only moved, run once and destroyed on the worker's
    /// thread. Takes its turn among the jobs of `QueueJob`. A job that is never run is destroyed with the
    /// pool. Throws std::bad_alloc; the job is destroyed then.
    void QueueUnique(UniqueFunction<void()> job);
    /// Whether jobs are queued that no worker has taken.
    bool HasPendingJobs() const;
    /// Ends the workers and waits for them, as long as their current jobs last; jobs still queued are not
    /// run. `force` sends each worker the stop signal once, so that a job blocked in a system call comes back
    /// with EINTR: it needs `StopSignal::Register`, and a job that has not reached its call yet misses it.
    /// Stops the watcher too, for everyone it watches.
    void Stop(bool force);
    /// Sends the stop signal to every worker; nothing else.
    void ForceThreadsTermination();
    /// The body of every worker: takes jobs until the pool stops, and calls `notifyWork` on every pass, at
    /// least every 10 s when idle, and again after each job. An empty `notifyWork` throws
    /// std::bad_function_call.
    void ThreadLoop(std::function<void()> notifyWork);

private:
    void LetWorkersLeave();

    bool mRunning = false;   ///< owner's thread only
    bool mStopping = false;  ///< guarded by mMutex
    mutable Mutex mMutex;
    ConditionVariable mCondition;
    std::vector<std::unique_ptr<Thread>> mThreads;  ///< owner's thread only
    std::deque<std::function<void()>> mJobs;        ///< guarded by mMutex
    const unsigned int mThreadCount;
    ThreadsWatcherInterface& mWatcher;
    SignalsInterface& mSignals;
};

}  // namespace mwl::Threading::ThreadPool
