#pragma once

#include <chrono>
#include <functional>
#include <mutex>
#include <utility>

namespace mwl::Timer {

/// One timer's callback and the calls of it that run: each expiry has a thread of its own, so that a callback
/// that takes longer than the period, or hangs, would take one thread after the other. Thread-safe; no lock
/// is held while the callback runs, which may destroy the timer: whoever calls holds this.
class TimerCalls {
public:
    /// Far above what a working callback comes to, far below what a process may have.
    static constexpr unsigned int MAX_AT_ONCE = 32;

    explicit TimerCalls(std::function<void()> callback) : mCallback(std::move(callback)) {}
    TimerCalls(const TimerCalls&) = delete;
    TimerCalls& operator=(const TimerCalls&) = delete;

    /// An expiry: calls back, unless so many calls run already. Then the expiry is dropped, which is logged
    /// once, and how many were, when the last of those calls has returned.
    /// `late` is since when it was due.
    void Serve(std::chrono::nanoseconds late);
    /// Calls back, unless the callback is empty.
    void Call(std::chrono::nanoseconds late) const;

private:
    bool Enter();
    void Leave();

    const std::function<void()> mCallback;
    std::mutex mMutex;  ///< guards the rest
    unsigned int mRunning = 0;
    unsigned long mDropped = 0;
};

}  // namespace mwl::Timer
