// What expiries do: callbacks, and expiries that the system drops or that are too many.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "foundation/told.h"
#include "timer/timer_fixture.h"

namespace {

using namespace tern::test::timers;
using mwl::Tell::Event;

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

// The next expiry was expected an interval after the announcement of this one: when it was announced sooner
// it did not count, and two seconds later the guard served it once more.
TEST_F(FakeTimers, PeriodicExpiryThatIsAnnouncedLateDelaysNoLaterOne) {
    using Clock = std::chrono::steady_clock;
    constexpr milliseconds PERIOD(200 * SLOWNESS);
    const tern::test::Told told;
    Timer timer(static_cast<unsigned int>(PERIOD.count()), true, [] {});
    const Clock::time_point before = Clock::now();
    ASSERT_EQ(timer.Start(), StatusCode::Ok);
    const Clock::time_point after = Clock::now();
    std::this_thread::sleep_until(after + PERIOD + PERIOD / 2);
    Expire(mNotification);
    ASSERT_LT(Clock::now(), before + 2 * PERIOD) << "the machine is too slow for this test";
    std::this_thread::sleep_until(after + 2 * PERIOD);
    const Clock::time_point second = Clock::now();
    Expire(mNotification);
    const Clock::time_point end = Clock::now();
    timer.Stop();

    const auto late = tern::test::Told::Of(Event::TimerBegan);
    ASSERT_EQ(late.size(), 2U);
    EXPECT_GE(std::chrono::nanoseconds(late[0].value), PERIOD / 2);
    EXPECT_GE(std::chrono::nanoseconds(late[1].value), second - (after + 2 * PERIOD));
    EXPECT_GT(late[1].value, 0U) << "it is the expiry that was due";
    EXPECT_LE(std::chrono::nanoseconds(late[1].value), end - (before + 2 * PERIOD));
    EXPECT_THAT(mLog.Entries(), IsEmpty());
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

}  // namespace
