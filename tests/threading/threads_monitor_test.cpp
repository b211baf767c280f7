#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <tern/threading/signals.h>
#include <tern/threading/threads_monitor.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <fstream>
#include <latch>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/log_capture.h"
#include "support/threads_of_children.h"
#include "support/wait_until.h"
#include "threading/supervision_doubles.h"
#include "threading/thread_state.h"

namespace mwl::Threading {
namespace {

using tern::test::Error;
using tern::test::Info;
using tern::test::LogCapture;
using tern::test::OtherThread;
using tern::test::Trace;
using ::testing::ElementsAre;
using ::testing::InSequence;
using ::testing::IsEmpty;
using ::testing::Return;
using ::testing::StrictMock;

const std::string LOGGER = "Threading::ThreadsMonitor";
constexpr unsigned long DBUS_THREAD = 77;

class ThreadsMonitorTest : public ::testing::Test {
protected:
    StrictMock<MockSignals> mSignals;
    ThreadsMonitor mMonitor{mSignals};
    StrictMock<MockWorker> mFirst{mMonitor, 11};
    StrictMock<MockWorker> mSecond{mMonitor, 22};
    LogCapture mLog;
};

TEST_F(ThreadsMonitorTest, StopsNobodyAndHasNoFailureAtFirst) {
    mMonitor.StopWorkerThreads();
    EXPECT_FALSE(mMonitor.HasFailure());
    EXPECT_THAT(mLog.Entries(), IsEmpty());
}

TEST_F(ThreadsMonitorTest, StopsWorkersInTheOrderOfRegistration) {
    mSecond.NotifyStarted();
    mFirst.NotifyStarted();
    InSequence order;
    EXPECT_CALL(mSecond, Stop());
    EXPECT_CALL(mFirst, Stop());
    mMonitor.StopWorkerThreads();
    EXPECT_THAT(mLog.Entries(), ElementsAre(Trace(LOGGER, "Add Worker thread [22]"),
                                            Trace(LOGGER, "Add Worker thread [11]")));
}

TEST_F(ThreadsMonitorTest, WorkerThatLeftIsNotStopped) {
    mFirst.NotifyStarted();
    mSecond.NotifyStarted();
    mFirst.NotifyStopped();
    EXPECT_CALL(mSecond, Stop());
    mMonitor.StopWorkerThreads();
    EXPECT_THAT(mLog.Entries(),
                ElementsAre(Trace(LOGGER, "Add Worker thread [11]"), Trace(LOGGER, "Add Worker thread [22]"),
                            Trace(LOGGER, "Remove Worker thread [11]"),
                            Trace("Threading::ThreadsList", "Thread [11] removed from list")));
}

TEST_F(ThreadsMonitorTest, RemovingAStrangerIsAnErrorAndChangesNothing) {
    mFirst.NotifyStarted();
    mSecond.NotifyStopped();
    EXPECT_THAT(
        mLog.Entries(),
        ElementsAre(Trace(LOGGER, "Add Worker thread [11]"), Trace(LOGGER, "Remove Worker thread [22]"),
                    Error("Threading::ThreadsList", "Failed to remove thread [22] from list")));
    EXPECT_CALL(mFirst, Stop());
    mMonitor.StopWorkerThreads();
}

TEST_F(ThreadsMonitorTest, SameWorkerTwiceIsRemovedOnceACall) {
    mFirst.NotifyStarted();
    mFirst.NotifyStarted();
    mFirst.NotifyStopped();
    EXPECT_CALL(mFirst, Stop());
    mMonitor.StopWorkerThreads();
}

TEST_F(ThreadsMonitorTest, StoppingTheWorkersIsRepeatable) {
    mFirst.NotifyStarted();
    EXPECT_CALL(mFirst, Stop()).Times(2);
    mMonitor.StopWorkerThreads();
    mMonitor.StopWorkerThreads();
}

TEST_F(ThreadsMonitorTest, FirstNotificationDecidesFailure) {
    mMonitor.SetDBusThreadId(DBUS_THREAD);
    EXPECT_CALL(mSignals, SendSignal(DBUS_THREAD, SIGTERM)).WillOnce(Return(0));
    mFirst.NotifyFailure();
    mSecond.NotifyStop();
    EXPECT_TRUE(mMonitor.HasFailure());
    EXPECT_THAT(mLog.Entries(LOGGER),
                ElementsAre(Info(LOGGER, "Notify D-Bus thread to stop [77]"),
                            Info(LOGGER, "Notification sent to thread [77]"),
                            Info(LOGGER, "D-Bus thread [77] already notified to stop")));
}

TEST_F(ThreadsMonitorTest, FailureAfterANominalStopIsNotAFailureOfTheProcess) {
    mMonitor.SetDBusThreadId(DBUS_THREAD);
    EXPECT_CALL(mSignals, SendSignal(DBUS_THREAD, SIGTERM)).WillOnce(Return(0));
    mFirst.NotifyStop();
    mSecond.NotifyFailure();
    EXPECT_FALSE(mMonitor.HasFailure());
    EXPECT_TRUE(mLog.Contains(Info(LOGGER, "D-Bus thread [77] already notified to stop")));
}

TEST_F(ThreadsMonitorTest, FailingSignalKeepsTheVerdictAndIsTriedAgain) {
    EXPECT_CALL(mSignals, SendSignal(0, SIGTERM)).WillOnce(Return(ESRCH));
    mMonitor.NotifyDBusThreadToStop(true);
    EXPECT_TRUE(mMonitor.HasFailure());
    EXPECT_CALL(mSignals, SendSignal(DBUS_THREAD, SIGTERM)).WillOnce(Return(EAGAIN)).WillOnce(Return(0));
    mMonitor.SetDBusThreadId(DBUS_THREAD);
    mMonitor.NotifyDBusThreadToStop(false);
    EXPECT_FALSE(mMonitor.HasFailure());
    mMonitor.NotifyDBusThreadToStopOnFailure();
    EXPECT_TRUE(mMonitor.HasFailure());
    EXPECT_THAT(mLog.Entries(), ElementsAre(Info(LOGGER, "Notify D-Bus thread to stop [0]"),
                                            Error(LOGGER, "Failed to notify thread [0], error=3"),
                                            Info(LOGGER, "Notify D-Bus thread to stop [77]"),
                                            Error(LOGGER, "Failed to notify thread [77], error=11"),
                                            Info(LOGGER, "Notify D-Bus thread to stop [77]"),
                                            Info(LOGGER, "Notification sent to thread [77]")));
}

TEST_F(ThreadsMonitorTest, WhoAsksWhileTheSignalIsSentLearnsTheVerdict) {
    std::thread asker;
    std::atomic<bool> answer{false};
    EXPECT_CALL(mSignals, SendSignal).WillOnce([&](unsigned long, int) {
        asker = std::thread([&] { answer = mMonitor.HasFailure(); });
        return ESRCH;
    });
    mMonitor.NotifyDBusThreadToStopOnFailure();
    asker.join();
    EXPECT_TRUE(answer);
}

TEST_F(ThreadsMonitorTest, OthersWaitWhileTheSignalIsSent) {
    std::optional<OtherThread> asker;
    std::optional<OtherThread> starter;
    std::optional<OtherThread> setter;
    EXPECT_CALL(mSignals, SendSignal).WillOnce([&](unsigned long, int) {
        asker.emplace([&] { EXPECT_TRUE(mMonitor.HasFailure()); });
        starter.emplace([&] { mFirst.NotifyStarted(); });
        setter.emplace([&] { mMonitor.SetDBusThreadId(DBUS_THREAD + 1); });
        EXPECT_TRUE(asker->IsHeldUp());
        EXPECT_TRUE(starter->IsHeldUp());
        EXPECT_TRUE(setter->IsHeldUp());
        return 0;
    });
    mMonitor.NotifyDBusThreadToStopOnFailure();
    starter.reset();
    EXPECT_CALL(mFirst, Stop());
    mMonitor.StopWorkerThreads();
}

TEST_F(ThreadsMonitorTest, OthersWaitWhileTheWorkersAreToldToStop) {
    mFirst.NotifyStarted();
    std::optional<OtherThread> asker;
    std::optional<OtherThread> starter;
    EXPECT_CALL(mFirst, Stop()).WillOnce([&] {
        asker.emplace([&] { EXPECT_FALSE(mMonitor.HasFailure()); });
        starter.emplace([&] { mSecond.NotifyStarted(); });
        EXPECT_TRUE(asker->IsHeldUp());
        EXPECT_TRUE(starter->IsHeldUp());
    });
    EXPECT_CALL(mSecond, Stop()).Times(0);  // too late for this time
    mMonitor.StopWorkerThreads();
}

// The real thing: no D-Bus thread yet, with the C library's signals.
TEST(ThreadsMonitor, StopBeforeTheDBusThreadExistsIsAnErrorAndNoCrash) {
    LogCapture log;
    Signals signals;
    ThreadsMonitor monitor(signals);
    monitor.NotifyDBusThreadToStopOnFailure();
    EXPECT_TRUE(monitor.HasFailure());
    EXPECT_TRUE(log.Contains(Error(LOGGER, "Failed to notify thread [0], error=3")));
}

TEST(ThreadsMonitor, RealSignalReachesTheDBusThread) {
    Signals signals;
    ThreadsMonitor monitor(signals);
    std::thread dbusThread([&] {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &set, nullptr);
        monitor.SetDBusThreadId(pthread_self());
        std::thread worker([&] { monitor.NotifyDBusThreadToStop(false); });
        int taken = 0;
        sigwait(&set, &taken);
        EXPECT_EQ(taken, SIGTERM);
        worker.join();
    });
    dbusThread.join();
    EXPECT_FALSE(monitor.HasFailure());
}

TEST(ThreadsMonitor, ThreadThatHasEndedIsNotSignalled) {
    StrictMock<MockSignals> signals;
    ThreadsMonitor monitor(signals);
    LogCapture log;
    unsigned long id = 0;
    std::thread dbusThread([&] {
        id = pthread_self();
        monitor.SetDBusThreadId(id);
        EXPECT_CALL(signals, SendSignal(id, SIGTERM)).WillOnce(Return(EAGAIN));
        monitor.NotifyDBusThreadToStop(false);
    });
    dbusThread.join();
    monitor.NotifyDBusThreadToStopOnFailure();
    EXPECT_TRUE(monitor.HasFailure());
    EXPECT_EQ(log.Count(Error(LOGGER, "Failed to notify thread [" + std::to_string(id) + "], error=3")), 1U);
}

/// The ids of a thread, which a later one may have too.
struct ThreadIds {
    unsigned long thread = 0;
    pid_t task = 0;
    static ThreadIds OfThisThread() { return {pthread_self(), gettid()}; }
    friend bool operator==(const ThreadIds&, const ThreadIds&) = default;
};

/// Has the kernel give this number to the next thread of the machine. False when it may not be asked.
bool MakeNext(pid_t task) {
    std::ofstream file("/proc/sys/kernel/ns_last_pid");
    return static_cast<bool>(file << task - 1 << std::flush);
}

// Once the kernel's number told whether the thread was still there, and SIGTERM reached a bystander.
TEST(ThreadsMonitor, ThreadThatWasGivenAllIdsOfTheDBusThreadIsNotSignalled) {
    StrictMock<MockSignals> signals;
    for (int attempt = 0; attempt < 1000; ++attempt) {
        ThreadsMonitor monitor(signals);
        ThreadIds ids;
        std::thread([&] {
            ids = ThreadIds::OfThisThread();
            monitor.SetDBusThreadId(ids.thread);
        }).join();
        if (!MakeNext(ids.task)) {
            GTEST_SKIP() << "the kernel does not let this user choose a thread's number";
        }
        bool isBystander = false;
        std::thread([&] {
            isBystander = ThreadIds::OfThisThread() == ids;
            if (isBystander) {
                monitor.NotifyDBusThreadToStopOnFailure();
            }
        }).join();
        if (isBystander) {
            EXPECT_TRUE(monitor.HasFailure());
            return;
        }
        // Somebody else on this machine was faster.
    }
    GTEST_SKIP() << "the number always went to somebody else";
}

class CountingSignals : public SignalsInterface {
public:
    int SendSignal(unsigned long /*threadId*/, int /*signal*/) override {
        ++sent;
        return 0;
    }
    int sent = 0;
};

/// A thread that is the monitor's D-Bus thread until the end of the block.
class DBusThread {
public:
    explicit DBusThread(ThreadsMonitor& monitor)
        : mThread([this, &monitor] {
              monitor.SetDBusThreadId(pthread_self());
              mIsSet.count_down();
              mEnd.wait();
          }) {
        mIsSet.wait();
    }
    ~DBusThread() {
        mEnd.count_down();
        mThread.join();
    }
    DBusThread(const DBusThread&) = delete;
    DBusThread& operator=(const DBusThread&) = delete;

private:
    std::latch mIsSet{1};
    std::latch mEnd{1};
    std::thread mThread;
};

// Its entry lay in memory that a new thread of the child got, and stood in the list for ever.
TEST(ThreadsMonitor, ThreadThatAForkedChildDoesNotHaveIsNotSignalled) {
    CountingSignals signals;
    ThreadsMonitor monitor(signals);
    std::optional<DBusThread> dbusThread(monitor);
    const pid_t child = fork();
    if (child == 0) {
        monitor.NotifyDBusThreadToStopOnFailure();
        // The one that forks is there.
        ThreadsMonitor own(signals);
        own.SetDBusThreadId(pthread_self());
        own.NotifyDBusThreadToStop(false);
        _exit(signals.sent == 1 ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    dbusThread.reset();
    monitor.NotifyDBusThreadToStopOnFailure();
    EXPECT_EQ(signals.sent, 0) << "its end is noticed in the parent";
}

TEST(ThreadsMonitor, ForkedChildHasADBusThreadOfItsOwn) {
    SKIP_WHERE_CHILDREN_OF_THREADS_HAVE_NONE();
    CountingSignals signals;
    ThreadsMonitor monitor(signals);
    const DBusThread dbusThread(monitor);
    const pid_t child = fork();
    if (child == 0) {
        ThreadsMonitor own(signals);
        std::thread([&] {
            own.SetDBusThreadId(pthread_self());
            own.NotifyDBusThreadToStop(false);
        }).join();
        const int sent = signals.sent;
        ThreadsMonitor later(signals);
        std::thread([&] { later.SetDBusThreadId(pthread_self()); }).join();
        later.NotifyDBusThreadToStop(false);
        _exit(sent == 1 && signals.sent == 1 ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

class CountingWorker : public ThreadManager {
public:
    using ThreadManager::ThreadManager;
    void Stop() override { stops.fetch_add(1); }
    void Run() {
        mThreadId = pthread_self();
        NotifyStarted();
        NotifyFailure();
        NotifyStopped();
    }
    std::atomic<int> stops{0};
};

TEST(ThreadsMonitor, ManyThreadsAtOnceSendOneSignal) {
    StrictMock<MockSignals> signals;
    EXPECT_CALL(signals, SendSignal(DBUS_THREAD, SIGTERM)).WillOnce(Return(0));
    ThreadsMonitor monitor(signals);
    monitor.SetDBusThreadId(DBUS_THREAD);
    std::vector<std::unique_ptr<CountingWorker>> workers;
    std::vector<std::thread> threads;
    LogCapture log;
    workers.reserve(8);
    threads.reserve(8);
    for (int i = 0; i < 8; ++i) {
        workers.push_back(std::make_unique<CountingWorker>(monitor));
    }
    for (const auto& worker : workers) {
        threads.emplace_back([&worker] { worker->Run(); });
    }
    for (int i = 0; i < 100; ++i) {
        monitor.StopWorkerThreads();
        static_cast<void>(workers[0]->GetThreadId());  // while it is stored, for ThreadSanitizer
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(monitor.HasFailure());
    EXPECT_EQ(log.Count(Info(LOGGER, "D-Bus thread [77] already notified to stop")), 7U);
    for (const auto& worker : workers) {
        worker->stops = 0;
    }
    monitor.StopWorkerThreads();
    for (const auto& worker : workers) {
        EXPECT_EQ(worker->stops, 0);
    }
}

}  // namespace
}  // namespace mwl::Threading
