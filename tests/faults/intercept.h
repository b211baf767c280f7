#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "failure.h"

namespace tern::test {

/// Which call is meant: the `occurrence`-th, from 0, of a function in a run, in the process itself or in a
/// child that it forked.
struct CallPoint {
    unsigned function;  ///< index in Catalogue()
    bool inFork;
    unsigned occurrence;

    friend bool operator==(const CallPoint&, const CallPoint&) = default;
};

/// A call that was seen.
struct SeenCall {
    CallPoint point;
    std::uintptr_t site;  ///< where in the library it was made
};

/// Counts the calls that our libraries make through their import tables, and lets one of them fail.
/// Everything is shared with forked children: they count and fail as well.
class Intercept {
public:
    /// Puts the catalogue's stand-ins into the import tables of our libraries. Once, before the first thread.
    static void Install();

    /// From here on this process is the one whose forked children count apart, and all counts are 0 again.
    /// Every library call fails that is `armed` as `failure`, none when these are null; both must outlive it.
    static void Begin(const CallPoint* armed, const Failure* failure);
    /// While on, calls are counted and fail; off at first.
    static void Switch(bool on);
    /// Of the logger's calls instead of the framework's.
    static void WatchLogger(bool logger);
    /// Whether the armed call was met.
    static bool WasMet();
    /// The calls since Begin, in order; `index` below SeenCount.
    static unsigned SeenCount();
    static SeenCall Seen(unsigned index);

    /// For the stand-ins: null when this call is to happen.
    static const Failure* Take(unsigned function, void* site) noexcept;
};

}  // namespace tern::test
