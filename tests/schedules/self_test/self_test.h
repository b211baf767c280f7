#pragma once

namespace tern::schedules {

/// Demands that both ways find each fault that was put in on purpose, as what it is, that what they found is
/// found again by its choices, and that neither finds one in the same code without the fault. The exit
/// status.
int RunSelfTest();

}  // namespace tern::schedules
