#include <signal.h>
#include <tern/foundation/log.h>
#include <tern/threading/thread_watched.h>
#include <tern/threading/threads_watcher.h>

#include <algorithm>
#include <condition_variable>
#include <limits>
#include <string>
#include <utility>

#include "platform/static_text.h"

namespace mwl::Threading {

namespace {

using std::chrono::milliseconds;

const StaticText LOGGER("Threading::ThreadsWatcher");

/// On a watch thread: whose it is, and the number of its run. TaskWatch has no parameter for it.
struct StartedRun {
    const ThreadsWatcher* watcher = nullptr;
    std::uint64_t number = 0;
};
thread_local StartedRun tStartedRun;

}  // namespace

/// The watch loops under way. Owned by the watcher and by each of them: a detached thread's last step touches
/// this, never the watcher.
class ThreadsWatcher::Loops {
public:
    void Enter() {
        const std::lock_guard lock(mMutex);
        ++mRunning;
    }
    void Leave() {
        const std::lock_guard lock(mMutex);
        --mRunning;
        mLeft.notify_all();
    }
    void WaitUntilAllLeft() {
        std::unique_lock lock(mMutex);
        mLeft.wait(lock, [this] { return mRunning == 0; });
    }

private:
    std::mutex mMutex;
    std::condition_variable mLeft;
    unsigned int mRunning = 0;
};

/// Counts one loop for as long as it lives.
class ThreadsWatcher::RunningLoop {
public:
    explicit RunningLoop(std::shared_ptr<Loops> loops) : mLoops(std::move(loops)) { mLoops->Enter(); }
    RunningLoop(RunningLoop&&) noexcept = default;
    RunningLoop& operator=(RunningLoop&&) = delete;
    ~RunningLoop() {
        if (mLoops != nullptr) {
            mLoops->Leave();
        }
    }

private:
    std::shared_ptr<Loops> mLoops;
};

ThreadsWatcher::ThreadsWatcher(ThreadsMonitorInterface& monitor)
    : ThreadManager(monitor), mLoops(std::make_shared<Loops>()) {}

ThreadsWatcher::~ThreadsWatcher() {
    ThreadsWatcher::Stop();
    // With no lock held: a loop that is leaving may still need them all.
    mLoops->WaitUntilAllLeft();
}

void ThreadsWatcher::Stop() {
    {
        // Under the mutex of the sleep, so that it falls before the sleep's test or into the sleep.
        const Lock lock(mMutex);
        mStoppedRuns = mLatestRun;
    }
    mCondition.NotifyAll();
}

void ThreadsWatcher::Register(ThreadWatched* thread) {
    if (thread == nullptr) {
        return;
    }
    TERN_LOG_NOTICE(LOGGER, "Start watch %s (period %llu ms, threadId %lu)", thread->GetName().c_str(),
                    static_cast<unsigned long long>(thread->GetPeriod().count()), thread->GetThreadId());
    {
        const std::lock_guard lock(mSetMutex);
        const bool inserted = mThreads.insert(thread).second;
        if (inserted && mThreads.size() == 1) {
            SetPeriod(thread->GetPeriod());
            try {
                Start();
            } catch (...) {
                mThreads.clear();
                throw;
            }
            return;
        }
    }
    ShortenPeriod(thread->GetPeriod());
}

void ThreadsWatcher::Unregister(ThreadWatched* thread) {
    const std::lock_guard lock(mSetMutex);
    const auto found = mThreads.find(thread);
    if (found != mThreads.end()) {
        TERN_LOG_NOTICE(LOGGER, "Stop watch %s", thread->GetName().c_str());
        mThreads.erase(found);
    }
    if (mThreads.empty()) {
        Stop();
    }
}

void ThreadsWatcher::TaskWatch() {
    const RunningLoop loop(mLoops);
    const RunNumber run = GetOwnRun();
    TERN_LOG_NOTICE(LOGGER, "TaskWatch Started");
    NotifyStarted();
    while (WaitForPeriod(run)) {
        KillFirstBlocked();
    }
    // A stop that was requested of this run stays requested, so the loop has no other way out. Kept as a
    // guard: a watch that ended for any other reason must not go unnoticed.
    if (!IsStopRequested(run)) {
        // GCOVR_EXCL_START: the guard that is never needed
        TERN_LOG_ERROR(LOGGER, "TaskWatch Stopped error, notify failure");
        NotifyFailure();
        // GCOVR_EXCL_STOP
    } else {
        TERN_LOG_NOTICE(LOGGER, "TaskWatch Stopped");
    }
    // No NotifyStopped: the watcher stays in the monitor's list, and its Stop is harmless at any time.
}

void ThreadsWatcher::Start() {
    const Lock lock(mMutex);
    mThread = std::thread([this, run = mLatestRun + 1, loop = RunningLoop(mLoops)] {
        tStartedRun = {this, run};
        TaskWatch();
    });
    mThread.detach();
    ++mLatestRun;
}

ThreadsWatcher::RunNumber ThreadsWatcher::GetOwnRun() {
    const Lock lock(mMutex);
    return tStartedRun.watcher == this ? tStartedRun.number : mLatestRun;
}

bool ThreadsWatcher::IsStopRequested(RunNumber run) {
    const Lock lock(mMutex);
    return run <= mStoppedRuns;
}

/// Sleeps for the watch period; false as soon as the run is to stop.
bool ThreadsWatcher::WaitForPeriod(RunNumber run) {
    Lock lock(mMutex);
    if (IsStopRequested(run)) {
        return false;
    }
    const auto periodMs = std::clamp<milliseconds::rep>(mPeriod.count(), 0, std::numeric_limits<int>::max());
    // Its status does not matter: a look too early does no harm.
    static_cast<void>(mCondition.WaitFor(lock, static_cast<int>(periodMs)));
    return !IsStopRequested(run);
}

void ThreadsWatcher::KillFirstBlocked() {
    const std::lock_guard lock(mSetMutex);
    for (const ThreadWatched* thread : mThreads) {
        const unsigned long threadId = thread->GetThreadId();
        // Without an id it is on its way out of the set.
        if (threadId != 0 && thread->IsBlocked()) {
            TERN_LOG_ERROR(LOGGER, "TaskWatch Thread [%s] is blocked, send kill on PID %lu",
                           thread->GetName().c_str(), threadId);
            // Ends the whole process.
            static_cast<void>(mSignals.SendSignal(threadId, SIGKILL));
            return;
        }
    }
}

void ThreadsWatcher::SetPeriod(milliseconds period) {
    const Lock lock(mMutex);
    mPeriod = period;
}

void ThreadsWatcher::ShortenPeriod(milliseconds period) {
    const Lock lock(mMutex);
    if (period < mPeriod) {
        mPeriod = period;
        // The sleep under way may be far longer.
        mCondition.NotifyAll();
    }
}

}  // namespace mwl::Threading
