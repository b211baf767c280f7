#pragma once

#include <tern/foundation/api.h>
#include <tern/threading/threads_watcher_interface.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

namespace mwl::Threading {

/// A thread's promise to report work. When it is silent for more than twice its period, and for more than 20
/// s, it counts as blocked, and the watcher kills the process.
///
///     mWatched.StartWatch(std::chrono::milliseconds(5000));
///     while (WaitForWork()) {
///         mWatched.NotifyWork();
///         Work();
///     }
///     mWatched.StopWatch();
///
/// `StartWatch` and `NotifyWork` are called by the watched thread; `StopWatch` is called by it or, once the
/// watch has started, by the thread that stops it, as an executor's `Stop` does. All other operations may be
/// called by any thread. No operation but `StartWatch` and `StopWatch` takes a lock, so the thread never
/// waits for the watcher. Owned by the watched thread's object; the watcher outlives it. REQUIRES:
/// `StopWatch` before the thread is joined and before this object is destroyed. Times are those of
/// std::chrono::steady_clock.
class TERN_API ThreadWatched {
public:
    /// Not watched yet. `name` is used in messages.
    ThreadWatched(ThreadsWatcherInterface& watcher, const std::string& name);
    virtual ~ThreadWatched();
    ThreadWatched(const ThreadWatched&) = delete;
    ThreadWatched& operator=(const ThreadWatched&) = delete;

    /// Registers the calling thread with the watcher, which logs it, and counts from now; so does a repeated
    /// call. A period of 0 or less makes the watcher look without any pause. With a period so long that its
    /// double does not fit, the thread never counts as blocked.
    /// Throws std::system_error when the watcher cannot start its thread; this one is not watched then.
    void StartWatch(std::chrono::milliseconds period);
    /// Takes the registration back. Harmless when there is none.
    void StopWatch();
    /// Reports work: one clock read and one atomic store.
    void NotifyWork();

    /// 0 before the first `StartWatch`.
    std::chrono::milliseconds GetPeriod() const;
    /// pthread_self() of the watched thread, 0 while it is not watched.
    unsigned long GetThreadId() const;
    /// Whole milliseconds since the last report, or since `StartWatch` (before it: since construction) when
    /// there was none.
    std::chrono::milliseconds GetElapsedTimeSinceLastWork() const;
    /// Whether the thread has been silent for more than max(2 periods, 20 s); logged as an error.
    bool IsBlocked() const;
    /// As given to the constructor.
    std::string GetName() const;

private:
    friend class ThreadsWatcher;

    /// Without a message, and as of that instant.
    bool IsBlockedAt(std::chrono::steady_clock::time_point now) const;
    std::chrono::milliseconds ElapsedAt(std::chrono::steady_clock::time_point now) const;

    ThreadsWatcherInterface& mWatcher;
    const std::string mName;
    // The watcher reads these while the watched thread may start again; see the .cpp for the order of access.
    std::atomic<std::int64_t> mPeriodMs{0};
    std::atomic<std::int64_t> mLastWorkMs{0};  ///< counted from the start instant
    /// The start instant. A plain number, which 32-bit processors too read and write in one access; the time
    /// point that wraps it would need a lock there.
    std::atomic<std::chrono::steady_clock::rep> mStart;
    std::atomic<unsigned long> mThreadId{0};
};

}  // namespace mwl::Threading
