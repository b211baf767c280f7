#pragma once

#include <sys/types.h>

#include <memory>

namespace mwl::ProcessExecution {

/// A child process whose run is over before it is: one killed at its time limit, for which nobody waits, or
/// one whose run failed.
struct LeftChild {
    pid_t pid = -1;
    pid_t parent = -1;
    unsigned long long startTime = 0;  ///< distinguishes it from a later process of this number; 0: not known
    LeftChild* next = nullptr;
};

/// Remembers the left children of this process, those and no others, until they have been reaped: an ended
/// child that nobody reaps stays a zombie, and holds its process id, as long as its parent lives.
///
/// Thread-safe without a lock, so that a child which another thread forks meanwhile can use it too. Nothing
/// blocks, no descriptor is kept. A forked child forgets its parent's children.
class LeftChildren {
public:
    /// `child` has its numbers; the start time is looked up here.
    static void Remember(std::unique_ptr<LeftChild> child) noexcept;
    /// Reaps those that have ended by now (waitpid(2), WNOHANG) and forgets them, together with those that
    /// the application has reaped itself.
    static void Reap() noexcept;
};

}  // namespace mwl::ProcessExecution
