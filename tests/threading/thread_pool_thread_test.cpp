#include <signal.h>
#include <tern/threading/thread_pool_thread.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <future>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>

#include "support/child.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/wait_until.h"
#include "threading/moved_clock.h"
#include "threading/supervision_doubles.h"
#include "threading/watching_doubles.h"

TERN_INTERPOSE(int, pthread_create,
               (pthread_t * thread, const pthread_attr_t* attributes, void* (*body)(void*), void* argument),
               (thread, attributes, body, argument))

namespace mwl::Threading::ThreadPool {
namespace {

using std::chrono::milliseconds;
using tern::test::FaultScope;
using tern::test::LogCapture;
using tern::test::MovedClock;
using tern::test::RunInChild;
using tern::test::Trace;
using ::testing::ElementsAre;
using ::testing::InSequence;
using ::testing::IsEmpty;
using ::testing::NiceMock;
using ::testing::Return;
using ::testing::StrictMock;

using Notify = std::function<void()>;

const std::string LOGGER = "ThreadPool::Thread";

class PoolThreadTest : public ::testing::Test {
protected:
    LogCapture mLog;
    StrictMock<MockWatcher> mWatcher;
    StrictMock<MockSignals> mSignals;
};

TEST_F(PoolThreadTest, IsNamedByItsIndex) {
    EXPECT_EQ(Thread(
                  mWatcher, [](const Notify&) {}, mSignals, 0)
                  .GetName(),
              "ThreadPool::Thread0");
    EXPECT_EQ(Thread(
                  mWatcher, [](const Notify&) {}, mSignals, 4294967295U)
                  .GetName(),
              "ThreadPool::Thread4294967295");
    EXPECT_TRUE((std::is_base_of_v<ThreadWatched, Thread>));
    EXPECT_TRUE(std::has_virtual_destructor_v<Thread>);
    EXPECT_THAT(mLog.Entries(), IsEmpty());
}

TEST_F(PoolThreadTest, WithoutThreadThereIsNothingToSignalOrJoin) {
    Thread thread(
        mWatcher, [](const Notify&) {}, mSignals, 0);
    thread.SendSignal(SIGUSR1);
    thread.Join();
    EXPECT_THAT(mLog.Entries(), IsEmpty());
}

TEST_F(PoolThreadTest, RunsTheLoopWatchedWithAPeriodOfAMinute) {
    InSequence order;
    std::thread::id ranOn;
    Thread thread(
        mWatcher, [&](const Notify&) { ranOn = std::this_thread::get_id(); }, mSignals, 3);
    EXPECT_CALL(mWatcher, Register(&thread)).WillOnce([](const ThreadWatched* watched) {
        EXPECT_EQ(watched->GetPeriod(), milliseconds(60000));
        EXPECT_EQ(watched->GetThreadId(), pthread_self());
    });
    EXPECT_CALL(mWatcher, Unregister(&thread));
    thread.Start();
    thread.Join();
    EXPECT_NE(ranOn, std::thread::id());
    EXPECT_NE(ranOn, std::this_thread::get_id());
    EXPECT_THAT(mLog.Entries(), ElementsAre(Trace(LOGGER, "Loop: Thread ThreadPool::Thread3 finished"),
                                            Trace(LOGGER, "Join: Thread ThreadPool::Thread3 joined")));
}

TEST_F(PoolThreadTest, CallbackReportsWork) {
    EXPECT_CALL(mWatcher, Register);
    EXPECT_CALL(mWatcher, Unregister);
    MovedClock::Freeze();
    Thread* self = nullptr;
    Thread thread(
        mWatcher,
        [&](const Notify& notifyWork) {
            MovedClock::Advance(milliseconds(500));
            EXPECT_EQ(self->GetElapsedTimeSinceLastWork(), milliseconds(500));
            notifyWork();
            EXPECT_EQ(self->GetElapsedTimeSinceLastWork(), milliseconds(0));
        },
        mSignals, 0);
    self = &thread;
    thread.Loop();
    MovedClock::Resume();
}

TEST_F(PoolThreadTest, SignalGoesToItsThreadAndTheResultIsIgnored) {
    EXPECT_CALL(mWatcher, Register);
    EXPECT_CALL(mWatcher, Unregister);
    std::promise<void> end;
    std::promise<unsigned long> id;
    Thread thread(
        mWatcher,
        [&](const Notify&) {
            id.set_value(pthread_self());
            end.get_future().wait();
        },
        mSignals, 0);
    thread.Start();
    EXPECT_CALL(mSignals, SendSignal(id.get_future().get(), SIGUSR1)).WillOnce(Return(ESRCH));
    thread.SendSignal(SIGUSR1);
    end.set_value();
    thread.Join();
    thread.SendSignal(SIGUSR1);  // gone
}

TEST_F(PoolThreadTest, DestructorJoinsAndJoinIsRepeatable) {
    EXPECT_CALL(mWatcher, Register).Times(2);
    EXPECT_CALL(mWatcher, Unregister).Times(2);
    std::atomic<int> runs{0};
    {
        Thread thread(
            mWatcher, [&](const Notify&) { ++runs; }, mSignals, 0);
        thread.Start();
        thread.Join();
        thread.Join();
        thread.Start();
    }
    EXPECT_EQ(runs, 2);
    EXPECT_EQ(mLog.Count(Trace(LOGGER, "Join: Thread ThreadPool::Thread0 joined")), 2U);
}

TEST_F(PoolThreadTest, RefusedThreadLeavesItUnstarted) {
    EXPECT_CALL(mWatcher, Register);
    EXPECT_CALL(mWatcher, Unregister);
    Thread thread(
        mWatcher, [](const Notify&) {}, mSignals, 0);
    FaultScope scope(fault_pthread_create);
    fault_pthread_create.Fail(EAGAIN);
    EXPECT_THROW(thread.Start(), std::system_error);
    thread.SendSignal(SIGUSR1);
    thread.Join();
    EXPECT_THAT(mLog.Entries(), IsEmpty());
    thread.Start();
    thread.Join();
}

TEST_F(PoolThreadTest, EmptyLoopThrows) {
    EXPECT_CALL(mWatcher, Register);
    Thread thread(mWatcher, nullptr, mSignals, 0);
    EXPECT_THROW(thread.Loop(), std::bad_function_call);
}

TEST(PoolThread, EmptyLoopOnTheThreadEndsTheProcess) {
    const auto result = RunInChild([] {
        NiceMock<MockWatcher> watcher;
        NiceMock<MockSignals> signals;
        Thread thread(watcher, nullptr, signals, 0);
        thread.Start();
        thread.Join();
        return 0;
    });
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_NE(result.error.find("bad_function_call"), std::string::npos) << result.error;
}

TEST(PoolThread, StartingARunningThreadEndsTheProcess) {
    const auto result = RunInChild([] {
        NiceMock<MockWatcher> watcher;
        NiceMock<MockSignals> signals;
        Thread thread(
            watcher, [](const Notify&) {}, signals, 0);
        thread.Start();
        thread.Start();
        return 0;
    });
    EXPECT_EQ(result.signal, SIGABRT);
}

}  // namespace
}  // namespace mwl::Threading::ThreadPool
