#include "suite.h"

#include <algorithm>
#include <cstdio>

#include "explorer.h"

namespace tern::schedules {

namespace {

bool Tell(const char* way, const Explorer::Result& result) {
    std::printf("%-12s %8zu schedules%s, %.0f a second, at most %zu choices: %s\n", way, result.schedules,
                result.isComplete ? ", all of them" : "",
                static_cast<double>(result.schedules) / std::max(result.seconds, 1e-9), result.mostChoices,
                result.hasFailed ? "FAILED" : "passed");
    if (result.hasFailed) {
        std::printf("%sreplay: --replay %s\n", result.report.c_str(), result.choices.c_str());
    }
    return !result.hasFailed;
}

}  // namespace

int RunSuite(const Scenario& scenario, std::chrono::milliseconds time) {
    const Explorer explorer(scenario);
    for (const char* const choices : scenario.kept) {
        if (!Tell("kept", explorer.Replay(choices))) {
            return 1;
        }
    }
    Explorer::Bounds bounds;
    bounds.schedules = scenario.suiteSchedules;
    bounds.time = time * 2 / 3;
    const Explorer::Result all = explorer.RunDepthFirst(bounds);
    if (!Tell("depth first", all)) {
        return 1;
    }
    bounds.schedules = UINT64_MAX;
    const auto taken = std::chrono::milliseconds(static_cast<std::int64_t>(all.seconds * 1000));
    bounds.time = std::max(time - taken, time / 3);
    // The same seeds each time, so that the suite says the same each time; others are for a run by hand.
    constexpr std::uint64_t FIRST_SEED = 1;
    return Tell("random", explorer.RunRandom(FIRST_SEED, bounds)) ? 0 : 1;
}

}  // namespace tern::schedules
