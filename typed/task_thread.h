#pragma once

#include <systemd/sd-event.h>

#include "service/thrown.h"

namespace mwl::Typed {

/// The facts about its bus that the tasks of the calling thread need. D-Bus thread only.
struct TaskThread {
    /// The bus is open from now on.
    static void Open(sd_event* loop) noexcept;
    /// It closes: what waits is resumed.
    static void BeginStop() noexcept;
    /// It has closed: the loop may go.
    static void Close() noexcept;
    /// Ends the loop, if there is one, in order with -ENOTRECOVERABLE: something was thrown that nobody
    /// takes.
    static void Fail(const mw::tern::Thrown& thrown) noexcept;
};

}  // namespace mwl::Typed
