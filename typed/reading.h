#pragma once

#include <tern/foundation/status_code.h>

#include <cerrno>

namespace mwl::Typed {

/// Reading a value failed with `result` and without a reason of the value's own: whose fault it is.
inline mw::tern::StatusCode StatusOfReading(int result) {
    using mw::tern::StatusCode;
    switch (result) {
        case -ENOMEM:
            return StatusCode::OutOfMemory;
        case -EOPNOTSUPP:
            return StatusCode::NotSupported;
        case -EMFILE:
        case -ENFILE:
            return StatusCode::ResourceUnavailable;
        default:
            return StatusCode::InvalidArgument;
    }
}

}  // namespace mwl::Typed
