#include <tern/threading/thread_pool.h>

#include <signal.h>
#include <tern/foundation/log.h>

#include <string>
#include <thread>
#include <utility>

#include "foundation/known_objects.h"
#include "foundation/tell.h"
#include "platform/static_text.h"

namespace mwl::Threading::ThreadPool {

namespace {

const StaticText LOGGER("Threading::ThreadPool");

/// How long an idle worker sleeps between two reports to the watcher.
constexpr int IDLE_LIMIT_MS = 10000;

/// How often a worker that finds no job lets others run and looks again before it sleeps. Where jobs are
/// queued one after another the next one is there by then, and going to sleep and being woken costs far more
/// than it.
constexpr int LOOKS_BEFORE_SLEEP = 2;

}  // namespace

// Two sides. The owner's thread starts, stops and destroys; mRunning and mThreads are its alone, without a
// lock. Everybody queues and asks, and the workers take: mJobs and mStopping change under mMutex only, the
// mutex of the workers' wait. So each change falls before a worker's test or wakes the wait behind it, and
// neither a job nor a stop is lost. No job is copied, run or destroyed under that mutex: jobs are the
// caller's code, and may queue and ask themselves.

ThreadPool::ThreadPool(unsigned int threadCount, ThreadsWatcherInterface& watcher, SignalsInterface& signals)
    : mThreadCount(threadCount), mWatcher(watcher), mSignals(signals) {
    KnownObjects::Add({.object = this, .number = threadCount, .kind = KnownObjects::Kind::Pool});
}

ThreadPool::~ThreadPool() {
    Stop(false);
    KnownObjects::Remove(KnownObjects::Kind::Pool, this);
}

void ThreadPool::Start() {
    if (mRunning || mThreadCount == 0) {
        return;
    }
    TERN_LOG_TRACE(LOGGER, "%s: Starting ThreadPool with %u threads", "Start", mThreadCount);
    // Before the first worker, which leaves when it finds the former stop.
    {
        const Lock lock(mMutex);
        mStopping = false;
    }
    mRunning = true;
    try {
        for (unsigned int index = 0; index < mThreadCount; ++index) {
            // Kept before it is started. A worker that runs and cannot be kept, for lack of memory, would be
            // joined before anybody has asked it to leave.
            mThreads.push_back(std::make_unique<Thread>(
                mWatcher, [this](std::function<void()> notifyWork) { ThreadLoop(std::move(notifyWork)); },
                mSignals, index));
            mThreads.back()->Start();
        }
    } catch (...) {
        // Without it the joins below would wait for workers that have no reason to leave.
        LetWorkersLeave();
        mThreads.clear();  // joins
        mRunning = false;
        throw;
    }
}

void ThreadPool::QueueJob(const std::function<void()>& job) {
    // Copied before the lock: copying may be the caller's code.
    std::function<void()> copy(job);
    {
        const Lock lock(mMutex);
        mJobs.push_back(std::move(copy));
        TERN_TELL(JobQueued, job_queued, this, mJobs.size());
    }
    // Without the mutex, which the woken worker needs first of all.
    mCondition.NotifyOne();
}

void ThreadPool::QueueUnique(UniqueFunction<void()> job) {
    // The queue holds what can be copied; nobody copies it.
    std::function<void()> entry;
    if (job) {
        entry = [shared = std::make_shared<UniqueFunction<void()>>(std::move(job))] { (*shared)(); };
    }
    {
        const Lock lock(mMutex);
        mJobs.push_back(std::move(entry));
        TERN_TELL(JobQueued, job_queued, this, mJobs.size());
    }
    mCondition.NotifyOne();
}

bool ThreadPool::HasPendingJobs() const {
    const Lock lock(mMutex);
    return !mJobs.empty();
}

void ThreadPool::Stop(bool force) {
    if (!mRunning) {
        return;
    }
    // The watcher first: the joins last as long as the current jobs, and one that takes long to end must not
    // get the process killed on its way to an orderly stop.
    mWatcher.Stop();
    // Then the order to leave, and only then the signal: the job that it brings out of a system call is to be
    // the last one that its worker takes.
    LetWorkersLeave();
    if (force) {
        ForceThreadsTermination();
    }
    for (const auto& thread : mThreads) {
        thread->Join();
    }
    TERN_LOG_TRACE(LOGGER, "%s: All threads joined", "Stop");
    mThreads.clear();
    mRunning = false;
}

void ThreadPool::ForceThreadsTermination() {
    for (const auto& thread : mThreads) {
        thread->SendSignal(SIGUSR1);
    }
}

// By value. Fixed by the interface: callers' calls are compiled against this signature.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
void ThreadPool::ThreadLoop(std::function<void()> notifyWork) {
    int looks = 0;  // in vain, since the last pass
    while (true) {
        std::function<void()> job;
        StatusCode status = StatusCode::Failure;
        bool looksAgain = false;
        {
            Lock lock(mMutex);
            if (mStopping) {
                return;
            }
            looksAgain = mJobs.empty() && looks < LOOKS_BEFORE_SLEEP;
            if (!looksAgain) {
                // With work at hand not even the clock is read.
                status = mJobs.empty() ? mCondition.WaitFor(lock, IDLE_LIMIT_MS,
                                                            [this] { return mStopping || !mJobs.empty(); })
                                       : StatusCode::Ok;
            }
            if (status == StatusCode::Ok && !mStopping) {
                job = std::move(mJobs.front());
                mJobs.pop_front();
                if (job) {
                    // Under the mutex, with what is left: behind job_queued of the same job.
                    TERN_TELL(JobBegan, job_began, this, mJobs.size());
                }
            }
        }
        if (looksAgain) {
            ++looks;
            std::this_thread::yield();
            continue;
        }
        looks = 0;
        if (status == StatusCode::Timeout) {
            TERN_LOG_TRACE(LOGGER, "%s: Timeout waiting for work", "ThreadLoop");
        } else if (status != StatusCode::Ok) {
            TERN_LOG_ERROR(LOGGER, "%s: Error waiting for work %s", "ThreadLoop",
                           mw::tern::ConvertStatusCodeToString(status).c_str());
        }
        // Before the job, whose time begins now and not with the wait for it, and after it.
        notifyWork();
        if (job) {
            job();
            TERN_TELL(JobEnded, job_ended, this, 0);
            notifyWork();
        }
    }
}

// All, because each has to see it. Jobs that are queued stay where they are: a worker that is woken looks for
// the order first.
void ThreadPool::LetWorkersLeave() {
    {
        const Lock lock(mMutex);
        mStopping = true;
    }
    mCondition.NotifyAll();
}

}  // namespace mwl::Threading::ThreadPool
