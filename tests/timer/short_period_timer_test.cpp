#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <tern/timer/short_period_timer.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <type_traits>
#include <vector>

#include "short_period_timer_parts.h"
#include "support/allocations.h"
#include "support/child.h"
#include "support/interpose.h"
#include "support/late_set_value.h"
#include "support/log_capture.h"
#include "support/wait_until.h"

TERN_INTERPOSE(int, timer_create, (clockid_t clock, sigevent* notification, timer_t* id),
               (clock, notification, id))
TERN_INTERPOSE_TIME(int, timer_settime, __timer_settime64,
                    (timer_t id, int flags, const itimerspec* time, itimerspec* former),
                    (id, flags, time, former))
TERN_INTERPOSE(int, timer_delete, (timer_t id), (id))
TERN_INTERPOSE(int, sigprocmask, (int how, const sigset_t* set, sigset_t* former), (how, set, former))

namespace {

using namespace tern::test;
using mwl::StatusCode;
using mwl::Timer::ShortPeriodTimer;
using mwl::Timer::TimerInterface;
using std::chrono::milliseconds;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

static_assert(std::is_base_of_v<TimerInterface, ShortPeriodTimer>);
static_assert(!std::is_copy_constructible_v<ShortPeriodTimer>);

// Children first: no other thread must exist when a child is made.

TEST(ShortPeriodTimer, EmptyCallbackEndsTheProcessAtTheFirstExpiry) {
    const ChildResult child = RunInChild([] {
        ShortPeriodTimer timer(1, true, nullptr);
        timer.Start();
        pause();
        return 0;
    });
    EXPECT_EQ(child.signal, SIGABRT);
    EXPECT_FALSE(child.timedOut);
    EXPECT_THAT(child.log, Contains(STARTED));
}

TEST(ShortPeriodTimer, WhatACallbackThrowsEndsTheProcess) {
    const ChildResult child = RunInChild([] {
        ShortPeriodTimer timer(1, true, [] { throw std::runtime_error("lost"); });
        timer.Start();
        pause();
        return 0;
    });
    EXPECT_EQ(child.signal, SIGABRT);
    EXPECT_FALSE(child.timedOut);
}

TEST(ShortPeriodTimer, ProcessMayEndWhileItRuns) {
    const ChildResult child = RunInChild([] {
        static ShortPeriodTimer timer(1, true, [] {});
        timer.Start();
        const timespec some{0, 20000000};
        nanosleep(&some, nullptr);
        std::exit(0);  // NOLINT(concurrency-mt-unsafe): runs the static destructors, which is the point
        return 1;
    });
    EXPECT_EQ(child.exitCode, 0) << child.error;
}

TEST(ShortPeriodTimer, CallsBackPeriodicallyOnTheOneThreadThatItLogged) {
    const LogCapture log;
    std::mutex mutex;
    std::vector<int> threads;
    std::vector<std::chrono::steady_clock::time_point> times;
    ShortPeriodTimer timer(10, true, [&] {
        const std::lock_guard lock(mutex);
        threads.push_back(gettid());
        times.push_back(std::chrono::steady_clock::now());
    });
    EXPECT_THAT(log.Entries(), IsEmpty());
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(timer.Start(), StatusCode::Ok);
    ASSERT_TRUE(WaitUntil([&] {
        const std::lock_guard lock(mutex);
        return threads.size() >= 5;
    }));
    EXPECT_EQ(timer.Stop(), StatusCode::Ok);
    const int thread = threads.front();
    EXPECT_NE(thread, gettid());
    EXPECT_EQ(std::count(threads.begin(), threads.end(), thread), static_cast<long>(threads.size()));
    for (std::size_t i = 0; i < times.size(); ++i) {
        EXPECT_GE(times[i] - start, milliseconds(10 * (i + 1))) << "expiry " << i;
    }
    const std::vector<LogEntry> entries = log.Entries();
    ASSERT_EQ(entries.size(), 6U);
    EXPECT_THAT(std::vector(entries.begin(), entries.end() - 1),
                ElementsAre(CREATE, StartOf(thread), STARTED, STOPPING, EXIT));
    EXPECT_EQ(entries.back().level, 7);
    EXPECT_THAT(entries.back().text, StartsWith("Succeeded to stop the timer "));
}

TEST(ShortPeriodTimer, AsksForAMonotonicTimerAimedAtItsThread) {
    const LogCapture log;
    FaultScope create(fault_timer_create);
    FaultScope setTime(fault_timer_settime);
    sigevent notification{};
    clockid_t clock = -1;
    itimerspec time{};
    int flags = -1;
    fault_timer_create.Replace([&](clockid_t id, sigevent* event, timer_t* timer) {
        clock = id;
        notification = *event;
        return fault_timer_create.Real(id, event, timer);
    });
    fault_timer_settime.Replace([&](timer_t, int given, const itimerspec* value, itimerspec*) {
        flags = given;
        time = *value;
        errno = EFAULT;
        return -1;  // not armed, so that Stop need not wait for it
    });
    ShortPeriodTimer timer(1500, true, [] {});
    EXPECT_EQ(timer.Start(), StatusCode::Failure);
    EXPECT_EQ(clock, CLOCK_MONOTONIC);
    EXPECT_EQ(notification.sigev_notify, SIGEV_THREAD_ID);
    EXPECT_EQ(notification.sigev_signo, SIGRTMIN);
    EXPECT_EQ(notification.sigev_value.sival_ptr, &timer);
    EXPECT_TRUE(log.Contains(StartOf(notification.sigev_notify_thread_id)));
    EXPECT_EQ(flags, 0);
    EXPECT_EQ(time.it_value.tv_sec, 1);
    EXPECT_EQ(time.it_value.tv_nsec, 500000000);
    EXPECT_EQ(time.it_interval.tv_sec, 1);
    EXPECT_EQ(time.it_interval.tv_nsec, 500000000);
    EXPECT_EQ(timer.Stop(), StatusCode::Ok);

    fault_timer_settime.Replace([&](timer_t, int, const itimerspec* value, itimerspec*) {
        time = *value;
        return -1;
    });
    ShortPeriodTimer once(20, false, [] {});
    EXPECT_EQ(once.Start(), StatusCode::Failure);
    EXPECT_EQ(time.it_value.tv_sec, 0);
    EXPECT_EQ(time.it_value.tv_nsec, 20000000);
    EXPECT_EQ(time.it_interval.tv_sec, 0);
    EXPECT_EQ(time.it_interval.tv_nsec, 0);
    EXPECT_EQ(once.Stop(), StatusCode::Ok);
}

TEST(ShortPeriodTimer, StopReturnsAfterTheNextExpiry) {
    const LogCapture log;
    std::atomic<int> calls{0};
    std::atomic<int> threadId{0};
    ShortPeriodTimer timer(NEVER_MS, true, [&] { ++calls; });
    FaultScope create(fault_timer_create);
    fault_timer_create.Replace([&](clockid_t id, sigevent* event, timer_t* timer_) {
        threadId = event->sigev_notify_thread_id;
        return fault_timer_create.Real(id, event, timer_);
    });
    WaitsForExpiry waits;
    EXPECT_EQ(timer.Start(), StatusCode::Ok);
    ASSERT_TRUE(waits.WaitUntilCount(1)) << "a stop that comes earlier ends the thread at once";
    StoppingThread stop(timer);
    EXPECT_TRUE(stop.IsWaiting(milliseconds(50)));
    EXPECT_EQ(calls, 0);
    Signal(threadId, SIGRTMIN);
    EXPECT_EQ(stop.Get(), StatusCode::Ok);
    EXPECT_EQ(calls, 1) << "the callback has run once more";
}

TEST(ShortPeriodTimer, StopOfAnExpiredOneShotDoesNotReturn) {
    const LogCapture log;
    std::atomic<int> calls{0};
    std::atomic<int> threadId{0};
    ShortPeriodTimer timer(1, false, [&] {
        threadId = gettid();
        ++calls;
    });
    WaitsForExpiry waits;
    EXPECT_EQ(timer.Start(), StatusCode::Ok);
    ASSERT_TRUE(waits.WaitUntilCount(2)) << "a stop that comes earlier ends the thread at once";
    EXPECT_EQ(calls, 1);
    StoppingThread stop(timer);
    EXPECT_TRUE(stop.IsWaiting(milliseconds(200)));
    EXPECT_EQ(calls, 1);
    // What it waits for is the signal that will not come: given it, it returns.
    Signal(threadId, SIGRTMIN);
    EXPECT_EQ(stop.Get(), StatusCode::Ok);
    EXPECT_EQ(calls, 2);
}

TEST(ShortPeriodTimer, StopWithoutStartFails) {
    const LogCapture log;
    ShortPeriodTimer timer(10, true, [] {});
    EXPECT_EQ(timer.Stop(), StatusCode::Failure);
    timer.StopThread();
    EXPECT_THAT(log.Entries(), ElementsAre(NOT_INITIALIZED));
}

TEST(ShortPeriodTimer, StopTwiceFailsTheSecondTime) {
    const LogCapture log;
    ShortPeriodTimer timer(1, true, [] {});
    EXPECT_EQ(timer.Start(), StatusCode::Ok);
    EXPECT_EQ(timer.Stop(), StatusCode::Ok);
    const std::size_t before = log.Entries().size();
    EXPECT_EQ(timer.Stop(), StatusCode::Failure);
    const std::vector<LogEntry> entries = log.Entries();
    EXPECT_THAT(std::vector(entries.begin() + static_cast<long>(before), entries.end()),
                ElementsAre(STOPPING, NOT_INITIALIZED));
}

TEST(ShortPeriodTimer, StartsAgainAfterStop) {
    const LogCapture log;
    std::atomic<int> calls{0};
    ShortPeriodTimer timer(1, true, [&] { ++calls; });
    for (int round = 1; round <= 3; ++round) {
        EXPECT_EQ(timer.Start(), StatusCode::Ok);
        const int before = calls;
        EXPECT_TRUE(WaitUntil([&] { return calls > before + 1; }));
        EXPECT_EQ(timer.Stop(), StatusCode::Ok);
    }
    EXPECT_EQ(log.Count(EXIT), 3U);
}

TEST(ShortPeriodTimer, StartWhileRunningArmsItAnew) {
    const LogCapture log;
    FaultScope create(fault_timer_create);
    FaultScope setTime(fault_timer_settime);
    fault_timer_create.Replace({}, 0);
    fault_timer_settime.Replace({}, 0);
    ShortPeriodTimer timer(1, true, [] {});
    EXPECT_EQ(timer.Start(), StatusCode::Ok);
    EXPECT_EQ(timer.Start(), StatusCode::Ok);
    EXPECT_EQ(log.Count(CREATE), 1U) << "one thread";
    EXPECT_EQ(fault_timer_create.Calls(), 1);
    EXPECT_EQ(fault_timer_settime.Calls(), 2);
    EXPECT_EQ(timer.Stop(), StatusCode::Ok);
}

TEST(ShortPeriodTimer, NullIdIsATimerLikeAnyOther) {
    const LogCapture log;
    FaultScope create(fault_timer_create);
    FaultScope setTime(fault_timer_settime);
    FaultScope remove(fault_timer_delete);
    fault_timer_create.Replace(
        [](clockid_t, sigevent*, timer_t* id) {
            *id = nullptr;
            return 0;
        },
        ALWAYS);
    fault_timer_settime.Fail(0);
    fault_timer_delete.Fail(0);
    std::unique_ptr<ShortPeriodTimer> timer =
        std::make_unique<ShortPeriodTimer>(0, true, [] { ADD_FAILURE(); });
    EXPECT_EQ(timer->Start(), StatusCode::Ok);
    EXPECT_EQ(timer->CreateTimer(), StatusCode::Ok);
    EXPECT_EQ(fault_timer_create.Calls(), 1) << "it is there already";
    EXPECT_EQ(timer->Stop(), StatusCode::Ok);
    EXPECT_TRUE(log.Contains(Trace(LOGGER, "Succeeded to stop the timer (nil)")));

    fault_timer_settime.Fail(0);
    fault_timer_delete.Fail(0);
    EXPECT_EQ(timer->CreateTimer(), StatusCode::Ok);
    timer.reset();
    EXPECT_EQ(fault_timer_delete.Calls(), 1) << "the destructor deletes it";
}

TEST(ShortPeriodTimer, PeriodOfZeroNeverCallsAndStopReturns) {
    const LogCapture log;
    ShortPeriodTimer timer(0, true, [] { ADD_FAILURE(); });
    EXPECT_EQ(timer.Start(), StatusCode::Ok);
    EXPECT_EQ(timer.Stop(), StatusCode::Ok);
    EXPECT_TRUE(log.Contains(EXIT));
}

TEST(ShortPeriodTimer, StepsOfStartCanBeMadeOneByOne) {
    LogCapture log;
    std::atomic<int> calls{0};
    ShortPeriodTimer timer(1, true, [&] { ++calls; });
    EXPECT_EQ(timer.CreateThread(), StatusCode::Ok);
    EXPECT_EQ(timer.CreateThread(), StatusCode::Ok);
    EXPECT_EQ(log.Count(CREATE), 1U);
    EXPECT_EQ(timer.CreateTimer(), StatusCode::Ok);
    EXPECT_EQ(timer.CreateTimer(), StatusCode::Ok);
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(timer.SetTimerTime(), StatusCode::Ok);
    EXPECT_TRUE(WaitUntil([&] { return calls > 1; }));
    EXPECT_EQ(timer.Stop(), StatusCode::Ok);
}

// Start goes on as soon as the value is there, while the thread is still returning from set_value.
TEST(ShortPeriodTimer, PromiseOutlivesItsSetting) {
#if !TERN_RECOGNISES_FREED_MEMORY
    GTEST_SKIP() << "a freed promise is recognised under AddressSanitizer only";
#endif
    const LogCapture log;
    LateSetValue late;
    FaultScope scope(fault_sigprocmask);
    fault_sigprocmask.Replace([&](int how, const sigset_t* set, sigset_t* former) {
        return late.WaitUntilAwaited() ? fault_sigprocmask.Real(how, set, former) : -1;
    });
    ShortPeriodTimer timer(1, true, [] {});
    ASSERT_EQ(timer.CreateThread(), StatusCode::Ok);
    EXPECT_TRUE(late.Finish());
    EXPECT_FALSE(late.WasFreed());
    EXPECT_EQ(timer.Stop(), StatusCode::Failure) << "there was no timer yet";
}

TEST(ShortPeriodTimer, ExpiryAllocatesNothing) {
    const LogCapture log(6);
    std::atomic<int> calls{0};
    ShortPeriodTimer timer(1, true, [&] { ++calls; });
    timer.Start();
    ASSERT_TRUE(WaitUntil([&] { return calls > 0; }));
    const std::size_t before = tern::test::CountAllocations();
    const int last = calls + 20;
    EXPECT_TRUE(WaitUntil([&] { return calls >= last; }));
    EXPECT_EQ(tern::test::CountAllocations(), before);
    timer.Stop();
}

// The flag and the id are shared by two threads that both may be done first.
TEST(ShortPeriodTimer, StartsAndStopsWithoutARace) {
    for (int round = 0; round < ROUNDS; ++round) {
        const LogCapture log(0);
        ShortPeriodTimer timer(1, true, [] {});
        ASSERT_EQ(timer.Start(), StatusCode::Ok);
        ASSERT_EQ(timer.Stop(), StatusCode::Ok);
    }
}

}  // namespace
