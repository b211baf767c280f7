#pragma once

#include <tern/typed/bus.h>

#include <memory>

#include "typed/reply_state.h"

namespace mwl::Typed {

/// The services of a bus for clients of the same connection.
struct BusAccess {
    /// Outlives the bus; its `core` is null once the bus has gone. Any thread.
    static const std::shared_ptr<ReplyState>& GetState(const Bus& bus) noexcept;
};

}  // namespace mwl::Typed
