#include <tern/threading/thread_watched.h>

#include <pthread.h>
#include <tern/foundation/log.h>
#include <unistd.h>

#include <algorithm>
#include <limits>

#include "foundation/known_objects.h"
#include "foundation/tell.h"
#include "platform/static_text.h"

namespace mwl::Threading {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

const StaticText LOGGER("Threading::ThreadWatched");

steady_clock::rep Now() {
    return steady_clock::now().time_since_epoch().count();
}

/// No thread is taken as blocked sooner, however short its period.
constexpr milliseconds SHORTEST_LIMIT{20000};

/// For the listener: 0 for what is no period, the longest one for what does not fit.
std::uint64_t NanosecondsOf(milliseconds period) {
    constexpr std::uint64_t NANOSECONDS_PER_MILLISECOND = 1000000;
    const auto count = static_cast<std::uint64_t>(std::max<milliseconds::rep>(period.count(), 0));
    return std::min(count, std::numeric_limits<std::uint64_t>::max() / NANOSECONDS_PER_MILLISECOND) *
           NANOSECONDS_PER_MILLISECOND;
}

milliseconds LimitOf(milliseconds period) {
    if (period > milliseconds::max() / 2) {
        return milliseconds::max();
    }
    return std::max(SHORTEST_LIMIT, 2 * std::max(period, milliseconds(0)));
}

}  // namespace

// A thread that starts again while the watcher looks at it must never seem blocked by a mixture of old and
// new values. So the writer stores start instant, last work, period, each released; the reader loads in the
// other order, after it has read the clock: now, period, last work, start instant. Whatever it meets half-way
// then only makes the silence look shorter.

ThreadWatched::ThreadWatched(ThreadsWatcherInterface& watcher, const std::string& name)
    : mWatcher(watcher), mName(name), mStart(Now()) {}

ThreadWatched::~ThreadWatched() {
    KnownObjects::Remove(KnownObjects::Kind::Watched, this);
}

void ThreadWatched::StartWatch(milliseconds period) {
    mStart.store(Now(), std::memory_order_relaxed);
    mLastWorkMs.store(0, std::memory_order_release);
    mPeriodMs.store(period.count(), std::memory_order_release);
    mThreadId = pthread_self();
    KnownObjects::Add({.object = this,
                       .number = static_cast<std::uint64_t>(std::max<milliseconds::rep>(period.count(), 0)),
                       .threadId = gettid(),
                       .kind = KnownObjects::Kind::Watched},
                      mName);
    TERN_TELL_NAMED(WatchBegan, watch_began, this, NanosecondsOf(period), mName.c_str());
    try {
        mWatcher.Register(this);
    } catch (...) {
        mThreadId = 0;
        TERN_TELL_NAMED(WatchEnded, watch_ended, this, 0, mName.c_str());
        KnownObjects::Remove(KnownObjects::Kind::Watched, this);
        throw;
    }
}

void ThreadWatched::StopWatch() {
    mThreadId = 0;
    mWatcher.Unregister(this);
    TERN_TELL_NAMED(WatchEnded, watch_ended, this, 0, mName.c_str());
    KnownObjects::Remove(KnownObjects::Kind::Watched, this);
}

void ThreadWatched::NotifyWork() {
    // Only the watched thread stores the start instant.
    const steady_clock::duration sinceStart(Now() - mStart.load(std::memory_order_relaxed));
    mLastWorkMs.store(std::chrono::duration_cast<milliseconds>(sinceStart).count(),
                      std::memory_order_release);
    TERN_TELL_NAMED(WatchReported, watch_reported, this, 0, mName.c_str());
}

milliseconds ThreadWatched::GetPeriod() const {
    return milliseconds(mPeriodMs.load(std::memory_order_acquire));
}

unsigned long ThreadWatched::GetThreadId() const {
    return mThreadId;
}

milliseconds ThreadWatched::GetElapsedTimeSinceLastWork() const {
    return ElapsedAt(steady_clock::now());
}

bool ThreadWatched::IsBlocked() const {
    const steady_clock::time_point now = steady_clock::now();
    const milliseconds period = GetPeriod();
    const milliseconds elapsed = ElapsedAt(now);
    if (elapsed <= LimitOf(period)) {
        return false;
    }
    TERN_LOG_ERROR(LOGGER, "Thread (%s) is blocked (period %llu ms, lastWork %llu ms)", mName.c_str(),
                   static_cast<unsigned long long>(period.count()),
                   static_cast<unsigned long long>(elapsed.count()));
    return true;
}

std::string ThreadWatched::GetName() const {
    return mName;
}

bool ThreadWatched::IsBlockedAt(steady_clock::time_point now) const {
    const milliseconds period = GetPeriod();
    return ElapsedAt(now) > LimitOf(period);
}

milliseconds ThreadWatched::ElapsedAt(steady_clock::time_point now) const {
    const milliseconds lastWork(mLastWorkMs.load(std::memory_order_acquire));
    const auto sinceStart =
        now.time_since_epoch() - steady_clock::duration(mStart.load(std::memory_order_relaxed));
    return std::max(std::chrono::duration_cast<milliseconds>(sinceStart) - lastWork, milliseconds(0));
}

}  // namespace mwl::Threading
