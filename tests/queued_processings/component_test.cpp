#include "queued_processings/component_fixture.h"

namespace {

using namespace tern::test::queued;

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

}  // namespace
