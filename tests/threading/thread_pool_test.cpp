#include "threading/thread_pool_fixture.h"

namespace mwl::Threading::ThreadPool::Tests {
namespace {

TEST_F(ThreadPoolTest, StartsNothingByItself) {
    StrictMock<MockWatcher> watcher;  // and tells the watcher nothing
    {
        ThreadPool pool(3, watcher, mSignals);
        EXPECT_FALSE(pool.HasPendingJobs());
        pool.Stop(false);
        pool.Stop(true);
        pool.ForceThreadsTermination();
    }
    EXPECT_THAT(mLog.Entries(), IsEmpty());
    EXPECT_TRUE(std::has_virtual_destructor_v<ThreadPool>);
}

TEST_F(ThreadPoolTest, WorkersAreNamedByIndexAndStartOnce) {
    std::mutex mutex;
    std::multiset<std::string> names;
    ON_CALL(mWatcher, Register).WillByDefault([&](ThreadWatched* thread) {
        const std::lock_guard lock(mutex);
        names.insert(thread->GetName());
    });
    ThreadPool pool(3, mWatcher, mSignals);
    pool.Start();
    pool.Start();
    EXPECT_TRUE(WaitUntil([&] {
        const std::lock_guard lock(mutex);
        return names.size() >= 3;
    }));
    pool.Stop(false);
    EXPECT_THAT(names,
                UnorderedElementsAre("ThreadPool::Thread0", "ThreadPool::Thread1", "ThreadPool::Thread2"));
    EXPECT_THAT(mLog.Entries(LOGGER), ElementsAre(Trace(LOGGER, "Start: Starting ThreadPool with 3 threads"),
                                                  Trace(LOGGER, "Stop: All threads joined")));
    for (const std::string& name : names) {
        EXPECT_TRUE(mLog.Contains(Trace("ThreadPool::Thread", "Loop: Thread " + name + " finished")));
        EXPECT_TRUE(mLog.Contains(Trace("ThreadPool::Thread", "Join: Thread " + name + " joined")));
    }
}

TEST_F(ThreadPoolTest, WithoutThreadsItStaysIdle) {
    StrictMock<MockWatcher> watcher;
    bool ran = false;
    {
        ThreadPool pool(0, watcher, mSignals);
        pool.Start();
        pool.QueueJob([&] { ran = true; });
        EXPECT_TRUE(pool.HasPendingJobs());
        pool.Stop(true);
    }
    EXPECT_FALSE(ran);
    EXPECT_THAT(mLog.Entries(), IsEmpty());
}

TEST_F(ThreadPoolTest, JobQueuedBeforeStartRunsOnceItStarts) {
    std::promise<void> ran;
    ThreadPool pool(1, mWatcher, mSignals);
    pool.QueueJob([&] { ran.set_value(); });
    EXPECT_TRUE(pool.HasPendingJobs());
    pool.Start();
    ran.get_future().wait();
    EXPECT_FALSE(pool.HasPendingJobs());
}

TEST_F(ThreadPoolTest, OneWorkerRunsJobsInTheOrderOfQueueing) {
    std::vector<int> order;
    ThreadPool pool(1, mWatcher, mSignals);
    pool.Start();
    for (int i = 0; i < 100; ++i) {
        pool.QueueJob([&, i] { order.push_back(i); });
    }
    RunToTheEnd(pool);
    ASSERT_THAT(order, SizeIs(100));
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST_F(ThreadPoolTest, JobsRunInParallel) {
    std::latch together(3);
    ThreadPool pool(3, mWatcher, mSignals);
    pool.Start();
    for (int i = 0; i < 3; ++i) {
        pool.QueueJob([&] { together.arrive_and_wait(); });
    }
    together.wait();
}

TEST_F(ThreadPoolTest, JobMayQueueJobs) {
    std::promise<void> ran;
    ThreadPool pool(1, mWatcher, mSignals);
    pool.Start();
    pool.QueueJob([&] {
        EXPECT_FALSE(pool.HasPendingJobs());
        pool.QueueJob([&] { ran.set_value(); });
    });
    ran.get_future().wait();
}

TEST_F(ThreadPoolTest, JobRunsWithNoLockHeld) {
    std::promise<void> queued;
    std::promise<void> ran;
    ThreadPool pool(1, mWatcher, mSignals);
    pool.Start();
    pool.QueueJob([&] {
        queued.get_future().wait();  // another thread queues meanwhile
        ran.set_value();
    });
    pool.QueueJob([] {});
    queued.set_value();
    ran.get_future().wait();
}

TEST_F(ThreadPoolTest, WhatAJobHoldsIsReleasedWhenItHasRun) {
    auto held = std::make_shared<int>(1);
    const std::weak_ptr<int> seen = held;
    ThreadPool pool(1, mWatcher, mSignals);
    pool.Start();
    pool.QueueJob([held = std::move(held)] {});
    EXPECT_TRUE(WaitUntil([&] { return seen.expired(); }));
}

TEST_F(ThreadPoolTest, EmptyJobIsDroppedWhenTaken) {
    std::promise<void> ran;
    ThreadPool pool(1, mWatcher, mSignals);
    pool.QueueJob(nullptr);
    EXPECT_TRUE(pool.HasPendingJobs());
    pool.QueueJob([&] { ran.set_value(); });
    pool.Start();
    ran.get_future().wait();
}

TEST_F(ThreadPoolTest, JobThatCannotBeCopiedRunsOnceInItsTurnAndDiesOnTheWorker) {
    struct Probe {
        std::thread::id& died;
        ~Probe() { died = std::this_thread::get_id(); }
    };
    std::thread::id died;
    std::thread::id ran;
    std::vector<int> order;
    std::promise<void> last;
    ThreadPool pool(1, mWatcher, mSignals);
    pool.QueueJob([&] { order.push_back(1); });
    pool.QueueUnique([&, probe = std::unique_ptr<Probe>(new Probe{died})] {
        order.push_back(2);
        ran = std::this_thread::get_id();
        EXPECT_EQ(died, std::thread::id());
    });
    pool.QueueUnique(nullptr);  // dropped when taken, as an empty one of QueueJob
    pool.QueueJob([&] {
        order.push_back(3);
        EXPECT_EQ(died, std::this_thread::get_id());
        last.set_value();
    });
    EXPECT_TRUE(pool.HasPendingJobs());
    pool.Start();
    last.get_future().wait();
    EXPECT_THAT(order, ElementsAre(1, 2, 3));
    EXPECT_EQ(ran, died);
    EXPECT_NE(ran, std::this_thread::get_id());
}

TEST_F(ThreadPoolTest, JobThatCannotBeCopiedAndIsNeverRunDiesWithThePool) {
    auto held = std::make_shared<int>(1);
    const std::weak_ptr<int> seen = held;
    bool ran = false;
    {
        ThreadPool pool(1, mWatcher, mSignals);
        pool.QueueUnique(
            [&ran, held = std::make_unique<std::shared_ptr<int>>(std::move(held))] { ran = true; });
        EXPECT_FALSE(seen.expired());
    }
    EXPECT_TRUE(seen.expired());
    EXPECT_FALSE(ran);
}

TEST_F(ThreadPoolTest, JobThatCannotBeCopiedIsDestroyedWhenThereIsNoMemoryForIt) {
    auto held = std::make_shared<int>(1);
    const std::weak_ptr<int> seen = held;
    ThreadPool pool(1, mWatcher, mSignals);
    mwl::UniqueFunction<void()> job = [held = std::move(held)] {};
    bool threw = false;
    {
        const tern::test::MemoryShortage shortage;
        try {
            pool.QueueUnique(std::move(job));
        } catch (const std::bad_alloc&) {
            threw = true;
        }
    }
    EXPECT_TRUE(threw);
    EXPECT_TRUE(seen.expired());
    EXPECT_FALSE(pool.HasPendingJobs());
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
