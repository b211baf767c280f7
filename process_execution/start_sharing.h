#pragma once

#include <sys/types.h>

namespace mwl::ProcessExecution {

/// Starts a child that runs `run(data)`, which executes a program; what it returns otherwise is the child's
/// exit status. Returns the child's process id; -1 with errno set when there is none (clone(2), mmap(2)).
///
/// The child has this process's memory, not a copy, until it has executed: what a start costs does not grow
/// with the process. The calling thread waits that long, the others go on. The child has descriptors,
/// signal mask and dispositions as after fork(2): what executing resets to the default is so from the
/// beginning, so that no handler of this process ever runs in the child.
///
/// `run` may make system calls and use what `data` leads to, nothing else: other threads may hold any lock,
/// and what it changes in memory, this process keeps. Any thread.
pid_t StartSharing(int (*run)(void* data), void* data);

}  // namespace mwl::ProcessExecution
