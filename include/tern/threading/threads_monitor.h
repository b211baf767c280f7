#pragma once

#include <tern/foundation/api.h>
#include <tern/threading/signals_interface.h>
#include <tern/threading/threads_list.h>
#include <tern/threading/threads_monitor_interface.h>

#include <mutex>

namespace mwl::Threading {

/// The process's one monitor: stops the workers when the D-Bus thread ends, and the D-Bus thread when a
/// worker is done or has failed.
///
/// Thread-safe. Created by main before the D-Bus thread and the workers, it outlives them all; the signals
/// given to it outlive it. Every operation takes the one mutex, `StopWorkerThreads` for as long as the
/// workers' `Stop()` run: those may take the worker's own lock and must not call the monitor. A mutex that
/// cannot be locked leaves as std::system_error; nothing else throws.
class TERN_API ThreadsMonitor : public ThreadsMonitorInterface {
public:
    /// Sends through these signals, which are borrowed.
    explicit ThreadsMonitor(SignalsInterface& signals);
    ~ThreadsMonitor() override;
    ThreadsMonitor(const ThreadsMonitor&) = delete;
    ThreadsMonitor& operator=(const ThreadsMonitor&) = delete;

    void AddWorkerThread(ThreadManager& thread) override;
    /// A worker that is not registered is an error, logged; nothing changes.
    void RemoveWorkerThread(ThreadManager& thread) override;
    /// Usually of the calling thread: the monitor then notices by itself when that thread ends, and signals
    /// no thread that is given its id later; in a forked child, which does not have it, it has ended. Another
    /// thread's id is taken as it is: REQUIRES that it does not end while workers may still notify.
    void SetDBusThreadId(unsigned long threadId) override;
    /// Calls `Stop()` on every worker, in the order of registration; does not wait for their threads.
    void StopWorkerThreads() override;
    /// Sends SIGTERM to the D-Bus thread, which its event loop takes as the order to leave. Done once: after
    /// a signal that was sent further calls only log, so the first call decides the result of `HasFailure`.
    /// When the signal could not be sent (no D-Bus thread yet, or no more), the failure is logged,
    /// `HasFailure` says `onFailure` all the same, and the next call tries again.
    void NotifyDBusThreadToStop(bool onFailure) override;
    void NotifyDBusThreadToStopOnFailure() override;
    /// For main, once the D-Bus thread has been joined: the process's exit result.
    bool HasFailure() override;

private:
    int SendSignalToDBusThread();

    SignalsInterface& mSignals;
    ThreadsList mWorkers;
    unsigned long mDBusThreadId = 0;
    bool mHasFailure = false;
    bool mDBusThreadNotified = false;
    unsigned int mDBusThreadNumber =
        0;              ///< distinguishes a D-Bus thread that gave its own id from later ones, else 0
    std::mutex mMutex;  ///< guards all of the above
};

}  // namespace mwl::Threading
