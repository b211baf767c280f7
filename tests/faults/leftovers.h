#pragma once

#include <set>
#include <string>

namespace tern::test {

/// What this process holds at a moment.
struct Holdings {
    std::set<std::string> descriptors;  ///< number and target of each
    std::size_t threads = 0;
    std::size_t timers = 0;
    std::size_t children = 0;  ///< not waited for
    long blocks = 0;           ///< of memory

    /// Waits for threads that are about to end: until there are no more than `threads`, at most generously.
    static Holdings Take(std::size_t threads);

    /// What there is more of than in `before`, in words; empty when there is nothing.
    std::string Since(const Holdings& before) const;
};

}  // namespace tern::test
