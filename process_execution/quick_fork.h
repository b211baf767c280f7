#pragma once

#include <sys/types.h>

namespace mwl::ProcessExecution {

/// As fork(2), for a child that executes a program at once: its memory is this process's own, so that nothing
/// is copied however large the process is, and the calling thread waits until the child has executed or
/// ended.
///
/// The child calls `body(argument)` on a stack of 64 KiB, with the caller's signal mask and no signal
/// handlers, and ends with the status that this returns. REQUIRES: `body` changes nothing that the process
/// uses afterwards. Descriptors are the child's own, as always.
///
/// The child's id, or -1 with errno: then nothing has run.
pid_t QuickFork(int (*body)(void* argument), void* argument);

}  // namespace mwl::ProcessExecution
