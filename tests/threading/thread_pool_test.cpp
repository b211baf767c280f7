#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <tern/threading/condition_variable.h>
#include <tern/threading/signals.h>
#include <tern/threading/stop_signal.h>
#include <tern/threading/thread_pool.h>
#include <tern/threading/threads_watcher.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <functional>
#include <future>
#include <latch>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>
#include <vector>

#include "support/allocations.h"
#include "support/child.h"
#include "support/emulation.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/process_resources.h"
#include "support/wait_until.h"
#include "threading/moved_clock.h"
#include "threading/supervision_doubles.h"
#include "threading/watching_doubles.h"

TERN_INTERPOSE(int, pthread_create,
               (pthread_t * thread, const pthread_attr_t* attributes, void* (*body)(void*), void* argument),
               (thread, attributes, body, argument))
TERN_INTERPOSE(int, pthread_cond_signal, (pthread_cond_t * condition), (condition))
TERN_INTERPOSE(int, pthread_cond_broadcast, (pthread_cond_t * condition), (condition))
TERN_INTERPOSE(int, sched_yield, (), ())

namespace mwl::Threading::ThreadPool {
namespace {

using std::chrono::milliseconds;
using tern::test::Error;
using tern::test::FaultScope;
using tern::test::LogCapture;
using tern::test::MovedClock;
using tern::test::RunInChild;
using tern::test::Trace;
using tern::test::WaitUntil;
using ::testing::_;
using ::testing::AnyNumber;
using ::testing::ElementsAre;
using ::testing::InSequence;
using ::testing::IsEmpty;
using ::testing::NiceMock;
using ::testing::Return;
using ::testing::SizeIs;
using ::testing::StrictMock;
using ::testing::UnorderedElementsAre;

const std::string LOGGER = "Threading::ThreadPool";
constexpr int ROUNDS = 100000 / tern::test::SLOWNESS;
#ifdef __SANITIZE_THREAD__
constexpr std::size_t IDLE_THREADS = 2;  // with the sanitizer's own
#else
constexpr std::size_t IDLE_THREADS = 1;
#endif

class ThreadPoolTest : public ::testing::Test {
protected:
    void RunToTheEnd(ThreadPool& pool) {
        EXPECT_TRUE(WaitUntil([&] { return !pool.HasPendingJobs(); }));
        pool.Stop(false);
    }

    LogCapture mLog;
    NiceMock<MockWatcher> mWatcher;
    StrictMock<MockSignals> mSignals;
};

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

TEST(ThreadPoolWatched, WorkersAreWatchedUntilTheyLeave) {
    ASSERT_EQ(StopSignal::Register(), StatusCode::Ok);  // by which the pool is stopped
    LogCapture log;
    NiceMock<MockMonitor> monitor;
    Signals signals;
    ThreadsWatcher watcher(monitor);
    ThreadPool pool(2, watcher, signals);
    for (int round = 0; round < 100 / tern::test::SLOWNESS; ++round) {
        pool.Start();
        pool.Stop(true);
    }
    EXPECT_EQ(log.Count(tern::test::Notice("Threading::ThreadsWatcher", "Stop watch ThreadPool::Thread1")),
              100U / tern::test::SLOWNESS);
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

/// Starts a pool of three with a real watcher while threads are refused, `lift`s that, and starts it once
/// more. 7: the first start threw with the workers joined, 8: it did not throw, and in both cases the pool
/// worked in the end.
int StartWhenThreadsAreRefused(const std::function<void()>& lift) {
    NiceMock<MockMonitor> monitor;
    Signals signals;
    ThreadsWatcher watcher(monitor);
    ThreadPool pool(3, watcher, signals);
    int outcome = 8;
    try {
        pool.Start();
    } catch (const std::system_error&) {
        outcome = 7;
        // A watch that had begun for those who were first takes its time to leave.
        if (!WaitUntil([] { return tern::test::CountThreads() <= IDLE_THREADS; })) {
            return 1;
        }
    }
    lift();
    pool.Start();
    std::promise<void> ran;
    pool.QueueJob([&] { ran.set_value(); });
    ran.get_future().wait();
    pool.Stop(false);
    return outcome;
}

// Once the worker that came first died of its watcher's refused thread, and the process with it.
TEST(ThreadPoolWatched, AnyRefusedThreadLeavesStartAsSystemError) {
    SKIP_WHERE_EMULATED("the children may hang");
    int refused = 0;
    tern::test::ChildResult result;
    do {
        result = RunInChild([refused] {
            FaultScope scope(fault_pthread_create);
            fault_pthread_create.Fail(EAGAIN, 0, 1, refused);
            return StartWhenThreadsAreRefused([] { fault_pthread_create.Reset(); });
        });
        ASSERT_TRUE(result.exitCode == 7 || result.exitCode == 8)
            << "thread " << refused << ": signal " << result.signal << "\n"
            << result.error;
    } while (result.exitCode == 7 && ++refused < 20);
    EXPECT_GE(refused, 4) << "three workers and the watcher's";
    EXPECT_LT(refused, 20);
}

#ifndef __SANITIZE_THREAD__  // its own thread cannot be made under the limit
// The same with the system's own limit, which does not concern root.
TEST(ThreadPoolWatched, ThreadLimitLeavesStartAsSystemError) {
    SKIP_WHERE_EMULATED("the emulator has threads of its own, which count");
    constexpr uid_t NOBODY_ELSES = 1954321;
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root may take a user id that has no other threads";
    }
    rlim_t limit = 1;  // the thread that is there
    tern::test::ChildResult result;
    do {
        result = RunInChild([limit] {
            rlimit limits{};
            if (getrlimit(RLIMIT_NPROC, &limits) != 0 ||
                setresuid(NOBODY_ELSES, NOBODY_ELSES, NOBODY_ELSES) != 0) {
                return 2;
            }
            const rlim_t former = limits.rlim_cur;
            limits.rlim_cur = limit;
            if (setrlimit(RLIMIT_NPROC, &limits) != 0) {
                return 3;
            }
            return StartWhenThreadsAreRefused([&] {
                limits.rlim_cur = former;
                setrlimit(RLIMIT_NPROC, &limits);
            });
        });
        ASSERT_TRUE(result.exitCode == 7 || result.exitCode == 8)
            << "limit " << limit << ": " << result.exitCode << ", signal " << result.signal << "\n"
            << result.error;
    } while (result.exitCode == 7 && ++limit < 20);
    EXPECT_GE(limit, 5U) << "this one, three workers and the watcher's";
    EXPECT_LT(limit, 20U);
}
#endif

TEST(ThreadPoolWatched, ThrowingJobEndsTheProcess) {
    const auto result = RunInChild([] {
        NiceMock<MockWatcher> watcher;
        NiceMock<MockSignals> signals;
        ThreadPool pool(1, watcher, signals);
        pool.Start();
        pool.QueueJob([] { throw std::runtime_error("bad job"); });
        pause();
        return 0;
    });
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_NE(result.error.find("bad job"), std::string::npos) << result.error;
}

/// A child whose one job lasts `silence`; it leaves with 7 when nobody has killed it.
tern::test::ChildResult RunLongJob(milliseconds silence) {
    return RunInChild([=] {
        NiceMock<MockMonitor> monitor;
        Signals signals;
        ThreadsWatcher watcher(monitor);
        // The watch looks every few milliseconds from here on.
        ThreadWatched hasty(watcher, "hasty");
        ThreadPool pool(1, watcher, signals);
        std::promise<void> watched;
        std::promise<void> running;
        std::promise<void> goOn;
        hasty.StartWatch(milliseconds(5));
        pool.Start();
        pool.QueueJob([&] {
            MovedClock::Freeze();
            watched.set_value();
            running.get_future().wait();
            goOn.get_future().wait();
        });
        watched.get_future().wait();
        hasty.StopWatch();
        MovedClock::Advance(silence);
        MovedClock::ForgetWaits();
        running.set_value();
        while (MovedClock::Waits().size() < 5) {
            usleep(1000);
        }
        goOn.set_value();
        pool.Stop(false);
        return 7;
    });
}

TEST(ThreadPoolWatched, JobOfMoreThanTwoMinutesEndsTheProcess) {
    const auto result = RunLongJob(milliseconds(120001));
    EXPECT_EQ(result.signal, SIGKILL);
    ASSERT_GE(result.log.size(), 2U);
    EXPECT_EQ(result.log[result.log.size() - 2].text.substr(0, 61),
              "Thread (ThreadPool::Thread0) is blocked (period 60000 ms, las");
}

TEST(ThreadPoolWatched, JobOfLessIsLeftAlone) {
    EXPECT_EQ(RunLongJob(milliseconds(119000)).exitCode, 7);
}

}  // namespace
}  // namespace mwl::Threading::ThreadPool
