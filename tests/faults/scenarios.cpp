#include "scenarios.h"

namespace tern::test {

const std::vector<Scenario>& Scenarios() {
    static const std::vector<Scenario> scenarios = [] {
        std::vector<Scenario> all;
        for (const auto& list : {ServiceScenarios(), ClientScenarios(), MessageScenarios(), ThreadScenarios(),
                                 TimerScenarios(), ProcessScenarios(), FileScenarios(), ArchiveScenarios(),
                                 LoggerScenarios(), TypedScenarios(), TypedClientScenarios()}) {
            all.insert(all.end(), list.begin(), list.end());
        }
        return all;
    }();
    return scenarios;
}

}  // namespace tern::test
