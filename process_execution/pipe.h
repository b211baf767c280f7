#pragma once

#include "foundation/unique_fd.h"

namespace mwl::ProcessExecution {

/// Owner of the two ends of a pipe(7). Both are closed on exec from birth, so that a program started by
/// another thread meanwhile does not get them, and both are above the standard descriptors, so that a child
/// can put them there with dup2(2) even when the parent itself has none.
struct Pipe {
    UniqueFd readEnd;
    UniqueFd writeEnd;

    /// `flags` are more flags of pipe2(2). False with errno set when it failed; then both ends are closed.
    bool Open(int flags = 0);
};

}  // namespace mwl::ProcessExecution
