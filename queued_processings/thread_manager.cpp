#include <tern/foundation/log.h>
#include <tern/queued_processings/thread_manager.h>
#include <tern/threading/lock.h>

#include <chrono>
#include <string>
#include <thread>

#include "platform/static_text.h"

namespace mwl::QueuedProcessings {

namespace {

const StaticText LOGGER("QueuedProcessings::ThreadManager");

/// Between two looks of the destructor: about what a signal takes.
constexpr std::chrono::microseconds PAUSE(50);

}  // namespace

ThreadManager::ThreadManager(Threading::ThreadsMonitorInterface& monitor, ExecutorInterface& executor)
    : Threading::ThreadManager(monitor), mExecutor(executor) {}

// The thread may be the last owner, and may end as soon as it sees the change that its wake-up is about.
// Counted by two numbers, as holding an owner for each call makes a burst of wake-ups cost half as much
// again.
ThreadManager::~ThreadManager() {
    unsigned int due = 0;
    {
        const Threading::Lock lock(mMutex);
        due = mSignalsDue;
    }
    while (mSignalled.load(std::memory_order_acquire) != due) {
        std::this_thread::sleep_for(PAUSE);  // whoever is to signal may have a lower priority
    }
}

StatusCode ThreadManager::Wait() {
    Threading::Lock lock(mMutex);
    StatusCode status = StatusCode::Ok;
    if (mWaitNeeded) {
        // Meant: no loop. A wake-up for no reason costs one run with nothing to do.
        status = mCondition.Wait(lock);
    }
    mWaitNeeded = true;
    if (status != StatusCode::Ok) {
        TERN_LOG_ERROR(LOGGER, "%s: Condition variable failure (%s), leave the loop and stop the thread",
                       "Wait", mw::tern::ConvertStatusCodeToString(status).c_str());
        return status;
    }
    if (!mRunning) {
        TERN_LOG_NOTICE(LOGGER, "%s: D-Bus thread is stopping, this thread has to stop too. Leave the loop",
                        "Wait");
        return StatusCode::Stopping;
    }
    return StatusCode::Ok;
}

void ThreadManager::Notify() {
    {
        const Threading::Lock lock(mMutex);
        mWaitNeeded = false;
        ++mSignalsDue;
    }
    Signal();
}

void ThreadManager::Stop() {
    mExecutor.Stop();
    {
        const Threading::Lock lock(mMutex);
        mRunning = false;
        mWaitNeeded = false;
        ++mSignalsDue;
    }
    Signal();
}

void ThreadManager::Signal() {
    mCondition.NotifyOne();
    mSignalled.fetch_add(1, std::memory_order_release);
}

}  // namespace mwl::QueuedProcessings
