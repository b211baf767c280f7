#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <tern/queued_processings/component.h>
#include <tern/threading/signals_interface.h>
#include <tern/threading/threads_monitor.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>
#include <vector>

#include "queued_processings/fakes.h"
#include "support/allocations.h"
#include "support/child.h"
#include "support/interpose.h"
#include "support/late_set_value.h"
#include "support/log_capture.h"
#include "support/wait_until.h"

TERN_INTERPOSE(int, pthread_cond_wait, (pthread_cond_t * condition, pthread_mutex_t* mutex),
               (condition, mutex))
TERN_INTERPOSE(int, pthread_create,
               (pthread_t * thread, const pthread_attr_t* attributes, void* (*body)(void*), void* argument),
               (thread, attributes, body, argument))

namespace {

using mwl::StatusCode;
using mwl::QueuedProcessings::Component;
using mwl::QueuedProcessings::ComponentInterface;
using mwl::QueuedProcessings::ThreadManager;
using tern::test::ChildResult;
using tern::test::Error;
using tern::test::FakeExecutor;
using tern::test::FakeMonitor;
using tern::test::FaultScope;
using tern::test::Info;
using tern::test::LateSetValue;
using tern::test::LogCapture;
using tern::test::LogEntry;
using tern::test::NothrowMemoryShortage;
using tern::test::Notice;
using tern::test::RunInChild;
using tern::test::Trace;
using tern::test::WaitUntil;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

const std::string LOGGER = "QueuedProcessings::Component";
const std::string MANAGER_LOGGER = "QueuedProcessings::ThreadManager";

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int WAKE_UP_ROUNDS = 5000;
constexpr int LIFE_ROUNDS = 200;
#else
constexpr int WAKE_UP_ROUNDS = 100000;
constexpr int LIFE_ROUNDS = 2000;
#endif

const LogEntry MAIN_START = Trace(LOGGER, "ThreadMain: Start Upload thread");
const LogEntry MAIN_EXIT = Trace(LOGGER, "ThreadMain: Exit Upload thread");
const LogEntry CREATED = Trace(LOGGER, "Start: Upload thread created, and Upload initialized");
const LogEntry WAKE_UP = Trace(LOGGER, "WakeUp: launch Upload execution");
const LogEntry COMPLETED =
    Trace(LOGGER, "Join: Upload thread execution has completed, Upload service stopped");
const LogEntry LEAVE =
    Notice(MANAGER_LOGGER, "Wait: D-Bus thread is stopping, this thread has to stop too. Leave the loop");
const LogEntry TWICE = Error(LOGGER, "Start: Do not call start method twice");

static_assert(std::is_base_of_v<ComponentInterface, Component>);
static_assert(!std::is_copy_constructible_v<Component>);

/// A trace message that ends in "[ADDRESS]".
LogEntry WithAddress(const std::string& text, const void* address) {
    char printed[32];
    snprintf(printed, sizeof printed, "%p", address);
    return Trace(LOGGER, text + "[" + printed + "]");
}

/// The address printed in the one entry that begins so, null when there is none.
const void* PrintedAddress(const std::vector<LogEntry>& entries, const std::string& text) {
    for (const LogEntry& entry : entries) {
        void* address = nullptr;
        if (entry.text.starts_with(text) && sscanf(entry.text.c_str() + text.size(), "[%p]", &address) == 1) {
            return address;
        }
    }
    return nullptr;
}

class QueuedComponent : public testing::Test {
protected:
    void EndThread() {
        mComponent->Stop();
        mComponent->Join();
    }
    bool WaitForRuns(int runs) {
        return WaitUntil([&] { return mExecutor.executed >= runs; });
    }

    LogCapture mLog;
    FakeMonitor mMonitor;
    FakeExecutor mExecutor;
    std::unique_ptr<Component> mComponent =
        std::make_unique<Component>("Upload", "upload", mMonitor, mExecutor);
};

// Children first: no other thread must exist when a child is made.

struct Nonsense {};

ChildResult RunUntilItThrows(const std::function<void(FakeExecutor&)>& prepare) {
    return RunInChild([&] {
        FakeMonitor monitor;
        FakeExecutor executor;
        prepare(executor);
        Component component("Upload", "upload", monitor, executor);
        component.WakeUp();
        component.Start();
        component.Join();
        return 0;
    });
}

TEST(QueuedComponentProcess, EndsWithWhatIsNoStandardException) {
    const ChildResult child =
        RunUntilItThrows([](FakeExecutor& executor) { executor.onExecute = [] { throw Nonsense(); }; });
    EXPECT_EQ(child.signal, SIGABRT);
    EXPECT_THAT(child.log, Contains(MAIN_START));
    EXPECT_THAT(child.log, Not(Contains(MAIN_EXIT)));
}

TEST(QueuedComponentProcess, EndsWithWhatInitializeThrows) {
    const ChildResult child = RunUntilItThrows([](FakeExecutor& executor) {
        executor.onInitialize = []() -> StatusCode { throw std::runtime_error("no device"); };
    });
    EXPECT_EQ(child.signal, SIGABRT);
}

TEST_F(QueuedComponent, LivesFromStartToJoin) {
    ASSERT_EQ(mComponent->Start(), StatusCode::Ok);
    EXPECT_EQ(mExecutor.initialized, 1);
    EXPECT_EQ(mExecutor.executed, 0) << "nobody woke it";
    mComponent->WakeUp();
    ASSERT_TRUE(WaitForRuns(1));
    mComponent->Stop();
    EXPECT_EQ(mExecutor.stopped, 1);
    EXPECT_TRUE(mLog.WaitFor(MAIN_EXIT));
    EXPECT_THAT(mMonitor.Workers(), SizeIs(1)) << "registered until Join";
    mComponent->Join();
    EXPECT_THAT(mMonitor.Workers(), IsEmpty());
    const void* const address = mComponent.get();
    mComponent.reset();

    const std::vector<LogEntry> entries = mLog.Entries();
    const void* const thread = PrintedAddress(entries, "Stop: Stop Upload thread mThread=");
    EXPECT_NE(thread, nullptr);
    EXPECT_THAT(entries, ElementsAre(MAIN_START, CREATED, WAKE_UP,
                                     WithAddress("Stop: Stop Upload thread mThread=", thread), LEAVE,
                                     MAIN_EXIT, WithAddress("Join: Join Upload thread mThread=", thread),
                                     COMPLETED, WithAddress("~Component: Destroy component ", address)));
    EXPECT_EQ(mExecutor.executed, 1);
    EXPECT_EQ(mMonitor.failures + mMonitor.endings, 0) << "a normal end is not notified";
}

TEST_F(QueuedComponent, RunsTheExecutorOnItsOwnNamedThread) {
    std::vector<pthread_t> threads;
    char name[32] = "";
    mExecutor.onInitialize = [&] {
        threads.push_back(pthread_self());
        pthread_getname_np(pthread_self(), name, sizeof name);
        return StatusCode::Ok;
    };
    mExecutor.onExecute = [&] { threads.push_back(pthread_self()); };
    ASSERT_EQ(mComponent->Start(), StatusCode::Ok);
    mComponent->WakeUp();
    ASSERT_TRUE(WaitForRuns(1));
    EXPECT_EQ(mMonitor.Workers().front()->GetThreadId(), threads.front());
    EndThread();
    EXPECT_STREQ(name, "upload");
    EXPECT_NE(threads.front(), pthread_self());
    EXPECT_EQ(threads.front(), threads.back());
}

TEST_F(QueuedComponent, TooLongAThreadNameIsIgnored) {
    char own[32] = "";
    pthread_getname_np(pthread_self(), own, sizeof own);
    char name[32] = "";
    mExecutor.onInitialize = [&] {
        pthread_getname_np(pthread_self(), name, sizeof name);
        return StatusCode::Ok;
    };
    mComponent = std::make_unique<Component>("Upload", "sixteen-letters-", mMonitor, mExecutor);
    ASSERT_EQ(mComponent->Start(), StatusCode::Ok);
    EndThread();
    EXPECT_STREQ(name, own);
}

TEST_F(QueuedComponent, StartReturnsWhenTheExecutorIsInitialised) {
    std::promise<void> entered;
    std::promise<void> leave;
    mExecutor.onInitialize = [&] {
        entered.set_value();
        leave.get_future().get();
        return StatusCode::Ok;
    };
    std::future<StatusCode> start = std::async(std::launch::async, [this] { return mComponent->Start(); });
    entered.get_future().get();
    EXPECT_EQ(start.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
    EXPECT_THAT(mMonitor.Workers(), IsEmpty()) << "it registers when its loop starts";
    leave.set_value();
    EXPECT_EQ(start.get(), StatusCode::Ok);
    EXPECT_TRUE(WaitUntil([&] { return mMonitor.Workers().size() == 1; }));
    EndThread();
}

TEST_F(QueuedComponent, FoldsWakeUpsDuringARunIntoOneMore) {
    std::promise<void> entered;
    std::promise<void> leave;
    mExecutor.onExecute = [&] {
        if (mExecutor.executed == 0) {
            entered.set_value();
            leave.get_future().get();
        }
    };
    ASSERT_EQ(mComponent->Start(), StatusCode::Ok);
    mComponent->WakeUp();
    entered.get_future().get();
    FaultScope scope(fault_pthread_cond_wait);
    fault_pthread_cond_wait.Replace({}, 0);
    mComponent->WakeUp();
    mComponent->WakeUp();
    mComponent->WakeUp();
    leave.set_value();
    EXPECT_TRUE(WaitUntil([] { return fault_pthread_cond_wait.Calls() == 1; })) << "it sleeps again";
    EXPECT_EQ(mExecutor.executed, 2);
    EndThread();
    EXPECT_EQ(mExecutor.executed, 2);
}

TEST_F(QueuedComponent, WakeUpBeforeStartIsKept) {
    mComponent->WakeUp();
    ASSERT_EQ(mComponent->Start(), StatusCode::Ok);
    EXPECT_TRUE(WaitForRuns(1));
    EndThread();
    EXPECT_EQ(mExecutor.executed, 1);
}

TEST_F(QueuedComponent, ExecutorMayWakeItself) {
    mExecutor.onExecute = [&] {
        if (mExecutor.executed < 2) {
            mComponent->WakeUp();
        }
    };
    ASSERT_EQ(mComponent->Start(), StatusCode::Ok);
    mComponent->WakeUp();
    EXPECT_TRUE(WaitForRuns(3));
    EndThread();
    EXPECT_EQ(mExecutor.executed, 3);
}

TEST_F(QueuedComponent, SecondStartIsBusy) {
    ASSERT_EQ(mComponent->Start(), StatusCode::Ok);
    EXPECT_EQ(mComponent->Start(), StatusCode::Busy);
    EXPECT_EQ(mLog.Count(TWICE), 1U);
    EndThread();
    EXPECT_EQ(mComponent->Start(), StatusCode::Busy) << "the thread object is kept";
    EXPECT_EQ(mLog.Count(TWICE), 2U);
    EXPECT_EQ(mExecutor.initialized, 1);
}

TEST_F(QueuedComponent, StopBeforeStartDoesNothing) {
    mComponent->Stop();
    EXPECT_THAT(mLog.Entries(), ElementsAre(Trace(LOGGER, "Stop: Stop Upload thread mThread=[(nil)]")));
    EXPECT_EQ(mExecutor.stopped, 0);
    EXPECT_EQ(mComponent->Start(), StatusCode::Ok);
    mComponent->WakeUp();
    EXPECT_TRUE(WaitForRuns(1)) << "it is not stopping";
    EndThread();
}

TEST_F(QueuedComponent, FailedInitialisationAllowsAnotherStart) {
    mExecutor.onInitialize = [] { return StatusCode::NotFound; };
    EXPECT_EQ(mComponent->Start(), StatusCode::NotFound);
    EXPECT_THAT(
        mLog.Entries(),
        testing::UnorderedElementsAre(
            MAIN_START, Error(LOGGER, "ThreadMain: Failed to initialize Upload (NotFound)"),
            Error(LOGGER, "Start: Failed to initialize Upload, wait for completion (NotFound)"), MAIN_EXIT));
    EXPECT_THAT(mMonitor.Workers(), IsEmpty());
    mLog.Clear();
    mComponent->Stop();
    EXPECT_THAT(mLog.Entries(), ElementsAre(Trace(LOGGER, "Stop: Stop Upload thread mThread=[(nil)]")));

    mExecutor.onInitialize = nullptr;
    EXPECT_EQ(mComponent->Start(), StatusCode::Ok);
    EndThread();
    EXPECT_EQ(mExecutor.initialized, 2);
}

TEST_F(QueuedComponent, WithoutMemoryForTheThreadThereIsNone) {
    {
        const NothrowMemoryShortage shortage;
        EXPECT_EQ(mComponent->Start(), StatusCode::ResourceUnavailable);
    }
    EXPECT_THAT(mLog.Entries(), ElementsAre(Error(LOGGER, "Start: Failed to create Upload thread")));
    EXPECT_EQ(mComponent->Start(), StatusCode::Ok);
    EndThread();
}

TEST_F(QueuedComponent, RefusedThreadLeavesAsSystemError) {
    FaultScope scope(fault_pthread_create);
    fault_pthread_create.Fail(EAGAIN);
    EXPECT_THROW(mComponent->Start(), std::system_error);
    EXPECT_EQ(mComponent->Start(), StatusCode::Ok);
    EndThread();
}

TEST_F(QueuedComponent, ExceptionStopsTheServiceOnFailure) {
    mExecutor.onExecute = [] { throw std::runtime_error("disk gone"); };
    ASSERT_EQ(mComponent->Start(), StatusCode::Ok);
    mComponent->WakeUp();
    ASSERT_TRUE(mLog.WaitFor(MAIN_EXIT));
    EXPECT_EQ(mMonitor.failures, 1);
    EXPECT_EQ(mMonitor.endings, 0);
    EXPECT_THAT(mMonitor.Workers(), SizeIs(1)) << "registered until Join";
    EXPECT_THAT(
        mLog.Entries(),
        ElementsAre(MAIN_START, CREATED, WAKE_UP,
                    Error(LOGGER, "ThreadMain: caught exception [disk gone], restart the extension"),
                    Info("Threading::ThreadManager", "Notify D-Bus thread to stop on failure"), MAIN_EXIT));
    mComponent->Join();
    EXPECT_THAT(mMonitor.Workers(), IsEmpty());
}

TEST_F(QueuedComponent, FailedWaitEndsTheLoopWithoutAFailure) {
    FaultScope scope(fault_pthread_cond_wait);
    fault_pthread_cond_wait.Fail(EINVAL);
    ASSERT_EQ(mComponent->Start(), StatusCode::Ok);
    mComponent->Join();
    EXPECT_TRUE(mLog.Contains(
        Error(MANAGER_LOGGER,
              "Wait: Condition variable failure (InvalidArgument), leave the loop and stop the thread")));
    EXPECT_TRUE(mLog.Contains(MAIN_EXIT));
    EXPECT_EQ(mMonitor.failures + mMonitor.endings, 0);
    EXPECT_EQ(mExecutor.executed, 0);
}

TEST_F(QueuedComponent, SecondJoinFailsInTheStandardLibrary) {
    ASSERT_EQ(mComponent->Start(), StatusCode::Ok);
    EndThread();
    EXPECT_EQ(mMonitor.Removals(), 1);
    EXPECT_THROW(mComponent->Join(), std::system_error);
    EXPECT_EQ(mMonitor.Removals(), 1);
    EXPECT_EQ(mLog.Count(COMPLETED), 1U);
}

TEST_F(QueuedComponent, StopMayCutARunShort) {
    std::promise<void> entered;
    std::promise<void> told;
    mExecutor.onExecute = [&] {
        entered.set_value();
        told.get_future().get();
    };
    mExecutor.onStop = [&] { told.set_value(); };
    ASSERT_EQ(mComponent->Start(), StatusCode::Ok);
    mComponent->WakeUp();
    entered.get_future().get();
    mComponent->Stop();
    mComponent->Join();
    EXPECT_EQ(mExecutor.executed, 1);
}

TEST_F(QueuedComponent, StopTwiceTellsTheExecutorTwice) {
    ASSERT_EQ(mComponent->Start(), StatusCode::Ok);
    mComponent->Stop();
    mComponent->Stop();
    mComponent->Join();
    EXPECT_EQ(mExecutor.stopped, 2);
    EXPECT_EQ(mLog.Count(LEAVE), 1U);
}

// The new thread may be that far before its creator has come back from making it.
TEST_F(QueuedComponent, StopFromInitializeIsNotLost) {
    std::promise<void> stopped;
    std::future<void> isStopped = stopped.get_future();
    FaultScope scope(fault_pthread_create);
    fault_pthread_create.Replace(
        [&](pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*), void* argument) {
            const int result = fault_pthread_create.Real(thread, attributes, body, argument);
            EXPECT_EQ(isStopped.wait_for(tern::test::GENEROUS_LIMIT), std::future_status::ready);
            return result;
        });
    mExecutor.onInitialize = [&] {
        mComponent->Stop();
        stopped.set_value();
        return StatusCode::Ok;
    };
    EXPECT_EQ(mComponent->Start(), StatusCode::Ok);
    EXPECT_EQ(mExecutor.stopped, 1);
    EXPECT_TRUE(mLog.WaitFor(MAIN_EXIT));
    EXPECT_TRUE(mLog.Contains(LEAVE));
    EXPECT_EQ(mExecutor.executed, 0);
    EndThread();
}

TEST_F(QueuedComponent, ExecutorMayStopItDuringARun) {
    mExecutor.onExecute = [&] { mComponent->Stop(); };
    mComponent->WakeUp();
    ASSERT_EQ(mComponent->Start(), StatusCode::Ok);
    mComponent->Join();
    EXPECT_EQ(mExecutor.stopped, 1);
    EXPECT_EQ(mExecutor.executed, 1);
}

TEST_F(QueuedComponent, StoppedInitialisationThatFailsLeavesNothingToRun) {
    mExecutor.onInitialize = [&] {
        mComponent->Stop();
        return StatusCode::NotFound;
    };
    EXPECT_EQ(mComponent->Start(), StatusCode::NotFound);
    mExecutor.onInitialize = nullptr;
    mComponent->WakeUp();
    EXPECT_EQ(mComponent->Start(), StatusCode::Ok);
    mComponent->Join();
    EXPECT_EQ(mExecutor.executed, 0) << "there is no way back from a stop";
}

TEST_F(QueuedComponent, MonitorStopsItWithTheOthers) {
    FakeExecutor otherExecutor;
    Component other("Download", "download", mMonitor, otherExecutor);
    ASSERT_EQ(mComponent->Start(), StatusCode::Ok);
    ASSERT_EQ(other.Start(), StatusCode::Ok);
    ASSERT_TRUE(WaitUntil([&] { return mMonitor.Workers().size() == 2; }));
    mMonitor.StopWorkerThreads();
    mComponent->Join();
    other.Join();
    EXPECT_EQ(mExecutor.stopped + otherExecutor.stopped, 2);
    EXPECT_EQ(mLog.Count(LEAVE), 2U);
}

/// Signals nobody.
class SilentSignals : public mwl::Threading::SignalsInterface {
public:
    int SendSignal(unsigned long /*threadId*/, int signal) override {
        last = signal;
        return 0;
    }
    std::atomic<int> last{0};
};

TEST_F(QueuedComponent, WorksWithTheProcessMonitor) {
    SilentSignals signals;
    mwl::Threading::ThreadsMonitor monitor(signals);
    mComponent = std::make_unique<Component>("Upload", "upload", monitor, mExecutor);
    mComponent->Join();
    EXPECT_TRUE(mLog.Contains(Error("Threading::ThreadsList", "Failed to remove thread [0] from list")))
        << "Join without a thread unregisters all the same";

    mExecutor.onExecute = [] { throw std::runtime_error("disk gone"); };
    ASSERT_EQ(mComponent->Start(), StatusCode::Ok);
    mComponent->WakeUp();
    ASSERT_TRUE(mLog.WaitFor(MAIN_EXIT));
    EXPECT_EQ(signals.last, SIGTERM);
    EXPECT_TRUE(monitor.HasFailure());
    monitor.StopWorkerThreads();
    mComponent->Join();
}

TEST_F(QueuedComponent, DestroyedAfterStopItsThreadEndsByItself) {
    std::promise<void> entered;
    std::promise<void> leave;
    mExecutor.onExecute = [&] {
        entered.set_value();
        leave.get_future().get();
    };
    ASSERT_EQ(mComponent->Start(), StatusCode::Ok);
    mComponent->WakeUp();
    entered.get_future().get();
    mComponent->Stop();
    mComponent.reset();
    EXPECT_FALSE(mLog.Contains(MAIN_EXIT));
    leave.set_value();  // the loop goes on without its component
    EXPECT_TRUE(mLog.WaitFor(MAIN_EXIT));
    EXPECT_EQ(mExecutor.executed, 1);
    EXPECT_THAT(mMonitor.Workers(), SizeIs(1)) << "nobody unregisters it";
}

TEST_F(QueuedComponent, DestroyedWhileRunningItsThreadIsStillStoppedByTheMonitor) {
    ASSERT_EQ(mComponent->Start(), StatusCode::Ok);
    ASSERT_TRUE(WaitUntil([&] { return mMonitor.Workers().size() == 1; }));
    mComponent.reset();
    mMonitor.StopWorkerThreads();
    EXPECT_TRUE(mLog.WaitFor(MAIN_EXIT));
}

TEST_F(QueuedComponent, ExecutorMayDestroyItsComponent) {
    mExecutor.onExecute = [&] {
        mComponent->Stop();
        mComponent.reset();
    };
    ASSERT_EQ(mComponent->Start(), StatusCode::Ok);
    mComponent.get()->WakeUp();
    EXPECT_TRUE(mLog.WaitFor(MAIN_EXIT));
}

TEST_F(QueuedComponent, StepsOfTheThreadStandAlone) {
    ThreadManager manager(mMonitor, mExecutor);
    manager.Notify();
    mExecutor.onExecute = [&] { manager.Stop(); };
    std::promise<StatusCode> startUp;
    std::thread thread([&] { Component::ThreadMain("Upload", "upload", manager, startUp, mExecutor); });
    EXPECT_EQ(startUp.get_future().get(), StatusCode::Ok);
    thread.join();
    EXPECT_THAT(mLog.Entries(), ElementsAre(MAIN_START, LEAVE, MAIN_EXIT));
    EXPECT_THAT(mMonitor.Workers(), ElementsAre(&manager));

    mExecutor.onExecute = [] { throw std::runtime_error("to the caller"); };
    ThreadManager other(mMonitor, mExecutor);
    other.Notify();
    EXPECT_THROW(Component::Execute(other, mExecutor), std::runtime_error);
    EXPECT_EQ(other.GetThreadId(), pthread_self());
}

// Start goes on as soon as the value is there, while the thread is still returning from set_value.
TEST_F(QueuedComponent, PromiseOutlivesItsSetting) {
#if !TERN_RECOGNISES_FREED_MEMORY
    GTEST_SKIP() << "a freed promise is recognised under AddressSanitizer only";
#endif
    LateSetValue late;
    mExecutor.onInitialize = [&] { return late.WaitUntilAwaited() ? StatusCode::Ok : StatusCode::Failure; };
    ASSERT_EQ(mComponent->Start(), StatusCode::Ok);
    EXPECT_TRUE(late.Finish());
    EXPECT_FALSE(late.WasFreed());
    EndThread();
}

TEST_F(QueuedComponent, WakeUpAllocatesNothing) {
    ASSERT_EQ(mComponent->Start(), StatusCode::Ok);
    mComponent->WakeUp();
    ASSERT_TRUE(WaitForRuns(1));
    tern::test::SetLogThreshold(6);
    const std::size_t before = tern::test::CountAllocations();
    for (int i = 2; i <= 100; ++i) {
        const int runs = mExecutor.executed;
        mComponent->WakeUp();
        ASSERT_TRUE(WaitForRuns(runs + 1));
    }
    EXPECT_EQ(tern::test::CountAllocations(), before);
    EndThread();
}

// Each wake-up comes at another point of the loop: before the sleep, in it, during a run.
TEST_F(QueuedComponent, NoWakeUpIsLost) {
    tern::test::SetLogThreshold(0);
    std::atomic<int> asked{0};
    std::atomic<int> done{0};
    mExecutor.onExecute = [&] { done = asked.load(); };
    ASSERT_EQ(mComponent->Start(), StatusCode::Ok);
    for (int round = 1; round <= WAKE_UP_ROUNDS; ++round) {
        asked = round;
        mComponent->WakeUp();
        const auto deadline = std::chrono::steady_clock::now() + tern::test::GENEROUS_LIMIT;
        for (int spins = 0; done != round; ++spins) {
            if (spins % 64 == 63) {
                std::this_thread::yield();
                ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "round " << round;
            }
        }
        for (int delay = round % 200; delay > 0; --delay) {
            done.load();
        }
    }
    EndThread();
    EXPECT_LE(mExecutor.executed, WAKE_UP_ROUNDS) << "nor is one made up";
}

TEST_F(QueuedComponent, NoStopIsLost) {
    tern::test::SetLogThreshold(0);
    for (int round = 0; round < LIFE_ROUNDS; ++round) {
        FakeMonitor monitor;
        FakeExecutor executor;
        Component component("Upload", "upload", monitor, executor);
        ASSERT_EQ(component.Start(), StatusCode::Ok);
        std::thread waker([&] { component.WakeUp(); });
        component.Stop();
        component.Join();
        waker.join();
    }
}

}  // namespace
