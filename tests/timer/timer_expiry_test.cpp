// With the system's own timers.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "support/threads_of_children.h"
#include "threading/thread_state.h"
#include "timer/timer_fixture.h"

#ifndef __SANITIZE_THREAD__  // which calls it before it can be asked for the real one
// By which pthread_atfork(3) registers.
TERN_INTERPOSE(int, __register_atfork, (void (*prepare)(), void (*parent)(), void (*child)(), void* library),
               (prepare, parent, child, library))
#endif

namespace {

using namespace tern::test::timers;
using tern::test::OtherThread;

/// Whether there are other threads in this process, and all of them sleep.
bool AllButThisAreAsleep() {
    int others = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        const pid_t thread = std::stoi(task.path().filename());
        if (thread != gettid() && !tern::test::IsAsleep(thread)) {
            return false;
        }
        others += thread != gettid() ? 1 : 0;
    }
    return others > 0;
}

/// In a forked child: so that it hangs for no longer than the test waits.
void EndInTime() {
    alarm(static_cast<unsigned int>(GENEROUS_LIMIT.count()) / 2);
}

bool HasSucceeded(pid_t forked) {
    int status = 0;
    return waitpid(forked, &status, 0) == forked && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

/// A forked child, which succeeds when it can start a timer of its own.
pid_t ForkAndStartATimer() {
    const pid_t forked = fork();
    if (forked == 0) {
        EndInTime();
        Timer own(NEVER_MS, true, nullptr);
        _exit(own.Start() == StatusCode::Ok ? 0 : 1);
    }
    return forked;
}

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

// Two that are made at the same time have two numbers, and one guard.
TEST_F(FakeTimersInAChild, OthersWaitWhileATimerIsEntered) {
    const ChildResult child = RunInChild([] {
        Timer first(10, true, nullptr);
        Timer second(10, true, nullptr);
        std::optional<OtherThread> other;
        bool isHeldUp = false;
        FaultScope scope(fault_pthread_create);
        fault_pthread_create.Replace(
            [&](pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*), void* argument) {
                other.emplace([&] { second.Start(); });
                isHeldUp = other->IsHeldUp();
                return fault_pthread_create.Real(thread, attributes, body, argument);
            });
        const bool isStarted = first.Start() == StatusCode::Ok;
        other.reset();
        return isStarted && isHeldUp && fault_pthread_create.Calls() == 2 ? 0 : 1;
    });
    EXPECT_EQ(child.exitCode, 0) << child.error;
}

// The parent's guard, which waits at the fork, is not in the child: the C library waited there for it to wake
// up, for ever, with the registry locked.
TEST_F(FakeTimersInAChild, ForkedChildHasTimersOfItsOwn) {
    SKIP_WHERE_CHILDREN_OF_THREADS_HAVE_NONE();
    const ChildResult child = RunInChild([] {
        Timer timer(NEVER_MS, true, nullptr);
        if (timer.Start() != StatusCode::Ok || !WaitUntil([] { return AllButThisAreAsleep(); })) {
            return 1;
        }
        const pid_t forked = fork();
        if (forked == 0) {
            EndInTime();
            Timer own(NEVER_MS, true, nullptr);
            for (unsigned int earlier = 0; earlier < 4; ++earlier) {
                // The guard is woken by each, and waits again.
                if (own.Start(NEVER_MS / 2 - earlier * 1000) != StatusCode::Ok ||
                    !WaitUntil([] { return AllButThisAreAsleep(); })) {
                    _exit(1);
                }
            }
            _exit(0);
        }
        return HasSucceeded(forked) ? 0 : 2;
    });
    EXPECT_EQ(child.exitCode, 0) << child.error;
    EXPECT_THAT(child.log, IsEmpty());
}

// A thread that is entering a timer at the fork is not in the child either, where the registry stayed locked.
TEST_F(FakeTimersInAChild, ForkedChildHasTimersWhileATimerIsEntered) {
    SKIP_WHERE_CHILDREN_OF_THREADS_HAVE_NONE();
    const ChildResult child = RunInChild([] {
        const pid_t forking = gettid();
        std::atomic<bool> mayEnter{false};
        std::atomic<bool> isEntering{false};
        std::atomic<bool> isForking{false};
        std::atomic<bool> hasForked{false};
        std::thread entering([&] {
            WaitUntil([&] { return mayEnter.load(); });
            Timer(NEVER_MS, true, nullptr).Start();
        });
        FaultScope scope(fault_pthread_create);
        // It fails, so that the thread is in nothing else that locks when the fork is let go on.
        fault_pthread_create.Replace([&](pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) {
            isEntering = true;
            WaitUntil([&] { return isForking && (hasForked || tern::test::IsAsleep(forking)); });
            return EAGAIN;
        });
        mayEnter = true;
        WaitUntil([&] { return isEntering.load(); });
        isForking = true;
        const pid_t forked = ForkAndStartATimer();
        hasForked = true;
        entering.join();
        return HasSucceeded(forked) ? 0 : 1;
    });
    EXPECT_EQ(child.exitCode, 0) << child.error;
}

#ifndef __SANITIZE_THREAD__
// Nor is one that is making the process's first timer: what it had begun to make once for all was waited for.
TEST_F(FakeTimersInAChild, ForkedChildHasTimersWhileTheFirstIsMade) {
    SKIP_WHERE_CHILDREN_OF_THREADS_HAVE_NONE();
    const ChildResult child = RunInChild([] {
        std::atomic<bool> mayBegin{false};
        std::atomic<bool> isReached{false};
        std::atomic<bool> hasForked{false};
        std::thread first([&] {
            WaitUntil([&] { return mayBegin.load(); });
            Timer(NEVER_MS, true, nullptr).Start();
            isReached = true;
        });
        FaultScope scope(fault___register_atfork);
        fault___register_atfork.Replace(
            [&](void (*prepare)(), void (*parent)(), void (*inChild)(), void* library) {
                isReached = true;
                WaitUntil([&] { return hasForked.load(); });
                return fault___register_atfork.Real(prepare, parent, inChild, library);
            });
        mayBegin = true;
        WaitUntil([&] { return isReached.load(); });
        const pid_t forked = ForkAndStartATimer();
        hasForked = true;
        first.join();
        return HasSucceeded(forked) ? 0 : 1;
    });
    EXPECT_EQ(child.exitCode, 0) << child.error;
}
#endif

// The id of the parent's timer was in the child that of a timer of its own, which was deleted or set instead.
TEST_F(FakeTimersInAChild, ForkedChildTouchesNoTimerByItsParentsId) {
    const ChildResult child = RunInChild([] {
        auto timer = std::make_unique<Timer>(NEVER_MS, true, nullptr);
        if (timer->Start() != StatusCode::Ok) {
            return 1;
        }
        const pid_t forked = fork();
        if (forked == 0) {
            EndInTime();
            FaultScope deletion(fault_timer_delete);
            FaultScope setting(fault_timer_settime);
            fault_timer_delete.Fail(-1, EINVAL, ALWAYS);
            fault_timer_settime.Fail(-1, EINVAL, ALWAYS);
            const bool isActive = timer->GetTimerActiveStatus();
            const StatusCode executed = timer->Execute();
            const StatusCode disarmed = timer->DisarmActiveTimer();
            const StatusCode stopped = timer->Stop();
            timer.reset();
            const bool isRefused = executed == StatusCode::Failure && disarmed == StatusCode::Failure &&
                                   stopped == StatusCode::Failure;
            _exit(!isActive && isRefused && fault_timer_delete.Calls() + fault_timer_settime.Calls() == 0
                      ? 0
                      : 1);
        }
        return HasSucceeded(forked) && timer->Stop() == StatusCode::Ok ? 0 : 2;
    });
    EXPECT_EQ(child.exitCode, 0) << child.error;
}

TEST_F(TimerExpiry, ParentsTimerMayBeStartedInAForkedChild) {
    SKIP_WHERE_CHILDREN_OF_THREADS_HAVE_NONE();
    const ChildResult child = RunInChild([] {
        const auto calls = std::make_shared<std::atomic<int>>(0);
        auto timer = std::make_unique<Timer>(NEVER_MS, false, [calls] { ++*calls; });
        timer->Start();
        const pid_t forked = fork();
        if (forked == 0) {
            EndInTime();
            const auto ownCalls = std::make_shared<std::atomic<int>>(0);
            Timer own(10, true, [ownCalls] { ++*ownCalls; });
            const bool isStarted = own.Start() == StatusCode::Ok && timer->Start(1) == StatusCode::Ok;
            const bool hasFired = WaitUntil([&] { return *calls == 1; });
            timer.reset();
            const int before = *ownCalls;
            // The guard alone would take ten seconds.
            const bool fires = WaitUntil([&] { return *ownCalls >= before + 5; }, milliseconds(5000));
            _exit(isStarted && hasFired && fires ? 0 : 1);
        }
        return HasSucceeded(forked) && timer->GetTimerActiveStatus() ? 0 : 1;
    });
    EXPECT_EQ(child.exitCode, 0) << child.error;
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
        // Besides those that are blocked there are some that have not begun yet, on a busy machine many.
        const bool isBounded = *calls == 32 && most < 160;
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
