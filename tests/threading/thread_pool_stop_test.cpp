// How a pool stops, politely and by force, and what becomes of what is queued.

#include "threading/thread_pool_fixture.h"

namespace mwl::Threading::ThreadPool::Tests {
namespace {

TEST_F(ThreadPoolTest, StopRunsNothingThatIsQueuedAndStartTakesItUp) {
    std::promise<void> running;
    std::promise<void> goOn;
    std::promise<void> second;
    ThreadPool pool(1, mWatcher, mSignals);
    pool.Start();
    pool.QueueJob([&] {
        running.set_value();
        goOn.get_future().wait();
    });
    running.get_future().wait();
    pool.QueueJob([&] { second.set_value(); });
    // The signal comes when the pool is stopping: only then may the first job end.
    EXPECT_CALL(mSignals, SendSignal).WillOnce([&](unsigned long, int) {
        goOn.set_value();
        return 0;
    });
    pool.Stop(true);
    EXPECT_TRUE(pool.HasPendingJobs());
    pool.QueueJob([] {});
    pool.Start();
    second.get_future().wait();
    RunToTheEnd(pool);
    EXPECT_FALSE(pool.HasPendingJobs());
    EXPECT_EQ(mLog.Count(Trace(LOGGER, "Start: Starting ThreadPool with 1 threads")), 2U);
    EXPECT_EQ(mLog.Count(Trace("ThreadPool::Thread", "Join: Thread ThreadPool::Thread0 joined")), 2U);
}

TEST_F(ThreadPoolTest, PoliteStopWaitsForTheRunningJob) {
    std::promise<void> running;
    std::atomic<bool> done{false};
    ThreadPool pool(1, mWatcher, mSignals);
    pool.Start();
    pool.QueueJob([&] {
        running.set_value();
        const timespec pause{0, 100000000};
        EXPECT_EQ(nanosleep(&pause, nullptr), 0);
        done = true;
    });
    running.get_future().wait();
    pool.Stop(false);
    EXPECT_TRUE(done);
}

TEST_F(ThreadPoolTest, StopStopsTheWatcherThenSignalsWorkersInOrder) {
    std::mutex mutex;
    std::map<std::string, unsigned long> ids;
    ON_CALL(mWatcher, Register).WillByDefault([&](ThreadWatched* thread) {
        const std::lock_guard lock(mutex);
        ids[thread->GetName()] = thread->GetThreadId();
    });
    ThreadPool pool(3, mWatcher, mSignals);
    pool.Start();
    ASSERT_TRUE(WaitUntil([&] {
        const std::lock_guard lock(mutex);
        return ids.size() == 3;
    }));
    InSequence order;
    EXPECT_CALL(mWatcher, Stop());
    for (const auto& [name, id] : ids) {
        EXPECT_CALL(mSignals, SendSignal(id, SIGUSR1)).WillOnce(Return(ESRCH));
    }
    pool.Stop(true);
    EXPECT_TRUE(mLog.Contains(Trace(LOGGER, "Stop: All threads joined")));
}

TEST_F(ThreadPoolTest, ForceThreadsTerminationSignalsAndNothingElse) {
    EXPECT_CALL(mWatcher, Stop()).Times(0);
    EXPECT_CALL(mSignals, SendSignal(_, SIGUSR1)).Times(2);
    std::promise<void> ran;
    ThreadPool pool(2, mWatcher, mSignals);
    pool.Start();
    pool.ForceThreadsTermination();
    pool.QueueJob([&] { ran.set_value(); });
    ran.get_future().wait();
    ::testing::Mock::VerifyAndClearExpectations(&mWatcher);
}

TEST_F(ThreadPoolTest, ForcedStopBringsAJobOutOfABlockingCall) {
    ASSERT_EQ(StopSignal::Register(), StatusCode::Ok);
    Signals signals;
    ThreadPool pool(1, mWatcher, signals);
    pool.Start();
    std::promise<void> blocked;
    std::atomic<int> error{0};
    pool.QueueJob([&] {
        // Blocked until the call takes it, so that it cannot come too early.
        sigset_t set;
        sigset_t former;
        sigemptyset(&set);
        sigaddset(&set, SIGUSR1);
        pthread_sigmask(SIG_BLOCK, &set, &former);
        blocked.set_value();
        const timespec hour{3600, 0};
        error = ppoll(nullptr, 0, &hour, &former) < 0 ? errno : 0;
    });
    blocked.get_future().wait();
    pool.Stop(true);
    EXPECT_EQ(error, EINTR);
}

TEST_F(ThreadPoolTest, DestructorStopsPolitelyAndDropsWhatIsQueued) {
    std::promise<void> running;
    std::promise<void> goOn;
    bool ran = false;
    auto held = std::make_shared<int>(1);
    const std::weak_ptr<int> seen = held;
    EXPECT_CALL(mWatcher, Stop());
    FaultScope scope(fault_pthread_cond_broadcast);
    {
        ThreadPool pool(1, mWatcher, mSignals);
        pool.Start();
        pool.QueueJob([&] {
            running.set_value();
            goOn.get_future().wait();
        });
        running.get_future().wait();
        pool.QueueJob([&ran, held = std::move(held)] { ran = true; });
        // The workers are woken when the pool is stopping: only then may the first job end.
        fault_pthread_cond_broadcast.Replace([&](pthread_cond_t* condition) {
            goOn.set_value();
            return fault_pthread_cond_broadcast.Real(condition);
        });
    }
    EXPECT_FALSE(ran);
    EXPECT_TRUE(seen.expired());
    EXPECT_TRUE(mLog.Contains(Trace(LOGGER, "Stop: All threads joined")));
}

TEST_F(ThreadPoolTest, NoStopIsLost) {
    std::atomic<int> ran{0};
    ThreadPool pool(2, mWatcher, mSignals);
    for (int round = 0; round < ROUNDS / 10; ++round) {
        pool.Start();
        pool.QueueJob([&] { ++ran; });
        pool.Stop(false);
    }
    pool.Start();
    RunToTheEnd(pool);
    EXPECT_EQ(ran, ROUNDS / 10);
    EXPECT_FALSE(mLog.Contains(Trace(LOGGER, "ThreadLoop: Timeout waiting for work")));
}

TEST(ThreadPool, StopLeavesNoWorkersBehind) {
    constexpr int RESTARTS = 200;
    const LogCapture log(2);
    NiceMock<MockWatcher> watcher;
    NiceMock<MockSignals> signals;
    ThreadPool pool(1, watcher, signals);
    const auto restart = [&] {
        pool.Start();
        pool.Stop(false);
    };
    const auto living = [] {
        return static_cast<std::ptrdiff_t>(tern::test::CountAllocations() - tern::test::CountReleases());
    };
    restart();
    const std::ptrdiff_t before = living();
    for (int i = 0; i < RESTARTS; ++i) {
        restart();
    }
    // Some counts may get lost; a worker is more than one each time.
    EXPECT_LT(living() - before, RESTARTS / 2);
}

}  // namespace
}  // namespace mwl::Threading::ThreadPool::Tests
