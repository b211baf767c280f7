// The loop of the workers: reports, waits and wake-ups.

#include "threading/thread_pool_fixture.h"

namespace mwl::Threading::ThreadPool::Tests {
namespace {

/// Runs the workers' loop on the test's thread; the report number `reports` throws it out.
void RunLoop(ThreadPool& pool, int reports, std::vector<std::string>& events) {
    EXPECT_THROW(pool.ThreadLoop([&] {
        events.emplace_back("report");
        if (--reports == 0) {
            throw std::runtime_error("seen enough");
        }
    }),
                 std::runtime_error);
}

TEST_F(ThreadPoolTest, WorkerReportsBeforeAndAfterAJob) {
    std::vector<std::string> events;
    ThreadPool pool(1, mWatcher, mSignals);
    pool.QueueJob([&] { events.emplace_back("job"); });
    pool.QueueJob(nullptr);
    pool.QueueJob([&] { events.emplace_back("job"); });
    RunLoop(pool, 5, events);
    EXPECT_THAT(events, ElementsAre("report", "job", "report", "report", "report", "job", "report"));
    EXPECT_THAT(mLog.Entries(), IsEmpty());
}

TEST_F(ThreadPoolTest, IdleWorkerReportsEveryTenSeconds) {
    std::vector<std::string> events;
    ThreadPool pool(1, mWatcher, mSignals);
    MovedClock::ForgetWaits();
    MovedClock::FailNextWait(ETIMEDOUT);
    RunLoop(pool, 1, events);
    EXPECT_THAT(MovedClock::Waits(), ElementsAre(10000));
    EXPECT_THAT(mLog.Entries(), ElementsAre(Trace(LOGGER, "ThreadLoop: Timeout waiting for work")));
}

TEST_F(ThreadPoolTest, WorkerThatFindsNothingLetsOthersRunAndLooksAgainBeforeItSleeps) {
    std::vector<std::string> events;
    ThreadPool pool(1, mWatcher, mSignals);
    const FaultScope scope(fault_sched_yield);
    fault_sched_yield.Replace([&] {
        pool.QueueJob([&] { events.emplace_back("job"); });
        return 0;
    });
    MovedClock::ForgetWaits();
    RunLoop(pool, 2, events);
    EXPECT_THAT(events, ElementsAre("report", "job", "report"));
    EXPECT_THAT(MovedClock::Waits(), IsEmpty());
    EXPECT_EQ(fault_sched_yield.Calls(), 1);
    // Twice in vain, then it sleeps; and again after that.
    fault_sched_yield.Replace([] { return 0; }, 1000);
    for (const int calls : {2, 4}) {
        events.clear();
        MovedClock::FailNextWait(ETIMEDOUT);
        RunLoop(pool, 1, events);
        EXPECT_EQ(fault_sched_yield.Calls(), calls);
    }
    EXPECT_THAT(MovedClock::Waits(), ElementsAre(10000, 10000));
}

TEST_F(ThreadPoolTest, FailingWaitIsLoggedAndTheLoopGoesOn) {
    std::vector<std::string> events;
    ThreadPool pool(1, mWatcher, mSignals);
    MovedClock::FailNextWait(EPERM);
    RunLoop(pool, 1, events);
    EXPECT_THAT(mLog.Entries(),
                ElementsAre(Error(LOGGER, "ThreadLoop: Error waiting for work NotPermitted")));
    EXPECT_THAT(events, ElementsAre("report"));
    pool.QueueJob([&] { events.emplace_back("job"); });
    RunLoop(pool, 2, events);
    EXPECT_THAT(events, ElementsAre("report", "report", "job", "report"));
}

TEST_F(ThreadPoolTest, EmptyReportThrows) {
    ThreadPool pool(1, mWatcher, mSignals);
    pool.QueueJob([] {});
    EXPECT_THROW(pool.ThreadLoop(nullptr), std::bad_function_call);
}

TEST_F(ThreadPoolTest, LoopReturnsAtOnceWhenThePoolHasStopped) {
    ThreadPool pool(1, mWatcher, mSignals);
    pool.Start();
    pool.Stop(false);
    pool.QueueJob([] { FAIL(); });
    pool.ThreadLoop([] { FAIL(); });
    EXPECT_TRUE(pool.HasPendingJobs());
}

TEST_F(ThreadPoolTest, RefusedThreadLeavesThePoolNotRunning) {
    StrictMock<MockWatcher> watcher;
    EXPECT_CALL(watcher, Register).Times(AnyNumber());
    EXPECT_CALL(watcher, Unregister).Times(AnyNumber());
    std::promise<void> ran;
    ThreadPool pool(3, watcher, mSignals);
    {
        FaultScope scope(fault_pthread_create);
        fault_pthread_create.Fail(EAGAIN, 0, 1, 2);
        EXPECT_THROW(pool.Start(), std::system_error);
    }
    EXPECT_EQ(mLog.Count(Trace("ThreadPool::Thread", "Join: Thread ThreadPool::Thread0 joined")), 1U);
    EXPECT_EQ(mLog.Count(Trace("ThreadPool::Thread", "Join: Thread ThreadPool::Thread1 joined")), 1U);
    pool.Stop(true);  // not running: no word to the watcher, no signal
    pool.QueueJob([&] { ran.set_value(); });
    EXPECT_TRUE(pool.HasPendingJobs());
    pool.Start();
    ran.get_future().wait();
    EXPECT_CALL(watcher, Stop());
}

TEST_F(ThreadPoolTest, QueueingWakesOneWorkerAJob) {
    FaultScope scope(fault_pthread_cond_signal);
    ThreadPool pool(0, mWatcher, mSignals);
    fault_pthread_cond_signal.Fail(0, 0, 0);  // counts only
    pool.QueueJob([] {});
    EXPECT_EQ(fault_pthread_cond_signal.Calls(), 1);
    pool.QueueJob([] {});
    EXPECT_EQ(fault_pthread_cond_signal.Calls(), 2);
}

// Both workers wait, and the first wake-up is held back on its way: a job queued by another meanwhile has a
// wake-up of its own.
TEST_F(ThreadPoolTest, NoJobDependsOnTheWakeUpOfAnother) {
    FaultScope scope(fault_pthread_cond_signal);
    MovedClock::ForgetWaits();
    ThreadPool pool(2, mWatcher, mSignals);
    pool.Start();
    ASSERT_TRUE(WaitUntil([] { return MovedClock::Waits().size() == 2; }));
    std::latch held(1);
    fault_pthread_cond_signal.Replace([&](pthread_cond_t* condition) {
        held.wait();
        return fault_pthread_cond_signal.Real(condition);
    });
    std::latch bothRan(2);
    std::thread first([&] { pool.QueueJob([&] { bothRan.count_down(); }); });
    ASSERT_TRUE(WaitUntil([&] { return fault_pthread_cond_signal.Calls() == 1; }));
    pool.QueueJob([&] { bothRan.count_down(); });
    bothRan.wait();
    EXPECT_EQ(fault_pthread_cond_signal.Calls(), 2);
    held.count_down();
    first.join();
    pool.Stop(false);
}

TEST_F(ThreadPoolTest, SmallJobsTakeNoMemoryOfTheirOwn) {
    constexpr int JOBS = 1000;
    int ran = 0;
    ThreadPool pool(1, mWatcher, mSignals);
    const std::size_t before = tern::test::CountAllocations();
    for (int i = 0; i < JOBS; ++i) {
        pool.QueueJob([&ran] { ++ran; });
    }
    // The queue's own blocks, each for many jobs.
    EXPECT_LT(tern::test::CountAllocations() - before, JOBS / 8U);
    const std::size_t queued = tern::test::CountAllocations();
    int reports = 0;
    EXPECT_THROW(pool.ThreadLoop([&] {
        if (++reports == 2 * JOBS) {
            EXPECT_EQ(tern::test::CountAllocations(), queued);
            throw std::runtime_error("all have run");
        }
    }),
                 std::runtime_error);
    EXPECT_EQ(ran, JOBS);
}

// A wake-up lost on the way to the worker would leave the job until the end of its ten seconds.
TEST_F(ThreadPoolTest, NoJobIsLeftWaiting) {
    std::atomic<int> ran{0};
    ThreadPool pool(2, mWatcher, mSignals);
    pool.Start();
    for (int round = 0; round < ROUNDS; ++round) {
        pool.QueueJob([&] {
            ++ran;
            ran.notify_one();
        });
        ran.wait(round);
    }
    pool.Stop(false);
    EXPECT_EQ(ran, ROUNDS);
    EXPECT_FALSE(mLog.Contains(Trace(LOGGER, "ThreadLoop: Timeout waiting for work")));
}

TEST_F(ThreadPoolTest, ManyProducersManyWorkersLoseNothing) {
    constexpr int PRODUCERS = 4;
    std::atomic<int> ran{0};
    ThreadPool pool(4, mWatcher, mSignals);
    pool.Start();
    std::vector<std::thread> producers;
    producers.reserve(PRODUCERS);
    for (int i = 0; i < PRODUCERS; ++i) {
        producers.emplace_back([&] {
            for (int round = 0; round < ROUNDS / 10; ++round) {
                pool.QueueJob([&] { ++ran; });
            }
        });
    }
    for (std::thread& producer : producers) {
        producer.join();
    }
    RunToTheEnd(pool);
    EXPECT_EQ(ran, PRODUCERS * (ROUNDS / 10));
}

}  // namespace
}  // namespace mwl::Threading::ThreadPool::Tests
