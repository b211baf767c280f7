#pragma once

#include <tern/diagnostics/ring_reader.h>
#include <tern/foundation/api.h>

#include <cstdint>
#include <string>
#include <vector>

namespace mwl::Diagnostics {

/// How a life ended, for people.
struct Diagnosis {
    /// stopped, failed, blocked, exception, hanging, lost-bus or cut-off; what these mean is in the text of
    /// Diagnostics1::Ended.
    std::string kind;
    /// Plain English, the most important first; each is a line without a newline at its end.
    std::vector<std::string> sentences;
};

/// Tells from a dead process's flight recorder how it ended. `seenNs` is when that was known to be over,
/// CLOCK_MONOTONIC nanoseconds of the same boot: what was going on then is known no more exactly than between
/// the recorder's last instant and this one. 0 where nothing is known. Any thread.
TERN_API Diagnosis Diagnose(const Flight& flight, std::uint64_t seenNs);

}  // namespace mwl::Diagnostics
