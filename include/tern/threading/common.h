#pragma once

#include <tern/foundation/api.h>

#include <string>

namespace mwl::Threading {

/// The logger name "Threading", shared by `Mutex`, `Lock` and `ConditionVariable`.
struct TERN_API Common {
    static const std::string mLogger;  ///< immutable after load, never destroyed
};

}  // namespace mwl::Threading
