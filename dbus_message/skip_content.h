#pragma once

#include <systemd/sd-bus.h>

namespace mw::tern::DBusMessage {

/// Steps over what stands next and has this signature, one or several complete types; over the next one,
/// whatever it is, when `contents` is null. Returns what sd_bus_message_skip(3) would.
///
/// sd-bus's own function steps over an array element by element, which takes seconds for an array of
/// megabytes. Here arrays of bytes and of numbers, wherever they stand in it, are stepped over whole.
int SkipContent(sd_bus_message* message, const char* contents);

/// Leaves the container entered last, also when not all of it was read: sd-bus refuses that with EBUSY, so
/// the rest is stepped over. Where even that fails (malformed content) the container stays entered, and
/// whatever is read next fails.
void LeaveContainer(sd_bus_message* message);

}  // namespace mw::tern::DBusMessage
