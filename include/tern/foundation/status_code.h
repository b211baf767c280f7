#pragma once

/// Status codes as the framework writes them: mw::tern::StatusCode, and StatusCode inside mwl.

#include <tern-foundation/status_code.h>

namespace mwl {

// Repeated here because a device maker's header need not have it.
using mw::tern::StatusCode;

}  // namespace mwl
