#include <tern/queued_processings/component.h>

#include <pthread.h>
#include <tern/foundation/log.h>

#include <exception>
#include <new>
#include <utility>

#include "foundation/known_objects.h"
#include "foundation/tell.h"
#include "platform/static_text.h"

namespace mwl::QueuedProcessings {

namespace {

const StaticText LOGGER("QueuedProcessings::Component");

}  // namespace

// Who outlives whom: the thread holds the manager and copies of the names, and is lent monitor and executor.
// It touches nothing of the component, so that the executor may destroy it during a run. mThread belongs to
// the owner's thread. Stop, which the executor may call as well, looks only whether it is set: it is, from
// before the thread begins until after it has ended or the component is destroyed.
//
// The manager's address stands for the component in the events that are reported: it stays taken for as long
// as the thread may report a run.

Component::Component(const std::string& name, const std::string& threadName,
                     Threading::ThreadsMonitorInterface& monitor, ExecutorInterface& executor)
    : mName(name),
      mThreadName(threadName),
      mExecutor(executor),
      mThreadManager(std::make_shared<ThreadManager>(monitor, executor)) {
    KnownObjects::Add({.object = mThreadManager.get(), .kind = KnownObjects::Kind::Component}, mName);
}

// The thread may be this one, in a run that destroys the component: it is never waited for here.
Component::~Component() {
    TERN_LOG_TRACE(LOGGER, "%s: Destroy component [%p]", "~Component", static_cast<void*>(this));
    if (mThread != nullptr && mThread->joinable()) {
        mThread->detach();
    }
    KnownObjects::Remove(KnownObjects::Kind::Component, mThreadManager.get());
}

StatusCode Component::Start() {
    if (mThread != nullptr) {
        TERN_LOG_ERROR(LOGGER, "%s: Do not call start method twice", "Start");
        return StatusCode::Busy;
    }
    // The thread owns with us what it touches: it may outlive the component, and this call may be done with
    // the promise before set_value has returned there.
    const auto startUp = std::make_shared<std::promise<StatusCode>>();
    std::future<StatusCode> started = startUp->get_future();
    auto body = [name = mName, threadName = mThreadName, threadManager = mThreadManager, startUp,
                 &executor = mExecutor] { ThreadMain(name, threadName, *threadManager, *startUp, executor); };
    // In its place before it runs: the executor may call Stop from there immediately.
    mThread.reset(new (std::nothrow) std::thread);
    if (mThread == nullptr) {
        TERN_LOG_ERROR(LOGGER, "%s: Failed to create %s thread", "Start", mName.c_str());
        return StatusCode::ResourceUnavailable;
    }
    try {
        *mThread = std::thread(std::move(body));
    } catch (...) {
        mThread.reset();
        throw;
    }
    // Blocks until Initialize has returned on the thread. Whether the thread has registered with the monitor
    // by then is open: a stop of all workers that comes before that misses it, so the owner stops it itself.
    const StatusCode status = started.get();
    if (status != StatusCode::Ok) {
        TERN_LOG_ERROR(LOGGER, "%s: Failed to initialize %s, wait for completion (%s)", "Start",
                       mName.c_str(), mw::tern::ConvertStatusCodeToString(status).c_str());
        // It leaves by itself, and was never registered. Without it Start may be called again.
        mThread->join();
        mThread.reset();
        return status;
    }
    TERN_LOG_TRACE(LOGGER, "%s: %s thread created, and %s initialized", "Start", mName.c_str(),
                   mName.c_str());
    return StatusCode::Ok;
}

void Component::Stop() {
    TERN_LOG_TRACE(LOGGER, "%s: Stop %s thread mThread=[%p]", "Stop", mName.c_str(),
                   static_cast<void*>(mThread.get()));
    // Without a thread nobody is to stop, and a stop is for good: a later Start would run nothing.
    if (mThread != nullptr) {
        mThreadManager->Stop();
    }
}

void Component::Join() {
    TERN_LOG_TRACE(LOGGER, "%s: Join %s thread mThread=[%p]", "Join", mName.c_str(),
                   static_cast<void*>(mThread.get()));
    // Kept when it has been joined, so that Start stays Busy: a component is started once.
    if (mThread != nullptr) {
        mThread->join();
        TERN_LOG_TRACE(LOGGER, "%s: %s thread execution has completed, %s service stopped", "Join",
                       mName.c_str(), mName.c_str());
    }
    // Behind the thread's end: as long as it runs the monitor has to be able to stop it.
    mThreadManager->NotifyStopped();
}

void Component::WakeUp() {
    TERN_LOG_TRACE(LOGGER, "%s: launch %s execution", "WakeUp", mName.c_str());
    // Reported first, and the notification is the last thing done: the run may begin, and end, before it
    // returns.
    TERN_TELL_NAMED(WakeUp, wake_up, mThreadManager.get(), 0, mName.c_str());
    mThreadManager->Notify();
}

void Component::Execute(ThreadManager& threadManager, ExecutorInterface& executor) {
    // The id first: the monitor reads it when the thread registers.
    threadManager.SetThreadId(pthread_self());
    threadManager.NotifyStarted();
    const void* const manager = &threadManager;
    while (threadManager.Wait() == StatusCode::Ok) {
        TERN_TELL(RunBegan, run_began, manager, 0);
        executor.Execute();
        TERN_TELL(RunEnded, run_ended, manager, 0);
    }
}

void Component::ThreadMain(const std::string& name, const std::string& threadName,
                           ThreadManager& threadManager, std::promise<StatusCode>& startUp,
                           ExecutorInterface& executor) {
    TERN_LOG_TRACE(LOGGER, "%s: Start %s thread", "ThreadMain", name.c_str());
    static_cast<void>(pthread_setname_np(pthread_self(), threadName.c_str()));  // may be too long
    // Answered before it registers, in Execute: a start that fails leaves nothing registered.
    const StatusCode status = executor.Initialize();
    startUp.set_value(status);
    if (status != StatusCode::Ok) {
        TERN_LOG_ERROR(LOGGER, "%s: Failed to initialize %s (%s)", "ThreadMain", name.c_str(),
                       mw::tern::ConvertStatusCodeToString(status).c_str());
    } else {
        try {
            Execute(threadManager, executor);
        } catch (const std::exception& exception) {
            // Any other exception is not caught: it ends the process (std::terminate).
            TERN_TELL_NAMED(Thrown, thrown, static_cast<const void*>(&threadManager), 0, exception.what());
            TERN_LOG_ERROR(LOGGER, "%s: caught exception [%s], restart the extension", "ThreadMain",
                           exception.what());
            threadManager.NotifyFailure();
        }
    }
    TERN_LOG_TRACE(LOGGER, "%s: Exit %s thread", "ThreadMain", name.c_str());
}

}  // namespace mwl::QueuedProcessings
