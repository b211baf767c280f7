#pragma once

#include <chrono>
#include <cstdint>

namespace mwl::Typed {

/// A limit for an answer as sd-bus takes it, in microseconds: not 0, which means a default of its own.
inline std::uint64_t ToMicroseconds(std::chrono::milliseconds limit) noexcept {
    constexpr std::chrono::milliseconds LONGEST = std::chrono::hours(24 * 3652);
    if (limit > LONGEST) {
        return UINT64_MAX;
    }
    return limit.count() <= 0 ? 1 : static_cast<std::uint64_t>(limit.count()) * 1000;
}

}  // namespace mwl::Typed
