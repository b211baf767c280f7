#pragma once

#include <cstddef>
#include <cstdint>

#include "typed/log_limit.h"

namespace mwl::Typed {

/// What the clients of a bus count. D-Bus thread only.
struct ClientCalls {
    std::uint64_t wrongReplies = 0;
    /// Of what peers answer wrongly.
    LogLimit log;
};

}  // namespace mwl::Typed
