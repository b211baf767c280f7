#pragma once

#include <cstdint>
#include <ctime>

namespace mwl::Diagnostics {

// A clock that is read in a few nanoseconds: the processor's counter where it runs at one speed for ever and
// on all processors, else CLOCK_MONOTONIC.

/// Nanoseconds of a clock of clock_gettime(2).
inline std::uint64_t NanosecondsOf(clockid_t clock) noexcept {
    timespec now{};
    static_cast<void>(clock_gettime(clock, &now));  // these clocks are always there
    return static_cast<std::uint64_t>(now.tv_sec) * 1000000000U + static_cast<std::uint64_t>(now.tv_nsec);
}

/// Whether the counter may be used, by the processor and by what the kernel itself uses.
bool HasConstantCounter() noexcept;

/// The counter, or nanoseconds.
inline std::uint64_t ReadTicks(bool isCounter) noexcept {
#if defined(__x86_64__)
    if (isCounter) {
        return __builtin_ia32_rdtsc();
    }
#elif defined(__aarch64__)
    if (isCounter) {
        std::uint64_t count = 0;
        asm volatile("mrs %0, cntvct_el0" : "=r"(count));
        return count;
    }
#else
    static_cast<void>(isCounter);
#endif
    return NanosecondsOf(CLOCK_MONOTONIC);
}

}  // namespace mwl::Diagnostics
