#pragma once

#include <string>

namespace mwl::Unit::Path {

/// Library directory of the platform, without a trailing separator. Immutable after load, never destroyed.
__attribute__((visibility("default"))) extern const std::string MWL_LIB;

/// Configuration directory of the platform, with its leading separator: it is appended to MWL_LIB as it is.
/// Immutable after load, never destroyed.
__attribute__((visibility("default"))) extern const std::string ETC;

}  // namespace mwl::Unit::Path
