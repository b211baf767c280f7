#include <tern/foundation/log.h>
#include <tern/queued_processings/thread_manager.h>
#include <tern/threading/lock.h>

#include <string>

namespace mwl::QueuedProcessings {

namespace {

const std::string LOGGER = "QueuedProcessings::ThreadManager";

}  // namespace

ThreadManager::ThreadManager(Threading::ThreadsMonitorInterface& monitor, ExecutorInterface& executor)
    : Threading::ThreadManager(monitor), mExecutor(executor) {}

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
    // The thread may be the last owner, and the run that is asked for may be its last.
    const std::shared_ptr<ThreadManager> self = weak_from_this().lock();
    {
        const Threading::Lock lock(mMutex);
        mWaitNeeded = false;
    }
    mCondition.NotifyOne();
}

void ThreadManager::Stop() {
    // The thread may be the last owner, and may end as soon as it sees the flag.
    const std::shared_ptr<ThreadManager> self = weak_from_this().lock();
    mExecutor.Stop();
    {
        const Threading::Lock lock(mMutex);
        mRunning = false;
        mWaitNeeded = false;
    }
    mCondition.NotifyOne();
}

}  // namespace mwl::QueuedProcessings
