#pragma once

#include <pthread.h>

namespace mwl::Timer {

/// Distinguishes a forked child from its parent, by what pthread_atfork(3) tells since the library was
/// loaded. Thread-safe.
class Forks {
public:
    /// How many forks have led to this process; what was made under another number has stayed behind in a
    /// parent.
    static unsigned int Count() noexcept;
    /// In a forked child: whether the thread is the one that forked, the only one that has come along.
    static bool HasCome(pthread_t thread) noexcept;
};

}  // namespace mwl::Timer
