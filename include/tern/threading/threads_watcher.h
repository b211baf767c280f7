#pragma once

#include <tern/foundation/api.h>
#include <tern/threading/condition_variable.h>
#include <tern/threading/mutex.h>
#include <tern/threading/signals.h>
#include <tern/threading/thread_manager.h>
#include <tern/threading/threads_watcher_interface.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <set>
#include <thread>

namespace mwl::Threading {

/// The process's one watcher: it looks at every watched thread once a watch period and kills the process with
/// SIGKILL, for the service manager to restart it, when one of them is blocked. The error messages before the
/// kill are its only record. The kill does not depend on them: when they are not written within three
/// quarters of a second, for example because a logger blocks, the process is killed without them.
///
/// A process that was stopped or frozen (SIGSTOP, cgroup freezer) is not killed for that: a look that comes
/// more than a second late is left out, and the next one follows after one more watch period, a second at
/// least, in which whoever is healthy reports.
///
/// The first registration starts the watch, the last one to leave ends it, `Stop()` too; a later first
/// registration starts it again. After a `Stop()` with threads still registered nobody is watched until all
/// have left and one comes again, or `Start()` is called. A watch has two threads: the watch thread, which
/// writes the messages and kills, and one that sleeps and looks, and that never waits for a log.
///
/// Thread-safe. Owned by the application; it outlives the watched threads, their last `StopWatch` included,
/// and, as every `ThreadManager`, the D-Bus thread: every watch adds it to the monitor's list, where it
/// stays; a registration that starts another watch takes all but one of the former entries back, so that they
/// do not grow with the restarts. The application leaves `NotifyStopped` alone. The destructor stops the
/// watch and waits until its threads have left. A class that derives from it calls `Stop()` and has seen
/// "TaskWatch Stopped" before its own destructor ends. A mutex that cannot be locked leaves as
/// std::system_error.
class TERN_API ThreadsWatcher : public ThreadManager, public ThreadsWatcherInterface {
public:
    /// Watches nothing yet, and has no thread yet.
    explicit ThreadsWatcher(ThreadsMonitorInterface& monitor);
    /// See above. In a forked child it never returns while the parent watches: leave that child with
    /// _exit(2).
    ~ThreadsWatcher() override;

    /// Ends the watch and wakes its threads; does not wait for them. A look that is under way raises no alarm
    /// any more. May be called at any time, by any thread, repeatedly.
    void Stop() override;
    /// Adds the thread, once its message is written; null is ignored. The first one sets the watch period to
    /// its own and starts the watch; each later one can only shorten it, immediately, and it stays short
    /// until all have left. When the threads of the watch cannot be created, std::system_error leaves and the
    /// thread is not added. A third and later start of the watch takes the monitor's mutex: hold no lock that
    /// the `Stop` of a worker takes.
    void Register(ThreadWatched* thread) override;
    /// Removes the thread; one that is not there does no harm. When nobody is left, the watch is stopped.
    void Unregister(ThreadWatched* thread) override;
    /// The watch loop: what the watch thread runs. Called directly it watches on the calling thread, with a
    /// second one that looks, until the next `Stop()`, and returns immediately while the watch is stopped.
    /// Throws std::system_error when that second thread cannot be created.
    void TaskWatch() override;
    /// Starts a watch, whether or not one is running; all of them end with the next `Stop()`. Throws
    /// std::system_error when a thread cannot be created; nothing has changed then.
    virtual void Start();

private:
    class Loop;
    struct Loops;

    Loop* FindLoopOfThisThread();
    void AddEntry();
    unsigned int TakeFormerEntries();
    bool IsRegistered(ThreadWatched* thread);
    bool IsAnyBlockedAt(std::chrono::steady_clock::time_point now);
    void KillFirstBlocked();
    void SetPeriod(std::chrono::milliseconds period);
    void ShortenPeriod(std::chrono::milliseconds period);
    std::chrono::milliseconds GetPause();

    // Order of locking: mSetMutex, then mMutex. mSetMutex guards mThreads; mMutex, that of the sleep, guards
    // all else.
    std::set<ThreadWatched*> mThreads;
    std::thread mThread;        ///< detached as soon as it is created
    unsigned int mEntries = 0;  ///< in the list of the monitor
    std::chrono::milliseconds mPeriod{0};
    std::mutex mSetMutex;
    Signals mSignals;
    Mutex mMutex;
    ConditionVariable mCondition;

    const std::shared_ptr<Loops> mLoops;
};

}  // namespace mwl::Threading
