#pragma once

#include <tern/foundation/status_code.h>
#include <tern/typed/loop_wait.h>

#include <chrono>
#include <coroutine>
#include <memory>
#include <utility>

namespace mwl::Typed {

namespace Detail {

class SleepAwaiter {
public:
    SleepAwaiter(std::shared_ptr<ReplyState> state, WaitLimit time) noexcept : mWait(std::move(state)) {
        mWait.SetLimit(time);
    }

    bool await_ready() const noexcept { return false; }
    bool await_suspend(std::coroutine_handle<> waiting) noexcept { return mWait.Begin(waiting); }
    StatusCode await_resume() const noexcept {
        switch (mWait.GetEnd()) {
            case LoopWait::End::Time:
                return StatusCode::Ok;
            case LoopWait::End::Stop:
                return StatusCode::Stopping;
            default:
                return mWait.GetError();
        }
    }

private:
    LoopWait mWait;
};

}  // namespace Detail

/// `co_await Sleep(bus, time)`: the coroutine goes on when the time is over, and the loop does other things
/// meanwhile. Nothing happens before it is awaited; destroying the coroutine cancels it.
///
///     while (co_await Sleep(bus, 500ms) == StatusCode::Ok) {
///         Measure();
///     }
///
/// At least the time, counted from the co_await, by CLOCK_MONOTONIC, which does not run while the system is
/// suspended; at most a millisecond more when the loop has nothing else to do. 0 and less: one turn of the
/// loop, so that others have theirs. A hundred years and more: until the bus closes.
///
/// Ok: the time is over.
/// Stopping: the bus closes, or has closed.
/// NotInitialized: the bus has not been opened.
/// Otherwise the status of sd_event_add_time(3), such as OutOfMemory.
///
/// A value, from which a coroutine of any kind may wait. D-Bus thread only; debug builds check that.
class [[nodiscard]] Sleep {
public:
    /// Does nothing yet.
    template <class Rep, class Period>
    Sleep(const Bus& bus, std::chrono::duration<Rep, Period> time) noexcept
        : mState(Detail::StateOf(bus)), mTime(time) {}

    /// Begins to wait.
    Detail::SleepAwaiter operator co_await() const noexcept { return Detail::SleepAwaiter(mState, mTime); }

private:
    std::shared_ptr<ReplyState> mState;
    Detail::WaitLimit mTime;
};

}  // namespace mwl::Typed
