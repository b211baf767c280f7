#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <tern/timer/timer.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <future>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

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

namespace {

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

constexpr int ALWAYS = std::numeric_limits<int>::max();
constexpr unsigned int NEVER_MS = 3600 * 1000;
const std::string LOGGER = "Timer::Timer";

static_assert(std::is_base_of_v<TimerInterface, Timer>);
static_assert(std::has_virtual_destructor_v<TimerInterface>);
static_assert(!std::is_copy_constructible_v<Timer>);

/// The C library's thread for SIGEV_THREAD is unknown to ThreadSanitizer, which then crashes in it. What
/// needs no such thread is tested with FakeTimers, under ThreadSanitizer too.
#ifdef __SANITIZE_THREAD__
#define SKIP_WHERE_EXPIRY_CRASHES() \
    GTEST_SKIP() << "SIGEV_THREAD crashes under ThreadSanitizer on this C library"
#else
#define SKIP_WHERE_EXPIRY_CRASHES() static_cast<void>(0)
#endif

const LogEntry NO_THREAD = Error(LOGGER, "Handler: No thread for an expiry, tried again every 1000 ms: 11");
const LogEntry TOO_MANY_CALLS =
    Error(LOGGER, "Handler: 32 calls are running, expiries are dropped until one returns");

bool IsServedLate(const LogEntry& entry) {
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

// Children first: the system's helper thread for expiries stays once it was needed, and the guard's.

// Without the thread that looks after lost expiries there is no timer either.
TEST_F(FakeTimersInAChild, RefusedGuardFailsTheCreation) {
    const ChildResult child = RunInChild([] {
        FaultScope scope(fault_pthread_create);
        fault_pthread_create.Fail(EAGAIN);
        Timer timer(10, true, nullptr);
        if (timer.Start() != StatusCode::Failure || fault_timer_create.Calls() != 0) {
            return 1;
        }
        return timer.Start() == StatusCode::Ok ? 0 : 2;
    });
    EXPECT_EQ(child.exitCode, 0) << child.error;
    EXPECT_THAT(child.log, ElementsAre(Error(LOGGER, "Create: Failed to create a timer: 11")));
}

/// In a child: from now on no thread can be made, or again any number. Not for root, who has no limit.
void LimitThreads(bool isLimited) {
    rlimit limit{};
    getrlimit(RLIMIT_NPROC, &limit);
    limit.rlim_cur = isLimited ? 1 : limit.rlim_max;
    if (setrlimit(RLIMIT_NPROC, &limit) != 0) {
        throw std::system_error(errno, std::generic_category(), "setrlimit");
    }
}

// It was lost without a word.
TEST_F(TimerExpiry, OneShotThatFindsNoThreadIsServedWhenThereIsOne) {
    constexpr uid_t NOBODY = 65534;
    const ChildResult child = RunInChild([] {
        if (getuid() == 0 && setresuid(NOBODY, NOBODY, NOBODY) != 0) {
            return 1;
        }
        std::atomic<int> calls{0};
        Timer timer(100, false, [&] { ++calls; });
        FaultScope scope(fault_pthread_create);
        timer.Create();
        LimitThreads(true);
        fault_pthread_create.Replace({}, 0);
        timer.Execute();
        if (!WaitUntil([&] { return fault_pthread_create.Calls() >= 2; })) {
            return 2;
        }
        if (timer.GetTimerActiveStatus() || calls != 0) {
            return 3;
        }
        LimitThreads(false);
        if (!WaitUntil([&] { return calls > 0; })) {
            return 4;
        }
        const timespec aWhile{1, 500000000};
        nanosleep(&aWhile, nullptr);  // were it served again, it would be a second later
        return calls == 1 ? 0 : 5;
    });
    EXPECT_EQ(child.exitCode, 0) << child.error;
    ASSERT_EQ(child.log.size(), 2U);
    EXPECT_EQ(child.log[0], NO_THREAD);
    EXPECT_TRUE(IsServedLate(child.log[1])) << child.log[1].text;
}

TEST_F(TimerExpiry, BlockedCallbackTakesABoundedNumberOfThreads) {
    const ChildResult child = RunInChild([] {
        std::promise<void> leave;
        const std::shared_future<void> mayLeave(leave.get_future());
        const auto calls = std::make_shared<std::atomic<int>>(0);
        Timer timer(1, true, [calls, mayLeave] {
            ++*calls;
            mayLeave.wait();
        });
        timer.Start();
        if (!WaitUntil([&] { return *calls >= 32; })) {
            return 1;
        }
        std::size_t most = 0;
        for (int i = 0; i < 300; ++i) {
            const timespec period{0, 1000000};
            nanosleep(&period, nullptr);
            most = std::max(most, CountThreads());
        }
        const bool isBounded = *calls == 32 && most < 64;
        leave.set_value();
        return isBounded ? 0 : 2;
    });
    EXPECT_EQ(child.exitCode, 0) << child.error;
    ASSERT_FALSE(child.log.empty());
    EXPECT_EQ(child.log[0], TOO_MANY_CALLS);
}

TEST_F(TimerExpiry, WhatACallbackThrowsEndsTheProcess) {
    const ChildResult child = RunInChild([] {
        Timer timer(1, false, [] { throw std::runtime_error("lost"); });
        timer.Start();
        pause();
        return 0;
    });
    EXPECT_EQ(child.signal, SIGABRT);
    EXPECT_FALSE(child.timedOut);
}

TEST_F(TimerExpiry, ProcessMayEndWhileTimersFire) {
    const ChildResult child = RunInChild([] {
        static std::vector<std::unique_ptr<Timer>> timers;
        for (int i = 0; i < 5; ++i) {
            timers.push_back(std::make_unique<Timer>(1, true, [] {}));
            timers.back()->Start();
        }
        const timespec some{0, 20000000};
        nanosleep(&some, nullptr);
        std::exit(0);  // NOLINT(concurrency-mt-unsafe): runs the static destructors, which is the point
        return 1;
    });
    EXPECT_EQ(child.exitCode, 0) << child.error;
}

TEST_F(FakeTimers, MakesAMonotonicTimerThatNotifiesByThread) {
    Timer timer(1, false, [] {});
    EXPECT_EQ(fault_timer_create.Calls(), 0) << "the constructor makes none";
    EXPECT_EQ(timer.Create(), StatusCode::Ok);
    EXPECT_EQ(mClock, CLOCK_MONOTONIC);
    EXPECT_EQ(mNotification.sigev_notify, SIGEV_THREAD);
    EXPECT_NE(mNotification.sigev_value.sival_ptr, nullptr);
    EXPECT_EQ(fault_timer_settime.Calls(), 0) << "Create does not arm";
    EXPECT_THAT(mLog.Entries(), IsEmpty());
}

TEST_F(FakeTimers, SplitsThePeriodIntoSecondsAndNanoseconds) {
    Timer once(1500, false, nullptr);
    EXPECT_EQ(once.Start(), StatusCode::Ok);
    ExpectTime(1, 500000000, 0, 0);

    Timer periodic(1500, true, nullptr);
    EXPECT_EQ(periodic.Start(), StatusCode::Ok);
    ExpectTime(1, 500000000, 1, 500000000);

    Timer shortest(1, true, nullptr);
    EXPECT_EQ(shortest.Start(), StatusCode::Ok);
    ExpectTime(0, 1000000, 0, 1000000);

    Timer longest(std::numeric_limits<unsigned int>::max(), false, nullptr);
    EXPECT_EQ(longest.Start(), StatusCode::Ok);
    ExpectTime(4294967, 295000000, 0, 0);

    Timer none(0, true, nullptr);
    EXPECT_EQ(none.Start(), StatusCode::Ok);
    ExpectTime(0, 0, 0, 0);
}

TEST_F(FakeTimers, StartAgainArmsTheSameTimer) {
    Timer timer(10, false, nullptr);
    EXPECT_EQ(timer.Start(), StatusCode::Ok);
    EXPECT_EQ(timer.Start(), StatusCode::Ok);
    EXPECT_EQ(timer.DisarmActiveTimer(), StatusCode::Ok);
    ExpectTime(0, 0, 0, 0);
    EXPECT_EQ(timer.Start(), StatusCode::Ok);
    ExpectTime(0, 10000000, 0, 0);
    EXPECT_EQ(fault_timer_create.Calls(), 1);
    EXPECT_EQ(fault_timer_settime.Calls(), 4);
}

TEST_F(FakeTimers, StartWithAPeriodReplacesIt) {
    Timer timer(10, true, nullptr);
    EXPECT_EQ(timer.Start(2500), StatusCode::Ok);
    ExpectTime(2, 500000000, 2, 500000000);
    EXPECT_EQ(timer.Start(), StatusCode::Ok);
    ExpectTime(2, 500000000, 2, 500000000);
}

TEST_F(FakeTimers, NullIdIsATimerLikeAnyOther) {
    Timer timer(10, false, nullptr);
    EXPECT_EQ(timer.Start(), StatusCode::Ok);
    EXPECT_TRUE(timer.GetTimerActiveStatus());
    EXPECT_EQ(timer.DisarmActiveTimer(), StatusCode::Ok);
    EXPECT_FALSE(timer.GetTimerActiveStatus());
    EXPECT_EQ(timer.Stop(), StatusCode::Ok);
    EXPECT_EQ(fault_timer_delete.Calls(), 1);
    EXPECT_THAT(mLog.Entries(), IsEmpty());
}

TEST_F(FakeTimers, IsActiveFromOneNanosecondOn) {
    Timer timer(10, false, nullptr);
    timer.Create();
    for (const auto& [seconds, nanoseconds, active] :
         {std::tuple{0, 0L, false}, {0, 1L, true}, {1, 0L, true}, {0, 999999999L, true}, {2, 5L, true}}) {
        mTime.it_value = {seconds, nanoseconds};
        EXPECT_EQ(timer.GetTimerActiveStatus(), active) << seconds << " s " << nanoseconds << " ns";
    }
}

TEST_F(FakeTimers, WithoutATimerNoCallIsMade) {
    Timer timer(10, true, nullptr);
    EXPECT_FALSE(timer.GetTimerActiveStatus());
    EXPECT_EQ(timer.DisarmActiveTimer(), StatusCode::Failure);
    EXPECT_EQ(timer.Execute(), StatusCode::Failure);
    EXPECT_EQ(timer.Stop(), StatusCode::Failure);
    EXPECT_THAT(mLog.Entries(),
                ElementsAre(Error(LOGGER, "DisarmActiveTimer: Failed to disarm the timer (nil), error 22"),
                            Error(LOGGER, "Execute: Failed to Execute a timer: 22"),
                            Error(LOGGER, "Stop: Timer ID is not initiated")));
    EXPECT_EQ(fault_timer_settime.Calls() + fault_timer_gettime.Calls() + fault_timer_delete.Calls(), 0);
}

TEST_F(FakeTimers, StopTwiceFailsTheSecondTime) {
    Timer timer(10, true, nullptr);
    timer.Start();
    EXPECT_EQ(timer.Stop(), StatusCode::Ok);
    EXPECT_EQ(timer.Stop(), StatusCode::Failure);
    EXPECT_THAT(mLog.Entries(), ElementsAre(Error(LOGGER, "Stop: Timer ID is not initiated")));
    EXPECT_EQ(timer.Start(), StatusCode::Ok);
    EXPECT_EQ(fault_timer_create.Calls(), 2);
}

TEST_F(FakeTimers, DestructorDeletesWhatExists) {
    { const Timer never(10, true, nullptr); }
    EXPECT_EQ(fault_timer_delete.Calls(), 0);
    {
        Timer timer(10, true, nullptr);
        timer.Start();
    }
    EXPECT_EQ(fault_timer_delete.Calls(), 1);
    {
        Timer timer(10, true, nullptr);
        timer.Start();
        timer.Stop();
    }
    EXPECT_EQ(fault_timer_delete.Calls(), 2);
    EXPECT_THAT(mLog.Entries(), IsEmpty());
}

TEST_F(FakeTimers, RefusedCreationFailsAndArmsNothing) {
    fault_timer_create.Fail(-1, EAGAIN);
    Timer timer(10, true, nullptr);
    EXPECT_EQ(timer.Start(), StatusCode::Failure);
    EXPECT_EQ(fault_timer_settime.Calls(), 0);
    EXPECT_THAT(mLog.Entries(), ElementsAre(Error(LOGGER, "Create: Failed to create a timer: 11")));
    EXPECT_FALSE(timer.GetTimerActiveStatus());
    EXPECT_EQ(timer.Stop(), StatusCode::Failure);
}

TEST_F(FakeTimers, RefusedTimeFailsAndKeepsTheTimer) {
    Timer timer(10, true, nullptr);
    fault_timer_settime.Fail(-1, EINVAL);
    EXPECT_EQ(timer.Start(), StatusCode::Failure);
    EXPECT_THAT(mLog.Entries(), ElementsAre(Error(LOGGER, "Execute: Failed to Execute a timer: 22")));
    EXPECT_EQ(timer.Stop(), StatusCode::Ok);
}

TEST_F(FakeTimers, RefusedDisarmingNamesTheTimer) {
    mId = reinterpret_cast<timer_t>(0x1234);
    Timer timer(10, true, nullptr);
    timer.Create();
    fault_timer_settime.Fail(-1, EFAULT);
    EXPECT_EQ(timer.DisarmActiveTimer(), StatusCode::Failure);
    EXPECT_THAT(mLog.Entries(),
                ElementsAre(Error(LOGGER, "DisarmActiveTimer: Failed to disarm the timer 0x1234, error 14")));
}

TEST_F(FakeTimers, UnreadableTimeIsInactive) {
    Timer timer(10, true, nullptr);
    timer.Start();
    fault_timer_gettime.Fail(-1, EINVAL);
    EXPECT_FALSE(timer.GetTimerActiveStatus());
    EXPECT_THAT(mLog.Entries(),
                ElementsAre(Error(LOGGER, "GetTimerActiveStatus: Failed to get the timer: 22")));
}

TEST_F(FakeTimers, RefusedDeletionKeepsTheTimer) {
    int calls = 0;
    Timer timer(10, true, [&] { ++calls; });
    timer.Start();
    fault_timer_delete.Fail(-1, EINVAL);
    EXPECT_EQ(timer.Stop(), StatusCode::Failure);
    EXPECT_THAT(mLog.Entries(), ElementsAre(Error(LOGGER, "Stop: Failed to delete the timer: 22")));
    Expire(mNotification);
    EXPECT_EQ(calls, 1) << "a timer that still exists still calls back";
    EXPECT_EQ(timer.Start(), StatusCode::Ok);
    EXPECT_EQ(fault_timer_create.Calls(), 1);
}

TEST_F(FakeTimers, HandlerCallsTheCallbackOnTheCallingThread) {
    std::thread::id thread;
    Timer timer(10, false, [&] { thread = std::this_thread::get_id(); });
    timer.Handler();
    EXPECT_EQ(thread, std::this_thread::get_id());
    Timer throwing(10, false, [] { throw std::runtime_error("to the caller"); });
    EXPECT_THROW(throwing.Handler(), std::runtime_error);
}

TEST_F(FakeTimers, EmptyCallbackIsNotCalled) {
    Timer timer(10, false, nullptr);
    timer.Handler();
    timer.Start();
    Expire(mNotification);
    EXPECT_THAT(mLog.Entries(), IsEmpty());
}

TEST_F(FakeTimers, NotificationCallsItsTimerOnly) {
    std::atomic<int> first{0};
    std::atomic<int> second{0};
    Timer one(10, true, [&] { ++first; });
    Timer other(10, true, [&] { ++second; });
    one.Start();
    const sigevent ofOne = mNotification;
    other.Start();
    Expire(ofOne);
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 0);
    Expire(mNotification);
    Expire(mNotification);
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 2);
}

TEST_F(FakeTimers, NotificationOfNothingDoesNothing) {
    std::atomic<int> calls{0};
    Timer timer(10, true, [&] { ++calls; });
    timer.Start();
    sigevent nothing = mNotification;
    nothing.sigev_value.sival_ptr = nullptr;
    Expire(nothing);
    EXPECT_EQ(calls, 0);
}

// The system makes the notification's thread before the timer is deleted, and it runs after.
TEST_F(FakeTimers, NotificationAfterStopDoesNothing) {
    std::atomic<int> calls{0};
    Timer timer(10, true, [&] { ++calls; });
    timer.Start();
    const sigevent late = mNotification;
    Expire(late);
    EXPECT_EQ(calls, 1);
    timer.Stop();
    Expire(late);
    EXPECT_EQ(calls, 1);
    timer.Start();
    Expire(late);
    EXPECT_EQ(calls, 1) << "it announced an expiry of the timer that was deleted";
    Expire(mNotification);
    EXPECT_EQ(calls, 2);
}

TEST_F(FakeTimers, NotificationAfterDestructionDoesNothing) {
    std::atomic<int> former{0};
    std::atomic<int> present{0};
    std::optional<Timer> timer;
    timer.emplace(10, true, [&] { ++former; });
    timer->Start();
    const sigevent late = mNotification;
    timer.reset();
    Expire(late);
    EXPECT_EQ(former, 0);

    timer.emplace(10, true, [&] { ++present; });  // at the same address again
    timer->Start();
    Expire(late);
    EXPECT_EQ(former + present, 0);
    Expire(mNotification);
    EXPECT_EQ(present, 1);
}

// A late announcement once reached the 64th timer after its own, when that was at the same address: one armed
// for an hour fired at once.
TEST_F(FakeTimers, NotificationReachesNoLaterTimerEver) {
    std::atomic<int> former{0};
    std::atomic<int> present{0};
    std::optional<Timer> timer;
    timer.emplace(10, false, [&] { ++former; });
    timer->Start();
    const sigevent late = mNotification;
    for (int i = 0; i < 300; ++i) {
        timer.emplace(NEVER_MS, false, [&] { ++present; });
        timer->Start();
        late.sigev_notify_function(late.sigev_value);
    }
    EXPECT_EQ(former, 0);
    EXPECT_EQ(present, 0);
}

TEST_F(FakeTimers, CallbackMayStopStartAndDisarmItsTimer) {
    std::unique_ptr<Timer> timer;
    std::vector<StatusCode> statuses;
    timer = std::make_unique<Timer>(10, true, [&] {
        statuses = {timer->DisarmActiveTimer(), timer->Stop(), timer->Start(20), timer->Stop()};
    });
    timer->Start();
    Expire(mNotification);
    EXPECT_THAT(statuses, ElementsAre(StatusCode::Ok, StatusCode::Ok, StatusCode::Ok, StatusCode::Ok));
    EXPECT_EQ(timer->Stop(), StatusCode::Failure);
}

TEST_F(FakeTimers, CallbackMayDestroyItsTimer) {
    std::unique_ptr<Timer> timer;
    const auto captured = std::make_shared<int>(7);
    std::atomic<int> seen{0};
    timer = std::make_unique<Timer>(10, true, [&timer, &seen, captured] {
        timer.reset();
        seen = *captured;  // the callback outlives the timer
    });
    timer->Start();
    Expire(mNotification);
    EXPECT_EQ(seen, 7);
    EXPECT_EQ(captured.use_count(), 1) << "and is destroyed after it returned";
    Expire(mNotification);
}

// A short timer's callback may destroy it before Start has returned on the other thread.
TEST_F(FakeTimers, CallbackMayDestroyItsTimerWhileStartReturns) {
    std::thread expiry;
    std::promise<void> destroyed;
    std::unique_ptr<Timer> timer;
    timer = std::make_unique<Timer>(1, false, [&] {
        timer.reset();
        destroyed.set_value();
    });
    fault_timer_settime.Replace([&](timer_t, int, const itimerspec*, itimerspec*) {
        expiry = std::thread(mNotification.sigev_notify_function, mNotification.sigev_value);
        return 0;
    });
    EXPECT_EQ(timer.get()->Start(), StatusCode::Ok);
    destroyed.get_future().get();
    expiry.join();
}

// Start touched the timer once more after it had made the system's: freed memory was read, and a timer of the
// system's stayed that nobody would delete.
TEST_F(FakeTimers, CallbackMayDestroyItsTimerAnywhereInAnOperation) {
    const std::pair<const char*, std::function<StatusCode(Timer&)>> operations[] = {
        {"Start", [](Timer& timer) { return timer.Start(); }},
        {"Start with a period", [](Timer& timer) { return timer.Start(5); }},
        {"Create", [](Timer& timer) { return timer.Create(); }},
        {"Execute", [](Timer& timer) { return timer.Execute(); }},
        {"GetTimerActiveStatus",
         [](Timer& timer) { return timer.GetTimerActiveStatus() ? StatusCode::Ok : StatusCode::Stopping; }},
        {"DisarmActiveTimer", [](Timer& timer) { return timer.DisarmActiveTimer(); }},
        {"Stop", [](Timer& timer) { return timer.Stop(); }},
    };
    int timers = 0;
    fault_timer_create.Replace(
        [&](clockid_t, sigevent* notification, timer_t* id) {
            mNotification = *notification;
            *id = mId;
            ++timers;
            return 0;
        },
        ALWAYS);
    fault_timer_delete.Replace(
        [&](timer_t) {
            --timers;
            return 0;
        },
        ALWAYS);
    int met = 0;
    for (const bool isStarted : {false, true}) {
        for (const auto& [name, operation] : operations) {
            bool wasMet = true;
            for (int lock = 1; wasMet; ++lock) {
                SCOPED_TRACE(std::string(name) + ", lock " + std::to_string(lock) +
                             (isStarted ? ", started" : ""));
                auto timer = std::make_unique<Timer>(10, true, [] {});
                if (isStarted) {
                    timer->Start();
                }
                std::promise<void> destroyed;
                std::thread callback;
                {
                    Timer& used = *timer;
                    const BeforeLock before(lock, [&] {
                        callback = std::thread([&] {
                            timer.reset();
                            destroyed.set_value();
                        });
                        // Not when the lock that it needs is held here, as it may be behind the first.
                        destroyed.get_future().wait_for(lock == 1 ? GENEROUS_LIMIT : milliseconds(20));
                    });
                    const StatusCode status = operation(used);
                    wasMet = before.WasMet();
                    if (lock == 1) {
                        EXPECT_NE(status, StatusCode::Ok) << "it came too late";
                    }
                }
                if (callback.joinable()) {
                    callback.join();
                }
                timer.reset();
                met += wasMet;
                ASSERT_EQ(timers, 0) << "none is left behind";
            }
        }
    }
    EXPECT_GE(met, 14) << "each operation locks at least once";
}

// Each callback that hung kept a thread: 794 of them after two seconds of a period of one millisecond.
TEST_F(FakeTimers, ExpiriesAreDroppedWhileTooManyCallsRun) {
    constexpr int MOST = 32;
    std::promise<void> leave;
    const std::shared_future<void> mayLeave(leave.get_future());
    std::atomic<int> calls{0};
    Timer timer(10, true, [&calls, mayLeave] {
        ++calls;
        mayLeave.wait();
    });
    timer.Start();
    std::vector<std::thread> threads;
    for (int i = 0; i < MOST; ++i) {
        threads.emplace_back(mNotification.sigev_notify_function, mNotification.sigev_value);
    }
    ASSERT_TRUE(WaitUntil([&] { return calls == MOST; }));
    EXPECT_THAT(mLog.Entries(), IsEmpty());
    for (int i = 0; i < 3; ++i) {
        Expire(mNotification);
    }
    timer.Stop();
    timer.Start();
    Expire(mNotification);
    EXPECT_EQ(calls, MOST);
    EXPECT_THAT(mLog.Entries(), ElementsAre(TOO_MANY_CALLS));
    leave.set_value();
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(mLog.Entries().back(),
              Warning(LOGGER, "Handler: All calls have returned, 4 expiries were dropped"));
    mLog.Clear();
    Expire(mNotification);
    EXPECT_EQ(calls, MOST + 1) << "it calls back again";
    EXPECT_THAT(mLog.Entries(), IsEmpty());
}

// The system drops an expiry for which it gets no thread, and tells nobody.
TEST_F(FakeTimers, ExpiryThatTheSystemDropsIsServedLate) {
    std::promise<void> called;
    std::atomic<int> calls{0};
    Timer timer(1, false, [&] {
        ++calls;
        called.set_value();
    });
    ASSERT_EQ(timer.Create(), StatusCode::Ok);
    FaultScope scope(fault_pthread_create);
    fault_pthread_create.Fail(EAGAIN);
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(timer.Execute(), StatusCode::Ok);
    ASSERT_EQ(called.get_future().wait_for(GENEROUS_LIMIT), std::future_status::ready);
    EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(3000))
        << "two looks, a second apart, and a second after the thread was refused";
    ASSERT_TRUE(WaitUntil([&] { return mLog.Entries().size() >= 2; }));
    const std::vector<LogEntry> entries = mLog.Entries();
    ASSERT_EQ(entries.size(), 2U);
    EXPECT_EQ(entries[0], NO_THREAD);
    EXPECT_TRUE(IsServedLate(entries[1])) << entries[1].text;

    Expire(mNotification);
    EXPECT_EQ(calls, 1) << "the system was only slow: this is the expiry that was served";
    timer.Stop();
}

TEST_F(FakeTimers, PeriodicExpiriesThatTheSystemDropsAreServedNowAndThen) {
    std::atomic<int> calls{0};
    std::promise<void> calledTwice;
    Timer timer(10, true, [&] {
        if (++calls == 2) {
            calledTwice.set_value();
        }
    });
    ASSERT_EQ(timer.Start(), StatusCode::Ok);
    EXPECT_EQ(calledTwice.get_future().wait_for(GENEROUS_LIMIT), std::future_status::ready);
    Expire(mNotification);
    EXPECT_EQ(calls, 3) << "each of the system's is one more";
    timer.Stop();
}

// What is announced, disarmed, stopped or armed anew is not lost.
TEST_F(FakeTimers, ExpiryThatIsNotLostIsNotServedTwice) {
    std::atomic<int> calls{0};
    const auto call = [&calls] { ++calls; };
    Timer announced(1, false, call);
    announced.Start();
    const timespec due{0, 2000000};
    nanosleep(&due, nullptr);
    Expire(mNotification);
    EXPECT_EQ(calls, 1);

    Timer disarmed(1, true, call);
    disarmed.Start();
    disarmed.DisarmActiveTimer();
    Timer stopped(1, true, call);
    stopped.Start();
    stopped.Stop();
    Timer armedAnew(1, true, call);
    armedAnew.Start();
    armedAnew.Start(NEVER_MS);
    Timer zero(0, true, call);
    zero.Start();
    std::promise<void> served;
    Timer lost(1, false, [&] { served.set_value(); });
    lost.Start();
    Timer refused(1, true, call);
    refused.Create();
    fault_timer_settime.Fail(-1, EINVAL);
    EXPECT_EQ(refused.Execute(), StatusCode::Failure);
    mLog.Clear();

    EXPECT_EQ(served.get_future().wait_for(GENEROUS_LIMIT), std::future_status::ready);
    EXPECT_EQ(calls, 1) << "the guard looked at all of them";
    EXPECT_TRUE(WaitUntil([&] { return !mLog.Entries().empty(); }));
    EXPECT_EQ(mLog.Entries().size(), 1U) << "of the one that was lost";
}

// ThreadSanitizer's view of all operations at once.
TEST_F(FakeTimers, OperationsFromAnyThread) {
    std::atomic<int> calls{0};
    Timer timer(10, true, [&] { ++calls; });
    timer.Start();
    const sigevent notification = mNotification;
    std::vector<std::thread> threads;
    const auto repeat = [&threads](const std::function<void()>& operation) {
        threads.emplace_back([operation] {
            for (int i = 0; i < 1000; ++i) {
                operation();
            }
        });
    };
    repeat([&] { notification.sigev_notify_function(notification.sigev_value); });
    repeat([&] { timer.Start(5); });
    repeat([&] { timer.Start(); });
    repeat([&] { timer.GetTimerActiveStatus(); });
    repeat([&] { timer.DisarmActiveTimer(); });
    repeat([&] { timer.Stop(); });
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(timer.Start(), StatusCode::Ok);
    Expire(mNotification);
    EXPECT_GE(calls, 1);
}

TEST_F(TimerExpiry, OneShotFiresOnceOnAThreadOfItsOwn) {
    const LogCapture log;
    std::atomic<int> calls{0};
    std::atomic<bool> ownThread{true};
    const std::thread::id self = std::this_thread::get_id();
    std::atomic<std::chrono::steady_clock::rep> after{0};
    std::chrono::steady_clock::time_point start;
    Timer timer(30 * SLOWNESS, false, [&] {
        after = (std::chrono::steady_clock::now() - start).count();
        ownThread = std::this_thread::get_id() != self;
        ++calls;
    });
    start = std::chrono::steady_clock::now();
    EXPECT_EQ(timer.Start(), StatusCode::Ok);
    EXPECT_TRUE(timer.GetTimerActiveStatus());
    ASSERT_TRUE(WaitUntil([&] { return calls == 1; }));
    EXPECT_FALSE(timer.GetTimerActiveStatus());
    EXPECT_TRUE(ownThread);
    EXPECT_GE(std::chrono::steady_clock::duration(after), milliseconds(30 * SLOWNESS));

    EXPECT_EQ(timer.Start(1), StatusCode::Ok);
    EXPECT_TRUE(WaitUntil([&] { return calls == 2; }));
    EXPECT_EQ(timer.Stop(), StatusCode::Ok);
    EXPECT_THAT(log.Entries(), IsEmpty());
}

// The C library's thread has all signals blocked, and so have those that it makes.
TEST_F(TimerExpiry, CallbackRunsWithSignalsBlocked) {
    std::promise<sigset_t> mask;
    Timer timer(1, false, [&] {
        sigset_t set;
        pthread_sigmask(SIG_BLOCK, nullptr, &set);
        mask.set_value(set);
    });
    ASSERT_EQ(timer.Start(), StatusCode::Ok);
    const sigset_t blocked = mask.get_future().get();
    for (const int signo : {SIGTERM, SIGINT, SIGCHLD, SIGUSR1, SIGRTMIN, SIGRTMAX}) {
        // qemu keeps the last one for itself.
        EXPECT_EQ(sigismember(&blocked, signo), signo == SIGRTMAX && tern::test::IsEmulated() ? 0 : 1)
            << signo;
    }
}

TEST_F(TimerExpiry, PeriodicRepeatsThePeriod) {
    const auto calls = std::make_shared<std::atomic<int>>(0);
    Timer timer(10, true, [calls] { ++*calls; });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(timer.Start(), StatusCode::Ok);
    ASSERT_TRUE(WaitUntil([&] { return *calls >= 5; }));
    EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(50));
    EXPECT_TRUE(timer.GetTimerActiveStatus());
    EXPECT_EQ(timer.Stop(), StatusCode::Ok);
    EXPECT_FALSE(timer.GetTimerActiveStatus());
}

TEST_F(TimerExpiry, PeriodOfZeroArmsNothing) {
    const auto calls = std::make_shared<std::atomic<int>>(0);
    Timer timer(0, true, [calls] { ++*calls; });
    EXPECT_EQ(timer.Start(), StatusCode::Ok);
    EXPECT_FALSE(timer.GetTimerActiveStatus());
    EXPECT_EQ(timer.Start(1), StatusCode::Ok);
    EXPECT_TRUE(WaitUntil([&] { return *calls > 0; }));
    EXPECT_EQ(timer.Start(0), StatusCode::Ok) << "disarms a timer that is armed";
    EXPECT_FALSE(timer.GetTimerActiveStatus());
}

TEST_F(TimerExpiry, DisarmedTimerStartsAgain) {
    std::atomic<int> calls{0};
    Timer timer(NEVER_MS, false, [&] { ++calls; });
    EXPECT_EQ(timer.Start(), StatusCode::Ok);
    EXPECT_EQ(timer.DisarmActiveTimer(), StatusCode::Ok);
    EXPECT_FALSE(timer.GetTimerActiveStatus());
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(timer.Start(1), StatusCode::Ok);
    EXPECT_TRUE(WaitUntil([&] { return calls == 1; }));
}

TEST_F(TimerExpiry, StopDoesNotWaitForARunningCallback) {
    std::promise<void> entered;
    std::promise<void> leave;
    std::promise<void> left;
    Timer timer(1, false, [&] {
        entered.set_value();
        leave.get_future().get();
        left.set_value();
    });
    timer.Start();
    entered.get_future().get();
    EXPECT_EQ(timer.Stop(), StatusCode::Ok);
    leave.set_value();
    left.get_future().get();
}

/// What a callback that ends its own timer shares with the test. It owns itself through the callback, as
/// further expiries may be on their way when the first ends the timer.
struct Ending {
    std::unique_ptr<Timer> timer;
    std::atomic<bool> isFirst{true};
    std::promise<StatusCode> ended;
};

TEST_F(TimerExpiry, CallbackMayStopItsTimer) {
    for (int round = 0; round < 50; ++round) {
        const auto ending = std::make_shared<Ending>();
        ending->timer = std::make_unique<Timer>(1, true, [ending] {
            if (ending->isFirst.exchange(false)) {
                ending->ended.set_value(ending->timer->Stop());
            }
        });
        ending->timer->Start();
        EXPECT_EQ(ending->ended.get_future().get(), StatusCode::Ok);
        EXPECT_FALSE(ending->timer->GetTimerActiveStatus());
        ending->timer.reset();
    }
}

TEST_F(TimerExpiry, CallbackMayDestroyItsTimer) {
    for (int round = 0; round < 200; ++round) {
        const auto ending = std::make_shared<Ending>();
        ending->timer = std::make_unique<Timer>(1, true, [ending] {
            if (ending->isFirst.exchange(false)) {
                ending->timer.reset();
                ending->ended.set_value(StatusCode::Ok);
            }
        });
        ending->timer.get()->Start();
        ending->ended.get_future().get();
    }
}

TEST_F(TimerExpiry, DestroyedWhileFiring) {
    const auto calls = std::make_shared<std::atomic<int>>(0);
    for (int round = 0; round < 200; ++round) {
        std::vector<std::unique_ptr<Timer>> timers;
        for (int i = 0; i < 5; ++i) {
            timers.push_back(std::make_unique<Timer>(1, true, [calls] { ++*calls; }));
            timers.back()->Start();
        }
        const int before = *calls;
        EXPECT_TRUE(WaitUntil([&] { return *calls > before; }));
    }
    EXPECT_GE(*calls, 200);
}

}  // namespace
