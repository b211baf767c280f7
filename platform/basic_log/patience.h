#pragma once

#include <cstdint>

namespace mwl::Log {

/// How long one message waits for a sink that takes nothing: a second in all, whatever it is tried with. When
/// that was in vain no message waits any more, until the sink takes some again; each one that it takes allows
/// the next ones a longer wait (10 ms, 20 ms, up to the second), so that a sink which has just come back, or
/// which takes one message now and then, holds nobody up. One object a message; the limit is the process's.
/// No locks, no memory.
class Patience {
public:
    /// Waits until `fd` may take more. Returns false when the time is over; true means no more than: try
    /// again.
    bool Wait(int fd) noexcept;

    /// Whether Wait would return false immediately.
    static bool IsOver() noexcept;
    /// The sink has taken a message.
    static void Taken() noexcept;

private:
    std::int64_t mEnd = 0;  ///< CLOCK_MONOTONIC, milliseconds; 0 before the first wait
    bool mReadyInVain = false;
};

}  // namespace mwl::Log
