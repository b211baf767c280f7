#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "step.h"

namespace tern::schedules {

/// What a run does, in memory that outlives the process it happens in.
struct Record {
    static constexpr std::size_t MOST_CHOICES = 65536;
    static constexpr std::size_t MOST_STEPS = 2048;
    static constexpr std::size_t MOST_THREADS = 64;

    /// Why the run ended as failed.
    enum class Fault : std::uint8_t {
        None,
        Deadlock,    ///< threads wait for mutexes, or each other's end, in a circle
        LostWakeUp,  ///< all wait, none timed, for what nobody will tell any more
        MissedStop,  ///< the same, or only time helped, after a stop
        Promise,     ///< the scenario's own
        Misuse,      ///< of a mutex, a condition variable or a thread
        Killed,      ///< by a signal of its own
        NoEnd,       ///< steps or virtual time used up
        NotAlike,    ///< the same choices gave another run: the scenario's fault
    };

    std::size_t schedules = 0;  ///< begun
    std::uint64_t seed = 0;     ///< of the run, if it is of a seed
    bool isOfSeed = false;
    bool isComplete = false;  ///< all schedules within the bound were run

    // Of the run under way.
    std::size_t choiceCount = 0;
    std::size_t stepCount = 0;  ///< the last MOST_STEPS are kept
    std::size_t threadCount = 0;
    std::array<unsigned char, MOST_CHOICES> choices{};
    std::array<Step, MOST_STEPS> steps{};
    std::array<std::array<char, 24>, MOST_THREADS> names{};
    Fault fault = Fault::None;
    std::array<char, 2048> text{};
    std::uint64_t allSteps = 0;  ///< of all runs
    std::size_t mostChoices = 0;
};

/// In words.
inline const char* NameOf(Record::Fault fault) {
    static constexpr const char* NAMES[] = {
        "nothing", "deadlock",       "lost wake-up", "missed stop", "promise broken",
        "misuse",  "process killed", "no end",       "not alike",
    };
    return NAMES[static_cast<std::uint8_t>(fault)];
}

}  // namespace tern::schedules
