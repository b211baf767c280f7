#pragma once

#include <cstdint>

#include "latencies.h"

namespace soak {

/// What came of the calls so far. Every call ends in exactly one of the four outcomes.
struct Tally {
    std::uint64_t calls = 0;
    std::uint64_t replies = 0;      ///< answered, rightly or not, an expected refusal included
    std::uint64_t interrupted = 0;  ///< in flight when bus or extension was ended on purpose
    std::uint64_t lost = 0;         ///< no reply within the time limit
    std::uint64_t errors = 0;       ///< any other failure

    std::uint64_t wrong = 0;    ///< of the replies: not what had to come
    std::uint64_t unable = 0;   ///< of the replies: the job could not be done
    std::uint64_t signals = 0;  ///< received
    std::uint64_t missed = 0;   ///< signals that never came
    Latencies latencies;        ///< of the replies

    Tally& operator+=(const Tally& other) {
        calls += other.calls;
        replies += other.replies;
        interrupted += other.interrupted;
        lost += other.lost;
        errors += other.errors;
        wrong += other.wrong;
        unable += other.unable;
        signals += other.signals;
        missed += other.missed;
        latencies += other.latencies;
        return *this;
    }
};

}  // namespace soak
