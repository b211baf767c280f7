#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>

namespace soak {

/// What a process holds, as the kernel counts it.
struct Resources {
    std::uint64_t rssKib = 0;   ///< resident
    std::uint64_t pssKib = 0;   ///< its share of what is resident
    std::uint64_t anonKib = 0;  ///< resident and of no file: heap and stacks
    unsigned int descriptors = 0;
    unsigned int threads = 0;

    /// None when the process is not there any more.
    static std::optional<Resources> Of(pid_t pid);
};

}  // namespace soak
