// Pools with a real watcher: refused threads, and jobs that end the process.

#include "threading/thread_pool_fixture.h"

namespace mwl::Threading::ThreadPool::Tests {
namespace {

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
}  // namespace mwl::Threading::ThreadPool::Tests
