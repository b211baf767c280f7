#pragma once

#include <systemd/sd-bus.h>

#include <cerrno>

namespace mw::tern::DBusMessage {

/// Leaves the container entered last, also when not all of it was read: sd-bus refuses that with EBUSY, so
/// the rest is stepped over. Where even that fails (malformed content) the container stays entered, and
/// whatever is read next fails.
inline void LeaveContainer(sd_bus_message* message) {
    while (sd_bus_message_exit_container(message) == -EBUSY && sd_bus_message_skip(message, nullptr) > 0) {
    }
}

}  // namespace mw::tern::DBusMessage
