#pragma once

#include <tern/foundation/api.h>

namespace mwl::Threading {

class ThreadManager;

/// Stops the threads of a service process together. `ThreadsMonitor` is the process's monitor, a test may
/// stand in. Any thread may call any operation, but a worker's `Stop()` may call none.
class TERN_API ThreadsMonitorInterface {
public:
    virtual ~ThreadsMonitorInterface();

    /// A worker's thread has started; from now on it is stopped with the others.
    virtual void AddWorkerThread(ThreadManager& thread) = 0;
    /// A worker's thread is about to end.
    virtual void RemoveWorkerThread(ThreadManager& thread) = 0;
    /// The pthread_self() of the thread that runs the event loop; called by that thread when it starts. When
    /// it has ended it must not be signalled.
    virtual void SetDBusThreadId(unsigned long threadId) = 0;
    /// Asks every registered worker to stop.
    virtual void StopWorkerThreads() = 0;
    /// Asks the D-Bus thread to leave its event loop; `onFailure` says whether something failed.
    virtual void NotifyDBusThreadToStop(bool onFailure) = 0;
    /// The same as NotifyDBusThreadToStop(true).
    virtual void NotifyDBusThreadToStopOnFailure() = 0;
    /// Whether the D-Bus thread was asked to stop because something failed.
    virtual bool HasFailure() = 0;
};

}  // namespace mwl::Threading
