#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <tern/foundation/log.h>

#include <cerrno>

#include "platform/static_text.h"
#include "service/thrown.h"

namespace mwl::Typed {

/// The end of a callback of sd-bus or sd-event that belongs to the typed layer: what `body` throws, such as
/// std::bad_alloc, goes no further. It is logged (critical) and ends the loop in order with -ENOTRECOVERABLE,
/// as what other callbacks of the loop throw does.
template <typename Body, typename GetLoop>
void RunContainedIn(Body body, GetLoop getLoop) noexcept {
    static_cast<void>(mw::tern::Contain(
        0,
        [&] {
            body();
            return 0;
        },
        [&](const mw::tern::Thrown& thrown) {
            static const StaticText LOGGER("Typed");
            TERN_LOG_CRITICAL(LOGGER, "A turn of the typed bus threw %s: %s", thrown.Type(), thrown.Text());
            if (sd_event* const loop = getLoop()) {
                mw::tern::TellThrown(thrown);
                sd_event_exit(loop, -ENOTRECOVERABLE);
            }
        }));
}
/// The same with the loop, or with the message that is being handled.
template <typename Body>
void RunContained(Body body, sd_event* loop) noexcept {
    RunContainedIn(body, [loop] { return loop; });
}
template <typename Body>
void RunContained(Body body, sd_bus_message* message) noexcept {
    RunContainedIn(body, [message] { return sd_bus_get_event(sd_bus_message_get_bus(message)); });
}

}  // namespace mwl::Typed
