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

#include <algorithm>
#include <array>
#include <csignal>
#include <ctime>
#include <random>

#include "support/log_capture.h"
#include "support/notify_socket.h"
#include "support/private_bus.h"
#include "support/process_resources.h"
#include "support/wait_until.h"
#include "threading/thread_state.h"

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
    void Stop() override { mPipe.Close(); }

    /// Any thread. Fails once the server has been stopped.
    StatusCode Send(int number) { return mPipe.WriteMessage(&number, sizeof number); }
    int Received() const { return mReceived; }

private:
    mw::tern::MessagePipe mPipe;
    std::atomic<int> mReceived{0};
};

/// Has two pipes, of the smallest size, and reads them until it is to let them fill.
class LazyServer : public mwl::DBusService::IpcServer {
public:
    StatusCode Start(mw::tern::DBusServerManager&, mw::tern::EventLoop& loop) override {
        StatusCode status = StatusCode::Ok;
        for (Pipe& pipe : mPipes) {
            status = status == StatusCode::Ok ? pipe.messages.Initialize() : status;
            EXPECT_GE(fcntl(pipe.messages.GetWriteFd(), F_SETPIPE_SZ, 1), 0);
            status = status == StatusCode::Ok
                         ? loop.AddIo(pipe.messages.GetReadFd(), EPOLLIN,
                                      [&](auto...) {
                                          Read(pipe);
                                          return mIsLazy ? StatusCode::Busy : StatusCode::Ok;
                                      })
                         : status;
        }
        return status;
    }
    void Stop() override {
        for (Pipe& pipe : mPipes) {
            pipe.messages.Close();
        }
    }

    /// From the next message on nothing is read: a failure switches the watch off.
    void BecomeLazy() { mIsLazy = true; }
    StatusCode Send(std::size_t pipe, int number) {
        return mPipes.at(pipe).messages.WriteMessage(&number, sizeof number);
    }
    /// Messages read so far; after the D-Bus thread's end also those that Close left.
    int Received() {
        int received = 0;
        for (Pipe& pipe : mPipes) {
            received += pipe.received;
        }
        return received;
    }
    void ReadTheRest() {
        for (Pipe& pipe : mPipes) {
            while (Read(pipe) == StatusCode::Ok) {
            }
        }
    }

private:
    struct Pipe {
        mw::tern::MessagePipe messages;
        std::atomic<int> received{0};
    };
    static StatusCode Read(Pipe& pipe) {
        int number = 0;
        const StatusCode status = pipe.messages.ReadMessage(&number, sizeof number, 0);
        pipe.received += status == StatusCode::Ok ? 1 : 0;
        return status;
    }

    std::array<Pipe, 2> mPipes;
    std::atomic<bool> mIsLazy{false};
};

/// Writes to both pipes by turns until it is told to stop or cannot.
class Writer : public mwl::Threading::ThreadManager {
public:
    Writer(mwl::Threading::ThreadsMonitorInterface& monitor, LazyServer& server)
        : ThreadManager(monitor), mServer(server) {}
    void Start() {
        mThread = std::thread([this] {
            mThreadId = static_cast<unsigned long>(pthread_self());
            mId = gettid();
            NotifyStarted();
            for (std::size_t turn = 0; !mStopping && mServer.Send(turn % 2, 1) == StatusCode::Ok; ++turn) {
                ++mWritten;
            }
        });
    }
    /// The signal finds it anywhere: in write(2), at the lock, or between the flag and either.
    void Stop() override {
        mStopping = true;
        mwl::Threading::StopSignal::SendToThread(mThreadId);
    }
    void Join() {
        mThread.join();
        NotifyStopped();
    }
    int Written() const { return mWritten; }
    bool IsHeldUp() const { return tern::test::IsAsleep(mId); }

private:
    LazyServer& mServer;
    std::atomic<pid_t> mId{0};
    std::thread mThread;
    std::atomic<bool> mStopping{false};
    std::atomic<int> mWritten{0};
};

/// Wakes itself again and again, so that it is always running or about to.
class BusyExecutor : public mwl::QueuedProcessings::ExecutorInterface {
public:
    explicit BusyExecutor(Server& server) : mServer(server) {}
    StatusCode Initialize() override { return StatusCode::Ok; }
    void Execute() override { static_cast<void>(mServer.Send(++mRuns)); }
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

/// One extension whose two writers wait at a full pipe when SIGTERM comes, or are about to.
std::chrono::milliseconds RunWriters(std::minstd_rand& random, bool full) {
    mwl::Threading::Signals signals;
    mwl::Threading::ThreadsMonitor monitor(signals);
    LazyServer server;
    mwl::DBusService::Component service(NAME, monitor, server);
    EXPECT_EQ(service.Start(), StatusCode::Ok);
    Writer first(monitor, server);
    Writer second(monitor, server);
    first.Start();
    second.Start();
    EXPECT_TRUE(tern::test::WaitUntil([&] { return server.Received() > 0; }));
    if (full) {
        server.BecomeLazy();
        // Both, or one and the other at its lock.
        EXPECT_TRUE(tern::test::WaitUntil([&] { return first.IsHeldUp() && second.IsHeldUp(); }));
    }
    const timespec moment{0, static_cast<long>(random() % 1000000)};
    nanosleep(&moment, nullptr);
    const auto asked = std::chrono::steady_clock::now();
    kill(getpid(), SIGTERM);
    service.JoinThread();
    first.Join();
    second.Join();
    const auto took = std::chrono::steady_clock::now() - asked;
    EXPECT_FALSE(monitor.HasFailure());
    server.ReadTheRest();
    EXPECT_EQ(server.Received(), first.Written() + second.Written())
        << "nothing is lost, nothing is read twice";
    return std::chrono::duration_cast<std::chrono::milliseconds>(took);
}

}  // namespace

// What a newcomer writes: workers that report, a loop that reads, and no thought of the end. When the loop
// has ended the pipes are full in no time; each writer that waited then waited for ever.
TEST(StopOrder, FullPipesAndTwoWritersAlwaysEndWithinASecond) {
    constexpr int ROUNDS = 1000 / tern::test::SLOWNESS;
    tern::test::PrivateBus bus;
    tern::test::NotifySocket notify;
    tern::test::LogCapture log(4);  // warnings and errors
    ASSERT_EQ(mwl::Threading::StopSignal::Register(), StatusCode::Ok);
    ASSERT_EQ(mw::tern::ServiceMainLoop::BlockSignalsForRunningThread(), StatusCode::Ok);
    std::minstd_rand random(20260202);
    RunWriters(random, false);
    ASSERT_EQ(notify.Receive(), "STOPPING=1\nShutting down...");
    const std::size_t descriptors = tern::test::CountDescriptors();
    std::chrono::milliseconds longest{0};
    for (int round = 0; round < ROUNDS && !HasFailure(); ++round) {
        SCOPED_TRACE(round);
        const std::chrono::milliseconds took = RunWriters(random, round % 4 != 0);
        EXPECT_LT(took, std::chrono::seconds(1) + tern::test::TOLERANCE);
        EXPECT_EQ(notify.Receive(), "STOPPING=1\nShutting down...");
        longest = std::max(longest, took);
    }
    RecordProperty("longest_stop_ms", static_cast<int>(longest.count()));
    printf("longest stop: %lld ms\n", static_cast<long long>(longest.count()));
    EXPECT_EQ(tern::test::CountDescriptors(), descriptors);
    EXPECT_THAT(log.Entries(), testing::Each(tern::test::Error(
                                   "Service", "[MessagePipe] WriteMessage fails : Interrupted system call")))
        << "the stop signal at a full pipe";
}

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
        EXPECT_LT(took, std::chrono::seconds(1) + tern::test::TOLERANCE);
        EXPECT_EQ(notify.Receive(), "STOPPING=1\nShutting down...");
        longest = std::max(longest, took);
    }
    RecordProperty("longest_stop_ms", static_cast<int>(longest.count()));
    printf("longest stop: %lld ms\n", static_cast<long long>(longest.count()));
    EXPECT_EQ(tern::test::CountDescriptors(), descriptors);
    EXPECT_THAT(log.Entries(), testing::IsEmpty());
}
