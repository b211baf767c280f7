#pragma once

#include <time.h>

#include <algorithm>
#include <chrono>
#include <limits>

namespace tern::test {

/// Limit of every wait in the tests: long enough for a loaded machine under a sanitizer, never waited out
/// when the awaited thing happens.
constexpr std::chrono::seconds GENEROUS_LIMIT{30};

/// Longer limits count as this one, 24 days.
constexpr std::chrono::milliseconds LONGEST_LIMIT{std::numeric_limits<int>::max()};

/// When a wait that begins now is over.
inline std::chrono::steady_clock::time_point DeadlineAfter(std::chrono::milliseconds limit) {
    return std::chrono::steady_clock::now() + std::clamp(limit, std::chrono::milliseconds(0), LONGEST_LIMIT);
}

/// Polls the predicate every millisecond until it holds; false when it did not within the limit.
template <typename Predicate>
bool WaitUntil(Predicate predicate, std::chrono::milliseconds limit = GENEROUS_LIMIT) {
    const auto deadline = DeadlineAfter(limit);
    while (!predicate()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return predicate();
        }
        const timespec pause{0, 1000000};
        nanosleep(&pause, nullptr);
    }
    return true;
}

// ARM and RISC-V programs are run under emulation as a rule.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__) || defined(__arm__) || \
    defined(__aarch64__) || defined(__riscv)
constexpr int SLOWNESS = 10;
#else
constexpr int SLOWNESS = 1;
#endif

/// The one tolerance for upper time bounds, for a machine loaded with other work; grows under sanitizers.
/// Shorter than what a test tells its bound from.
constexpr std::chrono::milliseconds TOLERANCE{1500 * SLOWNESS};

}  // namespace tern::test
