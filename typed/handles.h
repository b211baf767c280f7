#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include "foundation/handle.h"

namespace mwl::Typed {

using BusMessage = Handle<sd_bus_message, sd_bus_message_unref>;
using BusSlot = Handle<sd_bus_slot, sd_bus_slot_unref>;
/// Switched off before it is released.
using EventSource = Handle<sd_event_source, sd_event_source_disable_unref>;

}  // namespace mwl::Typed
