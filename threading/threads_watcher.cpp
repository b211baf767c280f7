#include <tern/threading/threads_watcher.h>

#include <signal.h>
#include <tern/foundation/log.h>
#include <tern/threading/thread_watched.h>

#include <algorithm>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "foundation/tell.h"
#include "platform/static_text.h"

namespace mwl::Threading {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

const StaticText LOGGER("Threading::ThreadsWatcher");

/// How long the messages before a kill may take: with the way to them the kill comes within a second.
constexpr int REPORT_LIMIT_MS = 750;

/// A look that comes later than that was held up: the process was stopped or frozen, or got no processor.
/// After such a time everybody has that long at least to report again.
constexpr milliseconds HELD_UP{1000};

}  // namespace

/// A watch loop and its two threads. The watch thread, the one in TaskWatch, writes the messages and kills.
/// All that may hang for ever in a log that is stuck. So the sleeping and looking is done by the loop's
/// lookout, a thread that stands ready from the start, logs nothing, and waits for no lock that anybody holds
/// while logging: it reports a blocked thread to the watch thread, and kills when the watch thread does not
/// get it done.
///
/// | state    | TaskWatch begins | a thread is blocked      | the watch thread is done |
/// |----------|------------------|--------------------------|--------------------------|
/// | Ready    | Watching         | (nobody looks)           |                          |
/// | Watching |                  | Alarm, for REPORT_LIMIT  |                          |
/// | Alarm    |                  |                          | Watching                 |
///
/// An order to stop is kept beside the state, since it ends the loop but no alarm. Everything here is guarded
/// by the watcher's mMutex.
class ThreadsWatcher::Loop {
public:
    /// What makes it: a start, or a call of TaskWatch, which is to return immediately while the watch is
    /// stopped.
    enum class Origin { Start, Call };

    /// Stands in the watcher's list as long as it lives. Throws std::system_error when the system refuses the
    /// lookout.
    Loop(ThreadsWatcher& watcher, Origin origin);
    /// Ends and joins the lookout. Not on the lookout, and without a lock.
    ~Loop();
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    /// By the thread that will run TaskWatch.
    void TakeOver();
    bool IsOfThisThread() const { return mWatchThread == std::this_thread::get_id(); }

    // For the watch thread.
    /// The lookout begins to look.
    void Begin();
    /// Waits; false when the loop is to stop.
    bool WaitForAlarm();
    void EndAlarm();
    bool IsStopRequested();

    /// With mMutex held, because the caller goes through the list.
    void RequestStop();

private:
    enum class State { Ready, Watching, Alarm };

    void LookOut();
    bool WaitForPeriod(steady_clock::time_point& now);
    void RaiseAlarm();

    ThreadsWatcher& mWatcher;
    State mState = State::Ready;
    bool mIsStopRequested = false;
    std::thread::id mWatchThread;
    ConditionVariable mChanged;
    std::thread mLookout;
};

/// The loops under way, those whose watch thread has not begun yet included.
struct ThreadsWatcher::Loops {
    std::vector<Loop*> all;
    ConditionVariable oneHasLeft;
};

ThreadsWatcher::Loop::Loop(ThreadsWatcher& watcher, Origin origin) : mWatcher(watcher) {
    const Lock lock(mWatcher.mMutex);
    std::vector<Loop*>& all = mWatcher.mLoops->all;
    mIsStopRequested = origin == Origin::Call && std::all_of(all.begin(), all.end(), [](const Loop* loop) {
                           return loop->mIsStopRequested;
                       });
    all.reserve(all.size() + 1);
    if (!mIsStopRequested) {
        mLookout = std::thread([this] { LookOut(); });
    }
    all.push_back(this);
}

ThreadsWatcher::Loop::~Loop() {
    {
        const Lock lock(mWatcher.mMutex);
        if (!mIsStopRequested) {
            RequestStop();
            mWatcher.mCondition.NotifyAll();
        }
    }
    if (mLookout.joinable()) {
        mLookout.join();
    }
    const Lock lock(mWatcher.mMutex);
    std::erase(mWatcher.mLoops->all, this);
    // Under the mutex: the watcher's destructor goes on when it has the mutex, and nothing is touched then.
    mWatcher.mLoops->oneHasLeft.NotifyAll();
}

void ThreadsWatcher::Loop::TakeOver() {
    const Lock lock(mWatcher.mMutex);
    mWatchThread = std::this_thread::get_id();
}

void ThreadsWatcher::Loop::Begin() {
    const Lock lock(mWatcher.mMutex);
    mState = State::Watching;
    mChanged.NotifyAll();
}

bool ThreadsWatcher::Loop::WaitForAlarm() {
    Lock lock(mWatcher.mMutex);
    while (mState != State::Alarm && !mIsStopRequested) {
        static_cast<void>(mChanged.Wait(lock));  // whatever it says, the state decides
    }
    return mState == State::Alarm;
}

void ThreadsWatcher::Loop::EndAlarm() {
    Begin();
}

bool ThreadsWatcher::Loop::IsStopRequested() {
    const Lock lock(mWatcher.mMutex);
    return mIsStopRequested;
}

void ThreadsWatcher::Loop::RequestStop() {
    mIsStopRequested = true;
    mChanged.NotifyAll();
}

/// The lookout's thread.
void ThreadsWatcher::Loop::LookOut() {
    {
        Lock lock(mWatcher.mMutex);
        while (mState == State::Ready && !mIsStopRequested) {
            static_cast<void>(mChanged.Wait(lock));
        }
    }
    steady_clock::time_point now;
    while (WaitForPeriod(now)) {
        if (mWatcher.IsAnyBlockedAt(now)) {
            RaiseAlarm();
        }
    }
}

/// Sleeps for the watch period; false when the loop is to stop. `now` is the instant to look at.
bool ThreadsWatcher::Loop::WaitForPeriod(steady_clock::time_point& now) {
    Lock lock(mWatcher.mMutex);
    milliseconds pause = mWatcher.GetPause();
    std::optional<steady_clock::time_point> heldUpTo;
    while (!mIsStopRequested) {
        const steady_clock::time_point begin = steady_clock::now();
        const StatusCode status = mWatcher.mCondition.WaitFor(lock, static_cast<int>(pause.count()));
        now = steady_clock::now();
        if (now - begin > pause + HELD_UP) {
            // Nobody could report meanwhile: who is silent may be as healthy as we are. One look is left out.
            heldUpTo = now;
        } else if (!heldUpTo || status != StatusCode::Ok) {
            return !mIsStopRequested;  // without a hold-up a look too early does no harm
        }
        // A period that became shorter may have woken us.
        const auto left = *heldUpTo + std::max(mWatcher.GetPause(), HELD_UP) - now;
        pause = std::max(std::chrono::ceil<milliseconds>(left), milliseconds(0));
    }
    return false;
}

void ThreadsWatcher::Loop::RaiseAlarm() {
    Lock lock(mWatcher.mMutex);
    if (mIsStopRequested) {
        return;  // the watch thread may have left: nobody would end the alarm
    }
    mState = State::Alarm;
    mChanged.NotifyAll();
    static_cast<void>(mChanged.WaitFor(lock, REPORT_LIMIT_MS, [this] { return mState != State::Alarm; }));
    if (mState == State::Alarm) {
        // By this thread's id, because the blocked one may have gone meanwhile: it ends the whole process.
        static_cast<void>(mWatcher.mSignals.SendSignal(pthread_self(), SIGKILL));
    }
}

ThreadsWatcher::ThreadsWatcher(ThreadsMonitorInterface& monitor)
    : ThreadManager(monitor), mLoops(std::make_shared<Loops>()) {}

ThreadsWatcher::~ThreadsWatcher() {
    ThreadsWatcher::Stop();
    Lock lock(mMutex);
    while (!mLoops->all.empty()) {
        static_cast<void>(mLoops->oneHasLeft.Wait(lock));
    }
}

void ThreadsWatcher::Stop() {
    // Under the mutex of the sleep, so that it falls before the sleep's test or into the sleep.
    const Lock lock(mMutex);
    for (Loop* const loop : mLoops->all) {
        loop->RequestStop();
    }
    mCondition.NotifyAll();
}

void ThreadsWatcher::Register(ThreadWatched* thread) {
    if (thread == nullptr) {
        return;
    }
    TERN_LOG_NOTICE(LOGGER, "Start watch %s (period %llu ms, threadId %lu)", thread->GetName().c_str(),
                    static_cast<unsigned long long>(thread->GetPeriod().count()), thread->GetThreadId());
    bool isFirst = false;
    {
        const std::lock_guard lock(mSetMutex);
        const bool inserted = mThreads.insert(thread).second;
        isFirst = inserted && mThreads.size() == 1;
        if (isFirst) {
            SetPeriod(thread->GetPeriod());
            try {
                Start();
            } catch (...) {
                mThreads.clear();
                throw;
            }
        }
    }
    if (!isFirst) {
        ShortenPeriod(thread->GetPeriod());
        return;
    }
    // With no lock held: the monitor stops us with its own held, and whoever leaves the set then.
    for (unsigned int former = TakeFormerEntries(); former > 0; --former) {
        NotifyStopped();
    }
}

// The message is written with the mutex free: a log that is stuck must not keep the others, the lookout above
// all, from the set.
void ThreadsWatcher::Unregister(ThreadWatched* thread) {
    if (IsRegistered(thread)) {
        TERN_LOG_NOTICE(LOGGER, "Stop watch %s", thread->GetName().c_str());
    }
    const std::lock_guard lock(mSetMutex);
    mThreads.erase(thread);
    if (mThreads.empty()) {
        Stop();
    }
}

void ThreadsWatcher::TaskWatch() {
    std::optional<Loop> direct;
    Loop* loop = FindLoopOfThisThread();
    if (loop == nullptr) {
        loop = &direct.emplace(*this, Loop::Origin::Call);
    }
    loop->Begin();
    TERN_LOG_NOTICE(LOGGER, "TaskWatch Started");
    AddEntry();
    while (loop->WaitForAlarm()) {
        KillFirstBlocked();
        loop->EndAlarm();
    }
    // A stop that was requested of this loop stays requested, so the loop has no other way out. Kept as a
    // guard: a watch that ended for any other reason must not go unnoticed.
    if (!loop->IsStopRequested()) {
        // GCOVR_EXCL_START: the guard that is never needed
        TERN_LOG_ERROR(LOGGER, "TaskWatch Stopped error, notify failure");
        NotifyFailure();
        // GCOVR_EXCL_STOP
    } else {
        TERN_LOG_NOTICE(LOGGER, "TaskWatch Stopped");
    }
}

void ThreadsWatcher::Start() {
    auto loop = std::make_unique<Loop>(*this, Loop::Origin::Start);
    std::thread thread([this, loop = std::move(loop)] {
        loop->TakeOver();
        TaskWatch();
    });
    const Lock lock(mMutex);
    mThread = std::move(thread);
    mThread.detach();
}

ThreadsWatcher::Loop* ThreadsWatcher::FindLoopOfThisThread() {
    const Lock lock(mMutex);
    const std::vector<Loop*>& all = mLoops->all;
    const auto found =
        std::find_if(all.begin(), all.end(), [](const Loop* loop) { return loop->IsOfThisThread(); });
    return found == all.end() ? nullptr : *found;
}

void ThreadsWatcher::AddEntry() {
    NotifyStarted();
    const Lock lock(mMutex);
    ++mEntries;
}

/// All entries in the monitor's list but one, which the caller takes back: that one stops the watches to come
/// until they have added theirs.
unsigned int ThreadsWatcher::TakeFormerEntries() {
    const Lock lock(mMutex);
    const unsigned int former = mEntries > 1 ? mEntries - 1 : 0;
    mEntries -= former;
    return former;
}

bool ThreadsWatcher::IsRegistered(ThreadWatched* thread) {
    const std::lock_guard lock(mSetMutex);
    return mThreads.count(thread) != 0;
}

// Without an id a thread is on its way out of the set.
bool ThreadsWatcher::IsAnyBlockedAt(steady_clock::time_point now) {
    const std::lock_guard lock(mSetMutex);
    return std::any_of(mThreads.begin(), mThreads.end(), [now](const ThreadWatched* thread) {
        if (thread->GetThreadId() == 0 || !thread->IsBlockedAt(now)) {
            return false;
        }
        // Reported here and not where it is killed, because the log may be stuck on the way there.
        TERN_TELL_NAMED(Blocked, blocked, thread, std::chrono::nanoseconds(thread->ElapsedAt(now)).count(),
                        thread->mName.c_str());
        return true;
    });
}

// With the set's mutex held to the end, because the thread must not go before its id is used. No one waits
// for it long: the lookout does not look during the alarm, and if the log is stuck it ends the process.
void ThreadsWatcher::KillFirstBlocked() {
    const std::lock_guard lock(mSetMutex);
    for (const ThreadWatched* thread : mThreads) {
        const unsigned long threadId = thread->GetThreadId();
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

/// The watch period as a wait can take it.
milliseconds ThreadsWatcher::GetPause() {
    const Lock lock(mMutex);
    return std::clamp(mPeriod, milliseconds(0), milliseconds(std::numeric_limits<int>::max()));
}

}  // namespace mwl::Threading
