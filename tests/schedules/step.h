#pragma once

#include <cstdint>

namespace tern::schedules {

/// What a thread does where threads meet.
enum class Action : std::uint8_t {
    Lock,
    TryLock,
    Unlock,
    Wait,
    Signal,
    Broadcast,
    Create,
    Join,
    Detach,
    End,
    FutexWait,
    FutexWake,
    Kill,
    TakeSignal,
    Read,
    Write,
    Poll,
    Sleep,
    Once,
    SetTimer,
    Mark,
};

/// The action's word in a printed schedule.
inline const char* NameOf(Action action) {
    static constexpr const char* NAMES[] = {
        "lock", "try to lock", "unlock", "wait at", "signal", "broadcast", "create thread",
        "join", "detach",      "end",    "wait at", "wake",   "signal to", "take a signal",
        "read", "write",       "poll",   "sleep",   "once",   "set timer", "at",
    };
    return NAMES[static_cast<std::uint8_t>(action)];
}

/// One line of a schedule: a thread came to a point, or something happened to it.
struct Step {
    /// What the line tells.
    enum class Kind : std::uint8_t { Reaches, Runs, TimesOut, Spurious, TimerExpires };

    Kind kind = Kind::Reaches;
    Action action = Action::Mark;
    std::uint8_t thread = 0;
    bool isChoice = false;         ///< another one could have been taken
    std::uint32_t choice = 0;      ///< the number of the choice, when it is one
    const void* object = nullptr;  ///< mutex, condition variable, ...
    const void* caller = nullptr;  ///< where in the code
    std::int64_t now = 0;          ///< virtual time, ns
};

}  // namespace tern::schedules
