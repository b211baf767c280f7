#pragma once

#include <sys/types.h>

#include <string>

namespace soak {

/// Writes down where each thread of a process is: from the kernel's view (/proc) and, where gdb is at hand,
/// its stack. For a process that should have ended and is about to be killed; it is held up meanwhile, for a
/// minute at most. Whatever cannot be found out is left out.
void WriteStacks(pid_t process, const std::string& path);

}  // namespace soak
