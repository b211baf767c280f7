#pragma once

#include <tern/typed/bus.h>

#include <cstddef>
#include <cstdint>

#include "typed/log_limit.h"

namespace mwl::Typed {

/// The counters of calls from here to peers. D-Bus thread only.
struct ClientCalls {
    std::uint64_t sent = 0;
    std::uint64_t unsent = 0;
    std::uint64_t wrongReplies = 0;
    /// Sent, and neither answered nor given up.
    std::size_t waiting = 0;
    std::size_t limit = Bus::PENDING_CALLS;
    /// Of wrong replies.
    LogLimit wrongLog;
    /// Of calls whose failure is reported to nobody else.
    LogLimit unsentLog;
};

}  // namespace mwl::Typed
