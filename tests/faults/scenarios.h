#pragma once

#include <vector>

#include "stage.h"

namespace tern::test {

/// Everything that is swept.
const std::vector<Scenario>& Scenarios();

// By what they drive; each list is in a file of its own.
std::vector<Scenario> ServiceScenarios();
std::vector<Scenario> ClientScenarios();
std::vector<Scenario> MessageScenarios();
std::vector<Scenario> ThreadScenarios();
std::vector<Scenario> TimerScenarios();
std::vector<Scenario> ProcessScenarios();
std::vector<Scenario> FileScenarios();
std::vector<Scenario> ArchiveScenarios();
std::vector<Scenario> LoggerScenarios();
std::vector<Scenario> TypedScenarios();
std::vector<Scenario> TypedClientScenarios();

}  // namespace tern::test
