#pragma once

#include <chrono>

#include "scenario.h"

namespace tern::schedules {

/// The scenario's share in the suite: the kept schedules, then all schedules within the bound, as many as the
/// scenario has for the suite, then random ones for the rest of the time. The exit status.
int RunSuite(const Scenario& scenario, std::chrono::milliseconds time);

}  // namespace tern::schedules
