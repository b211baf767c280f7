#include <tern/queued_processings/thread_manager.h>

#include <tern/foundation/log.h>
#include <tern/threading/lock.h>

#include "platform/static_text.h"

namespace mwl::QueuedProcessings {

namespace {

const StaticText LOGGER("QueuedProcessings::ThreadManager");

}  // namespace

ThreadManager::ThreadManager(Threading::ThreadsMonitorInterface& monitor, ExecutorInterface& executor)
    : Threading::ThreadManager(monitor), mExecutor(executor) {}

// The thread may be the last owner, and may end as soon as it sees the change that its wake-up is about.
ThreadManager::~ThreadManager() {
    const Threading::Lock wakeUp(mWakeUpMutex);
}

StatusCode ThreadManager::Wait() {
    StatusCode status = StatusCode::Ok;
    bool goesOn = true;
    {
        Threading::Lock lock(mMutex);
        if ((mWait.load(std::memory_order_relaxed) & WAIT_NEEDED) != 0) {
            // No loop: a wake-up without a reason costs one run with nothing to do.
            status = mCondition.Wait(lock);
        }
        mWait.fetch_or(WAIT_NEEDED, std::memory_order_acq_rel);
        goesOn = mRunning;
    }
    // With the mutex free, or a log that is stuck would hold up whoever wakes or stops the thread.
    if (status != StatusCode::Ok) {
        TERN_LOG_ERROR(LOGGER, "%s: Condition variable failure (%s), leave the loop and stop the thread",
                       "Wait", mw::tern::ConvertStatusCodeToString(status).c_str());
        return status;
    }
    if (!goesOn) {
        TERN_LOG_NOTICE(LOGGER, "%s: D-Bus thread is stopping, this thread has to stop too. Leave the loop",
                        "Wait");
        return StatusCode::Stopping;
    }
    return StatusCode::Ok;
}

// A burst asks once: what the others would do has been done. Nothing is touched after that look, because the
// run may destroy the manager.
void ThreadManager::Notify() {
    if (mWait.fetch_add(0, std::memory_order_acq_rel) != 0) {
        WakeUp(true);
    }
}

void ThreadManager::Stop() {
    mExecutor.Stop();
    WakeUp(false);
}

// Wake-ups come one after another, under a mutex with priority inheritance: the condition variable has a lock
// of its own inside that knows no priorities, and a thread of high priority would wait there for one of low
// priority that has been preempted, as long as the processor has others to run.
void ThreadManager::WakeUp(bool goOn) {
    const Threading::Lock wakeUp(mWakeUpMutex);
    {
        const Threading::Lock lock(mMutex);
        mRunning = mRunning && goOn;
        mWait.exchange(WAKING, std::memory_order_acq_rel);
    }
    mCondition.NotifyOne();
    // Not before: a thread of high priority would leave its wake-up to one of low priority that has been
    // preempted, and raise nobody's.
    mWait.fetch_and(static_cast<unsigned char>(~WAKING), std::memory_order_acq_rel);
}

}  // namespace mwl::QueuedProcessings
