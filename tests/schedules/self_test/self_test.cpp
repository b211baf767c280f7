#include "self_test.h"

#include <algorithm>
#include <cstdio>
#include <string>

#include "../explorer.h"
#include "../scenario.h"

namespace tern::schedules {

namespace {

bool IsExpected(const Scenario& scenario, const Explorer::Result& result) {
    return result.hasFailed && std::find(scenario.expected.begin(), scenario.expected.end(), result.fault) !=
                                   scenario.expected.end();
}

bool Check(const Scenario& scenario, const char* way, const Explorer::Result& result) {
    const bool isFaulty = !scenario.expected.empty();
    bool isRight = isFaulty ? IsExpected(scenario, result) : !result.hasFailed;
    if (isFaulty && isRight) {
        const Explorer::Result again = Explorer(scenario).Replay(result.choices);
        isRight = again.hasFailed && again.fault == result.fault;
    }
    const bool hasMissed = isFaulty && !result.hasFailed;
    std::printf("%-30s %-12s %8zu schedules%s  %s\n", scenario.name, way, result.schedules,
                result.isComplete ? ", all" : "     ",
                !isRight   ? hasMissed ? "NOT FOUND" : "WRONG"
                : isFaulty ? NameOf(result.fault)
                           : "nothing found, nothing there");
    if (!isRight && !hasMissed) {
        std::printf("%s", result.report.c_str());
    }
    return isRight;
}

}  // namespace

int RunSelfTest() {
    bool isRight = true;
    unsigned faults = 0;
    for (const Scenario& scenario : Scenario::All()) {
        const bool isFaulty = !scenario.expected.empty();
        if (!isFaulty && !std::string_view(scenario.name).ends_with("_sound")) {
            continue;
        }
        faults += isFaulty ? 1 : 0;
        const Explorer explorer(scenario);
        Explorer::Bounds bounds;
        bounds.schedules = isFaulty ? 100000 : 3000;
        isRight = Check(scenario, "depth first", explorer.RunDepthFirst(bounds)) && isRight;
        bounds.schedules = isFaulty ? 100000 : 1000;
        isRight = Check(scenario, "random", explorer.RunRandom(1, bounds)) && isRight;
    }
    std::printf("%u faults\n", faults);
    return isRight && faults >= 12 ? 0 : 1;
}

}  // namespace tern::schedules
