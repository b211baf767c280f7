#pragma once

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <tern/timer/short_period_timer.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <future>
#include <limits>
#include <string>

#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/wait_until.h"

// What the tests of the short period timer share. Include it in the test program's one source.

#ifndef sigev_notify_thread_id
#define sigev_notify_thread_id _sigev_un._tid
#endif

TERN_INTERPOSE(int, sigwait, (const sigset_t* set, int* signal), (set, signal))
TERN_INTERPOSE(int, pthread_cond_wait, (pthread_cond_t * condition, pthread_mutex_t* mutex),
               (condition, mutex))

namespace tern::test {

constexpr int ALWAYS = std::numeric_limits<int>::max();
constexpr unsigned int NEVER_MS = 3600 * 1000;
inline const std::string LOGGER = "Timer::ShortPeriodTimer";

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int ROUNDS = 50;
#else
constexpr int ROUNDS = 500;
#endif

inline LogEntry StartOf(int threadId) {
    return Info(LOGGER, "Start timer thread (OS thread id " + std::to_string(threadId) + ")");
}

inline const LogEntry CREATE = Info(LOGGER, "Create timer thread");
inline const LogEntry STARTED = Info(LOGGER, "Timer thread started");
inline const LogEntry EXIT = Info(LOGGER, "Exit timer thread, status=0");
inline const LogEntry STOPPING = Trace(LOGGER, "Stopping timer thread");
inline const LogEntry NOT_INITIALIZED = Error(LOGGER, "ShortPeriodTimer ID is not initialized");

inline void Signal(int threadId, int signo) {
    ASSERT_EQ(syscall(SYS_tgkill, getpid(), threadId, signo), 0);
}

/// Whether a signal sent to the thread still waits to be taken.
inline bool HasPendingSignal(int threadId) {
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
inline bool TakesSignals(int threadId) {
    for (int i = 0; i < 2; ++i) {
        if (!WaitUntil([&] { return !HasPendingSignal(threadId); }) ||
            syscall(SYS_tgkill, getpid(), threadId, SIGRTMIN) != 0) {
            return false;
        }
    }
    return WaitUntil([&] { return !HasPendingSignal(threadId); }) &&
           syscall(SYS_tgkill, getpid(), threadId, 0) == 0;
}

/// Shows when an operation of the timer, called on the thread that made this, begins to wait for the timer's
/// thread. An operation that is called after that comes behind it: the lock is let go there.
class WaitForTheThread {
public:
    WaitForTheThread() : mScope(fault_pthread_cond_wait) {
        fault_pthread_cond_wait.Replace(
            [this](pthread_cond_t* condition, pthread_mutex_t* mutex) {
                if (gettid() == mCaller) {
                    mHasBegun = true;
                }
                return fault_pthread_cond_wait.Real(condition, mutex);
            },
            ALWAYS);
    }

    /// The operation will be called on this thread instead.
    void ExpectHere() { mCaller = gettid(); }
    bool HasBegun() const { return mHasBegun; }
    bool WaitUntilBegun() const {
        return WaitUntil([this] { return HasBegun(); });
    }

private:
    std::atomic<int> mCaller{gettid()};
    std::atomic<bool> mHasBegun{false};
    FaultScope<int(pthread_cond_t*, pthread_mutex_t*)> mScope;
};

/// Runs `Stop` where it may wait, and shows whether it does. The thread has been told to end.
class StoppingThread {
public:
    explicit StoppingThread(mwl::Timer::ShortPeriodTimer& timer)
        : mStatus(std::async(std::launch::async, [this, &timer] {
              mWait.ExpectHere();
              return timer.Stop();
          })) {
        EXPECT_TRUE(mWait.WaitUntilBegun());
    }

    bool IsWaiting(std::chrono::milliseconds limit = std::chrono::milliseconds(0)) {
        return mStatus.wait_for(limit) == std::future_status::timeout;
    }
    mwl::StatusCode Get() { return mStatus.get(); }

private:
    WaitForTheThread mWait;
    std::future<mwl::StatusCode> mStatus;
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

}  // namespace tern::test
