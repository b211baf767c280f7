#include <gmock/gmock.h>
#include <tern/threading/condition_variable.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <functional>
#include <thread>
#include <type_traits>
#include <vector>

#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/wait_until.h"

TERN_INTERPOSE_TIME(int, clock_gettime, __clock_gettime64, (clockid_t clock, timespec* now), (clock, now))
TERN_INTERPOSE(int, pthread_condattr_init, (pthread_condattr_t * attributes), (attributes))
TERN_INTERPOSE(int, pthread_condattr_setclock, (pthread_condattr_t * attributes, clockid_t clock),
               (attributes, clock))
TERN_INTERPOSE(int, pthread_condattr_destroy, (pthread_condattr_t * attributes), (attributes))
TERN_INTERPOSE(int, pthread_cond_init, (pthread_cond_t * condition, const pthread_condattr_t* attributes),
               (condition, attributes))
TERN_INTERPOSE(int, pthread_cond_destroy, (pthread_cond_t * condition), (condition))
TERN_INTERPOSE(int, pthread_cond_signal, (pthread_cond_t * condition), (condition))
TERN_INTERPOSE(int, pthread_cond_broadcast, (pthread_cond_t * condition), (condition))
TERN_INTERPOSE(int, pthread_cond_wait, (pthread_cond_t * condition, pthread_mutex_t* mutex),
               (condition, mutex))
TERN_INTERPOSE_TIME(int, pthread_cond_timedwait, __pthread_cond_timedwait64,
                    (pthread_cond_t * condition, pthread_mutex_t* mutex, const timespec* deadline),
                    (condition, mutex, deadline))

namespace mwl::Threading {
namespace {

using tern::test::FaultScope;
using tern::test::LogCapture;
using tern::test::WaitUntil;
using tern::test::Warning;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr int LONG_MS = 60000;

std::chrono::steady_clock::duration Duration(const std::function<void()>& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::steady_clock::now() - start;
}

TEST(ConditionVariable, IsPolymorphicAndNotCopied) {
    EXPECT_TRUE(std::has_virtual_destructor_v<ConditionVariable>);
    EXPECT_FALSE(std::is_copy_constructible_v<ConditionVariable>);
    EXPECT_FALSE(std::is_copy_assignable_v<ConditionVariable>);
}

TEST(ConditionVariable, GetStatusCodeMapsConditionErrors) {
    EXPECT_EQ(ConditionVariable::GetStatusCode(0), StatusCode::Ok);
    EXPECT_EQ(ConditionVariable::GetStatusCode(EPERM), StatusCode::NotPermitted);
    EXPECT_EQ(ConditionVariable::GetStatusCode(EINTR), StatusCode::Interrupted);
    EXPECT_EQ(ConditionVariable::GetStatusCode(EBUSY), StatusCode::Busy);
    EXPECT_EQ(ConditionVariable::GetStatusCode(EINVAL), StatusCode::InvalidArgument);
    EXPECT_EQ(ConditionVariable::GetStatusCode(110), StatusCode::Timeout);
    EXPECT_EQ(ConditionVariable::GetStatusCode(35), StatusCode::Failure);
}

TEST(ConditionVariable, GetStatusCodeOfEveryOtherNumberIsFailure) {
    for (int error = -200; error <= 200; ++error) {
        if (error != 0 && error != EPERM && error != EINTR && error != EBUSY && error != EINVAL &&
            error != ETIMEDOUT) {
            EXPECT_EQ(ConditionVariable::GetStatusCode(error), StatusCode::Failure) << error;
        }
    }
    EXPECT_EQ(ConditionVariable::GetStatusCode(INT_MIN), StatusCode::Failure);
    EXPECT_EQ(ConditionVariable::GetStatusCode(INT_MAX), StatusCode::Failure);
}

struct DeadlineRow {
    long nowNanoseconds;
    int timeoutMs;
    long seconds;  ///< added to the clock's
    long nanoseconds;
};

TEST(ConditionVariable, CalculateAbsTimeoutAddsToTheMonotonicClock) {
    const DeadlineRow rows[] = {
        {600000000, 1500, 2, 100000000},
        {600000000, 399, 0, 999000000},
        {999999999, 0, 0, 999999999},
        {600000000, 400, 1, 0},
        {999999999, 999, 1, 998999999},
        {0, 0, 0, 0},
        {5, -1, 0, 5},
        {5, INT_MIN, 0, 5},
        {1, 1000, 1, 1},
        {999999999, INT_MAX, 2147484, 646999999},
    };
    for (const DeadlineRow& row : rows) {
        FaultScope scope(fault_clock_gettime);
        fault_clock_gettime.Replace([&](clockid_t clock, timespec* now) {
            EXPECT_EQ(clock, CLOCK_MONOTONIC);
            *now = {5000000000, row.nowNanoseconds};
            return 0;
        });
        timespec deadline{};
        ConditionVariable::CalculateAbsTimeout(row.timeoutMs, deadline);
        EXPECT_EQ(deadline.tv_sec, 5000000000 + row.seconds) << row.nowNanoseconds << " " << row.timeoutMs;
        EXPECT_EQ(deadline.tv_nsec, row.nanoseconds) << row.nowNanoseconds << " " << row.timeoutMs;
    }
}

TEST(ConditionVariable, IsMadeOnTheMonotonicClock) {
    FaultScope scope(fault_pthread_condattr_setclock);
    clockid_t used = CLOCK_REALTIME;
    fault_pthread_condattr_setclock.Replace([&](pthread_condattr_t* attributes, clockid_t clock) {
        used = clock;
        return fault_pthread_condattr_setclock.Real(attributes, clock);
    });
    FaultScope init(fault_pthread_cond_init);
    fault_pthread_cond_init.Fail(0, 0, 0);
    FaultScope attributeDestroy(fault_pthread_condattr_destroy);
    fault_pthread_condattr_destroy.Fail(0, 0, 0);
    const ConditionVariable condition;
    EXPECT_EQ(used, CLOCK_MONOTONIC);
    EXPECT_EQ(fault_pthread_cond_init.Calls(), 1);
    EXPECT_EQ(fault_pthread_condattr_destroy.Calls(), 1);
}

TEST(ConditionVariable, FailingInitIsNotLookedAt) {
    LogCapture log;
    FaultScope init(fault_pthread_cond_init);
    fault_pthread_cond_init.Fail(EAGAIN);
    FaultScope attributeDestroy(fault_pthread_condattr_destroy);
    fault_pthread_condattr_destroy.Fail(0, 0, 0);
    {
        ConditionVariable condition;
        Mutex mutex;
        Lock lock(mutex);
        EXPECT_EQ(condition.WaitFor(lock, 0), StatusCode::Timeout) << "as on the default clock";
    }
    EXPECT_EQ(fault_pthread_condattr_destroy.Calls(), 1);
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST(ConditionVariable, FailingAttributeInitLeavesItOnTheDefaultClock) {
    LogCapture log;
    FaultScope attribute(fault_pthread_condattr_init);
    FaultScope attributeDestroy(fault_pthread_condattr_destroy);
    FaultScope init(fault_pthread_cond_init);
    fault_pthread_condattr_init.Fail(ENOMEM);
    fault_pthread_condattr_destroy.Fail(0, 0, 0);
    fault_pthread_cond_init.Fail(0, 0, 0);
    {
        ConditionVariable condition;
        Mutex mutex;
        Lock lock(mutex);
        condition.NotifyOne();
        EXPECT_EQ(condition.WaitFor(lock, 0), StatusCode::Timeout);
    }
    EXPECT_EQ(fault_pthread_condattr_destroy.Calls(), 0);
    EXPECT_EQ(fault_pthread_cond_init.Calls(), 0);
    EXPECT_THAT(log.Entries(),
                ElementsAre(Warning("Threading", "ConditionVariable: pthread_condattr_init FAILED (12)")));
}

TEST(ConditionVariable, FailingClockChoiceLeavesItOnTheDefaultClock) {
    LogCapture log;
    FaultScope clock(fault_pthread_condattr_setclock);
    FaultScope attributeDestroy(fault_pthread_condattr_destroy);
    FaultScope init(fault_pthread_cond_init);
    fault_pthread_condattr_setclock.Fail(EINVAL);
    fault_pthread_condattr_destroy.Fail(0, 0, 0);
    fault_pthread_cond_init.Fail(0, 0, 0);
    { const ConditionVariable condition; }
    EXPECT_EQ(fault_pthread_condattr_destroy.Calls(), 1);
    EXPECT_EQ(fault_pthread_cond_init.Calls(), 0);
    EXPECT_THAT(log.Entries(), ElementsAre(Warning(
                                   "Threading", "ConditionVariable: pthread_condattr_setclock FAILED (22)")));
}

TEST(ConditionVariable, FailingCallsAreLogged) {
    LogCapture log;
    FaultScope signal(fault_pthread_cond_signal);
    FaultScope broadcast(fault_pthread_cond_broadcast);
    FaultScope destroy(fault_pthread_cond_destroy);
    fault_pthread_cond_signal.Fail(EINVAL);
    fault_pthread_cond_broadcast.Fail(EPERM);
    fault_pthread_cond_destroy.Fail(EBUSY);
    {
        ConditionVariable condition;
        condition.NotifyOne();
        condition.NotifyAll();
    }
    EXPECT_THAT(log.Entries(),
                ElementsAre(Warning("Threading", "NotifyOne: pthread_cond_signal FAILED (22)"),
                            Warning("Threading", "NotifyAll: pthread_cond_broadcast FAILED (1)"),
                            Warning("Threading", "~ConditionVariable: pthread_cond_destroy FAILED (Busy)")));
}

TEST(ConditionVariable, DestroyFailurePrintsTheConditionVariablesOwnStatus) {
    LogCapture log;
    FaultScope destroy(fault_pthread_cond_destroy);
    fault_pthread_cond_destroy.Fail(EINTR);
    { const ConditionVariable condition; }
    EXPECT_THAT(
        log.Entries(),
        ElementsAre(Warning("Threading", "~ConditionVariable: pthread_cond_destroy FAILED (Interrupted)")));
}

TEST(ConditionVariable, WaitsReturnTheStatusOfTheirError) {
    ConditionVariable condition;
    Mutex mutex;
    Lock lock(mutex);
    FaultScope wait(fault_pthread_cond_wait);
    FaultScope timedWait(fault_pthread_cond_timedwait);
    fault_pthread_cond_wait.Fail(EPERM);
    EXPECT_EQ(condition.Wait(lock), StatusCode::NotPermitted);
    fault_pthread_cond_timedwait.Fail(EINVAL);
    EXPECT_EQ(condition.WaitFor(lock, LONG_MS), StatusCode::InvalidArgument);
    fault_pthread_cond_timedwait.Fail(EINTR);
    EXPECT_EQ(condition.WaitFor(lock, LONG_MS, [] { return false; }), StatusCode::Interrupted);
}

TEST(ConditionVariable, NoTimeMeansTimeoutAtOnce) {
    LogCapture log;
    ConditionVariable condition;
    Mutex mutex;
    Lock lock(mutex);
    for (const int timeoutMs : {0, -1, INT_MIN}) {
        EXPECT_LT(Duration([&] {
                      EXPECT_EQ(condition.WaitFor(lock, timeoutMs), StatusCode::Timeout);
                      EXPECT_EQ(condition.WaitFor(lock, timeoutMs, [] { return false; }),
                                StatusCode::Timeout);
                  }),
                  tern::test::TOLERANCE);
        EXPECT_EQ(condition.WaitFor(lock, timeoutMs, [] { return true; }), StatusCode::Ok);
    }
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST(ConditionVariable, TimedWaitLastsAsLongAsAsked) {
    ConditionVariable condition;
    Mutex mutex;
    Lock lock(mutex);
    StatusCode status = StatusCode::Failure;
    EXPECT_GE(Duration([&] { status = condition.WaitFor(lock, 50, [] { return false; }); }),
              std::chrono::milliseconds(50));
    EXPECT_EQ(status, StatusCode::Timeout);
}

TEST(ConditionVariable, DeadlineIsComputedOnceBeforeTheFirstTest) {
    ConditionVariable condition;
    Mutex mutex;
    Lock lock(mutex);
    FaultScope clock(fault_clock_gettime);
    FaultScope wait(fault_pthread_cond_timedwait);
    std::vector<std::string> calls;
    std::vector<time_t> deadlines;
    fault_clock_gettime.Replace(
        [&](clockid_t, timespec* now) {
            calls.emplace_back("clock");
            *now = {1000, 0};
            return 0;
        },
        10);
    fault_pthread_cond_timedwait.Replace(
        [&](pthread_cond_t*, pthread_mutex_t*, const timespec* deadline) {
            calls.emplace_back("wait");
            deadlines.push_back(deadline->tv_sec);
            return 0;
        },
        2);
    int asked = 0;
    const StatusCode status = condition.WaitFor(lock, 7000, [&] {
        calls.emplace_back("predicate");
        return ++asked == 3;
    });
    fault_clock_gettime.Reset();
    EXPECT_EQ(status, StatusCode::Ok);
    EXPECT_THAT(calls, ElementsAre("clock", "predicate", "wait", "predicate", "wait", "predicate"));
    EXPECT_THAT(deadlines, ElementsAre(1007, 1007));
}

TEST(ConditionVariable, EndOfTheTimeWinsOverThePredicate) {
    ConditionVariable condition;
    Mutex mutex;
    Lock lock(mutex);
    FaultScope wait(fault_pthread_cond_timedwait);
    bool ready = false;
    int asked = 0;
    fault_pthread_cond_timedwait.Replace([&](pthread_cond_t*, pthread_mutex_t*, const timespec*) {
        ready = true;
        return ETIMEDOUT;
    });
    EXPECT_EQ(condition.WaitFor(lock, LONG_MS,
                                [&] {
                                    ++asked;
                                    return ready;
                                }),
              StatusCode::Timeout);
    EXPECT_EQ(asked, 1);
}

TEST(ConditionVariable, WakeUpForNoReasonIsOkWithoutPredicate) {
    ConditionVariable condition;
    Mutex mutex;
    Lock lock(mutex);
    FaultScope wait(fault_pthread_cond_timedwait);
    fault_pthread_cond_timedwait.Fail(0);
    EXPECT_EQ(condition.WaitFor(lock, LONG_MS), StatusCode::Ok);
}

TEST(ConditionVariable, EmptyPredicateThrowsInsteadOfWaiting) {
    ConditionVariable condition;
    Mutex mutex;
    Lock lock(mutex);
    EXPECT_THROW(condition.WaitFor(lock, LONG_MS, std::function<bool()>()), std::bad_function_call);
}

/// Threads that wait on one condition variable.
class Waiters {
public:
    explicit Waiters(int count) {
        for (int i = 0; i < count; ++i) {
            mThreads.emplace_back([this] {
                Lock lock(mMutex);
                ++mWaiting;
                while (mTokens == 0) {
                    EXPECT_EQ(mCondition.Wait(lock), StatusCode::Ok);
                }
                --mTokens;
                ++mWoken;
            });
        }
        // Whoever counts itself gives up the mutex only by waiting.
        EXPECT_TRUE(WaitUntil([&] { return Get(mWaiting) == count; }));
    }
    ~Waiters() {
        Give(static_cast<int>(mThreads.size()));
        mCondition.NotifyAll();
        for (std::thread& thread : mThreads) {
            thread.join();
        }
    }
    void Give(int tokens) {
        const Lock lock(mMutex);
        mTokens += tokens;
    }
    int Woken() { return Get(mWoken); }
    ConditionVariable& Condition() { return mCondition; }

private:
    int Get(const int& value) {
        const Lock lock(mMutex);
        return value;
    }

    Mutex mMutex;
    ConditionVariable mCondition;
    int mWaiting = 0;
    int mTokens = 0;
    int mWoken = 0;
    std::vector<std::thread> mThreads;
};

TEST(ConditionVariable, NotifyOneWakesAWaiter) {
    Waiters waiters(1);
    waiters.Give(1);
    waiters.Condition().NotifyOne();
    EXPECT_TRUE(WaitUntil([&] { return waiters.Woken() == 1; }));
}

TEST(ConditionVariable, NotifyAllWakesEveryWaiter) {
    Waiters waiters(3);
    waiters.Give(3);
    waiters.Condition().NotifyAll();
    EXPECT_TRUE(WaitUntil([&] { return waiters.Woken() == 3; }));
}

TEST(ConditionVariable, NobodyWaitingIsNoFailure) {
    LogCapture log;
    ConditionVariable condition;
    condition.NotifyOne();
    condition.NotifyAll();
    EXPECT_THAT(log.Entries(), IsEmpty());
}

// Two threads hand a turn to each other: one lost wake-up and the round ends in a time-out.
TEST(ConditionVariable, NoWakeUpIsLost) {
    constexpr int ROUNDS = 100000 / tern::test::SLOWNESS;
    Mutex mutex;
    ConditionVariable condition;
    int turn = 0;
    const auto play = [&](int own) {
        for (int round = 0; round < ROUNDS; ++round) {
            Lock lock(mutex);
            ASSERT_EQ(condition.WaitFor(lock, LONG_MS, [&] { return turn == own; }), StatusCode::Ok) << round;
            turn = 1 - own;
            condition.NotifyOne();
        }
    };
    std::thread other(play, 1);
    play(0);
    other.join();
}

}  // namespace
}  // namespace mwl::Threading
