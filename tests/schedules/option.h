#pragma once

#include <cstdint>

namespace tern::schedules {

/// One way to go on at a point.
struct Option {
    /// What would happen.
    enum class Kind : std::uint8_t {
        Run,       ///< the thread goes on
        TimeOut,   ///< time passes up to the thread's limit, and it goes on
        Spurious,  ///< the thread's wait ends for no reason, and it goes on
        Expire,    ///< time passes up to the end of a timer; `thread` is the timer's number
        Wake,      ///< of several waiting threads this one is woken
    };

    Kind kind = Kind::Run;
    std::uint8_t thread = 0;
    /// 0: somebody has to be taken. 1: taken although the thread that runs could go on, or although nobody
    /// had to be disturbed.
    std::uint8_t cost = 0;
};

}  // namespace tern::schedules
