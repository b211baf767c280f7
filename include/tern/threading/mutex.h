#pragma once

#include <pthread.h>
#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>

namespace mwl::Threading {

/// A recursive POSIX mutex (pthread_mutex_lock(3)): the thread that holds it may lock it again and unlocks it
/// as often. It is locked by a `Lock` and waited with by a `ConditionVariable`; it has no operations of its
/// own.
///
/// Thread-safe. Owned by value by the object whose data it guards. It may be destroyed once nobody holds it
/// and nobody will lock it again. Nothing here throws.
class TERN_API Mutex {
public:
    /// How a thread that holds the mutex is scheduled while others wait for it.
    enum class Protocol {
        None,                 ///< as ever
        PriorityInheritance,  ///< at the highest of their priorities (pthread_mutexattr_setprotocol(3))
    };

    Mutex() noexcept = default;
    /// Costs some ten nanoseconds more a lock with priority inheritance. Where the system has none it is a
    /// mutex without.
    explicit Mutex(Protocol protocol) noexcept;
    /// Destroys the POSIX mutex. A refusal, for example of a mutex still held, is logged as a warning.
    ~Mutex();
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    /// The status of an error number of the pthread_mutex functions: 0 Ok, EPERM NotPermitted, EBUSY Busy,
    /// EINVAL InvalidArgument, EDEADLK Deadlock; everything else, negative numbers included, Failure.
    static StatusCode GetStatusCode(int error);

private:
    friend class Lock;
    friend class ConditionVariable;

    pthread_mutex_t mHandle = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
};

}  // namespace mwl::Threading
