#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <chrono>
#include <cstdint>

namespace mw::tern {

/// Has the messages that have arrived handled together, before the loop asks the kernel again: sd-event by
/// itself polls before each message.
///
/// Between two polls at most MESSAGES messages are handled so, and none is begun once PERIOD has passed: so
/// signals, the watchdog, timers and other descriptors have their turn however many messages come. Their
/// order is the connection's, as ever. A message whose handler ends the loop is the last one.
///
/// Whether more has come is seen by reading, a system call. Where the last look found nothing only one turn
/// in PAUSE looks, so that calls that come one at a time do not pay for it.
///
/// Loop thread only.
class MessageBatch {
public:
    static constexpr unsigned MESSAGES = 32;
    static constexpr std::chrono::milliseconds PERIOD{1};
    static constexpr unsigned PAUSE = 8;

    /// `bus` is borrowed, and attached to the loop.
    explicit MessageBatch(sd_bus* bus) noexcept : mBus(bus) {}

    /// Runs the handlers of what has arrived. Call it before each wait of the loop, before sd-bus's own part
    /// of that. What a handler throws passes through.
    void Handle(sd_event* loop);

private:
    sd_bus* const mBus;
    unsigned mTurnsToSkip = 0;
};

}  // namespace mw::tern
