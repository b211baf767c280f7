#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <tern/timer/short_period_timer.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <utility>

#include "short_period_timer_parts.h"
#include "support/before_lock.h"
#include "support/child.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/wait_until.h"

TERN_INTERPOSE(int, timer_create, (clockid_t clock, sigevent* notification, timer_t* id),
               (clock, notification, id))
TERN_INTERPOSE_TIME(int, timer_settime, __timer_settime64,
                    (timer_t id, int flags, const itimerspec* time, itimerspec* former),
                    (id, flags, time, former))
TERN_INTERPOSE(int, timer_delete, (timer_t id), (id))
TERN_INTERPOSE(int, pthread_join, (pthread_t thread, void** result), (thread, result))

namespace {

using namespace tern::test;
using mwl::StatusCode;
using mwl::Timer::ShortPeriodTimer;
using testing::Contains;
using testing::Not;

// Children first: no other thread must exist when a child is made.

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

/// A timer whose callback destroys it while its owner is in an operation: when that is about to lock a mutex
/// for the `lock`-th time, or waits, or else has returned.
class DestroyedInAnOperation {
public:
    using Operation = std::function<StatusCode(ShortPeriodTimer&)>;

    /// `prepare` is what the callback does before the operation begins.
    DestroyedInAnOperation(const Operation& prepare, const Operation& operation, int lock) {
        fault_timer_create.Replace(
            [this](clockid_t clock, sigevent* notification, timer_t* id) {
                const int result = fault_timer_create.Real(clock, notification, id);
                mTimers += result == 0;
                return result;
            },
            ALWAYS);
        fault_timer_delete.Replace(
            [this](timer_t id) {
                --mTimers;
                return fault_timer_delete.Real(id);
            },
            ALWAYS);
        // All that the callback uses is its own: the thread stays, and keeps it.
        const auto shared = std::make_shared<Shared>();
        shared->timer = std::make_unique<ShortPeriodTimer>(1, true, [shared, prepare] {
            if (++shared->calls > 1) {
                return;
            }
            prepare(*shared->timer);
            shared->entered.set_value();
            EXPECT_TRUE(WaitUntil([&] { return shared->mayDestroy.load(); }));
            shared->timer.reset();
            shared->isDestroyed = true;
        });
        ShortPeriodTimer& timer = *shared->timer;
        EXPECT_EQ(timer.Start(), StatusCode::Ok);
        shared->entered.get_future().get();

        std::future<StatusCode> status = std::async(std::launch::async, [&] {
            mWait.ExpectHere();
            const BeforeLock before(lock, [&] {
                shared->mayDestroy = true;
                // Not when the lock that it needs is held here.
                WaitUntil([&] { return shared->isDestroyed.load(); }, std::chrono::milliseconds(20));
            });
            const StatusCode result = operation(timer);
            mWasMet = before.WasMet();
            return result;
        });
        EXPECT_TRUE(WaitUntil([&] {
            return mWait.HasBegun() || status.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
        }));
        shared->mayDestroy = true;
        EXPECT_TRUE(WaitUntil([&] { return shared->isDestroyed.load(); }));
        if (status.wait_for(GENEROUS_LIMIT) == std::future_status::timeout) {
            fputs("the operation does not return\n", stderr);
            abort();
        }
        mStatus = status.get();
        mCalls = shared->calls;
    }

    bool WasMet() const { return mWasMet; }
    StatusCode Status() const { return mStatus; }
    /// POSIX timers that exist.
    int Timers() const { return mTimers; }
    int Calls() const { return mCalls; }

private:
    struct Shared {
        std::unique_ptr<ShortPeriodTimer> timer;
        std::atomic<int> calls{0};
        std::promise<void> entered;
        std::atomic<bool> mayDestroy{false};
        std::atomic<bool> isDestroyed{false};
    };

    FaultScope<int(clockid_t, sigevent*, timer_t*)> mCreate{fault_timer_create};
    FaultScope<int(timer_t)> mDelete{fault_timer_delete};
    WaitForTheThread mWait;
    std::atomic<int> mTimers{0};
    bool mWasMet = false;
    StatusCode mStatus = StatusCode::Busy;
    int mCalls = 0;
};

// Start made and armed a timer that nobody would ever delete, and returned Ok; Stop signalled a thread that
// it did not own any more, which crashed, or waited for one that nothing would wake.
TEST(ShortPeriodTimer, CallbackMayDestroyItAnywhereInAnOperationOfItsOwner) {
    const LogCapture log;
    using Operation = DestroyedInAnOperation::Operation;
    const std::pair<const char*, Operation> preparations[] = {
        {"nothing", [](ShortPeriodTimer&) { return StatusCode::Ok; }},
        {"Stop", [](ShortPeriodTimer& timer) { return timer.Stop(); }},
        {"Stop and Start",
         [](ShortPeriodTimer& timer) {
             timer.Stop();
             return timer.Start();
         }},
        {"Stop and CreateThread",
         [](ShortPeriodTimer& timer) {
             timer.Stop();
             return timer.CreateThread();
         }},
    };
    const std::pair<const char*, Operation> operations[] = {
        {"Start", [](ShortPeriodTimer& timer) { return timer.Start(); }},
        {"CreateThread", [](ShortPeriodTimer& timer) { return timer.CreateThread(); }},
        {"CreateTimer", [](ShortPeriodTimer& timer) { return timer.CreateTimer(); }},
        {"SetTimerTime", [](ShortPeriodTimer& timer) { return timer.SetTimerTime(); }},
        {"Stop", [](ShortPeriodTimer& timer) { return timer.Stop(); }},
        {"StopThread",
         [](ShortPeriodTimer& timer) {
             timer.StopThread();
             return StatusCode::Ok;
         }},
    };
    int met = 0;
    for (const auto& [prepared, prepare] : preparations) {
        for (const auto& [name, operation] : operations) {
            bool wasMet = true;
            for (int lock = 1; wasMet; ++lock) {
                SCOPED_TRACE(std::string(name) + ", lock " + std::to_string(lock) + ", callback did " +
                             prepared);
                const DestroyedInAnOperation round(prepare, operation, lock);
                wasMet = round.WasMet();
                met += wasMet;
                EXPECT_EQ(round.Timers(), 0) << "none is left behind";
                EXPECT_EQ(round.Calls(), 1) << "no callback after the timer was destroyed";
                if (lock == 1 && std::string(name) == "Start") {
                    EXPECT_EQ(round.Status(), StatusCode::Stopping);
                }
            }
        }
    }
    EXPECT_GT(met, 24) << "each operation locks at least once";
}

}  // namespace
