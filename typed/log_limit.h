#pragma once

#include <chrono>

namespace mwl::Typed {

/// Keeps messages that a peer can provoke from filling the log: lets a number of them through in each
/// period, and counts the others.
///
/// One thread at a time. CLOCK_MONOTONIC.
///
///     if (unsigned long omitted = 0; mLimit.Allows(omitted)) {
///         TERN_LOG_ERROR(LOGGER, "... (%lu like it were not logged)", ..., omitted);
///     }
class LogLimit {
public:
    /// How many messages of a period are written, the first ones.
    static constexpr unsigned MESSAGES = 10;
    /// How long a period lasts. It begins with its first message.
    static constexpr std::chrono::seconds PERIOD{10};

    /// Whether the next message is to be written. If so, `omitted` is how many were not since the last one
    /// that was; otherwise it is left alone.
    bool Allows(unsigned long& omitted) noexcept;

private:
    std::chrono::steady_clock::time_point mBegin{};
    unsigned mWritten = 0;
    unsigned long mOmitted = 0;
};

}  // namespace mwl::Typed
