#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <tern/queued_processings/thread_manager.h>

#include <atomic>
#include <cerrno>
#include <future>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>

#include "queued_processings/fakes.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/wait_until.h"

TERN_INTERPOSE(int, pthread_cond_wait, (pthread_cond_t * condition, pthread_mutex_t* mutex),
               (condition, mutex))
TERN_INTERPOSE_TIME(int, nanosleep, __nanosleep64, (const timespec* duration, timespec* left),
                    (duration, left))
TERN_INTERPOSE(int, pthread_cond_signal, (pthread_cond_t * condition), (condition))

namespace {

using mwl::StatusCode;
using mwl::QueuedProcessings::ThreadManager;
using tern::test::Error;
using tern::test::FakeExecutor;
using tern::test::FakeMonitor;
using tern::test::FaultScope;
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
    std::atomic<bool> waits{false};
    std::atomic<bool> destroyed{false};
    FaultScope scope(fault_pthread_cond_signal);
    fault_pthread_cond_signal.Replace([&](pthread_cond_t* condition) {
        changed.set_value();  // the flag is set, the mutex released
        EXPECT_TRUE(tern::test::WaitUntil([&] { return waits || destroyed; }));
        EXPECT_FALSE(destroyed);
        return fault_pthread_cond_signal.Real(condition);
    });
    FaultScope sleepScope(fault_nanosleep);
    std::atomic<pthread_t> threadId{};
    fault_nanosleep.Replace(
        [&](const timespec* duration, timespec* left) {
            if (pthread_self() == threadId) {
                waits = true;
            }
            return fault_nanosleep.Real(duration, left);
        },
        std::numeric_limits<int>::max());
    std::thread thread([&, owner = std::move(owner)]() mutable {
        threadId = pthread_self();
        changed.get_future().get();
        EXPECT_EQ(owner->Wait(), answer);
        owner.reset();
        destroyed = true;
    });
    (manager->*call)();
    thread.join();
    EXPECT_TRUE(waits);
}

TEST_F(QueuedThreadManager, OutlivesItsOwnStop) {
    ExpectToOutlive(&ThreadManager::Stop, StatusCode::Stopping, mMonitor, mExecutor);
}

TEST_F(QueuedThreadManager, OutlivesItsOwnNotify) {
    ExpectToOutlive(&ThreadManager::Notify, StatusCode::Ok, mMonitor, mExecutor);
}

}  // namespace
