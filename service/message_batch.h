#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <tern/foundation/api.h>

#include <chrono>

#include "foundation/handle.h"

namespace mw::tern {

/// Has the messages that have arrived handled together, before the loop asks the kernel again: sd-event by
/// itself polls before each message.
///
/// In one turn of the loop at most MESSAGES messages are handled so, and none is begun once PERIOD has
/// passed: so signals, the watchdog, timers and other descriptors have their turn however many messages come.
/// Their order stays the connection's. A message whose handler ends the loop is the last one, and so is one
/// after which something has to be done first: see EndAfterThisMessage.
///
/// Whether more has come is seen by reading, a system call. Where the last look found nothing the next PAUSE
/// turns do not look, so that calls that come one at a time hardly pay for it.
///
/// Loop thread only.
class MessageBatch {
public:
    static constexpr unsigned MESSAGES = 32;
    static constexpr std::chrono::milliseconds PERIOD{1};
    static constexpr unsigned PAUSE = 8;

    /// `bus` is borrowed, and to be attached to the loop.
    explicit MessageBatch(sd_bus* bus) noexcept : mBus(bus) {}
    MessageBatch(const MessageBatch&) = delete;
    MessageBatch& operator=(const MessageBatch&) = delete;

    /// 0 or above; otherwise a negative error number, and nothing happens.
    int Open(sd_event* loop) noexcept;
    /// Call it before each wait of the loop.
    void BeforeWait() noexcept;

    /// The loop has its turn before the next message is handled: for a defer source of the connection's own
    /// priority that a handler of this thread has enabled, and that was created before this one.
    TERN_API static void EndAfterThisMessage() noexcept;

private:
    static int OnTurn(sd_event_source* source, void* userdata);
    void Handle(sd_event* loop);
    void GiveUp();

    sd_bus* const mBus;
    mwl::Handle<sd_event_source, sd_event_source_disable_unref> mSource;
    unsigned mTurnsToSkip = PAUSE;
    bool mIsGivenUp = false;  ///< the connection could not be read
};

}  // namespace mw::tern
