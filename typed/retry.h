#pragma once

#include <systemd/sd-event.h>

#include <algorithm>
#include <cstdint>
#include <ctime>

#include "typed/handles.h"

namespace mwl::Typed {

/// The pauses before a peer that did not answer well is asked again: 1, 2, 4 and so on to 64 seconds. D-Bus
/// thread only.
class Retry {
public:
    /// `handler` runs after the next pause, and takes what it throws. 0 or above; otherwise a negative error
    /// number, and it never runs.
    int Begin(sd_event* loop, sd_event_time_handler_t handler, void* userdata) noexcept {
        sd_event_source* timer = nullptr;
        const int r = sd_event_add_time_relative(loop, &timer, CLOCK_MONOTONIC, mPause, 0, handler, userdata);
        mTimer.reset(timer);
        mPause = std::min(2 * mPause, LONGEST);
        return r;
    }
    /// It does not run; the next pause is as long as it would have been.
    void Stop() noexcept { mTimer.reset(); }
    /// It does not run; the next pause is the first.
    void Reset() noexcept {
        Stop();
        mPause = FIRST;
    }

private:
    /// Microseconds.
    static constexpr std::uint64_t FIRST = 1000000;
    static constexpr std::uint64_t LONGEST = 64 * FIRST;

    EventSource mTimer;
    std::uint64_t mPause = FIRST;
};

}  // namespace mwl::Typed
