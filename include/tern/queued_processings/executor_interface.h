#pragma once

#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>

namespace mwl::QueuedProcessings {

/// The work of a `Component`, supplied by the application.
///
/// It belongs to the application and must outlive the component's thread. `Initialize` and `Execute` run on
/// that thread, one call at a time; `Stop` runs on the thread that stops the component, and may run while
/// `Initialize` or `Execute` does: synchronise what they share.
class TERN_API ExecutorInterface {
public:
    virtual ~ExecutorInterface();

    /// Runs once, before anything else, while Component::Start waits for it and then returns its status.
    /// Anything but Ok ends the thread. An exception ends the process: catch the one that StartWatch throws
    /// when the watcher gets no thread, and return a status.
    virtual StatusCode Initialize() = 0;
    /// One run of the processing: everything that is there to do, because wake-ups are folded. A
    /// std::exception that leaves it ends the whole service on failure, so that it is started again; any
    /// other exception ends the process.
    virtual void Execute() = 0;
    /// Called when the component is stopping, before its thread is woken: cut a long run short. It may be
    /// called more than once. It never waits for the component's thread and never calls the threads monitor,
    /// whose mutex may be held.
    virtual void Stop() = 0;
};

}  // namespace mwl::QueuedProcessings
