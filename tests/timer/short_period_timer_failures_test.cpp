#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <tern/timer/short_period_timer.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <future>
#include <memory>
#include <optional>
#include <system_error>
#include <thread>

#include "short_period_timer_parts.h"
#include "support/allocations.h"
#include "support/child.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/threads_of_children.h"
#include "support/wait_until.h"
#include "threading/thread_state.h"

TERN_INTERPOSE(int, timer_create, (clockid_t clock, sigevent* notification, timer_t* id),
               (clock, notification, id))
TERN_INTERPOSE_TIME(int, timer_settime, __timer_settime64,
                    (timer_t id, int flags, const itimerspec* time, itimerspec* former),
                    (id, flags, time, former))
TERN_INTERPOSE(int, timer_delete, (timer_t id), (id))
TERN_INTERPOSE(int, sigprocmask, (int how, const sigset_t* set, sigset_t* former), (how, set, former))
TERN_INTERPOSE(int, pthread_create,
               (pthread_t * thread, const pthread_attr_t* attributes, void* (*body)(void*), void* argument),
               (thread, attributes, body, argument))

namespace {

using namespace tern::test;
using mwl::StatusCode;
using mwl::Timer::ShortPeriodTimer;
using testing::Contains;
using testing::ElementsAre;

/// In a child: from now on no timer can be made and no real-time signal sent (setrlimit(2)).
void LeaveNoSignals() {
    const rlimit none{0, 0};
    if (setrlimit(RLIMIT_SIGPENDING, &none) != 0) {
        throw std::system_error(errno, std::generic_category(), "setrlimit");
    }
}

/// In a forked child: so that it hangs for no longer than the test waits.
void EndInTime() {
    alarm(static_cast<unsigned int>(GENEROUS_LIMIT.count()) / 2);
}

bool HasSucceeded(pid_t forked) {
    int status = 0;
    return waitpid(forked, &status, 0) == forked && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Children first: no other thread must exist when a child is made.

// The id of the parent's timer may be that of one of the child's own.
TEST(ShortPeriodTimer, ForkedChildDeletesNoTimerByItsParentsId) {
    const ChildResult child = RunInChild([] {
        WaitsForExpiry waits;
        auto timer = std::make_unique<ShortPeriodTimer>(NEVER_MS, true, [] {});
        if (timer->Start() != StatusCode::Ok || !waits.WaitUntilCount(1)) {
            return 1;
        }
        const pid_t forked = fork();
        if (forked == 0) {
            FaultScope scope(fault_timer_delete);
            fault_timer_delete.Fail(-1, EINVAL, ALWAYS);
            timer.reset();
            _exit(fault_timer_delete.Calls() == 0 ? 0 : 1);
        }
        int status = -1;
        return waitpid(forked, &status, 0) == forked && status == 0 ? 0 : 2;
    });
    EXPECT_EQ(child.exitCode, 0) << child.error;
}

// The thread of the parent's timer is not in the child, where Stop waited for its end for ever.
TEST(ShortPeriodTimer, StopReturnsInAForkedChild) {
    const ChildResult child = RunInChild([] {
        WaitsForExpiry waits;
        auto timer = std::make_unique<ShortPeriodTimer>(NEVER_MS, true, [] {});
        if (timer->Start() != StatusCode::Ok || !waits.WaitUntilCount(1)) {
            return 1;
        }
        const pid_t forked = fork();
        if (forked == 0) {
            EndInTime();
            const StatusCode stopped = timer->Stop();
            timer.reset();
            _exit(stopped == StatusCode::Failure ? 0 : 1);
        }
        return HasSucceeded(forked) ? 0 : 2;
    });
    EXPECT_EQ(child.exitCode, 0) << child.error;
    EXPECT_THAT(child.log, Contains(NOT_INITIALIZED));
}

// As it does for one that was never started, Start makes both.
TEST(ShortPeriodTimer, ParentsTimerMayBeStartedInAForkedChild) {
    SKIP_WHERE_CHILDREN_OF_THREADS_HAVE_NONE();
    const ChildResult child = RunInChild([] {
        WaitsForExpiry waits;
        std::atomic<int> calls{0};
        ShortPeriodTimer timer(NEVER_MS, true, [&calls] { ++calls; });
        ShortPeriodTimer fast(1, true, [&calls] { ++calls; });
        if (timer.Start() != StatusCode::Ok || fast.CreateThread() != StatusCode::Ok ||
            !waits.WaitUntilCount(1)) {
            return 1;
        }
        const pid_t forked = fork();
        if (forked == 0) {
            EndInTime();
            const bool isStarted = fast.Start() == StatusCode::Ok;
            const bool fires = WaitUntil([&] { return calls >= 2; });
            _exit(isStarted && fires && fast.Stop() == StatusCode::Ok ? 0 : 1);
        }
        return HasSucceeded(forked) ? 0 : 2;
    });
    EXPECT_EQ(child.exitCode, 0) << child.error;
}

// A thread that the child makes gets the memory of the parent's, and so its id: it was detached in the
// other's place, and whoever joined it ended the process.
TEST(ShortPeriodTimer, ForkedChildDetachesNoThreadByTheIdOfItsParents) {
    SKIP_WHERE_CHILDREN_OF_THREADS_HAVE_NONE();
    const ChildResult child = RunInChild([] {
        WaitsForExpiry waits;
        auto timer = std::make_unique<ShortPeriodTimer>(NEVER_MS, true, [] {});
        pthread_t parents{};
        {
            FaultScope scope(fault_pthread_create);
            fault_pthread_create.Replace([&](pthread_t* thread, const pthread_attr_t* attributes,
                                             void* (*body)(void*), void* argument) {
                const int error = fault_pthread_create.Real(thread, attributes, body, argument);
                parents = *thread;
                return error;
            });
            if (timer->Start() != StatusCode::Ok || !waits.WaitUntilCount(1)) {
                return 1;
            }
        }
        const pid_t forked = fork();
        if (forked == 0) {
            EndInTime();
            std::promise<void> end;
            std::thread own([&end] { end.get_future().wait(); });
            const bool hasTheId = pthread_equal(own.native_handle(), parents) != 0;
            timer.reset();
            end.set_value();
            own.join();
            _exit(hasTheId ? 0 : 3);
        }
        return HasSucceeded(forked) ? 0 : 2;
    });
    EXPECT_EQ(child.exitCode, 0) << child.error;
}

// The signal that was to wake the thread was refused, which nobody noticed, and Stop never returned.
TEST(ShortPeriodTimer, StopReturnsWhenNoSignalIsFree) {
    const ChildResult child = RunInChild([] {
        LeaveNoSignals();
        ShortPeriodTimer timer(1, true, [] { abort(); });
        const bool started = timer.Start() == StatusCode::Ok;
        const bool stopped = timer.Stop() == StatusCode::Ok;
        return started || stopped ? 1 : 0;
    });
    EXPECT_FALSE(child.timedOut);
    EXPECT_EQ(child.exitCode, 0) << child.error;
    EXPECT_THAT(child.log, Contains(Error(LOGGER, "Failed to create a timer: 11")));
    EXPECT_THAT(child.log, Contains(EXIT));
    EXPECT_THAT(child.log, Contains(NOT_INITIALIZED));
}

// The same when the callback had stopped its timer and could not start it again.
TEST(ShortPeriodTimer, StopReturnsWhenTheCallbackFoundNoFreeSignal) {
    const ChildResult child = RunInChild([] {
        std::promise<bool> refused;
        std::atomic<int> calls{0};
        std::unique_ptr<ShortPeriodTimer> timer;
        timer = std::make_unique<ShortPeriodTimer>(1, true, [&] {
            ++calls;
            timer->Stop();
            LeaveNoSignals();
            refused.set_value(timer->Start() == StatusCode::Failure);
        });
        timer->Start();
        const bool wasRefused = refused.get_future().get();
        const bool stopped = timer->Stop() == StatusCode::Ok;
        return !wasRefused || stopped || calls != 1 ? 1 : 0;
    });
    EXPECT_FALSE(child.timedOut);
    EXPECT_EQ(child.exitCode, 0) << child.error;
    EXPECT_THAT(child.log, Contains(EXIT));
}

// What is armed has its signal from timer_create(2) on.
TEST(ShortPeriodTimer, ArmedTimerRunsAndStopsWhenNoOtherSignalIsFree) {
    const ChildResult child = RunInChild([] {
        std::atomic<int> calls{0};
        ShortPeriodTimer timer(1, true, [&] { ++calls; });
        timer.Start();
        LeaveNoSignals();
        const int before = calls;
        const bool runs = WaitUntil([&] { return calls > before + 2; });
        return runs && timer.Stop() == StatusCode::Ok ? 0 : 1;
    });
    EXPECT_FALSE(child.timedOut);
    EXPECT_EQ(child.exitCode, 0) << child.error;
}

TEST(ShortPeriodTimer, WithoutMemoryForTheThreadThereIsNone) {
    const LogCapture log;
    ShortPeriodTimer timer(1, true, [] {});
    {
        const NothrowMemoryShortage shortage;
        EXPECT_EQ(timer.Start(), StatusCode::ResourceUnavailable);
    }
    EXPECT_THAT(log.Entries(), ElementsAre(CREATE, Error(LOGGER, "Failed to create timer thread")));
    EXPECT_EQ(timer.Start(), StatusCode::Ok);
    EXPECT_EQ(timer.Stop(), StatusCode::Ok);
}

TEST(ShortPeriodTimer, RefusedThreadLeavesAsSystemError) {
    const LogCapture log;
    FaultScope scope(fault_pthread_create);
    ShortPeriodTimer timer(1, true, [] {});
    fault_pthread_create.Fail(EAGAIN);
    EXPECT_THROW(timer.Start(), std::system_error);
    EXPECT_THAT(log.Entries(), ElementsAre(CREATE));
    EXPECT_EQ(timer.Stop(), StatusCode::Failure);
    EXPECT_EQ(timer.Start(), StatusCode::Ok);
    EXPECT_EQ(timer.Stop(), StatusCode::Ok);
}

TEST(ShortPeriodTimer, ThreadThatCannotBlockTheSignalFailsTheStart) {
    LogCapture log;
    FaultScope scope(fault_sigprocmask);
    std::atomic<int> threadId{0};
    ShortPeriodTimer timer(1, true, [] {});
    fault_sigprocmask.Replace([&](int, const sigset_t*, sigset_t*) {
        threadId = gettid();
        return -1;
    });
    EXPECT_EQ(timer.Start(), StatusCode::Failure);
    EXPECT_TRUE(log.WaitFor(Info(LOGGER, "Exit timer thread, status=1")));
    EXPECT_EQ(log.Count(StartOf(threadId)), 1U);
    EXPECT_EQ(log.Count(Error(LOGGER, "Failed to start timer thread, status=1")), 1U);
    EXPECT_EQ(log.Entries().size(), 4U) << "no timer was tried";
    log.Clear();
    EXPECT_EQ(timer.Stop(), StatusCode::Failure);
    EXPECT_THAT(log.Entries(), ElementsAre(STOPPING, NOT_INITIALIZED));
    EXPECT_EQ(timer.Start(), StatusCode::Ok);
    EXPECT_EQ(timer.Stop(), StatusCode::Ok);
}

TEST(ShortPeriodTimer, RefusedTimerFailsTheStartAndStopStillReturns) {
    LogCapture log;
    FaultScope scope(fault_timer_create);
    ShortPeriodTimer timer(1, true, [] { ADD_FAILURE(); });
    fault_timer_create.Fail(-1, EAGAIN);
    EXPECT_EQ(timer.Start(), StatusCode::Failure);
    EXPECT_EQ(log.Entries().back(), Error(LOGGER, "Failed to create a timer: 11"));
    log.Clear();
    EXPECT_EQ(timer.Stop(), StatusCode::Failure);
    EXPECT_THAT(log.Entries(), ElementsAre(STOPPING, EXIT, NOT_INITIALIZED));
}

TEST(ShortPeriodTimer, RefusedTimeFailsTheStartAndStopStillReturns) {
    const LogCapture log;
    FaultScope scope(fault_timer_settime);
    ShortPeriodTimer timer(1, true, [] { ADD_FAILURE(); });
    fault_timer_settime.Fail(-1, EINVAL);
    EXPECT_EQ(timer.Start(), StatusCode::Failure);
    EXPECT_EQ(log.Entries().back(), Error(LOGGER, "Failed to start a timer: 22"));
    EXPECT_EQ(timer.Stop(), StatusCode::Ok);
}

TEST(ShortPeriodTimer, TimerWithoutAThreadIsRefusedByTheSystem) {
    const LogCapture log;
    ShortPeriodTimer timer(1, true, [] {});
    EXPECT_EQ(timer.CreateTimer(), StatusCode::Failure);
    EXPECT_EQ(timer.SetTimerTime(), StatusCode::Failure);
    EXPECT_THAT(log.Entries(), ElementsAre(Error(LOGGER, "Failed to create a timer: 22"),
                                           Error(LOGGER, "Failed to start a timer: 22")));
}

// The kernel may have given the number of the thread that has ended to another one.
TEST(ShortPeriodTimer, TimerMadeAfterStopIsAimedAtNoThread) {
    const LogCapture log;
    ShortPeriodTimer timer(1, true, [] {});
    EXPECT_EQ(timer.Start(), StatusCode::Ok);
    EXPECT_EQ(timer.Stop(), StatusCode::Ok);
    FaultScope scope(fault_timer_create);
    int target = -1;
    fault_timer_create.Replace([&](clockid_t id, sigevent* event, timer_t* timer_) {
        target = event->sigev_notify_thread_id;
        return fault_timer_create.Real(id, event, timer_);
    });
    EXPECT_EQ(timer.CreateTimer(), StatusCode::Failure);
    EXPECT_EQ(target, 0);
    EXPECT_EQ(log.Entries().back(), Error(LOGGER, "Failed to create a timer: 22"));
}

// Start kept a timer that was aimed at the thread that has ended: nothing fired, and Stop did not return.
TEST(ShortPeriodTimer, TimerThatCannotBeDeletedFailsTheNextStart) {
    LogCapture log;
    FaultScope scope(fault_timer_delete);
    std::atomic<int> calls{0};
    ShortPeriodTimer timer(1, true, [&] { ++calls; });
    EXPECT_EQ(timer.Start(), StatusCode::Ok);
    fault_timer_delete.Fail(-1, EINVAL, 2);
    EXPECT_EQ(timer.Stop(), StatusCode::Failure);
    log.Clear();
    EXPECT_EQ(timer.Start(), StatusCode::Failure);
    EXPECT_THAT(log.Entries(), ElementsAre(Error(LOGGER, "Failed to delete the timer: 22")));
    calls = 0;
    EXPECT_EQ(timer.Start(), StatusCode::Ok) << "it can be deleted now";
    EXPECT_TRUE(WaitUntil([&] { return calls > 1; }));
    EXPECT_EQ(timer.Stop(), StatusCode::Ok);
}

TEST(ShortPeriodTimer, RefusedDeletionKeepsTheTimer) {
    const LogCapture log;
    FaultScope scope(fault_timer_delete);
    ShortPeriodTimer timer(1, true, [] {});
    timer.Start();
    fault_timer_delete.Fail(-1, EINVAL);
    EXPECT_EQ(timer.Stop(), StatusCode::Failure);
    EXPECT_EQ(log.Entries().back(), Error(LOGGER, "Failed to delete the timer: 22"));
    EXPECT_EQ(timer.Stop(), StatusCode::Ok);

    std::atomic<int> calls{0};
    ShortPeriodTimer other(1, true, [&] { ++calls; });
    other.Start();
    fault_timer_delete.Fail(-1, EINVAL);
    EXPECT_EQ(other.Stop(), StatusCode::Failure);
    calls = 0;
    EXPECT_EQ(other.Start(), StatusCode::Ok) << "the kept timer was aimed at the thread that is gone";
    EXPECT_TRUE(WaitUntil([&] { return calls > 1; }));
    EXPECT_EQ(other.Stop(), StatusCode::Ok);
}

TEST(ShortPeriodTimer, OthersWaitWhileTheTimerIsDeleted) {
    const LogCapture log;
    FaultScope scope(fault_timer_delete);
    ShortPeriodTimer timer(1000, true, [] {});
    EXPECT_EQ(timer.Start(), StatusCode::Ok);
    {
        std::optional<OtherThread> other;
        fault_timer_delete.Replace([&](timer_t id) {
            other.emplace([&] { EXPECT_EQ(timer.Stop(), StatusCode::Failure); });
            EXPECT_TRUE(other->IsHeldUp());
            return fault_timer_delete.Real(id);
        });
        EXPECT_EQ(timer.Stop(), StatusCode::Ok);
    }
    EXPECT_EQ(log.Entries().back(), NOT_INITIALIZED);
}

}  // namespace
