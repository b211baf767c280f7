#pragma once

#include <tern/foundation/api.h>

namespace mwl::Threading {

class ThreadWatched;

/// Watches threads that have promised to report work: `ThreadsWatcher` is the one of the process, a test may
/// stand in. Any thread may call any operation.
class TERN_API ThreadsWatcherInterface {
public:
    virtual ~ThreadsWatcherInterface();

    /// From now on the thread is watched.
    virtual void Register(ThreadWatched* thread) = 0;
    /// The thread is not watched any more; nothing touches it after the return.
    virtual void Unregister(ThreadWatched* thread) = 0;
    /// The watch loop, the body of the watch thread.
    virtual void TaskWatch() = 0;
    /// Ends the watch of all threads.
    virtual void Stop() = 0;
};

}  // namespace mwl::Threading
