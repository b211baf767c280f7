#pragma once

// What the tests of Timer share: a stand-in for the system's timers. Include it in the one source of a test
// program.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <tern/timer/timer.h>
#include <time.h>

#include <limits>
#include <string>
#include <thread>
#include <type_traits>

#include "support/before_lock.h"
#include "support/child.h"
#include "support/emulation.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/process_resources.h"
#include "support/wait_until.h"

TERN_INTERPOSE(int, timer_create, (clockid_t clock, sigevent* notification, timer_t* id),
               (clock, notification, id))
TERN_INTERPOSE_TIME(int, timer_settime, __timer_settime64,
                    (timer_t id, int flags, const itimerspec* time, itimerspec* former),
                    (id, flags, time, former))
TERN_INTERPOSE_TIME(int, timer_gettime, __timer_gettime64, (timer_t id, itimerspec* time), (id, time))
TERN_INTERPOSE(int, timer_delete, (timer_t id), (id))
TERN_INTERPOSE(int, pthread_create,
               (pthread_t * thread, const pthread_attr_t* attributes, void* (*body)(void*), void* argument),
               (thread, attributes, body, argument))

namespace tern::test::timers {

using mwl::StatusCode;
using mwl::Timer::Timer;
using mwl::Timer::TimerInterface;
using std::chrono::milliseconds;
using tern::test::BeforeLock;
using tern::test::ChildResult;
using tern::test::CountThreads;
using tern::test::Error;
using tern::test::FaultScope;
using tern::test::GENEROUS_LIMIT;
using tern::test::LogCapture;
using tern::test::LogEntry;
using tern::test::RunInChild;
using tern::test::SLOWNESS;
using tern::test::WaitUntil;
using tern::test::Warning;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

inline constexpr int ALWAYS = std::numeric_limits<int>::max();
inline constexpr unsigned int NEVER_MS = 3600 * 1000;
inline const std::string LOGGER = "Timer::Timer";

/// The C library's thread for SIGEV_THREAD is unknown to ThreadSanitizer, which then crashes in it. What
/// needs no such thread is tested with FakeTimers, under ThreadSanitizer too.
#ifdef __SANITIZE_THREAD__
#define SKIP_WHERE_EXPIRY_CRASHES() \
    GTEST_SKIP() << "SIGEV_THREAD crashes under ThreadSanitizer on this C library"
#else
#define SKIP_WHERE_EXPIRY_CRASHES() static_cast<void>(0)
#endif

inline const LogEntry NO_THREAD =
    Error(LOGGER, "Handler: No thread for an expiry, tried again every 1000 ms: 11");
inline const LogEntry TOO_MANY_CALLS =
    Error(LOGGER, "Handler: 32 calls are running, expiries are dropped until one returns");

inline bool IsServedLate(const LogEntry& entry) {
    return entry.level == 4 && entry.logger == LOGGER &&
           testing::Matches(MatchesRegex(
               "Handler: The system announced no expiry, it is served [0-9]+ ms late"))(entry.text);
}

/// Stands in for the system's timers: records what is asked of it and expires on demand.
class FakeTimers : public testing::Test {
protected:
    FakeTimers() {
        fault_timer_create.Replace(
            [this](clockid_t clock, sigevent* notification, timer_t* id) {
                mClock = clock;
                mNotification = *notification;
                *id = mId;
                return 0;
            },
            ALWAYS);
        fault_timer_settime.Replace(
            [this](timer_t id, int flags, const itimerspec* time, itimerspec*) {
                EXPECT_EQ(id, mId);
                EXPECT_EQ(flags, 0);
                mTime = *time;
                return 0;
            },
            ALWAYS);
        fault_timer_gettime.Replace(
            [this](timer_t id, itimerspec* time) {
                EXPECT_EQ(id, mId);
                *time = mTime;
                return 0;
            },
            ALWAYS);
        fault_timer_delete.Replace(
            [this](timer_t id) {
                EXPECT_EQ(id, mId);
                return 0;
            },
            ALWAYS);
    }

    /// What the system does at an expiry: a notification on a thread of its own.
    static void Expire(const sigevent& notification) {
        std::thread(notification.sigev_notify_function, notification.sigev_value).join();
    }

    void ExpectTime(long seconds, long nanoseconds, long intervalSeconds, long intervalNanoseconds) const {
        EXPECT_EQ(mTime.it_value.tv_sec, seconds);
        EXPECT_EQ(mTime.it_value.tv_nsec, nanoseconds);
        EXPECT_EQ(mTime.it_interval.tv_sec, intervalSeconds);
        EXPECT_EQ(mTime.it_interval.tv_nsec, intervalNanoseconds);
    }

    LogCapture mLog;
    clockid_t mClock = -1;
    sigevent mNotification{};
    itimerspec mTime{};
    timer_t mId = nullptr;  // as the first timer of a process on this C library may have it

private:
    FaultScope<int(clockid_t, sigevent*, timer_t*)> mCreate{fault_timer_create};
    FaultScope<int(timer_t, int, const itimerspec*, itimerspec*)> mSetTime{fault_timer_settime};
    FaultScope<int(timer_t, itimerspec*)> mGetTime{fault_timer_gettime};
    FaultScope<int(timer_t)> mDelete{fault_timer_delete};
};

class FakeTimersInAChild : public FakeTimers {};

/// With the system's own timers.
class TimerExpiry : public testing::Test {
protected:
    void SetUp() override { SKIP_WHERE_EXPIRY_CRASHES(); }
};

}  // namespace tern::test::timers
