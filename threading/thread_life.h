#pragma once

#include <functional>

namespace mwl::Threading {

/// Distinguishes threads for longer than they live. Their ids cannot do that: pthread_self(3) and gettid(2)
/// are given again to the next thread, and may not be asked about a thread that has been joined.
///
/// Thread-safe. A thread counts as ended as soon as its function has returned or it has called
/// pthread_exit(3), while its thread-local objects are destroyed; in a forked child, when it is not the one
/// that forked.
class ThreadLife {
public:
    /// The number of the calling thread, from 1 on; no other thread of the process ever has it.
    static unsigned int GetOwnNumber();
    /// Makes the call, during which the thread does not end, and returns its result; returns `otherwise`,
    /// without a call, when that thread has ended. The call must not wait for the end of any thread.
    static int CallWhileAlive(unsigned int number, const std::function<int()>& call, int otherwise);
};

}  // namespace mwl::Threading
