#pragma once

#include <tern/foundation/api.h>
#include <tern/threading/condition_variable.h>
#include <tern/threading/mutex.h>
#include <tern/threading/signals.h>
#include <tern/threading/thread_manager.h>
#include <tern/threading/threads_watcher_interface.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <thread>

namespace mwl::Threading {

/// The process's one watcher: its watch thread looks at every watched thread once a watch period and kills
/// the process with SIGKILL, for the service manager to restart it, when one of them is blocked. The error
/// messages before the kill are its only record.
///
/// The first registration starts the watch thread, the last one to leave ends it, `Stop()` too; a later first
/// registration starts it again. After a `Stop()` with threads still registered nobody is watched until all
/// have left and one comes again, or `Start()` is called.
///
/// Thread-safe. Owned by the application; it outlives the watched threads, their last `StopWatch` included,
/// and, as every `ThreadManager`, the D-Bus thread: every start of the watch thread adds it to the monitor's
/// list, where it stays. The destructor stops the watch and waits until every watch loop has left. A class
/// that derives from it calls `Stop()` and has seen "TaskWatch Stopped" before its own destructor ends.
/// A mutex that cannot be locked leaves as std::system_error.
class TERN_API ThreadsWatcher : public ThreadManager, public ThreadsWatcherInterface {
public:
    /// Watches nothing yet, and has no thread yet.
    explicit ThreadsWatcher(ThreadsMonitorInterface& monitor);
    ~ThreadsWatcher() override;

    /// Ends the watch and wakes the watch thread; does not wait for it. May be called at any time, by any
    /// thread, repeatedly.
    void Stop() override;
    /// Adds the thread; null is ignored. The first one sets the watch period to its own and starts the watch
    /// thread; each later one can only shorten it, at once, and it stays short until all have left. When the
    /// watch thread cannot be created, std::system_error leaves and the thread is not added.
    void Register(ThreadWatched* thread) override;
    /// Removes the thread; one that is not there does no harm. When nobody is left, the watch is stopped.
    void Unregister(ThreadWatched* thread) override;
    /// The watch loop: what the watch thread runs. Called directly it watches on the calling thread until the
    /// next `Stop()`, and returns at once while the watch is stopped.
    void TaskWatch() override;
    /// Starts a watch thread, whether or not one is running; all of them end with the next `Stop()`. Throws
    /// std::system_error when the thread cannot be created; nothing has changed then.
    virtual void Start();

private:
    class Loops;
    class RunningLoop;
    using RunNumber = std::uint64_t;

    RunNumber GetOwnRun();
    bool IsStopRequested(RunNumber run);
    bool WaitForPeriod(RunNumber run);
    void KillFirstBlocked();
    void SetPeriod(std::chrono::milliseconds period);
    void ShortenPeriod(std::chrono::milliseconds period);

    // Order of locking: mSetMutex, then mMutex. mSetMutex guards mThreads; mMutex, that of the watch thread's
    // sleep, guards mThread, both run numbers and mPeriod.
    std::set<ThreadWatched*> mThreads;
    std::thread mThread;         ///< detached as soon as it is created
    RunNumber mLatestRun = 0;    ///< number of starts so far
    RunNumber mStoppedRuns = 0;  ///< the runs up to this number are to stop: each has its own flag, so to say
    std::chrono::milliseconds mPeriod{0};
    std::mutex mSetMutex;
    Signals mSignals;
    Mutex mMutex;
    ConditionVariable mCondition;

    const std::shared_ptr<Loops> mLoops;
};

}  // namespace mwl::Threading
