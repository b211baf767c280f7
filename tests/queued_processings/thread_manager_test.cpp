#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <tern/queued_processings/thread_manager.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <fstream>
#include <functional>
#include <future>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "queued_processings/fakes.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/wait_until.h"
#include "threading/thread_state.h"

TERN_INTERPOSE(int, pthread_cond_wait, (pthread_cond_t * condition, pthread_mutex_t* mutex),
               (condition, mutex))
TERN_INTERPOSE(int, pthread_cond_signal, (pthread_cond_t * condition), (condition))
TERN_INTERPOSE(int, vsnprintf, (char* text, size_t size, const char* format, va_list arguments),
               (text, size, format, arguments))

namespace {

using mwl::StatusCode;
using mwl::QueuedProcessings::ThreadManager;
using tern::test::Error;
using tern::test::FakeExecutor;
using tern::test::FakeMonitor;
using tern::test::FaultScope;
using tern::test::IsAsleep;
using tern::test::LogCapture;
using tern::test::Notice;
using tern::test::WaitUntil;
using testing::ElementsAre;
using testing::IsEmpty;

const std::string LOGGER = "QueuedProcessings::ThreadManager";
const tern::test::LogEntry LEAVE =
    Notice(LOGGER, "Wait: D-Bus thread is stopping, this thread has to stop too. Leave the loop");

static_assert(std::is_base_of_v<mwl::Threading::ThreadManager, ThreadManager>);

class QueuedThreadManager : public testing::Test {
protected:
    QueuedThreadManager() { fault_pthread_cond_wait.Replace({}, 0); }

    /// Waits that slept.
    static int Sleeps() { return fault_pthread_cond_wait.Calls(); }

    LogCapture mLog;
    FakeMonitor mMonitor;
    FakeExecutor mExecutor;
    ThreadManager mManager{mMonitor, mExecutor};
    FaultScope<int(pthread_cond_t*, pthread_mutex_t*)> mWaits{fault_pthread_cond_wait};
};

TEST_F(QueuedThreadManager, WakeUpBeforeTheWaitIsKept) {
    mManager.Notify();
    EXPECT_EQ(mManager.Wait(), StatusCode::Ok);
    EXPECT_EQ(Sleeps(), 0);
    EXPECT_THAT(mLog.Entries(), IsEmpty());
}

TEST_F(QueuedThreadManager, WakeUpsBeforeTheWaitAreFolded) {
    mManager.Notify();
    mManager.Notify();
    mManager.Notify();
    EXPECT_EQ(mManager.Wait(), StatusCode::Ok);
    std::future<StatusCode> second = std::async(std::launch::async, [this] { return mManager.Wait(); });
    EXPECT_TRUE(WaitUntil([] { return Sleeps() == 1; })) << "nothing is left of the three";
    mManager.Notify();
    EXPECT_EQ(second.get(), StatusCode::Ok);
}

TEST_F(QueuedThreadManager, WakesAnySleepOnce) {
    for (int i = 1; i <= 3; ++i) {
        std::future<StatusCode> wait = std::async(std::launch::async, [this] { return mManager.Wait(); });
        ASSERT_TRUE(WaitUntil([i] { return Sleeps() == i; }));
        mManager.Notify();
        EXPECT_EQ(wait.get(), StatusCode::Ok);
    }
}

TEST_F(QueuedThreadManager, WakeUpForNoReasonCountsAsOne) {
    fault_pthread_cond_wait.Fail(0);
    EXPECT_EQ(mManager.Wait(), StatusCode::Ok);
    EXPECT_EQ(Sleeps(), 1);
}

TEST_F(QueuedThreadManager, StopBeforeTheWaitIsKept) {
    mManager.Stop();
    EXPECT_EQ(mManager.Wait(), StatusCode::Stopping);
    EXPECT_EQ(Sleeps(), 0);
    EXPECT_EQ(mExecutor.stopped, 1);
    EXPECT_THAT(mLog.Entries(), ElementsAre(LEAVE));
}

TEST_F(QueuedThreadManager, StopEndsTheWait) {
    std::future<StatusCode> wait = std::async(std::launch::async, [this] { return mManager.Wait(); });
    ASSERT_TRUE(WaitUntil([] { return Sleeps() == 1; }));
    mManager.Stop();
    EXPECT_EQ(wait.get(), StatusCode::Stopping);
    EXPECT_THAT(mLog.Entries(), ElementsAre(LEAVE));
    mManager.Notify();
    EXPECT_EQ(mManager.Wait(), StatusCode::Stopping) << "there is no way back";
}

TEST_F(QueuedThreadManager, StopWinsOverAWakeUp) {
    mManager.Notify();
    mManager.Stop();
    mManager.Notify();
    EXPECT_EQ(mManager.Wait(), StatusCode::Stopping);
}

TEST_F(QueuedThreadManager, ExecutorIsToldFirstAndWithoutTheLock) {
    StatusCode meanwhile = StatusCode::Failure;
    mExecutor.onStop = [&] {
        meanwhile = std::async(std::launch::async, [this] {
                        mManager.Notify();
                        return mManager.Wait();
                    }).get();
    };
    mManager.Stop();
    EXPECT_EQ(meanwhile, StatusCode::Ok) << "not stopping yet, and the mutex is free";
    EXPECT_EQ(mManager.Wait(), StatusCode::Stopping);
}

TEST_F(QueuedThreadManager, FailedWaitIsReported) {
    fault_pthread_cond_wait.Fail(EINVAL);
    EXPECT_EQ(mManager.Wait(), StatusCode::InvalidArgument);
    EXPECT_THAT(mLog.Entries(),
                ElementsAre(Error(LOGGER,
                                  "Wait: Condition variable failure (InvalidArgument), leave the loop and "
                                  "stop the thread")));
    mLog.Clear();
    // Also when it is stopping already: the failure is what is told.
    fault_pthread_cond_wait.Replace([this](pthread_cond_t*, pthread_mutex_t*) {
        mManager.Stop();
        return EPERM;
    });
    EXPECT_EQ(mManager.Wait(), StatusCode::NotPermitted);
    EXPECT_THAT(mLog.Entries(),
                ElementsAre(Error(LOGGER,
                                  "Wait: Condition variable failure (NotPermitted), leave the loop and stop "
                                  "the thread")));
}

TEST_F(QueuedThreadManager, KeepsTheThreadsId) {
    EXPECT_EQ(mManager.GetThreadId(), 0U);
    mManager.SetThreadId(pthread_self());
    EXPECT_EQ(mManager.GetThreadId(), pthread_self());
}

/// Once the flag is set, a detached thread may end, and with it the last owner, before the call that set it
/// has returned. Makes it so, and expects the manager to live on for the signal that is still to come.
void ExpectToOutlive(void (ThreadManager::*call)(), StatusCode answer, FakeMonitor& monitor,
                     FakeExecutor& executor) {
    auto owner = std::make_unique<ThreadManager>(monitor, executor);
    ThreadManager* const manager = owner.get();
    std::promise<void> changed;
    std::atomic<pid_t> destroyer{0};
    std::atomic<bool> destroyed{false};
    FaultScope scope(fault_pthread_cond_signal);
    fault_pthread_cond_signal.Replace([&](pthread_cond_t* condition) {
        changed.set_value();  // the flag is set, the mutex released
        EXPECT_TRUE(WaitUntil([&] { return destroyed || (destroyer != 0 && IsAsleep(destroyer)); }));
        EXPECT_FALSE(destroyed);
        return fault_pthread_cond_signal.Real(condition);
    });
    std::thread thread([&, owner = std::move(owner)]() mutable {
        changed.get_future().get();
        EXPECT_EQ(owner->Wait(), answer);
        destroyer = gettid();
        owner.reset();
        destroyed = true;
    });
    (manager->*call)();
    thread.join();
}

TEST_F(QueuedThreadManager, OutlivesItsOwnStop) {
    ExpectToOutlive(&ThreadManager::Stop, StatusCode::Stopping, mMonitor, mExecutor);
}

TEST_F(QueuedThreadManager, OutlivesItsOwnNotify) {
    ExpectToOutlive(&ThreadManager::Notify, StatusCode::Ok, mMonitor, mExecutor);
}

// The messages of the end are written with the mutex free: a log that is stuck holds up nobody who wakes.
TEST_F(QueuedThreadManager, ThreadThatHangsInItsMessageHoldsUpNobody) {
    std::promise<void> isLogging;
    std::promise<void> goOn;
    FaultScope scope(fault_vsnprintf);
    mManager.Stop();
    fault_vsnprintf.Replace([&](char* text, size_t size, const char* format, va_list arguments) {
        isLogging.set_value();
        goOn.get_future().wait();
        return fault_vsnprintf.Real(text, size, format, arguments);
    });
    std::future<StatusCode> wait = std::async(std::launch::async, [this] { return mManager.Wait(); });
    isLogging.get_future().wait();
    std::future<void> call = std::async(std::launch::async, [this] { mManager.Notify(); });
    EXPECT_EQ(call.wait_for(tern::test::GENEROUS_LIMIT), std::future_status::ready);
    goOn.set_value();
    EXPECT_EQ(wait.get(), StatusCode::Stopping);
}

/// The kernel's priority of a thread, as of stat in proc(5): below 0 for real-time ones, -1 minus theirs.
int PriorityOf(pid_t thread) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string stat((std::istreambuf_iterator<char>(file)), {});
    std::istringstream fields(stat.substr(stat.rfind(") ") + 2));
    std::string field;
    for (int i = 3; i <= 18; ++i) {  // what follows the name is field 3
        fields >> field;
    }
    return std::stoi(field);
}

/// Gives the calling thread a real-time priority; false when the system refuses it.
bool TakeRealTimePriority(int priority) {
    sched_param parameters{};
    parameters.sched_priority = priority;
    return pthread_setschedparam(pthread_self(), SCHED_FIFO, &parameters) == 0;
}

class QueuedThreadManagerPriority : public QueuedThreadManager {
protected:
    void SetUp() override {
        bool isAllowed = false;
        std::thread([&] { isAllowed = TakeRealTimePriority(PRIORITY); }).join();
        if (!isAllowed) {
            GTEST_SKIP() << "the system refuses SCHED_FIFO";
        }
    }

    /// Expects that a notification of real-time priority lends it to the thread that holds it up.
    void ExpectToLendPriorityTo(pid_t holder) {
        std::thread notifier([this] {
            EXPECT_TRUE(TakeRealTimePriority(PRIORITY));
            mManager.Notify();
        });
        EXPECT_TRUE(WaitUntil([=] { return PriorityOf(holder) == -1 - PRIORITY; }, std::chrono::seconds(5)));
        mGoOn.set_value();
        notifier.join();
    }

    static constexpr int PRIORITY = 50;
    std::promise<pid_t> mHolder;
    std::promise<void> mGoOn;
};

TEST_F(QueuedThreadManagerPriority, IsLentToAThreadThatIsWaking) {
    FaultScope scope(fault_pthread_cond_signal);
    fault_pthread_cond_signal.Replace([this](pthread_cond_t* condition) {
        mHolder.set_value(gettid());
        mGoOn.get_future().wait();
        return fault_pthread_cond_signal.Real(condition);
    });
    std::thread low([this] { mManager.Notify(); });
    ExpectToLendPriorityTo(mHolder.get_future().get());
    low.join();
}

TEST_F(QueuedThreadManagerPriority, IsLentToTheWorkerOnItsWayToSleep) {
    fault_pthread_cond_wait.Replace([this](pthread_cond_t* condition, pthread_mutex_t* mutex) {
        mHolder.set_value(gettid());
        mGoOn.get_future().wait();
        return fault_pthread_cond_wait.Real(condition, mutex);
    });
    std::thread worker([this] { EXPECT_EQ(mManager.Wait(), StatusCode::Ok); });
    ExpectToLendPriorityTo(mHolder.get_future().get());
    worker.join();
}

#if !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__)  // whose own locks know no priorities
// A thread of low priority that was preempted within the condition variable's signal once held up all others,
// for as long as the processor had something else to run: up to 1.4 s.
TEST_F(QueuedThreadManagerPriority, NeverWaitsForAPreemptedThread) {
    constexpr std::chrono::milliseconds FAR_TOO_LONG{100};
    cpu_set_t all;
    ASSERT_EQ(sched_getaffinity(0, sizeof all, &all), 0);
    cpu_set_t one;
    CPU_ZERO(&one);
    for (int cpu = 0; CPU_COUNT(&one) == 0; ++cpu) {
        if (CPU_ISSET(cpu, &all)) {
            CPU_SET(cpu, &one);
        }
    }
    std::atomic<bool> isOver{false};
    std::vector<std::thread> threads;
    const auto run = [&](int nice, const std::function<void()>& step) {
        threads.emplace_back([&isOver, &one, nice, step] {
            sched_setaffinity(0, sizeof one, &one);
            setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), nice);
            while (!isOver) {
                step();
            }
        });
    };
    run(19, [this] { mManager.Wait(); });
    run(19, [this] { mManager.Notify(); });
    run(19, [this] { mManager.Notify(); });
    for (int i = 0; i < 3; ++i) {
        run(0, [] {});
    }
    std::chrono::steady_clock::duration longest{0};
    std::thread notifier([&] {
        sched_setaffinity(0, sizeof one, &one);
        EXPECT_TRUE(TakeRealTimePriority(PRIORITY));
        for (int i = 0; i < 5000; ++i) {
            usleep(200 + static_cast<useconds_t>(i * 7 % 200));
            const auto start = std::chrono::steady_clock::now();
            mManager.Notify();
            longest = std::max(longest, std::chrono::steady_clock::now() - start);
        }
    });
    notifier.join();
    isOver = true;
    mManager.Notify();
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_LT(longest, FAR_TOO_LONG);
    RecordProperty("longest_us",
                   static_cast<int>(std::chrono::duration_cast<std::chrono::microseconds>(longest).count()));
}
#endif

}  // namespace
