#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <tern/timer/short_period_timer.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <fstream>
#include <functional>
#include <future>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>
#include <vector>

#include "support/allocations.h"
#include "support/child.h"
#include "support/interpose.h"
#include "support/late_set_value.h"
#include "support/log_capture.h"
#include "support/wait_until.h"

#ifndef sigev_notify_thread_id
#define sigev_notify_thread_id _sigev_un._tid
#endif

TERN_INTERPOSE(int, timer_create, (clockid_t clock, sigevent* notification, timer_t* id),
               (clock, notification, id))
TERN_INTERPOSE_TIME(int, timer_settime, __timer_settime64,
                    (timer_t id, int flags, const itimerspec* time, itimerspec* former),
                    (id, flags, time, former))
TERN_INTERPOSE(int, timer_delete, (timer_t id), (id))
TERN_INTERPOSE(int, sigprocmask, (int how, const sigset_t* set, sigset_t* former), (how, set, former))
TERN_INTERPOSE(int, sigwait, (const sigset_t* set, int* signal), (set, signal))
TERN_INTERPOSE(int, pthread_kill, (pthread_t thread, int signal), (thread, signal))
TERN_INTERPOSE(int, pthread_join, (pthread_t thread, void** result), (thread, result))
TERN_INTERPOSE(int, pthread_cond_wait, (pthread_cond_t * condition, pthread_mutex_t* mutex),
               (condition, mutex))
TERN_INTERPOSE(int, pthread_create,
               (pthread_t * thread, const pthread_attr_t* attributes, void* (*body)(void*), void* argument),
               (thread, attributes, body, argument))

namespace {

using mwl::StatusCode;
using mwl::Timer::ShortPeriodTimer;
using mwl::Timer::TimerInterface;
using std::chrono::milliseconds;
using tern::test::ChildResult;
using tern::test::Error;
using tern::test::FaultScope;
using tern::test::Info;
using tern::test::LateSetValue;
using tern::test::LogCapture;
using tern::test::LogEntry;
using tern::test::NothrowMemoryShortage;
using tern::test::RunInChild;
using tern::test::Trace;
using tern::test::WaitUntil;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

constexpr int ALWAYS = std::numeric_limits<int>::max();
constexpr unsigned int NEVER_MS = 3600 * 1000;
const std::string LOGGER = "Timer::ShortPeriodTimer";

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int ROUNDS = 50;
#else
constexpr int ROUNDS = 500;
#endif

static_assert(std::is_base_of_v<TimerInterface, ShortPeriodTimer>);
static_assert(!std::is_copy_constructible_v<ShortPeriodTimer>);

LogEntry StartOf(int threadId) {
    return Info(LOGGER, "Start timer thread (OS thread id " + std::to_string(threadId) + ")");
}

const LogEntry CREATE = Info(LOGGER, "Create timer thread");
const LogEntry STARTED = Info(LOGGER, "Timer thread started");
const LogEntry EXIT = Info(LOGGER, "Exit timer thread, status=0");
const LogEntry STOPPING = Trace(LOGGER, "Stopping timer thread");
const LogEntry NOT_INITIALIZED = Error(LOGGER, "ShortPeriodTimer ID is not initialized");

void Signal(int threadId, int signo) {
    ASSERT_EQ(syscall(SYS_tgkill, getpid(), threadId, signo), 0);
}

/// Whether a signal sent to the thread still waits to be taken.
bool HasPendingSignal(int threadId) {
    std::ifstream status("/proc/self/task/" + std::to_string(threadId) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.starts_with("SigPnd:")) {
            return line.find_first_not_of('0', line.find_first_not_of(" \t", 7)) != std::string::npos;
        }
    }
    return false;
}

/// Whether the thread is still in its loop: it takes what is pending, and two signals more.
bool TakesSignals(int threadId) {
    for (int i = 0; i < 2; ++i) {
        if (!WaitUntil([&] { return !HasPendingSignal(threadId); }) ||
            syscall(SYS_tgkill, getpid(), threadId, SIGRTMIN) != 0) {
            return false;
        }
    }
    return WaitUntil([&] { return !HasPendingSignal(threadId); }) &&
           syscall(SYS_tgkill, getpid(), threadId, 0) == 0;
}

/// Shows when an operation of the timer begins to wait for its thread. An operation that is called after that
/// comes behind it: the lock is let go there.
class WaitForTheThread {
public:
    WaitForTheThread() : mScope(fault_pthread_cond_wait) {
        fault_pthread_cond_wait.Replace(
            [this](pthread_cond_t* condition, pthread_mutex_t* mutex) {
                mHasBegun = true;
                return fault_pthread_cond_wait.Real(condition, mutex);
            },
            ALWAYS);
    }

    bool WaitUntilBegun() {
        return WaitUntil([this] { return mHasBegun.load(); });
    }

private:
    std::atomic<bool> mHasBegun{false};
    FaultScope<int(pthread_cond_t*, pthread_mutex_t*)> mScope;
};

/// Runs `Stop` where it may wait, and shows whether it does. The thread has been told to end.
class StoppingThread {
public:
    explicit StoppingThread(ShortPeriodTimer& timer)
        : mStatus(std::async(std::launch::async, [&timer] { return timer.Stop(); })) {
        EXPECT_TRUE(mWait.WaitUntilBegun());
    }

    bool IsWaiting(milliseconds limit = milliseconds(0)) {
        return mStatus.wait_for(limit) == std::future_status::timeout;
    }
    StatusCode Get() { return mStatus.get(); }

private:
    WaitForTheThread mWait;
    std::future<StatusCode> mStatus;
};

/// Counts how often the timer's thread has gone to wait for an expiry: it sees only after the next one that
/// it was told to end.
class WaitsForExpiry {
public:
    explicit WaitsForExpiry(std::function<void(int)> atWait = [](int) {}) : mScope(fault_sigwait) {
        fault_sigwait.Replace(
            [this, atWait = std::move(atWait)](const sigset_t* set, int* signal) {
                atWait(++mCount);
                return fault_sigwait.Real(set, signal);
            },
            ALWAYS);
    }

    bool WaitUntilCount(int count) {
        return WaitUntil([this, count] { return mCount >= count; });
    }
    int Get() const { return mCount; }

private:
    std::atomic<int> mCount{0};
    FaultScope<int(const sigset_t*, int*)> mScope;
};

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

TEST(ShortPeriodTimer, DestructorDetachesTheThreadAndDoesNotStopIt) {
    const ChildResult child = RunInChild([] {
        const auto threadId = std::make_shared<std::atomic<int>>(0);
        {
            ShortPeriodTimer timer(1, true, [threadId] { *threadId = gettid(); });
            timer.Start();
            if (!WaitUntil([&] { return *threadId != 0; })) {
                return 1;
            }
        }
        if (!TakesSignals(*threadId)) {
            return 2;
        }
        return threadId.use_count() > 1 ? 0 : 3;  // the thread keeps its callback
    });
    EXPECT_EQ(child.exitCode, 0) << child.error;
    EXPECT_THAT(child.log, Not(Contains(EXIT)));
    EXPECT_THAT(child.log, Not(Contains(STOPPING)));
}

TEST(ShortPeriodTimer, CallbackMayDestroyItsTimerAndIsNotCalledAgain) {
    const ChildResult child = RunInChild([] {
        struct Shared {
            std::unique_ptr<ShortPeriodTimer> timer;
            std::atomic<int> calls{0};
            std::atomic<int> threadId{0};
        };
        const auto shared = std::make_shared<Shared>();
        shared->timer = std::make_unique<ShortPeriodTimer>(1, true, [shared] {
            ++shared->calls;
            // The next expiry is on its way already.
            WaitUntil([] { return HasPendingSignal(gettid()); });
            shared->timer.reset();
            shared->threadId = gettid();
        });
        shared->timer.get()->Start();
        if (!WaitUntil([&] { return shared->threadId != 0; })) {
            return 1;
        }
        if (!TakesSignals(shared->threadId)) {
            return 2;
        }
        return shared->calls == 1 ? 0 : 3;
    });
    EXPECT_EQ(child.exitCode, 0) << child.error;
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

TEST(ShortPeriodTimer, ConfigureSigSetBlocksThatSignalAlone) {
    std::thread([] {
        sigset_t before;
        pthread_sigmask(SIG_BLOCK, nullptr, &before);
        sigset_t set;
        sigfillset(&set);
        EXPECT_EQ(ShortPeriodTimer::ConfigureSigSet(&set, SIGRTMIN + 1), StatusCode::Ok);
        sigset_t after;
        pthread_sigmask(SIG_BLOCK, nullptr, &after);
        for (int signo = 1; signo <= SIGRTMAX; ++signo) {
            EXPECT_EQ(sigismember(&set, signo) == 1, signo == SIGRTMIN + 1) << signo;
            EXPECT_EQ(sigismember(&after, signo) == 1,
                      signo == SIGRTMIN + 1 || sigismember(&before, signo) == 1)
                << signo;
        }
    }).join();
}

TEST(ShortPeriodTimer, ConfigureSigSetFailsWithItsSteps) {
    const LogCapture log;
    sigset_t set;
    EXPECT_EQ(ShortPeriodTimer::ConfigureSigSet(&set, 0), StatusCode::Failure);
    EXPECT_EQ(ShortPeriodTimer::ConfigureSigSet(&set, 1000), StatusCode::Failure);
    FaultScope scope(fault_sigprocmask);
    fault_sigprocmask.Fail(-1, EINVAL);
    EXPECT_EQ(ShortPeriodTimer::ConfigureSigSet(&set, SIGRTMIN), StatusCode::Failure);
    EXPECT_THAT(log.Entries(), IsEmpty());
}

/// The thread's body on a thread of the test's own.
class ThreadMain : public testing::Test {
protected:
    void Run(const std::function<void()>& callback, int signo = SIGRTMIN) {
        mThread = std::thread([this, callback, signo] {
            try {
                ShortPeriodTimer::ThreadMain(mStartUp, mThreadId, mRunning, callback, signo);
            } catch (const std::bad_function_call&) {
                mEmptyCallback = true;
            }
        });
        mStatus = mStartUp.get_future().get();
    }
    void ClearRunning() { std::atomic_ref(mRunning).store(false); }

    LogCapture mLog;
    std::promise<StatusCode> mStartUp;
    int mThreadId = 0;
    bool mRunning = true;
    bool mEmptyCallback = false;
    StatusCode mStatus = StatusCode::Busy;
    std::thread mThread;
};

TEST_F(ThreadMain, CallsBackAtEachSignalUntilTold) {
    std::atomic<int> calls{0};
    Run([&] { ++calls; });
    EXPECT_EQ(mStatus, StatusCode::Ok);
    for (int i = 1; i <= 3; ++i) {
        Signal(mThreadId, SIGRTMIN);
        ASSERT_TRUE(WaitUntil([&] { return calls == i; }));
    }
    ClearRunning();
    Signal(mThreadId, SIGRTMIN);
    mThread.join();
    EXPECT_EQ(calls, 4) << "it calls back one last time, then sees the flag";
    EXPECT_THAT(mLog.Entries(), ElementsAre(StartOf(mThreadId), EXIT));
}

TEST_F(ThreadMain, LeavesAtOnceWhenNotRunning) {
    mRunning = false;
    Run([] { ADD_FAILURE(); });
    EXPECT_EQ(mStatus, StatusCode::Ok);
    mThread.join();
    EXPECT_THAT(mLog.Entries(), ElementsAre(StartOf(mThreadId), EXIT));
}

TEST_F(ThreadMain, ReportsThatTheSignalCouldNotBeBlocked) {
    Run([] { ADD_FAILURE(); }, 1000);
    EXPECT_EQ(mStatus, StatusCode::Failure);
    mThread.join();
    EXPECT_THAT(mLog.Entries(), ElementsAre(StartOf(mThreadId), Info(LOGGER, "Exit timer thread, status=1")));
}

TEST_F(ThreadMain, EmptyCallbackRaises) {
    Run(nullptr);
    Signal(mThreadId, SIGRTMIN);
    mThread.join();
    EXPECT_TRUE(mEmptyCallback);
    EXPECT_THAT(mLog.Entries(), ElementsAre(StartOf(mThreadId)));
}

TEST_F(ThreadMain, FailedWaitIsWaitedAgain) {
    FaultScope scope(fault_sigwait);
    fault_sigwait.Fail(EINVAL, 0, 2);
    std::atomic<int> calls{0};
    Run([&] {
        ++calls;
        ClearRunning();
    });
    Signal(mThreadId, SIGRTMIN);
    mThread.join();
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(fault_sigwait.Calls(), 3);
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
    // The thread ends by itself and takes the signal's default action, which ends the process: once Stop sent
    // it the signal to wake it.
    FaultScope kill(fault_pthread_kill);
    fault_pthread_kill.Fail(0);
    EXPECT_EQ(timer.Stop(), StatusCode::Failure);
    EXPECT_EQ(fault_pthread_kill.Calls(), 0);
    EXPECT_THAT(log.Entries(), ElementsAre(STOPPING, NOT_INITIALIZED));
    fault_pthread_kill.Reset();
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

TEST(ShortPeriodTimer, CallbackMayStopItsTimer) {
    LogCapture log;
    for (const bool periodic : {true, false}) {
        std::promise<StatusCode> stopped;
        std::atomic<int> calls{0};
        std::unique_ptr<ShortPeriodTimer> timer;
        timer = std::make_unique<ShortPeriodTimer>(1, periodic, [&] {
            ++calls;
            stopped.set_value(timer->Stop());
        });
        log.Clear();
        timer->Start();
        EXPECT_EQ(stopped.get_future().get(), StatusCode::Ok);
        EXPECT_TRUE(log.WaitFor(EXIT)) << "and the thread ends";
        EXPECT_EQ(calls, 1);
        EXPECT_EQ(timer->Stop(), StatusCode::Failure) << "there is nothing left to stop";
        EXPECT_EQ(log.Entries().back(), NOT_INITIALIZED);
    }
}

TEST(ShortPeriodTimer, CallbackMayRestartItsTimer) {
    const LogCapture log;
    std::atomic<int> calls{0};
    std::unique_ptr<ShortPeriodTimer> timer;
    std::atomic<int> failures{0};
    timer = std::make_unique<ShortPeriodTimer>(1, true, [&] {
        if (++calls <= 3) {
            failures += timer->Stop() != StatusCode::Ok;
            failures += timer->Start() != StatusCode::Ok;
        }
    });
    timer->Start();
    EXPECT_TRUE(WaitUntil([&] { return calls >= 6; }));
    EXPECT_EQ(timer->Stop(), StatusCode::Ok);
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(log.Count(CREATE), 1U) << "the thread stays";
    EXPECT_EQ(log.Count(EXIT), 1U);
}

TEST(ShortPeriodTimer, RestartedTimerCountsFromTheRestart) {
    const LogCapture log;
    std::atomic<bool> sawPending{false};
    std::atomic<int> threadId{0};
    WaitsForExpiry waits([&](int count) {
        if (count == 2) {
            sawPending = HasPendingSignal(gettid());
        }
    });
    FaultScope setTime(fault_timer_settime);
    std::unique_ptr<ShortPeriodTimer> timer;
    timer = std::make_unique<ShortPeriodTimer>(1, true, [&] {
        if (threadId == 0) {
            threadId = gettid();
            EXPECT_TRUE(WaitUntil([] { return HasPendingSignal(gettid()); })) << "the next expiry";
            EXPECT_EQ(timer->Stop(), StatusCode::Ok);
            // The restarted timer has been set, and will not expire.
            fault_timer_settime.Fail(0);
            EXPECT_EQ(timer->Start(), StatusCode::Ok);
        }
    });
    EXPECT_EQ(timer->Start(), StatusCode::Ok);
    ASSERT_TRUE(waits.WaitUntilCount(2));
    StoppingThread stop(*timer);
    EXPECT_TRUE(stop.IsWaiting());
    Signal(threadId, SIGRTMIN);
    EXPECT_EQ(stop.Get(), StatusCode::Ok);
    EXPECT_FALSE(sawPending) << "an expiry of the timer that was stopped";
    EXPECT_EQ(waits.Get(), 2);
}

TEST(ShortPeriodTimer, OwnerStopsWhatTheCallbackStops) {
    for (int round = 0; round < ROUNDS; ++round) {
        const LogCapture log(0);
        std::unique_ptr<ShortPeriodTimer> timer;
        std::atomic<int> succeeded{0};
        timer = std::make_unique<ShortPeriodTimer>(1, true,
                                                   [&] { succeeded += timer->Stop() == StatusCode::Ok; });
        timer->Start();
        succeeded += timer->Stop() == StatusCode::Ok;
        EXPECT_EQ(succeeded, 1);
    }
}

// Stop once joined a thread object that the callback's Start was replacing: memory was written after it was
// freed, and a thread stayed behind.
TEST(ShortPeriodTimer, StopWinsOverACallbackThatArmsItsTimerAnew) {
    const LogCapture log;
    std::promise<void> entered;
    std::atomic<int> calls{0};
    std::atomic<StatusCode> started{StatusCode::Busy};
    std::unique_ptr<ShortPeriodTimer> timer;
    timer = std::make_unique<ShortPeriodTimer>(1, false, [&] {
        if (++calls == 1) {
            entered.set_value();
            // Written with the lock held, which Stop lets go only to wait: this Start comes behind.
            EXPECT_TRUE(log.WaitFor(STOPPING));
            started = timer->Start();
        } else {
            timer->Stop();
        }
    });
    EXPECT_EQ(timer->Start(), StatusCode::Ok);
    entered.get_future().get();
    EXPECT_EQ(timer->Stop(), StatusCode::Ok);
    EXPECT_EQ(started, StatusCode::Stopping);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(log.Count(CREATE), 1U);
    EXPECT_EQ(log.Count(EXIT), 1U);

    EXPECT_EQ(timer->Start(), StatusCode::Ok) << "Stop is over";
    EXPECT_TRUE(WaitUntil([&] { return log.Count(EXIT) == 2; }));
    EXPECT_EQ(calls, 2);
}

TEST(ShortPeriodTimer, StopEndsATimerThatArmsItselfAnew) {
    for (int round = 0; round < ROUNDS; ++round) {
        const LogCapture log(0);
        std::unique_ptr<ShortPeriodTimer> timer;
        std::atomic<int> calls{0};
        timer = std::make_unique<ShortPeriodTimer>(1, false, [&] {
            ++calls;
            timer->Start();
        });
        ASSERT_EQ(timer->Start(), StatusCode::Ok);
        ASSERT_TRUE(WaitUntil([&] { return calls > 0; }));
        ASSERT_EQ(timer->Stop(), StatusCode::Ok);
    }
}

// Both once made a thread, and the second one ended the process.
TEST(ShortPeriodTimer, OwnerStartsWhatTheCallbackRestarts) {
    const LogCapture log;
    WaitForTheThread wait;
    std::promise<void> stopped;
    std::atomic<int> calls{0};
    std::atomic<int> failures{0};
    std::unique_ptr<ShortPeriodTimer> timer;
    timer = std::make_unique<ShortPeriodTimer>(1, true, [&] {
        if (++calls == 1) {
            failures += timer->Stop() != StatusCode::Ok;
            stopped.set_value();
            EXPECT_TRUE(wait.WaitUntilBegun());
            failures += timer->Start() != StatusCode::Ok;
        }
    });
    EXPECT_EQ(timer->Start(), StatusCode::Ok);
    stopped.get_future().get();
    EXPECT_EQ(timer->Start(), StatusCode::Ok);
    EXPECT_TRUE(WaitUntil([&] { return calls > 2; }));
    EXPECT_EQ(timer->Stop(), StatusCode::Ok);
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(log.Count(CREATE), log.Count(EXIT));
}

TEST(ShortPeriodTimer, OwnerStartsWhatTheCallbackStopped) {
    const LogCapture log;
    WaitForTheThread wait;
    std::promise<void> stopped;
    std::atomic<int> calls{0};
    std::unique_ptr<ShortPeriodTimer> timer;
    timer = std::make_unique<ShortPeriodTimer>(1, true, [&] {
        if (++calls == 1) {
            EXPECT_EQ(timer->Stop(), StatusCode::Ok);
            stopped.set_value();
            EXPECT_TRUE(wait.WaitUntilBegun());
        }
    });
    EXPECT_EQ(timer->Start(), StatusCode::Ok);
    stopped.get_future().get();
    EXPECT_EQ(timer->Start(), StatusCode::Ok);
    EXPECT_EQ(log.Count(EXIT), 1U) << "the first thread has ended";
    EXPECT_TRUE(WaitUntil([&] { return calls > 2; }));
    EXPECT_EQ(timer->Stop(), StatusCode::Ok);
    EXPECT_EQ(log.Count(CREATE), 2U);
    EXPECT_EQ(log.Count(EXIT), 2U);
}

// Stop once joined the thread that was being detached, or threw std::system_error when it came second.
TEST(ShortPeriodTimer, CallbackMayDestroyWhatTheOwnerStops) {
    FaultScope join(fault_pthread_join);
    for (int round = 0; round < ROUNDS / 10; ++round) {
        const LogCapture log;
        std::promise<void> entered;
        std::unique_ptr<ShortPeriodTimer> timer;
        timer = std::make_unique<ShortPeriodTimer>(1, false, [&] {
            entered.set_value();
            EXPECT_TRUE(log.WaitFor(STOPPING));
            timer.reset();
        });
        EXPECT_EQ(timer->Start(), StatusCode::Ok);
        entered.get_future().get();
        fault_pthread_join.Replace({}, 0);
        EXPECT_EQ(timer->Stop(), StatusCode::Failure) << "there is no timer left";
        EXPECT_EQ(fault_pthread_join.Calls(), 0);
        EXPECT_EQ(log.Count(EXIT), 1U);
        EXPECT_EQ(log.Entries().back(), NOT_INITIALIZED);
    }
}

TEST(ShortPeriodTimer, CallbackMayDestroyWhatTheOwnerStarts) {
    LogCapture log;
    WaitForTheThread wait;
    std::promise<void> stopped;
    std::unique_ptr<ShortPeriodTimer> timer;
    timer = std::make_unique<ShortPeriodTimer>(1, true, [&] {
        EXPECT_EQ(timer->Stop(), StatusCode::Ok);
        stopped.set_value();
        EXPECT_TRUE(wait.WaitUntilBegun());
        timer.reset();
    });
    EXPECT_EQ(timer->Start(), StatusCode::Ok);
    stopped.get_future().get();
    EXPECT_EQ(timer->Start(), StatusCode::Stopping);
    EXPECT_TRUE(log.WaitFor(EXIT));
    EXPECT_EQ(log.Count(CREATE), 1U);
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
