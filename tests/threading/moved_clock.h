#pragma once

// CLOCK_MONOTONIC in the hands of the test. Include it in one source file of a test program: it defines the
// program's own clock_gettime and pthread_cond_timedwait, which the library uses too.

#include <dlfcn.h>
#include <pthread.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <utility>
#include <vector>

#include "support/interpose.h"

// On 32-bit platforms code with 64-bit time calls these by other names.
#ifdef TERN_HAS_TIME64_NAMES
#define TERN_CLOCK_GETTIME "__clock_gettime64"
#define TERN_COND_TIMEDWAIT "__pthread_cond_timedwait64"
#else
#define TERN_CLOCK_GETTIME "clock_gettime"
#define TERN_COND_TIMEDWAIT "pthread_cond_timedwait"
#endif

namespace tern::test {

/// Moves the monotonic clock of this process, or stops it. Deadlines of timed waits follow: a wait of a
/// second lasts a second, wherever the clock stands.
class MovedClock {
public:
    /// The clock stands still, but for Advance, until Resume.
    static void Freeze() { mFrozenAt = Real(); }
    static void Resume() {
        mFrozenAt = 0;
        mOffset = 0;
    }
    static void Advance(std::chrono::nanoseconds by) { mOffset += by.count(); }
    /// From now on the clock runs so many times faster, and timed waits are as much shorter. For a child: the
    /// clock jumps.
    static void Hurry(int factor) { mFactor = factor; }

    /// Length of each timed wait so far, as the waiting code computed it, in milliseconds.
    static std::vector<std::int64_t> Waits() {
        const std::lock_guard lock(mMutex);
        return mWaits;
    }
    static void ForgetWaits() {
        const std::lock_guard lock(mMutex);
        mWaits.clear();
    }

    /// Runs `hook` on this thread right before its next read of the clock.
    static void BeforeNextRead(std::function<void()> hook) { tHook = std::move(hook); }
    /// The next timed wait returns `error` at once.
    static void FailNextWait(int error) { mNextError = error; }

    // The bodies of the interposed functions.
    static int Read(clockid_t clock, timespec* now) {
        if (clock != CLOCK_MONOTONIC) {
            return Library().clockGettime(clock, now);
        }
        if (tHook) {
            std::exchange(tHook, nullptr)();
        }
        tLastRead = ToTest(Real());
        *now = ToTimespec(tLastRead);
        return 0;
    }
    static int TimedWait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* deadline) {
        const std::int64_t end = ToNanoseconds(*deadline);
        {
            const std::lock_guard lock(mMutex);
            mWaits.push_back((end - tLastRead) / 1000000);
        }
        if (const int error = mNextError.exchange(0); error != 0) {
            return error;
        }
        const std::int64_t real = Real();
        const timespec realDeadline = ToTimespec((end - ToTest(real)) / mFactor + real);
        return Library().timedWait(condition, mutex, &realDeadline);
    }

private:
    struct Functions {
        int (*clockGettime)(clockid_t, timespec*);
        int (*timedWait)(pthread_cond_t*, pthread_mutex_t*, const timespec*);
    };
    static const Functions& Library() {
        static const Functions functions{
            reinterpret_cast<int (*)(clockid_t, timespec*)>(dlsym(RTLD_NEXT, TERN_CLOCK_GETTIME)),
            reinterpret_cast<int (*)(pthread_cond_t*, pthread_mutex_t*, const timespec*)>(
                dlsym(RTLD_NEXT, TERN_COND_TIMEDWAIT))};
        return functions;
    }
    static std::int64_t ToNanoseconds(const timespec& time) {
        return static_cast<std::int64_t>(time.tv_sec) * 1000000000 + time.tv_nsec;
    }
    static timespec ToTimespec(std::int64_t nanoseconds) {
        return {static_cast<time_t>(nanoseconds / 1000000000), static_cast<long>(nanoseconds % 1000000000)};
    }
    static std::int64_t Real() {
        timespec now{};
        Library().clockGettime(CLOCK_MONOTONIC, &now);
        return ToNanoseconds(now);
    }
    static std::int64_t ToTest(std::int64_t real) {
        const std::int64_t frozenAt = mFrozenAt;
        return (frozenAt != 0 ? frozenAt : real) * mFactor + mOffset;
    }

    static inline std::atomic<std::int64_t> mFrozenAt{0};
    static inline std::atomic<std::int64_t> mOffset{0};
    static inline std::atomic<int> mFactor{1};
    static inline std::atomic<int> mNextError{0};
    static inline std::mutex mMutex;
    static inline std::vector<std::int64_t> mWaits;
    static inline thread_local std::int64_t tLastRead = 0;
    static inline thread_local std::function<void()> tHook;
};

}  // namespace tern::test

extern "C" __attribute__((visibility("default"))) int MovedClockRead(clockid_t clock,
                                                                     timespec* now) asm(TERN_CLOCK_GETTIME);
extern "C" __attribute__((visibility("default"))) int MovedClockTimedWait(
    pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* deadline) asm(TERN_COND_TIMEDWAIT);
extern "C" int MovedClockRead(clockid_t clock, timespec* now) {
    return tern::test::MovedClock::Read(clock, now);
}
extern "C" int MovedClockTimedWait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                   const timespec* deadline) {
    return tern::test::MovedClock::TimedWait(condition, mutex, deadline);
}

#ifdef TERN_HAS_TIME64_NAMES
// The C++ library's steady_clock, built with 32-bit time, calls the clock by its old name.
struct MovedClockTime32 {
    std::int32_t seconds;
    std::int32_t nanoseconds;
};
extern "C" __attribute__((visibility("default"))) int MovedClockRead32(
    clockid_t clock, MovedClockTime32* now) asm("clock_gettime");
extern "C" int MovedClockRead32(clockid_t clock, MovedClockTime32* now) {
    timespec whole{};
    const int result = tern::test::MovedClock::Read(clock, &whole);
    *now = {static_cast<std::int32_t>(whole.tv_sec), static_cast<std::int32_t>(whole.tv_nsec)};
    return result;
}
#endif
