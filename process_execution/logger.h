#pragma once

#include <string>

#include "platform/static_text.h"

namespace mwl::ProcessExecution {

/// The logger name of this folder.
inline const StaticText LOGGER("mwl::ProcessExecution::Command");

}  // namespace mwl::ProcessExecution
