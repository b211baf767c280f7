#pragma once

#include <string>

namespace mwl::ProcessExecution {

/// The logger name of this folder.
inline const std::string LOGGER = "mwl::ProcessExecution::Command";

}  // namespace mwl::ProcessExecution
