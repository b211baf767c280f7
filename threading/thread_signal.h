#pragma once

namespace mwl::Threading {

/// pthread_kill(3) for ids that may still be 0, "no thread": answers ESRCH for it, where this C library's own
/// function would read through the null pointer. Returns 0 or the error number.
int SendThreadSignal(unsigned long threadId, int signal) noexcept;

}  // namespace mwl::Threading
