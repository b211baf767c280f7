#pragma once

#include <pthread.h>
#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>
#include <tern/threading/lock.h>
#include <time.h>

#include <functional>

namespace mwl::Threading {

/// A condition variable (pthread_cond_wait(3)) whose timed waits run on CLOCK_MONOTONIC: a change of the wall
/// clock neither shortens nor lengthens them.
///
///     Lock lock(mMutex);
///     while (!mReady) {
///         mCondition.Wait(lock);
///     }
///
/// Thread-safe. All who wait at the same time hold a `Lock` on the same `Mutex`, and hold it once: a wait
/// gives up one level of the recursive mutex only. A condition that ends a wait is changed under that mutex,
/// or its notification may be lost. Owned by value; it may be destroyed when nobody waits.
///
/// Nothing throws but an empty predicate. Failures are logged as warnings, with the logger name "Threading".
/// Statuses of the waits: those of `GetStatusCode`.
class TERN_API ConditionVariable {
public:
    /// When the system refuses the monotonic clock, that is logged, and the condition variable stays on the
    /// wall clock. Its deadlines are still counted by the monotonic one. While the wall clock is ahead of the
    /// monotonic clock, as always once the date is set, every timed wait ends immediately with Timeout;
    /// otherwise it lasts too long.
    ConditionVariable() noexcept;
    virtual ~ConditionVariable();
    ConditionVariable(const ConditionVariable&) = delete;
    ConditionVariable& operator=(const ConditionVariable&) = delete;

    /// Wakes one waiter, if there is one. The mutex need not be held.
    ///
    /// A thread of real-time priority may wait here (pthread_cond_signal(3)) for a thread of low priority
    /// that is notifying too, and, where several wait, for one that was woken before and has not got the
    /// processor yet. So let notifications come one after another, under a mutex with priority inheritance,
    /// and let one thread wait.
    virtual void NotifyOne();
    /// Wakes all who wait now. The mutex need not be held. As above for real-time priorities.
    virtual void NotifyAll();

    /// Waits without limit. Ok when notified, or woken without a notification: test the condition again. The
    /// mutex is held again afterwards.
    virtual StatusCode Wait(Lock& lock);
    /// Waits once, at most `timeoutMs` milliseconds; 0 and below do not wait. Ok when notified, or woken
    /// without a notification; Timeout when the time is up. The mutex is held again afterwards.
    virtual StatusCode WaitFor(Lock& lock, int timeoutMs);
    /// Waits until the predicate holds, at most `timeoutMs` milliseconds in all; 0 and below do not wait. The
    /// predicate is called with the mutex held, the first time before any waiting. Ok when it holds; Timeout
    /// when the time is up: the predicate is not called again then, so the end of the time wins over a
    /// predicate that came true at the same moment. Another failure of the wait is returned as it is.
    /// Throws std::bad_function_call for an empty predicate; exceptions of the predicate pass through.
    StatusCode WaitFor(Lock& lock, int timeoutMs, std::function<bool()> predicate);

    /// The instant of CLOCK_MONOTONIC that lies `timeoutMs` milliseconds ahead; a negative number counts as
    /// 0.
    static void CalculateAbsTimeout(int timeoutMs, timespec& deadline);

    /// The status of an error number of the pthread_cond functions: 0 Ok, EPERM NotPermitted, EINTR
    /// Interrupted, EBUSY Busy, EINVAL InvalidArgument, ETIMEDOUT Timeout; everything else Failure.
    static StatusCode GetStatusCode(int error);

private:
    StatusCode WaitUntil(Lock& lock, const timespec& deadline);

    pthread_cond_t mHandle;
};

}  // namespace mwl::Threading
