#include <tern/threading/condition_variable.h>

#include <tern/foundation/log.h>
#include <tern/threading/common.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>

namespace mwl::Threading {

namespace {

constexpr int MILLISECONDS_PER_SECOND = 1000;
constexpr std::int64_t NANOSECONDS_PER_MILLISECOND = 1000000;
constexpr std::int64_t NANOSECONDS_PER_SECOND = 1000000000;

}  // namespace

// All zero is what PTHREAD_COND_INITIALIZER gives: usable even when a step below fails.
ConditionVariable::ConditionVariable() noexcept : mHandle{} {
    pthread_condattr_t attributes;
    int error = pthread_condattr_init(&attributes);
    if (error != 0) {
        TERN_LOG_WARNING(Common::mLogger, "ConditionVariable: pthread_condattr_init FAILED (%d)", error);
        return;
    }
    error = pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    if (error != 0) {
        TERN_LOG_WARNING(Common::mLogger, "ConditionVariable: pthread_condattr_setclock FAILED (%d)", error);
    } else {
        // With valid attributes it does not fail on Linux.
        static_cast<void>(pthread_cond_init(&mHandle, &attributes));
    }
    static_cast<void>(pthread_condattr_destroy(&attributes));
}

ConditionVariable::~ConditionVariable() {
    const int error = pthread_cond_destroy(&mHandle);
    if (error != 0) {
        TERN_LOG_WARNING(Common::mLogger, "~ConditionVariable: pthread_cond_destroy FAILED (%s)",
                         mw::tern::ConvertStatusCodeToString(GetStatusCode(error)).c_str());
    }
}

void ConditionVariable::NotifyOne() {
    const int error = pthread_cond_signal(&mHandle);
    if (error != 0) {
        TERN_LOG_WARNING(Common::mLogger, "NotifyOne: pthread_cond_signal FAILED (%d)", error);
    }
}

void ConditionVariable::NotifyAll() {
    const int error = pthread_cond_broadcast(&mHandle);
    if (error != 0) {
        TERN_LOG_WARNING(Common::mLogger, "NotifyAll: pthread_cond_broadcast FAILED (%d)", error);
    }
}

StatusCode ConditionVariable::Wait(Lock& lock) {
    return GetStatusCode(pthread_cond_wait(&mHandle, &lock.mMutex.mHandle));
}

StatusCode ConditionVariable::WaitFor(Lock& lock, int timeoutMs) {
    timespec deadline{};
    CalculateAbsTimeout(timeoutMs, deadline);
    return WaitUntil(lock, deadline);
}

// By value. Fixed by the interface: callers' calls are compiled against this signature.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
StatusCode ConditionVariable::WaitFor(Lock& lock, int timeoutMs, std::function<bool()> predicate) {
    timespec deadline{};
    CalculateAbsTimeout(timeoutMs, deadline);
    while (!predicate()) {
        const StatusCode status = WaitUntil(lock, deadline);
        if (status != StatusCode::Ok) {
            return status;
        }
    }
    return StatusCode::Ok;
}

void ConditionVariable::CalculateAbsTimeout(int timeoutMs, timespec& deadline) {
    static_cast<void>(clock_gettime(CLOCK_MONOTONIC, &deadline));  // this clock is always there
    const int limitMs = std::max(timeoutMs, 0);
    std::int64_t nanoseconds =
        deadline.tv_nsec + (limitMs % MILLISECONDS_PER_SECOND) * NANOSECONDS_PER_MILLISECOND;
    deadline.tv_sec += limitMs / MILLISECONDS_PER_SECOND;
    if (nanoseconds >= NANOSECONDS_PER_SECOND) {
        nanoseconds -= NANOSECONDS_PER_SECOND;
        ++deadline.tv_sec;
    }
    deadline.tv_nsec = static_cast<decltype(deadline.tv_nsec)>(nanoseconds);
}

StatusCode ConditionVariable::GetStatusCode(int error) {
    switch (error) {
        case 0:
            return StatusCode::Ok;
        case EPERM:
            return StatusCode::NotPermitted;
        case EINTR:
            return StatusCode::Interrupted;
        case EBUSY:
            return StatusCode::Busy;
        case EINVAL:
            return StatusCode::InvalidArgument;
        case ETIMEDOUT:
            return StatusCode::Timeout;
        default:
            return StatusCode::Failure;
    }
}

StatusCode ConditionVariable::WaitUntil(Lock& lock, const timespec& deadline) {
    return GetStatusCode(pthread_cond_timedwait(&mHandle, &lock.mMutex.mHandle, &deadline));
}

}  // namespace mwl::Threading
