#pragma once

#include <systemd/sd-bus.h>

#include <chrono>
#include <cstdint>

namespace mw::tern {

/// While it lives, calls on a bus are given up before the watchdog of the thread's event loop bites. On a
/// thread whose loop feeds no watchdog, and in a process without one, it does nothing.
///
/// A loop feeds its watchdog (sd_event_set_watchdog(3)) when a half to three quarters of the period have
/// passed, so that a callback may take the last quarter, whenever it begins.
class CallTimeLimit {
public:
    /// `calls` share the time. The bus is borrowed, and may be null; it outlives the limit. A time-out that
    /// it has already and that is shorter stays.
    explicit CallTimeLimit(sd_bus* bus, unsigned calls = 1);
    /// The bus has its former time-out again.
    ~CallTimeLimit();
    CallTimeLimit(const CallTimeLimit&) = delete;
    CallTimeLimit& operator=(const CallTimeLimit&) = delete;

    /// What is left of the time that the calls share, for what has to be waited for after them; UINT64_MAX on
    /// a thread that is not limited.
    std::uint64_t LeftUs() const;

private:
    using Clock = std::chrono::steady_clock;

    const Clock::time_point mBegin = Clock::now();
    std::uint64_t mPatienceUs = 0;  ///< 0 without a limit
    sd_bus* mBus = nullptr;         ///< null when there is nothing to be undone
    std::uint64_t mFormerUs = 0;
};

}  // namespace mw::tern
