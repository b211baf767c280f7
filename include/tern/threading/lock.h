#pragma once

#include <pthread.h>
#include <tern/foundation/api.h>
#include <tern/threading/mutex.h>

namespace mwl::Threading {

/// Holds a `Mutex` for the length of a block:
///
///     const Lock lock(mMutex);
///
/// A const `Lock` guards; a wait on a `ConditionVariable` needs a non-const one. Lives on the stack of one
/// thread, which must be the one that destroys it. The mutex must outlive it.
///
/// Blocks until the mutex is free. Nothing throws: a failing lock or unlock is logged as a warning, and after
/// a failed lock the caller goes on without the mutex, because a constructor that does not throw cannot
/// report it.
class TERN_API Lock {
public:
    /// Locks the mutex.
    explicit Lock(Mutex& mutex) noexcept : mMutex(mutex) {
        const int error = pthread_mutex_lock(&mMutex.mHandle);
        if (error != 0) {
            ReportLockFailure(error);
        }
    }
    ~Lock() {
        const int error = pthread_mutex_unlock(&mMutex.mHandle);
        if (error != 0) {
            ReportUnlockFailure(error);
        }
    }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

private:
    friend class ConditionVariable;

    // Out of line, so that what is inlined into every caller is the two calls alone.
    static void ReportLockFailure(int error) noexcept;
    static void ReportUnlockFailure(int error) noexcept;

    Mutex& mMutex;
};

}  // namespace mwl::Threading
