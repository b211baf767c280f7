// How a queued component stops and is joined or destroyed, whoever asks.

#include "queued_processings/component_fixture.h"

namespace {

using namespace tern::test::queued;

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
