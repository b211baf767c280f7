#pragma once

#include <tern/queued_processings/component_interface.h>
#include <tern/queued_processings/executor_interface.h>
#include <tern/queued_processings/thread_manager.h>

#include <future>
#include <memory>
#include <string>
#include <thread>

namespace mwl::QueuedProcessings {

/// One worker thread that sleeps until it is woken, runs its executor's processing once, and sleeps again.
/// Wake-ups that arrive while it runs are folded into one further run. The thread is supervised: it is
/// stopped with the other workers when the D-Bus thread ends, and a std::exception that leaves the processing
/// ends the whole service on failure.
///
///     Component component("Upload", "upload", monitor, uploader);
///     if (component.Start() != StatusCode::Ok) { ... }
///     queue.Push(file);
///     component.WakeUp();          // uploader.Execute() runs on the worker's thread
///     ...
///     component.Stop();            // or the monitor does
///     component.Join();
///
/// | operation | no thread                           | thread started                   | joined            |
/// |-----------|-------------------------------------|----------------------------------|-------------------|
/// | Start     | Ok, or back to no thread            | Busy                             | Busy              |
/// | WakeUp    | the first run comes immediately     | one more run                     | nothing           |
/// | Stop      | nothing                             | the thread leaves its loop       | executor stopped  |
/// | Join      | unregisters                         | waits for the end, unregisters   | std::system_error |
///
/// Threads: `WakeUp` may be called from any thread, the executor included. All other operations belong to one
/// thread, the owner's; `Stop` may be called by the executor too, from `Initialize` on, `Join` may not.
///
/// Lifetime: monitor and executor outlive the component's thread. A component is destroyed after `Join`. A
/// component that is destroyed without `Join` detaches its thread. The thread still needs monitor and
/// executor, and stays registered with the monitor: so destroy it in this way only after the last
/// StopWorkerThreads. The owner may leave the destruction to the executor: `Execute` may destroy the
/// component once `Start` has returned and nobody else uses it any more.
class TERN_API Component : public ComponentInterface {
public:
    /// `name` is used in messages. `threadName` is given to the thread; one of more than 15 characters leaves
    /// the thread's name as it was (pthread_setname_np(3)). There is no thread yet.
    Component(const std::string& name, const std::string& threadName,
              Threading::ThreadsMonitorInterface& monitor, ExecutorInterface& executor);
    /// Detaches a thread that was not joined; see above.
    ~Component() override;
    Component(const Component&) = delete;
    Component& operator=(const Component&) = delete;

    /// Starts the thread and blocks until the executor's `Initialize` has returned there. Failures are
    /// logged as errors.
    /// Ok: the thread runs.
    /// Busy: there is a thread already, or was: a component is started once.
    /// ResourceUnavailable: no memory for the thread object.
    /// Any other: the status of `Initialize`, and the thread has ended.
    /// Throws std::system_error when the system refuses a thread.
    /// After the last three there is no thread, and Start may be called again. A component that was stopped
    /// meanwhile stays stopped, and runs nothing.
    StatusCode Start() override;
    /// Calls the executor's `Stop` and asks the thread to leave its loop, which it does when the run in
    /// progress returns. Returns immediately; harmless to repeat. Does nothing without a thread.
    void Stop() override;
    /// Waits, without limit, until the thread has ended, and takes its registration back. Without a thread it
    /// only takes the registration back, and the monitor logs an error. REQUIRES: not on the component's
    /// thread. A second Join raises std::system_error.
    void Join() override;
    /// Asks for one more run. It is never lost: called before `Start`, the first run comes as soon as the
    /// thread is initialised. It never waits for a run to end.
    ///
    /// A thread of real-time priority waits for no thread of lower priority here, except in the log at debug
    /// level. Measured on one processor, with the worker and two threads that wake it at lowest priority and
    /// three busy ones: 0.1 ms at most.
    void WakeUp() override;

    /// The loop of the thread: registers it with the monitor, then runs the executor until the manager's
    /// `Wait` answers anything but Ok. Exceptions of the executor pass through.
    static void Execute(ThreadManager& threadManager, ExecutorInterface& executor);
    /// The thread's body: initialises the executor, delivers its status through the promise, and runs the
    /// loop if that was Ok. The promise is not touched after its value was set, everything else must outlive
    /// the call.
    static void ThreadMain(const std::string& name, const std::string& threadName,
                           ThreadManager& threadManager, std::promise<StatusCode>& startUp,
                           ExecutorInterface& executor);

private:
    const std::string mName;
    const std::string mThreadName;
    ExecutorInterface& mExecutor;
    const std::shared_ptr<ThreadManager> mThreadManager;  ///< the thread is a co-owner
    std::unique_ptr<std::thread> mThread;
};

}  // namespace mwl::QueuedProcessings
