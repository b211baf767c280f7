#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <limits>
#include <optional>
#include <thread>
#include <type_traits>
#include <vector>

#include "threading/thread_state.h"
#include "timer/timer_fixture.h"

namespace {

using namespace tern::test::timers;
using tern::test::OtherThread;

static_assert(std::is_base_of_v<TimerInterface, Timer>);
static_assert(std::has_virtual_destructor_v<TimerInterface>);
static_assert(!std::is_copy_constructible_v<Timer>);

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

TEST_F(FakeTimers, OthersWaitWhileTheTimeIsRead) {
    Timer timer(10, true, nullptr);
    timer.Start();
    std::optional<OtherThread> other;
    fault_timer_gettime.Replace([&](timer_t, itimerspec* time) {
        other.emplace([&] { EXPECT_EQ(timer.Stop(), StatusCode::Ok); });
        EXPECT_TRUE(other->IsHeldUp());
        *time = mTime;
        return 0;
    });
    EXPECT_TRUE(timer.GetTimerActiveStatus());
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

}  // namespace
