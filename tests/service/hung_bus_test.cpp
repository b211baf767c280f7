#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <tern/service/component.h>
#include <tern/service/dbus_server_manager.h>
#include <tern/service/event_loop.h>
#include <tern/threading/signals.h>
#include <tern/threading/threads_monitor.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "foundation/handle.h"
#include "foundation/unique_fd.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/notify_socket.h"
#include "support/private_bus.h"
#include "support/process_resources.h"
#include "support/temp_folder.h"
#include "support/wait_until.h"

// A bus that lets connect and then neither reads nor answers, as a daemon does that is stopped, swapped out
// or stuck.

using mw::tern::DBusServerManager;
using mw::tern::EventLoop;
using mw::tern::StatusCode;
using mwl::DBusService::Component;
using tern::test::Error;
using tern::test::FaultScope;
using tern::test::Info;
using tern::test::LogCapture;
using tern::test::WaitUntil;
using testing::IsEmpty;

TERN_INTERPOSE(int, eventfd, (unsigned int count, int flags), (count, flags))
TERN_INTERPOSE(int, poll, (pollfd * records, nfds_t count, int timeout), (records, count, timeout))
TERN_INTERPOSE(int, sd_bus_request_name, (sd_bus * bus, const char* name, std::uint64_t flags),
               (bus, name, flags))
TERN_INTERPOSE(int, signalfd, (int fd, const sigset_t* mask, int flags), (fd, mask, flags))

namespace {

using Bus = mwl::Handle<sd_bus, sd_bus_unref>;

const std::string NAME = "com.example.Hung";
const std::string STOPPING = "STOPPING=1\nShutting down...";
/// TimeoutStopSec of the units.
constexpr std::chrono::seconds STOP_LIMIT{5};

/// The daemon behind a connection, held still until the end of the block.
class Stopped {
public:
    explicit Stopped(sd_bus* bus) {
        sd_bus_creds* creds = nullptr;
        EXPECT_GE(sd_bus_get_owner_creds(bus, SD_BUS_CREDS_PID, &creds), 0);
        EXPECT_GE(sd_bus_creds_get_pid(creds, &mPid), 0);
        sd_bus_creds_unref(creds);
        EXPECT_GT(mPid, 1);
        kill(mPid, SIGSTOP);
    }
    ~Stopped() { Continue(); }
    Stopped(const Stopped&) = delete;
    Stopped& operator=(const Stopped&) = delete;

    void Continue() { kill(mPid, SIGCONT); }

private:
    pid_t mPid = -1;
};

Bus OpenPeer() {
    sd_bus* bus = nullptr;
    EXPECT_GE(sd_bus_open_system(&bus), 0);
    return Bus(bus);
}

/// Sends signals of a mebibyte until the socket takes no more, and two beyond. How many; 0 when it took all
/// of 100.
int SendMoreThanTheSocketTakes(sd_bus* bus) {
    const std::string large(1 << 20, 'x');
    std::uint64_t queued = 0;
    for (int sent = 1; sent <= 100; ++sent) {
        EXPECT_GE(sd_bus_emit_signal(bus, "/com/example/Hung", NAME.c_str(), "Large", "s", large.c_str()), 0);
        EXPECT_GE(sd_bus_get_n_queued_write(bus, &queued), 0);
        if (queued >= 3) {
            return sent;
        }
    }
    return 0;
}

/// A bus that answers all of a connection's start and then nothing more.
class FallsSilentAfterHello {
public:
    FallsSilentAfterHello() : mListener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const std::string path = mFolder.Path() + "/bus";
        path.copy(static_cast<char*>(address.sun_path), sizeof address.sun_path - 1);
        EXPECT_EQ(bind(mListener.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(mListener.Get(), 1), 0);
        setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + path).c_str(), 1);
        mThread = std::thread([this] { Serve(); });
    }
    ~FallsSilentAfterHello() { mThread.join(); }
    FallsSilentAfterHello(const FallsSilentAfterHello&) = delete;
    FallsSilentAfterHello& operator=(const FallsSilentAfterHello&) = delete;

    bool WasAskedForTheName() const {
        return WaitUntil([this] { return mIsAskedForTheName.load(); });
    }

private:
    void Serve() {
        const int fd = accept4(mListener.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        sd_bus* made = nullptr;
        ASSERT_GE(sd_bus_new(&made), 0);
        const Bus bus(made);
        sd_id128_t id{};
        id.bytes[0] = 1;
        ASSERT_GE(sd_bus_set_fd(made, fd, fd), 0);
        ASSERT_GE(sd_bus_set_server(made, 1, id), 0);
        ASSERT_GE(sd_bus_set_trusted(made, 1), 0);
        ASSERT_GE(sd_bus_add_filter(made, nullptr, OnMessage, this), 0);
        ASSERT_GE(sd_bus_start(made), 0);
        int r = 0;
        while (sd_bus_is_open(made) > 0 && r >= 0) {
            r = sd_bus_process(made, nullptr);
            if (r == 0) {
                r = sd_bus_wait(made, UINT64_MAX);
            }
        }
        sd_bus_close(made);
    }

    static int OnMessage(sd_bus_message* message, void* self, sd_bus_error*) {
        if (sd_bus_message_is_method_call(message, nullptr, "Hello") > 0) {
            return sd_bus_reply_method_return(message, "s", ":1.1");
        }
        if (sd_bus_message_is_method_call(message, nullptr, "RequestName") > 0) {
            static_cast<FallsSilentAfterHello*>(self)->mIsAskedForTheName = true;
        }
        return 1;
    }

    tern::test::TempFolder mFolder;
    mwl::UniqueFd mListener;
    std::atomic<bool> mIsAskedForTheName{false};
    std::thread mThread;
};

class Server : public mwl::DBusService::IpcServer {
public:
    StatusCode Start(DBusServerManager& manager, EventLoop& loop) override {
        onStart(manager, loop);
        return StatusCode::Ok;
    }
    void Stop() override { mIsStopped = true; }

    std::function<void(DBusServerManager&, EventLoop&)> onStart = [](auto&...) {};
    bool IsStopped() const { return mIsStopped; }

private:
    std::atomic<bool> mIsStopped{false};
};

class HungBusTest : public testing::Test {
protected:
    HungBusTest() : mMonitor(mSignals), mComponent(NAME, mMonitor, mServer) {}
    void SetUp() override { ASSERT_EQ(mComponent.Initialize(), StatusCode::Ok); }
    void TearDown() override { TakePendingSignals(); }

    /// A start that failed leaves the signal pending, and the next test would get it.
    static void TakePendingSignals() {
        sigset_t both;
        sigemptyset(&both);
        sigaddset(&both, SIGTERM);
        sigaddset(&both, SIGINT);
        const timespec none{0, 0};
        while (sigtimedwait(&both, nullptr, &none) > 0) {
        }
    }

    /// Until the D-Bus thread has ended, from now.
    std::chrono::milliseconds TimeToJoin() {
        const auto asked = std::chrono::steady_clock::now();
        mComponent.JoinThread();
        return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                     asked);
    }

    tern::test::PrivateBus mBus;
    tern::test::NotifySocket mNotify;
    LogCapture mLog;
    mwl::Threading::Signals mSignals;
    mwl::Threading::ThreadsMonitor mMonitor;
    Server mServer;
    Component mComponent;
};

const auto UNSENT =
    Error("Service", "Failed to send what is queued for the bus (-110, Connection timed out)");

}  // namespace

// sd-bus flushes without a limit when the loop ends: the process hung there, before it told systemd anything
// and before any worker was stopped.
TEST_F(HungBusTest, SigtermEndsAServiceWithMebibytesQueuedInOrderAndInTime) {
    std::optional<Stopped> stopped;
    mServer.onStart = [&](DBusServerManager& manager, EventLoop&) {
        stopped.emplace(manager.GetBus());
        EXPECT_GT(SendMoreThanTheSocketTakes(manager.GetBus()), 0);
    };
    ASSERT_EQ(mComponent.Start(), StatusCode::Ok);
    kill(getpid(), SIGTERM);
    EXPECT_LT(TimeToJoin(), STOP_LIMIT);
    EXPECT_TRUE(mServer.IsStopped());
    EXPECT_FALSE(mMonitor.HasFailure());
    EXPECT_EQ(mNotify.Receive(), STOPPING);
    EXPECT_TRUE(mLog.Contains(UNSENT));
    EXPECT_TRUE(mLog.Contains(Info("Service", "sd_event_loop exited with 0")));
    EXPECT_TRUE(mLog.Contains(Info("DBusService::Component", "Exit D-Bus thread, status=0")));
}

TEST_F(HungBusTest, WhatIsQueuedStillReachesABusThatReads) {
    int sent = 0;
    const Bus peer = OpenPeer();
    std::optional<Stopped> stopped;
    int received = 0;
    ASSERT_GE(sd_bus_add_match(
                  peer.get(), nullptr, "interface='com.example.Hung',member='Large'",
                  [](sd_bus_message*, void* count, sd_bus_error*) { return ++*static_cast<int*>(count), 0; },
                  &received),
              0);
    mServer.onStart = [&](DBusServerManager& manager, EventLoop&) {
        stopped.emplace(manager.GetBus());
        sent = SendMoreThanTheSocketTakes(manager.GetBus());
    };
    ASSERT_EQ(mComponent.Start(), StatusCode::Ok);
    kill(getpid(), SIGTERM);
    ASSERT_TRUE(mLog.WaitFor(Info("Service", "Exiting now!")));
    stopped->Continue();
    mComponent.JoinThread();
    while (received < sent && sd_bus_process(peer.get(), nullptr) > 0) {
    }
    while (received < sent && sd_bus_wait(peer.get(), UINT64_C(30000000)) > 0) {
        while (sd_bus_process(peer.get(), nullptr) > 0) {
        }
    }
    EXPECT_GT(sent, 0);
    EXPECT_EQ(received, sent);
    EXPECT_FALSE(mLog.Contains(UNSENT));
}

// Without a name nothing waits for the bus at the start, so the loop ends before the connection is made.
TEST_F(HungBusTest, SigtermEndsAServiceThatIsNotYetConnected) {
    const Bus peer = OpenPeer();
    const Stopped stopped(peer.get());
    const std::string none;
    Component component(none, mMonitor, mServer);
    ASSERT_EQ(component.Start(), StatusCode::Ok);
    const auto asked = std::chrono::steady_clock::now();
    kill(getpid(), SIGTERM);
    component.JoinThread();
    EXPECT_LT(std::chrono::steady_clock::now() - asked, STOP_LIMIT);
    EXPECT_TRUE(mServer.IsStopped());
    EXPECT_EQ(mNotify.Receive(), STOPPING);
}

TEST_F(HungBusTest, FlushThatCannotBeBoundedIsLeftOut) {
    std::optional<Stopped> stopped;
    const FaultScope scope(fault_eventfd);
    mServer.onStart = [&](DBusServerManager& manager, EventLoop&) {
        stopped.emplace(manager.GetBus());
        EXPECT_GT(SendMoreThanTheSocketTakes(manager.GetBus()), 0);
        fault_eventfd.Fail(-1, EMFILE);
    };
    ASSERT_EQ(mComponent.Start(), StatusCode::Ok);
    kill(getpid(), SIGTERM);
    EXPECT_LT(TimeToJoin(), STOP_LIMIT);
    EXPECT_TRUE(mLog.Contains(Error(
        "Service", "Failed to send what is queued for the bus (-11, Resource temporarily unavailable)")));
    EXPECT_EQ(mNotify.Receive(), STOPPING);
}

// Connecting waits for the bus, 90 s for one like this, and took no notice of the signal.
TEST_F(HungBusTest, SigtermEndsAStartThatConnects) {
    const Bus peer = OpenPeer();
    const Stopped stopped(peer.get());
    for (const int signal : {SIGTERM, SIGINT}) {
        Component component(NAME, mMonitor, mServer);
        std::thread systemd([this, signal] {
            // Not earlier than in the wait for the bus.
            EXPECT_TRUE(mLog.WaitFor(Info("DBusService::Component", "Start D-Bus thread")));
            kill(getpid(), signal);
        });
        const auto started = std::chrono::steady_clock::now();
        EXPECT_EQ(component.Start(), StatusCode::Interrupted);
        systemd.join();
        component.JoinThread();
        EXPECT_LT(std::chrono::steady_clock::now() - started, STOP_LIMIT);
        EXPECT_TRUE(mServer.IsStopped());
        EXPECT_TRUE(mLog.Contains(
            Error("Service", "Failed to acquire name 'com.example.Hung', (-4, Interrupted system call)")));
        TakePendingSignals();
        mLog.Clear();
    }
}

TEST_F(HungBusTest, SigtermEndsAStartThatWaitsForItsName) {
    const FallsSilentAfterHello bus;
    std::thread systemd([&bus] {
        EXPECT_TRUE(bus.WasAskedForTheName());
        kill(getpid(), SIGTERM);
    });
    const auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(mComponent.Start(), StatusCode::Interrupted);
    systemd.join();
    mComponent.JoinThread();
    EXPECT_LT(std::chrono::steady_clock::now() - started, STOP_LIMIT);
    EXPECT_TRUE(mServer.IsStopped());
}

// The second was over when the answer had just come: the start succeeded with a connection that was hung up.
TEST_F(HungBusTest, StartThatIsHungUpWithItsAnswerIsInterrupted) {
    const FaultScope scope(fault_sd_bus_request_name);
    bool isHungUp = false;
    fault_sd_bus_request_name.Replace([&](sd_bus* bus, const char* name, std::uint64_t flags) {
        const int r = fault_sd_bus_request_name.Real(bus, name, flags);
        kill(getpid(), SIGTERM);
        isHungUp = WaitUntil([bus] {
            pollfd connection{sd_bus_get_fd(bus), 0, 0};
            return poll(&connection, 1, 0) == 1 && (connection.revents & POLLHUP) != 0;
        });
        return r;
    });
    EXPECT_EQ(mComponent.Start(), StatusCode::Interrupted);
    EXPECT_TRUE(isHungUp);
    mComponent.JoinThread();
    EXPECT_TRUE(mServer.IsStopped());
    EXPECT_FALSE(mMonitor.HasFailure());
}

// A bus that answers a little late is no hung one: the service starts, and stops in order.
TEST_F(HungBusTest, SigtermWhileTheBusIsSlowEndsTheServiceInOrder) {
    const Bus peer = OpenPeer();
    Stopped stopped(peer.get());
    std::thread systemd([&] {
        EXPECT_TRUE(mLog.WaitFor(Info("DBusService::Component", "Start D-Bus thread")));
        kill(getpid(), SIGTERM);
        stopped.Continue();
    });
    EXPECT_EQ(mComponent.Start(), StatusCode::Ok);
    systemd.join();
    mComponent.JoinThread();
    EXPECT_FALSE(mMonitor.HasFailure());
    EXPECT_EQ(mNotify.Receive(), STOPPING);
}

TEST_F(HungBusTest, StartWithoutTheMeansToWatchTheSignalsStillConnects) {
    const FaultScope scope(fault_signalfd);
    fault_signalfd.Fail(-1, EMFILE);
    EXPECT_EQ(mComponent.Start(), StatusCode::Ok);
    kill(getpid(), SIGTERM);
    mComponent.JoinThread();
}

// Nobody has asked for the stop: the second began to run, and a bus that was merely slow was hung up.
TEST_F(HungBusTest, WatchThatFailsHangsNobodyUp) {
    const Bus peer = OpenPeer();
    Stopped stopped(peer.get());
    const FaultScope scope(fault_poll);
    fault_poll.Fail(-1, ENOMEM);
    std::thread slow([&] {
        EXPECT_TRUE(mLog.WaitFor(Info("DBusService::Component", "Start D-Bus thread")));
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        stopped.Continue();
    });
    EXPECT_EQ(mComponent.Start(), StatusCode::Ok);
    EXPECT_GT(fault_poll.Calls(), 0);
    slow.join();
    kill(getpid(), SIGTERM);
    mComponent.JoinThread();
}

TEST_F(HungBusTest, NothingOfTheWatchIsLeftAfterTheStart) {
    std::thread([] {}).join();  // a sanitizer's own thread comes with the first
    const std::size_t before = tern::test::CountThreads();
    ASSERT_EQ(mComponent.Start(), StatusCode::Ok);
    // The D-Bus thread alone, once the kernel has stopped listing the one that watched the start.
    EXPECT_TRUE(tern::test::WaitUntil([&] { return tern::test::CountThreads() <= before + 1; }));
    kill(getpid(), SIGTERM);
    mComponent.JoinThread();
}
