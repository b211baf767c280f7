#pragma once

#include <chrono>
#include <cstdint>

#include "support/notify_socket.h"

namespace soak {

/// What the extension tells systemd, in whose place this stands: whether it is ready, and how regularly it
/// feeds the watchdog. Create it before other threads; one thread.
class Notifications {
public:
    using Clock = std::chrono::steady_clock;

    /// Forgets the former life; the watchdog's time begins with readiness.
    void BeginLife();
    /// Takes what comes until `deadline`; returns at once after "READY=1".
    void Receive(Clock::time_point deadline);

    bool IsReady() const { return mIsReady; }
    std::uint64_t GetFeedings() const { return mFeedings; }
    /// The longest time without a feeding, the one that lasts included.
    std::chrono::milliseconds GetLongestGap() const;

private:
    tern::test::NotifySocket mSocket;
    bool mIsReady = false;
    std::uint64_t mFeedings = 0;
    Clock::time_point mLastFeeding;
    Clock::duration mLongestGap{0};
};

}  // namespace soak
