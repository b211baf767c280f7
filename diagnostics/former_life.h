#pragma once

#include <tern/diagnostics/diagnosis.h>

#include <cstdint>
#include <vector>

namespace mwl::Diagnostics {

/// What systemd has handed on of the life of this service before this one.
struct FormerLife {
    Diagnosis end{"none", {}};   ///< kinds as those of Diagnosis, or none, or unreadable
    std::uint32_t restarts = 0;  ///< lives before this one
};

/// Reads what was handed on; of several, which is nobody's intention, the latest life. The descriptors are
/// borrowed.
FormerLife ReadFormerLife(const std::vector<int>& handedOn);
/// Of this process: what was read when its recorder was begun first; none before. Kept by SetFormerLife. Any
/// thread.
FormerLife GetFormerLife();
void SetFormerLife(FormerLife former);
/// Logs it, in five lines at most; nothing where there was none.
void LogFormerLife(const FormerLife& former);

}  // namespace mwl::Diagnostics
