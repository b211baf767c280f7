#include "threading/threads_watcher_fixture.h"

#include <optional>

#include "threading/thread_state.h"

namespace mwl::Threading::Tests {
namespace {

using tern::test::OtherThread;

TEST_F(ThreadsWatcherTest, IsIdleAtFirst) {
    EXPECT_THAT(mLog.Entries(), IsEmpty());
    EXPECT_EQ(mWatcher.GetThreadId(), 0UL);
    EXPECT_EQ(mMonitor.added, 0);
}

TEST_F(ThreadsWatcherTest, NullIsIgnored) {
    mWatcher.Register(nullptr);
    EXPECT_THAT(mLog.Entries(), IsEmpty());
    EXPECT_EQ(mMonitor.added, 0);
    // The next one is the first still.
    mPump.StartWatch(hours(1));
    EXPECT_TRUE(mLog.WaitFor(STARTED));
    mWatcher.Unregister(nullptr);
    EXPECT_FALSE(mLog.Contains(Notice(LOGGER, "Stop watch pump")));
}

TEST_F(ThreadsWatcherTest, FirstRegistrationStartsTheWatchAndTheLastToLeaveEndsIt) {
    mPump.StartWatch(hours(1));
    ASSERT_TRUE(mLog.WaitFor(STARTED));
    mPump.StopWatch();
    ASSERT_TRUE(mLog.WaitFor(STOPPED));
    EXPECT_THAT(mLog.Entries(),
                ElementsAre(StartOf("pump", "3600000"), STARTED, Notice(LOGGER, "Stop watch pump"), STOPPED));
    EXPECT_EQ(mMonitor.added, 1);
}

TEST_F(ThreadsWatcherTest, WatchGoesOnUntilTheLastHasLeft) {
    mPump.StartWatch(milliseconds(1));
    mFan.StartWatch(milliseconds(1));
    mPump.StopWatch();
    MovedClock::ForgetWaits();
    EXPECT_TRUE(HasWaited(2));
    mFan.StopWatch();
    EXPECT_TRUE(mLog.WaitFor(STOPPED));
    EXPECT_EQ(mLog.Count(STARTED), 1U);
}

TEST_F(ThreadsWatcherTest, RegistrationAfterTheLastLeftStartsANewWatch) {
    for (unsigned int i = 1; i <= 3; ++i) {
        mPump.StartWatch(hours(1));
        mPump.StopWatch();
        EXPECT_TRUE(WaitUntil([&] { return mLog.Count(STOPPED) == i; }));
        EXPECT_EQ(mLog.Count(STARTED), i);
    }
}

TEST_F(ThreadsWatcherTest, ShortestPeriodCountsAndStays) {
    mPump.StartWatch(milliseconds(60000));
    ASSERT_TRUE(HasWaited(1));
    mFan.StartWatch(milliseconds(200));  // at once, not after the minute
    ASSERT_TRUE(HasWaited(2));
    mFan.StopWatch();
    MovedClock::ForgetWaits();
    ASSERT_TRUE(HasWaited(1));
    EXPECT_EQ(MovedClock::Waits()[0], 200);
    mFan.StartWatch(milliseconds(30000));  // a longer one changes nothing
    MovedClock::ForgetWaits();
    ASSERT_TRUE(HasWaited(1));
    EXPECT_EQ(MovedClock::Waits()[0], 200);
    mFan.StopWatch();
    mPump.StopWatch();
}

TEST_F(ThreadsWatcherTest, WaitsOnePeriodBetweenLooks) {
    mPump.StartWatch(milliseconds(5000));
    ASSERT_TRUE(HasWaited(1));
    mFan.StartWatch(milliseconds(2000));
    ASSERT_TRUE(HasWaited(2));
    EXPECT_THAT(MovedClock::Waits(), ElementsAre(5000, 2000));
    mFan.StopWatch();
    mPump.StopWatch();
}

TEST_F(ThreadsWatcherTest, PeriodMayGrowAfterEveryoneHasLeft) {
    mPump.StartWatch(milliseconds(200));
    mPump.StopWatch();
    ASSERT_TRUE(mLog.WaitFor(STOPPED));
    MovedClock::ForgetWaits();
    mPump.StartWatch(milliseconds(7000));
    ASSERT_TRUE(HasWaited(1));
    EXPECT_THAT(MovedClock::Waits(), ElementsAre(7000));
    mPump.StopWatch();
}

TEST_F(ThreadsWatcherTest, PeriodBeyondAnIntIsClamped) {
    mPump.StartWatch(milliseconds(std::numeric_limits<std::int64_t>::max()));
    ASSERT_TRUE(HasWaited(1));
    EXPECT_THAT(MovedClock::Waits(), ElementsAre(INT_MAX));
    mPump.StopWatch();
}

TEST_F(ThreadsWatcherTest, ThreadThatIsWatchedMayStartAnew) {
    mPump.StartWatch(hours(1));
    ASSERT_TRUE(HasWaited(1));
    mPump.StartWatch(milliseconds(300));
    ASSERT_TRUE(HasWaited(2));
    EXPECT_THAT(MovedClock::Waits(), ElementsAre(3600000, 300));
    mPump.StopWatch();
    EXPECT_TRUE(mLog.WaitFor(STOPPED));
    EXPECT_THAT(mLog.Entries(), ElementsAre(StartOf("pump", "3600000"), STARTED, StartOf("pump", "300"),
                                            Notice(LOGGER, "Stop watch pump"), STOPPED));
}

TEST_F(ThreadsWatcherTest, UnregisteringAStrangerFromAnEmptySetStopsTheWatch) {
    mWatcher.Start();
    ASSERT_TRUE(mLog.WaitFor(STARTED));
    mWatcher.Unregister(&mPump);
    EXPECT_TRUE(mLog.WaitFor(STOPPED));
    EXPECT_FALSE(mLog.Contains(Notice(LOGGER, "Stop watch pump")));
}

TEST_F(ThreadsWatcherTest, StopWakesTheWatchAtOnceAndIsRepeatable) {
    mWatcher.Stop();
    mPump.StartWatch(hours(24));
    ASSERT_TRUE(HasWaited(1));
    mWatcher.Stop();
    mWatcher.Stop();
    EXPECT_TRUE(mLog.WaitFor(STOPPED));
    mPump.StopWatch();
}

// Somebody else's Stop, a pool's for instance, stops the watch for all.
TEST_F(ThreadsWatcherTest, AfterStopTheWatchComesBackWhenAllHaveLeft) {
    mPump.StartWatch(hours(1));
    mWatcher.Stop();
    ASSERT_TRUE(mLog.WaitFor(STOPPED));
    mFan.StartWatch(hours(1));
    mFan.StopWatch();
    mPump.StopWatch();
    EXPECT_EQ(mLog.Count(STARTED), 1U);
    mFan.StartWatch(hours(1));
    EXPECT_TRUE(WaitUntil([&] { return mLog.Count(STARTED) == 2; }));
    mFan.StopWatch();
}

TEST_F(ThreadsWatcherTest, StopEndsEveryWatchThatWasStarted) {
    mWatcher.Start();
    mWatcher.Start();
    ASSERT_TRUE(WaitUntil([&] { return mLog.Count(STARTED) == 2; }));
    mWatcher.Stop();
    EXPECT_TRUE(WaitUntil([&] { return mLog.Count(STOPPED) == 2; }));
}

TEST_F(ThreadsWatcherTest, DirectTaskWatchReturnsWhileTheWatchIsStopped) {
    mWatcher.TaskWatch();
    EXPECT_THAT(mLog.Entries(), ElementsAre(STARTED, STOPPED));
    EXPECT_EQ(mMonitor.added, 1);
}

TEST_F(ThreadsWatcherTest, DirectTaskWatchRunsUntilTheNextStop) {
    mPump.StartWatch(hours(1));
    std::thread own([&] { mWatcher.TaskWatch(); });
    ASSERT_TRUE(WaitUntil([&] { return mLog.Count(STARTED) == 2; }));
    EXPECT_EQ(mLog.Count(STOPPED), 0U);
    mWatcher.Stop();
    own.join();
    EXPECT_TRUE(WaitUntil([&] { return mLog.Count(STOPPED) == 2; }));
    mPump.StopWatch();
}

TEST_F(ThreadsWatcherTest, RefusedThreadOfTheWatchLeavesTheThreadUnwatched) {
    const std::size_t threads = CountThreads();
    FaultScope scope(fault_pthread_create);
    for (const int created : {0, 1}) {
        fault_pthread_create.Fail(EAGAIN, 0, 1, created);
        EXPECT_THROW(mPump.StartWatch(hours(1)), std::system_error);
        EXPECT_EQ(fault_pthread_create.Calls(), created + 1);
        EXPECT_EQ(mPump.GetThreadId(), 0UL);
        EXPECT_TRUE(WaitUntil([&] { return CountThreads() <= threads; }));
    }
    EXPECT_EQ(mLog.Count(STARTED), 0U);
    mWatcher.TaskWatch();  // not running: returns
    EXPECT_EQ(mLog.Count(STOPPED), 1U);
    // The next one is the first still, and starts the watch.
    mFan.StartWatch(hours(1));
    EXPECT_TRUE(WaitUntil([&] { return mLog.Count(STARTED) == 2; }));
    mFan.StopWatch();
    EXPECT_TRUE(WaitUntil([&] { return mLog.Count(STOPPED) == 2; }));
}

TEST_F(ThreadsWatcherTest, RefusedStartLeavesTheRunningWatchAlone) {
    mPump.StartWatch(hours(1));
    ASSERT_TRUE(mLog.WaitFor(STARTED));
    {
        FaultScope scope(fault_pthread_create);
        fault_pthread_create.Fail(EAGAIN);
        EXPECT_THROW(mWatcher.Start(), std::system_error);
        fault_pthread_create.Fail(EAGAIN, 0, 1, 1);
        EXPECT_THROW(mWatcher.Start(), std::system_error);
        fault_pthread_create.Fail(EAGAIN);
        EXPECT_THROW(mWatcher.TaskWatch(), std::system_error);
    }
    EXPECT_EQ(mLog.Count(STARTED), 1U);
    mFan.StartWatch(milliseconds(50));
    MovedClock::ForgetWaits();
    EXPECT_TRUE(HasWaited(2));
    mFan.StopWatch();
    mPump.StopWatch();
}

// Of two that come at the same time one starts the watch, and the other one's period counts.
TEST_F(ThreadsWatcherTest, OthersWaitWhileTheFirstRegistrationStartsTheWatch) {
    std::optional<OtherThread> other;
    FaultScope scope(fault_pthread_create);
    // The second thread is made without the lock of the watch's own state.
    fault_pthread_create.Replace(
        [&](pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*), void* argument) {
            other.emplace([&] { mFan.StartWatch(milliseconds(1)); });
            EXPECT_TRUE(other->IsHeldUp());
            return fault_pthread_create.Real(thread, attributes, body, argument);
        },
        1, 1);
    mPump.StartWatch(hours(1));
    other.reset();
    MovedClock::ForgetWaits();
    EXPECT_TRUE(HasWaited(2));
    EXPECT_EQ(mLog.Count(STARTED), 1U);
    mFan.StopWatch();
    mPump.StopWatch();
    EXPECT_TRUE(mLog.WaitFor(STOPPED));
}

// The former entry was never taken out, so that the monitor had one more to stop with every restart.
TEST_F(ThreadsWatcherTest, RestartsDoNotGrowTheMonitorsList) {
    /// Counts how often it is told to stop.
    class CountedStops : public ThreadsWatcher {
    public:
        using ThreadsWatcher::ThreadsWatcher;
        void Stop() override {
            ++stops;
            ThreadsWatcher::Stop();
        }
        std::atomic<int> stops{0};
    };
    Signals signals;
    ThreadsMonitor monitor(signals);
    CountedStops watcher(monitor);
    ThreadWatched watched(watcher, "pump");
    constexpr unsigned int RESTARTS = 100;
    for (unsigned int i = 1; i <= RESTARTS; ++i) {
        watched.StartWatch(hours(1));
        watched.StopWatch();
        ASSERT_TRUE(WaitUntil([&] { return mLog.Count(STOPPED) == i; }));
    }
    watcher.stops = 0;
    monitor.StopWorkerThreads();
    // The latest watch's, and the one that was kept while it began, unless it began so fast that its own was
    // there.
    EXPECT_THAT(watcher.stops.load(), AnyOf(1, 2));
}

TEST_F(ThreadsWatcherTest, EveryWatchRegistersAlsoAfterOneThatTheMonitorRefused) {
    NiceMock<MockMonitor> monitor;
    ThreadsWatcher watcher(monitor);
    EXPECT_CALL(monitor, AddWorkerThread)
        .WillOnce(::testing::Throw(std::bad_alloc()))
        .WillOnce(::testing::Return())
        .WillOnce(::testing::Return());
    EXPECT_THROW(watcher.TaskWatch(), std::bad_alloc);
    watcher.TaskWatch();
    watcher.TaskWatch();
}

/// Whether `Start` runs what a derived class makes of the loop.
class OwnLoop : public ThreadsWatcher {
public:
    using ThreadsWatcher::ThreadsWatcher;
    void TaskWatch() override { ran = true; }
    std::atomic<bool> ran{false};
};

TEST_F(ThreadsWatcherTest, StartRunsTaskWatch) {
    OwnLoop watcher(mMonitor);
    watcher.Start();
    EXPECT_TRUE(WaitUntil([&] { return watcher.ran.load(); }));
}

// A stop that the sleeping watch missed would last for the whole day that it sleeps.
TEST(ThreadsWatcher, NoStopIsLostAndTheLoopOutlivesNoWatcher) {
    const LogCapture log(2);
    CountingMonitor monitor;
    const std::size_t threads = CountThreads();
    for (int round = 0; round < ROUNDS; ++round) {
        ThreadsWatcher watcher(monitor);
        ThreadWatched watched(watcher, "pump");
        watched.StartWatch(hours(24));
        if (round % 2 == 0) {
            watched.StopWatch();
        }
    }
    EXPECT_EQ(monitor.added, ROUNDS);
    EXPECT_TRUE(WaitUntil([&] { return CountThreads() <= threads; }));
}

// The former run leaves, the new one stays, even when the stop and the start come in one breath.
TEST(ThreadsWatcher, RestartAtOnceLeavesOneWatchRunning) {
    LogCapture log(2);
    CountingMonitor monitor;
    ThreadsWatcher watcher(monitor);
    ThreadWatched watched(watcher, "pump");
    watched.StartWatch(hours(24));
    // With the sanitizer's own thread, which starts with the first one of ours.
    const std::size_t threads = CountThreads();
    for (int round = 1; round <= ROUNDS; ++round) {
        watched.StopWatch();
        watched.StartWatch(hours(24));
        if (round % 100 == 0) {
            ASSERT_TRUE(WaitUntil([&] { return CountThreads() <= threads; })) << "a former run did not leave";
            watched.StartWatch(milliseconds(1));
            MovedClock::ForgetWaits();
            ASSERT_TRUE(WaitUntil([&] { return !MovedClock::Waits().empty(); })) << "nobody watches";
        }
    }
    ASSERT_TRUE(WaitUntil([&] { return CountThreads() <= threads; }));
    // A watch that has not registered yet does so behind the next start, which then cannot take it back.
    ASSERT_TRUE(WaitUntil([&] { return monitor.added == ROUNDS + 1; }));
    watched.StopWatch();
    watched.StartWatch(hours(24));
    watched.StopWatch();
    EXPECT_TRUE(WaitUntil([&] { return monitor.added == ROUNDS + 2; })) << "every watch registers";
    EXPECT_LE(monitor.added - monitor.removed, 2);
}

// Registrations, ends and stops from everywhere, under ThreadSanitizer's eyes: no race, no lock held in
// another order.
TEST(ThreadsWatcher, ManyThreadsComeAndGo) {
    const LogCapture log(2);
    Signals signals;
    ThreadsMonitor monitor(signals);
    ThreadsWatcher watcher(monitor);
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&, i] {
            ThreadWatched watched(watcher, "worker");
            for (int round = 0; round < ROUNDS / 100; ++round) {
                watched.StartWatch(milliseconds(1 + (round + i) % 5));
                watched.NotifyWork();
                if (round % 10 == 0) {
                    monitor.StopWorkerThreads();
                }
                watched.StopWatch();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_FALSE(monitor.HasFailure());
}

}  // namespace
}  // namespace mwl::Threading::Tests
