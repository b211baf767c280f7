#pragma once

#include <chrono>

#include "foundation/unique_fd.h"

namespace ternctl {

/// Turns SIGINT, SIGTERM and SIGHUP into an end in order while it exists: what runs for a while asks it. A
/// SIGHUP that is ignored, as under nohup(1), stays so. One at a time.
class Interrupt {
public:
    using Clock = std::chrono::steady_clock;
    enum class Reason { Time, Input, Stopped };

    /// Throws Failure.
    Interrupt();
    /// The signals do again what they did before.
    ~Interrupt();
    Interrupt(const Interrupt&) = delete;
    Interrupt& operator=(const Interrupt&) = delete;

    /// Whether one of the signals came.
    bool IsStopped() const noexcept;
    /// Readable from then on.
    int GetFd() const noexcept { return mFd.Get(); }
    /// Until then, or until `input`, unless -1, can be read.
    Reason WaitUntil(Clock::time_point end, int input = -1) const;

private:
    mwl::UniqueFd mFd;
};

}  // namespace ternctl
