#pragma once

#include <tern/foundation/status_code.h>
#include <tern/typed/error.h>
#include <tern/typed/loop_wait.h>

#include <chrono>
#include <coroutine>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>

namespace mwl::Typed {

namespace Detail {

class ReadyAwaiter {
public:
    ReadyAwaiter(std::shared_ptr<ReplyState> state, int fd, std::uint32_t events,
                 std::optional<WaitLimit> limit) noexcept
        : mWait(std::move(state)) {
        mWait.SetDescriptor(fd, events);
        if (limit.has_value()) {
            mWait.SetLimit(*limit);
        }
    }

    bool await_ready() const noexcept { return false; }
    bool await_suspend(std::coroutine_handle<> waiting) noexcept { return mWait.Begin(waiting); }
    Outcome<std::uint32_t> await_resume() const {
        switch (mWait.GetEnd()) {
            case LoopWait::End::Ready:
                return mWait.GetEvents();
            case LoopWait::End::Time:
                return StatusCode::Timeout;
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

/// `co_await WaitFor(bus, fd, events)`: the coroutine goes on when the descriptor is ready, with the poll(2)
/// events seen, and the loop does other things meanwhile. Nothing happens before it is awaited; destroying
/// the coroutine cancels it.
///
///     Outcome<std::uint32_t> seen = co_await WaitFor(bus, gpio, EPOLLPRI, 2s);
///
/// `events` are those of sd_event_add_io(3): EPOLLIN, EPOLLOUT, EPOLLPRI and the like; EPOLLHUP and EPOLLERR
/// are reported even if not asked for. The limit is counted as by Sleep. The descriptor is borrowed: it stays
/// open, and open it is to stay until then.
///
/// In the outcome, besides the events, an error with the status (Error::GetStatus):
/// Timeout: it was not ready within the limit.
/// Stopping: the bus closes, or has closed.
/// NotInitialized: the bus has not been opened.
/// AccessDenied: it cannot be waited for; it is a regular file, for example.
/// AlreadyExists: the loop watches it already; a duplicate (dup(2)) may be waited for.
/// InvalidArgument: it is no descriptor, or those are no such events.
/// Otherwise the status of sd_event_add_io(3) or sd_event_add_time(3), such as OutOfMemory.
///
/// A value, from which a coroutine of any kind may wait. D-Bus thread only; debug builds check that.
class [[nodiscard]] WaitFor {
public:
    /// Waits as long as it takes. Does nothing yet.
    WaitFor(const Bus& bus, int fd, std::uint32_t events) noexcept
        : mState(Detail::StateOf(bus)), mFd(fd), mEvents(events) {}
    /// Waits at most so long. Does nothing yet.
    template <class Rep, class Period>
    WaitFor(const Bus& bus, int fd, std::uint32_t events, std::chrono::duration<Rep, Period> limit) noexcept
        : WaitFor(bus, fd, events) {
        mLimit.emplace(limit);
    }

    /// Begins to wait.
    Detail::ReadyAwaiter operator co_await() const noexcept {
        return Detail::ReadyAwaiter(mState, mFd, mEvents, mLimit);
    }

private:
    std::shared_ptr<ReplyState> mState;
    int mFd;
    std::uint32_t mEvents;
    std::optional<Detail::WaitLimit> mLimit;
};

}  // namespace mwl::Typed
