#pragma once

#include <chrono>
#include <cstdint>

namespace ternctl {

/// Now, in microseconds since 1970.
inline std::uint64_t TimeOfDay() {
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                          std::chrono::system_clock::now().time_since_epoch())
                                          .count());
}

}  // namespace ternctl
