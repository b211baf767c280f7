#pragma once

#include <tern/foundation/api.h>
#include <tern/threading/threads_monitor_interface.h>

#include <atomic>

namespace mwl::Threading {

/// Base of every supervised worker: its registration with the process's monitor and the order to stop.
///
/// On the worker's own thread: `mThreadId = pthread_self(); NotifyStarted();` first, `NotifyStopped()` last,
/// and between the two `NotifyStop()` or `NotifyFailure()` when the whole service is to end. The thread that
/// joins it may call `NotifyStopped()` in its place, after the join. `Stop()` and `GetThreadId()` may be
/// called on any thread.
///
/// Owned by the application. Every worker, registered or not, outlives the D-Bus thread, and the monitor
/// outlives every worker. After joining the D-Bus thread the application calls `Stop()` and joins every
/// worker itself: one that registered late was not among those that the monitor stopped.
class TERN_API ThreadManager {
public:
    /// Registers nothing yet; see NotifyStarted.
    explicit ThreadManager(ThreadsMonitorInterface& monitor);
    virtual ~ThreadManager();
    ThreadManager(const ThreadManager&) = delete;
    ThreadManager& operator=(const ThreadManager&) = delete;

    /// Asks this worker to leave its loop. Called, with the monitor's mutex held, by the thread that stops
    /// the workers: it sets the worker's stop state, under the mutex of the wait that it ends, and wakes it.
    /// It never joins and never calls the monitor, or the process locks up. May be called more than once.
    virtual void Stop() = 0;

    /// Registers with the monitor.
    void NotifyStarted();
    /// Takes the registration back.
    void NotifyStopped();
    /// Asks the monitor to end the service: the work is done.
    void NotifyStop();
    /// Asks the monitor to end the service: something failed.
    void NotifyFailure();

    /// The value that the worker stored in `mThreadId`; 0 before.
    unsigned long GetThreadId() const { return mThreadId; }

private:
    ThreadsMonitorInterface& mMonitor;

protected:
    /// pthread_self() of the worker's thread, stored by the derived class before it calls `NotifyStarted()`.
    std::atomic<unsigned long> mThreadId{0};
};

}  // namespace mwl::Threading
