#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "chooser.h"
#include "record.h"
#include "scenario.h"

namespace tern::schedules {

/// Runs a scenario with many schedules, in a child process, up to the first that fails.
class Explorer {
public:
    /// What it may take. Whichever is reached first ends it.
    struct Bounds {
        unsigned preemptions = 2;
        std::uint64_t schedules = UINT64_MAX;
        std::chrono::milliseconds time{24 * 3600 * 1000};
    };
    /// What came of it.
    struct Result {
        bool hasFailed = false;
        bool isComplete = false;  ///< every schedule within the bound was run
        std::size_t schedules = 0;
        std::uint64_t steps = 0;
        std::size_t mostChoices = 0;
        double seconds = 0;
        Record::Fault fault = Record::Fault::None;  ///< None of a failed one: it crashed
        std::string choices;                        ///< to be replayed
        std::string report;                         ///< with the schedule, line by line
    };

    explicit Explorer(const Scenario& scenario) : mScenario(scenario) {}

    /// All schedules with at most so many preemptions, time-outs and wake-ups for no reason together.
    Result RunDepthFirst(const Bounds& bounds) const;
    /// Random priorities, of this seed and those behind it.
    Result RunRandom(std::uint64_t seed, const Bounds& bounds) const;
    /// One schedule; also reported when it does not fail.
    Result Replay(const std::string& choices) const;

private:
    Result RunInChild(const std::function<void(Record&)>& explore, const Bounds& bounds) const;
    std::string Print(const Record& record, const std::string& end) const;

    const Scenario& mScenario;
};

}  // namespace tern::schedules
