#include "patience.h"

#include <poll.h>
#include <time.h>

#include <algorithm>
#include <atomic>

namespace mwl::Log {

namespace {

constexpr int MOST_MS = 1000;
constexpr int LEAST_MS = 10;

/// The time that a message may wait; 0 after a wait in vain.
constinit std::atomic<int> gLimitMs{MOST_MS};

std::int64_t NowMs() noexcept {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

}  // namespace

bool Patience::Wait(int fd) noexcept {
    const int limit = gLimitMs.load(std::memory_order_relaxed);
    if (limit == 0) {
        return false;
    }
    const std::int64_t now = NowMs();
    if (mEnd == 0) {
        mEnd = now + limit;
    }
    const std::int64_t left = mEnd - now;
    if (left <= 0) {
        gLimitMs.store(0, std::memory_order_relaxed);
        return false;
    }
    // A descriptor that is ready and yet takes nothing must not be asked in a circle: other writers may be
    // faster, and not every kind of descriptor reports truly.
    pollfd wanted = {fd, POLLOUT, 0};
    mReadyInVain = mReadyInVain ? poll(nullptr, 0, 1) < 0 : poll(&wanted, 1, static_cast<int>(left)) != 0;
    return true;
}

bool Patience::IsOver() noexcept {
    return gLimitMs.load(std::memory_order_relaxed) == 0;
}

void Patience::Taken() noexcept {
    const int limit = gLimitMs.load(std::memory_order_relaxed);
    if (limit != MOST_MS) {
        gLimitMs.store(std::clamp(2 * limit, LEAST_MS, MOST_MS), std::memory_order_relaxed);
    }
}

}  // namespace mwl::Log
