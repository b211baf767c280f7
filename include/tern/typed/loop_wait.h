#pragma once

/// A coroutine that waits for a source of the loop: what Sleep and WaitFor have in common. Applications do
/// not need it.

#include <systemd/sd-event.h>
#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>
#include <tern/typed/stoppable.h>

#include <chrono>
#include <coroutine>
#include <cstdint>
#include <memory>
#include <optional>

namespace mwl::Typed {

using mw::tern::StatusCode;

class Bus;
struct ReplyState;

namespace Detail {

/// A length of time of any unit in microseconds, rounded up: below 0 counts as 0, too long as for ever.
class WaitLimit {
public:
    static constexpr std::uint64_t FOREVER = UINT64_MAX;

    template <class Rep, class Period>
    constexpr explicit WaitLimit(std::chrono::duration<Rep, Period> time) noexcept {
        // As a floating point number, which no unit overflows. Not a number counts as 0.
        using Seconds = std::chrono::duration<double>;
        const auto seconds = std::chrono::duration_cast<Seconds>(time);
        if (seconds >= LONGEST) {
            mMicroseconds = FOREVER;
        } else if (seconds > Seconds(0)) {
            mMicroseconds =
                static_cast<std::uint64_t>(std::chrono::ceil<std::chrono::microseconds>(time).count());
        }
    }

    constexpr std::uint64_t GetMicroseconds() const noexcept { return mMicroseconds; }

private:
    /// Nobody waits for so long.
    static constexpr std::chrono::hours LONGEST{24 * 365 * 100};

    std::uint64_t mMicroseconds = 0;
};

struct TERN_API ReleaseSource {
    void operator()(sd_event_source* source) const noexcept;
};
/// Owner of a source; it is switched off before it is released.
using LoopSource = std::unique_ptr<sd_event_source, ReleaseSource>;

/// Waits until a time is over, until a descriptor is ready, or until the bus closes; whatever comes first
/// resumes the coroutine. Destroying it cancels. D-Bus thread only.
class TERN_API LoopWait final : private Stoppable {
public:
    /// The cause that ended the wait.
    enum class End { None, Ready, Time, Stop, Error };

    explicit LoopWait(std::shared_ptr<ReplyState> state) noexcept;
    ~LoopWait();

    /// Waits at most so long.
    void SetLimit(WaitLimit limit) noexcept { mLimit = limit; }
    /// Waits for poll(2) events of the descriptor.
    void SetDescriptor(int fd, std::uint32_t events) noexcept;

    /// False: it has ended already, see GetEnd.
    bool Begin(std::coroutine_handle<> waiting) noexcept;

    End GetEnd() const noexcept { return mEnd; }
    /// The poll(2) events seen.
    std::uint32_t GetEvents() const noexcept { return mEvents; }
    /// Why it failed; of End::Error.
    StatusCode GetError() const noexcept { return mError; }

private:
    static int OnTime(sd_event_source* source, std::uint64_t time, void* userdata) noexcept;
    static int OnReady(sd_event_source* source, int fd, std::uint32_t events, void* userdata) noexcept;
    void OnStop() noexcept override;
    int AddSources(sd_event* loop) noexcept;
    void Finish(End end) noexcept;

    const std::shared_ptr<ReplyState> mState;
    std::optional<WaitLimit> mLimit;
    int mFd = -1;
    std::uint32_t mWanted = 0;
    bool mHasDescriptor = false;

    std::coroutine_handle<> mWaiting;
    LoopSource mTimer;
    LoopSource mReadiness;
    End mEnd = End::None;
    std::uint32_t mEvents = 0;
    StatusCode mError = StatusCode::Ok;
};

/// The part of a bus that waits need; outlives the bus.
TERN_API std::shared_ptr<ReplyState> StateOf(const Bus& bus) noexcept;

}  // namespace Detail

}  // namespace mwl::Typed
