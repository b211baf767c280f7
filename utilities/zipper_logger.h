#pragma once

#include "platform/static_text.h"

namespace mwl::Utilities {

/// Logger name of the sources of Zipper.
extern const StaticText ZIPPER_LOGGER;

}  // namespace mwl::Utilities
