#pragma once

#include <tern/foundation/api.h>

#include <string>

namespace mwl::Utilities {

/// Short identifiers. Thread-safe; nothing is logged.
class TERN_API IdGenerator {
public:
    /// An identifier of 1 to 10 digits, computed from `seed` and the current second (CLOCK_REALTIME). The
    /// same seed gives the same identifier within one second: vary the seed for distinct ones. Of a seed with
    /// a NUL byte only the part before the byte counts, and then the time does not. The identifier is no
    /// secret: it can be guessed.
    static std::string Get(const std::string& seed);
};

}  // namespace mwl::Utilities
