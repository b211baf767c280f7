#pragma once

#include <string>

namespace mwl::Utilities {

/// Logger name of the sources of FileSystem.
extern const std::string FILE_SYSTEM_LOGGER;

}  // namespace mwl::Utilities
