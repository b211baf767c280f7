#pragma once

#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>
#include <tern/queued_processings/executor_interface.h>
#include <tern/threading/condition_variable.h>
#include <tern/threading/mutex.h>
#include <tern/threading/thread_manager.h>

#include <atomic>

namespace mwl::QueuedProcessings {

/// The supervised side of a component's thread: puts it to sleep, wakes it, asks it to stop.
///
/// `Wait` belongs to the worker's thread; `Notify` and `Stop` may be called from any thread, the threads
/// monitor's included, before the worker waits too: neither is ever lost. Wake-ups that come before the next
/// `Wait` are folded into one. Threads of real-time priority may notify: whoever holds what they need is
/// scheduled at their priority for that long.
///
/// Created by the component and shared with its thread, so that neither outlives it. REQUIRES: monitor and
/// executor outlive it.
class TERN_API ThreadManager : public Threading::ThreadManager {
public:
    /// Registers nothing yet; the component does that.
    ThreadManager(Threading::ThreadsMonitorInterface& monitor, ExecutorInterface& executor);
    /// Waits for calls of `Notify` and `Stop` that have not returned yet.
    ~ThreadManager() override;

    /// Sleeps until woken. Ok: run the processing once. Stopping, logged as a notice: leave the loop. The
    /// status of a failed wait, logged as an error: leave the loop. It waits once: a wake-up without a reason
    /// counts too, so the processing may run with nothing to do.
    StatusCode Wait();
    /// Wakes the thread, or keeps it from sleeping the next time. The manager may be destroyed by that very
    /// run, before this call has returned.
    void Notify();
    /// Calls the executor's `Stop`, then makes the wait in progress, or else the next one, answer Stopping.
    /// There is no way back: every later `Wait` that is woken answers so too.
    void Stop() override;

    /// Stores the worker's pthread_self(); on the worker's thread, before `NotifyStarted`.
    void SetThreadId(unsigned long threadId) { mThreadId = threadId; }

private:
    using Protocol = Threading::Mutex::Protocol;

    /// Bits of mWait. A wake-up that finds none of them set has nothing to do: another one is pending, and
    /// its signal is on its way.
    static constexpr unsigned char WAIT_NEEDED = 1;  ///< no wake-up is pending
    static constexpr unsigned char WAKING = 2;       ///< one is pending that has not signalled yet

    void WakeUp(bool goOn);

    ExecutorInterface& mExecutor;
    bool mRunning = true;  ///< guarded by mMutex
    Threading::Mutex mMutex{Protocol::PriorityInheritance};
    Threading::ConditionVariable mCondition;
    /// Set and cleared under mMutex, except for the end of WAKING. Each change and each look is a
    /// read-modify-write, so that the run sees what was done before every wake-up that it answers.
    std::atomic<unsigned char> mWait{WAIT_NEEDED};
    /// Held by a wake-up from before the change that it is about until the thread is signalled; locked before
    /// mMutex.
    Threading::Mutex mWakeUpMutex{Protocol::PriorityInheritance};
};

}  // namespace mwl::QueuedProcessings
