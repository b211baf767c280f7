#pragma once

#include <tern/foundation/api.h>

#include <string>

namespace mw::tern {

/// The logger name "Service", shared by the service frame, the D-Bus client and the D-Bus message readers.
struct TERN_API ServiceCommon {
    static const std::string mLogger;  ///< immutable after load, never destroyed
};

}  // namespace mw::tern
