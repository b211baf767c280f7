#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <tern/queued_processings/component.h>
#include <tern/service/component.h>
#include <tern/service/dbus_message_pipe.h>
#include <tern/service/event_loop.h>
#include <tern/service/service_main_loop.h>
#include <tern/threading/signals.h>
#include <tern/threading/stop_signal.h>
#include <tern/threading/thread_pool.h>
#include <tern/threading/threads_monitor.h>
#include <tern/threading/threads_watcher.h>
#include <tern/timer/short_period_timer.h>
#include <tern/timer/timer.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <random>

#include "support/log_capture.h"
#include "support/notify_socket.h"
#include "support/private_bus.h"
#include "support/process_resources.h"
#include "support/wait_until.h"

using mwl::StatusCode;

namespace {

#if defined(__SANITIZE_THREAD__)
// Timers that notify on a thread of the C library crash under ThreadSanitizer.
constexpr bool HAS_NOTIFYING_TIMERS = false;
#else
constexpr bool HAS_NOTIFYING_TIMERS = true;
#endif

const std::string NAME = "com.example.Busy";

/// Receives numbers from the workers on the D-Bus thread.
class Server : public mwl::DBusService::IpcServer {
public:
    StatusCode Start(mw::tern::DBusServerManager&, mw::tern::EventLoop& loop) override {
        const StatusCode status = mPipe.Initialize();
        return status != StatusCode::Ok ? status : loop.AddIo(mPipe.GetReadFd(), EPOLLIN, [this](auto...) {
            int number = 0;
            ++mReceived;
            return mPipe.ReadMessage(&number, sizeof number, 0);
        });
    }
    void Stop() override { mStopped = true; }

    /// Leaves out what would fill the pipe when nobody reads any more.
    void Send(int number) {
        if (!mStopped) {
            static_cast<void>(mPipe.WriteMessage(&number, sizeof number));
        }
    }
    int Received() const { return mReceived; }

private:
    mw::tern::MessagePipe mPipe;
    std::atomic<int> mReceived{0};
    std::atomic<bool> mStopped{false};
};

/// Wakes itself again and again, so that it is always running or about to.
class BusyExecutor : public mwl::QueuedProcessings::ExecutorInterface {
public:
    explicit BusyExecutor(Server& server) : mServer(server) {}
    StatusCode Initialize() override { return StatusCode::Ok; }
    void Execute() override { mServer.Send(++mRuns); }
    void Stop() override {}
    int Runs() const { return mRuns; }

private:
    Server& mServer;
    std::atomic<int> mRuns{0};
};

/// A worker of the application's own, blocked in a system call until the stop signal comes.
class BlockedWorker : public mwl::Threading::ThreadManager {
public:
    explicit BlockedWorker(mwl::Threading::ThreadsMonitorInterface& monitor) : ThreadManager(monitor) {}
    void Start() {
        mThread = std::thread([this] {
            mThreadId = static_cast<unsigned long>(pthread_self());
            NotifyStarted();
            mRunning = true;
            char byte = 0;
            while (!mStopping) {
                static_cast<void>(!read(mPipe[0], &byte, 1));
            }
        });
    }
    void Stop() override {
        mStopping = true;
        // Closes the gap between the flag's test and the read: the signal alone could come too early.
        static_cast<void>(!write(mPipe[1], "x", 1));
        mwl::Threading::StopSignal::SendToThread(mThreadId);
    }
    void Join() {
        mThread.join();
        NotifyStopped();
        close(mPipe[0]);
        close(mPipe[1]);
    }
    bool IsRunning() const { return mRunning; }
    bool Open() { return pipe2(mPipe, O_CLOEXEC) == 0; }

private:
    std::thread mThread;
    std::atomic<bool> mRunning{false};
    std::atomic<bool> mStopping{false};
    int mPipe[2] = {-1, -1};
};

/// Sleeps in a system call until the pool's forced stop interrupts it. The signal comes once, and perhaps
/// just before the call: then it is the flag that ends the job, one turn later.
void SleepUntil(const std::atomic<bool>& stopping) {
    while (!stopping) {
        const timespec turn{0, 200000000};
        nanosleep(&turn, nullptr);
    }
}

/// One extension with every kind of worker busy: set up, sent SIGTERM at some moment, waited for. Returns how
/// long the stop took.
std::chrono::milliseconds RunOnce(std::minstd_rand& random, int sleepingJobs) {
    mwl::Threading::Signals signals;
    mwl::Threading::ThreadsMonitor monitor(signals);
    mwl::Threading::ThreadsWatcher watcher(monitor);
    Server server;
    mwl::DBusService::Component service(NAME, monitor, server);
    EXPECT_EQ(service.Start(), StatusCode::Ok);

    mwl::Threading::ThreadPool::ThreadPool pool(3, watcher, signals);
    std::atomic<int> jobs{0};
    std::function<void()> job = [&] {
        ++jobs;
        pool.QueueJob(job);
    };
    pool.Start();
    pool.QueueJob(job);
    std::atomic<bool> stopping{false};
    for (int i = 0; i < sleepingJobs; ++i) {
        pool.QueueJob([&stopping] { SleepUntil(stopping); });
    }
    BusyExecutor executor(server);
    mwl::QueuedProcessings::Component queued("Busy", "busy", monitor, executor);
    EXPECT_EQ(queued.Start(), StatusCode::Ok);
    mwl::Timer::ShortPeriodTimer shortTimer(1, true, [&] { queued.WakeUp(); });
    EXPECT_EQ(shortTimer.Start(), StatusCode::Ok);
    // Its Stop does not wait for a callback under way, which therefore owns what it touches.
    const auto expiries = std::make_shared<std::atomic<int>>(0);
    mwl::Timer::Timer timer(1, true, [expiries] { ++*expiries; });
    if (HAS_NOTIFYING_TIMERS) {
        EXPECT_EQ(timer.Start(), StatusCode::Ok);
    }
    BlockedWorker blocked(monitor);
    EXPECT_TRUE(blocked.Open());
    blocked.Start();
    EXPECT_TRUE(tern::test::WaitUntil(
        [&] { return blocked.IsRunning() && executor.Runs() > 0 && jobs > 0 && server.Received() > 0; }));

    // Some rounds stop at once, others in the middle of things.
    const timespec moment{0, static_cast<long>(random() % 2000000)};
    nanosleep(&moment, nullptr);
    const auto asked = std::chrono::steady_clock::now();
    kill(getpid(), SIGTERM);
    service.JoinThread();
    if (HAS_NOTIFYING_TIMERS) {
        timer.Stop();
    }
    shortTimer.Stop();
    queued.Stop();
    queued.Join();
    stopping = true;
    pool.Stop(true);
    blocked.Stop();
    blocked.Join();
    watcher.Stop();
    const auto took = std::chrono::steady_clock::now() - asked;
    EXPECT_FALSE(monitor.HasFailure());
    return std::chrono::duration_cast<std::chrono::milliseconds>(took);
}

}  // namespace

TEST(StopOrder, EveryKindOfWorkerBusyAlwaysEndsWithinASecond) {
    constexpr int ROUNDS = 1000;
    tern::test::PrivateBus bus;
    tern::test::NotifySocket notify;
    tern::test::LogCapture log(4);  // warnings and errors
    ASSERT_EQ(mwl::Threading::StopSignal::Register(), StatusCode::Ok);
    ASSERT_EQ(mw::tern::ServiceMainLoop::BlockSignalsForRunningThread(), StatusCode::Ok);
    std::minstd_rand random(20260101);
    RunOnce(random, 0);
    ASSERT_EQ(notify.Receive(), "STOPPING=1\nShutting down...");
    const std::size_t descriptors = tern::test::CountDescriptors();
    std::chrono::milliseconds longest{0};
    for (int round = 0; round < ROUNDS && !HasFailure(); ++round) {
        SCOPED_TRACE(round);
        const std::chrono::milliseconds took = RunOnce(random, round % 3);
        EXPECT_LT(took, std::chrono::seconds(1));
        EXPECT_EQ(notify.Receive(), "STOPPING=1\nShutting down...");
        longest = std::max(longest, took);
    }
    RecordProperty("longest_stop_ms", static_cast<int>(longest.count()));
    printf("longest stop: %lld ms\n", static_cast<long long>(longest.count()));
    EXPECT_EQ(tern::test::CountDescriptors(), descriptors);
    EXPECT_THAT(log.Entries(), testing::IsEmpty());
}
