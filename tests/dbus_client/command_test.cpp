#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <tern/dbus_client/command.h>
#include <tern/dbus_client/icommand.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "dbus_client/peer_service.h"
#include "dbus_client/watched_loop.h"
#include "foundation/handle.h"
#include "foundation/unique_fd.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/private_bus.h"
#include "support/process_resources.h"
#include "support/temp_folder.h"
#include "support/wait_until.h"

using mw::tern::StatusCode;
using mw::tern::DBusCommand::Command;
using mw::tern::DBusCommand::ICommand;
using tern::test::CountDescriptors;
using tern::test::Error;
using tern::test::FaultScope;
using tern::test::LogCapture;
using tern::test::PeerService;
using tern::test::PrivateBus;
using tern::test::WatchedLoop;
using testing::ElementsAre;
using testing::IsEmpty;

TERN_INTERPOSE(int, sd_bus_open_system, (sd_bus * *bus), (bus))
TERN_INTERPOSE(int, sd_event_default, (sd_event * *event), (event))
TERN_INTERPOSE(sd_bus*, sd_bus_flush_close_unref, (sd_bus * bus), (bus))

#if __SIZEOF_POINTER__ == 8
TERN_INTERPOSE(int, ppoll, (pollfd * records, nfds_t count, const timespec* limit, const sigset_t* mask),
               (records, count, limit, mask))
#endif

namespace {

using Bus = mwl::Handle<sd_bus, sd_bus_flush_close_unref>;

Bus OpenBus() {
    sd_bus* bus = nullptr;
    EXPECT_GE(sd_bus_open_system(&bus), 0);
    return Bus(bus);
}

/// Answers with `result` and remembers the buses it was called with.
class FakeCommand : public Command {
public:
    int CallMethod(sd_bus* bus) override {
        buses.push_back(bus);
        EXPECT_GT(sd_bus_is_open(bus), 0);
        descriptorsDuringCall = CountDescriptors();
        EXPECT_GE(sd_bus_get_method_call_timeout(bus, &timeOutUs), 0);
        if (throws) {
            throw std::runtime_error("no memory");
        }
        return result;
    }

    int result = 0;
    bool throws = false;
    std::vector<sd_bus*> buses;
    std::size_t descriptorsDuringCall = 0;
    std::uint64_t timeOutUs = 0;  ///< of the last call
};

/// Makes a real call.
class PingCommand : public Command {
public:
    int CallMethod(sd_bus* bus) override {
        return sd_bus_call_method(bus, "org.freedesktop.DBus", "/", "org.freedesktop.DBus.Peer", "Ping",
                                  nullptr, nullptr, nullptr);
    }
};

/// Calls a service that takes its time for ever.
class MuteCommand : public Command {
public:
    static constexpr const char* NAME = "org.example.Mute";

    int CallMethod(sd_bus* bus) override {
        return sd_bus_call_method(bus, NAME, "/", NAME, "Ask", nullptr, nullptr, nullptr);
    }
};

/// Once connected it holds the daemon still and sends more than the socket takes, so that something stays
/// queued.
class QueueingCommand : public Command {
public:
    ~QueueingCommand() override { Continue(); }

    int CallMethod(sd_bus* bus) override {
        EXPECT_GE(PingCommand().CallMethod(bus), 0);
        sd_bus_creds* creds = nullptr;
        EXPECT_GE(sd_bus_get_owner_creds(bus, SD_BUS_CREDS_PID, &creds), 0);
        EXPECT_GE(sd_bus_creds_get_pid(creds, &mDaemon), 0);
        sd_bus_creds_unref(creds);
        EXPECT_GT(mDaemon, 1);
        kill(mDaemon, SIGSTOP);
        const std::string large(1 << 20, 'x');
        std::uint64_t queued = 0;
        for (sent = 0; queued < 3 && sent < 100; ++sent) {
            EXPECT_GE(sd_bus_emit_signal(bus, "/", "org.example.Queueing", "Large", "s", large.c_str()), 0);
            EXPECT_GE(sd_bus_get_n_queued_write(bus, &queued), 0);
        }
        EXPECT_GE(queued, 3U);
        return then(bus);
    }
    void Continue() const {
        if (mDaemon > 1) {
            kill(mDaemon, SIGCONT);
        }
    }

    int sent = 0;
    std::function<int(sd_bus*)> then = [](sd_bus*) { return 0; };

private:
    pid_t mDaemon = 0;
};

const auto UNSENT =
    Error("Service", "Failed to send what is queued for the bus (-110, Connection timed out)");

/// A system bus that lets connect and never greets; unless `answer` is empty, that is what it says on
/// authentication.
class MuteBus {
public:
    explicit MuteBus(std::string answer = "") : mAnswer(std::move(answer)) {
        const std::string path = mFolder / "socket";
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(bind(mListener.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(mListener.Get(), 1), 0);
        setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + path).c_str(), 1);
        mThread = std::thread([this] {
            const mwl::UniqueFd peer(accept(mListener.Get(), nullptr, nullptr));
            char said[1024];
            if (read(peer.Get(), said, sizeof said) > 0 && !mAnswer.empty()) {
                EXPECT_EQ(send(peer.Get(), mAnswer.data(), mAnswer.size(), MSG_NOSIGNAL),
                          static_cast<ssize_t>(mAnswer.size()));
            }
            while (read(peer.Get(), said, sizeof said) > 0) {
                // until the peer hangs up
            }
        });
    }
    ~MuteBus() { mThread.join(); }
    MuteBus(const MuteBus&) = delete;
    MuteBus& operator=(const MuteBus&) = delete;

private:
    const std::string mAnswer;
    tern::test::TempFolder mFolder;
    mwl::UniqueFd mListener{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    std::thread mThread;
};

class CommandTest : public testing::Test {
protected:
    PrivateBus privateBus;
    LogCapture log;
    FakeCommand command;
};

}  // namespace

TEST(Command, IsAnAbstractCommand) {
    EXPECT_TRUE((std::is_base_of_v<ICommand, Command>));
    EXPECT_TRUE(std::is_abstract_v<ICommand>);
    EXPECT_TRUE(std::is_abstract_v<Command>);
    EXPECT_TRUE(std::has_virtual_destructor_v<ICommand>);
}

TEST_F(CommandTest, OpensAConnectionOfItsOwnForEachCallAndClosesIt) {
    const std::size_t before = CountDescriptors();
    for (const int result : {0, 1, 17}) {
        command.result = result;
        EXPECT_EQ(command.Execute(), StatusCode::Ok) << result;
        EXPECT_GT(command.descriptorsDuringCall, before);
        EXPECT_EQ(CountDescriptors(), before);
    }
    EXPECT_EQ(command.buses.size(), 3U);
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST_F(CommandTest, ReportsAFailedCallTwiceAndClosesItsConnection) {
    const std::size_t before = CountDescriptors();
    command.result = -ETIMEDOUT;
    EXPECT_EQ(command.Execute(), StatusCode::Timeout);
    EXPECT_EQ(CountDescriptors(), before);
    EXPECT_THAT(log.Entries(),
                ElementsAre(Error("Service", "Failed to call method (-110, Connection timed out)"),
                            Error("Service", "Failed to execute command on system bus, status=Timeout")));
}

// It has no opposite: UndefinedBehaviorSanitizer sees an attempt to negate it.
TEST_F(CommandTest, SmallestResultIsAFailedCall) {
    command.result = INT_MIN;
    EXPECT_EQ(command.Execute(), StatusCode::Failure);
    EXPECT_THAT(
        log.Entries(),
        ElementsAre(Error("Service", "Failed to call method (-2147483648, Unknown error -2147483648)"),
                    Error("Service", "Failed to execute command on system bus, status=Failure")));
}

// What the call left in the queue goes out first.
TEST_F(CommandTest, OwnConnectionIsFlushedAndClosedBeforeTheOutcomeIsReported) {
    const FaultScope scope(fault_sd_bus_flush_close_unref);
    std::vector<sd_bus*> closed;
    std::vector<std::size_t> messagesBefore;
    fault_sd_bus_flush_close_unref.Replace(
        [&](sd_bus* bus) {
            closed.push_back(bus);
            messagesBefore.push_back(log.Entries().size());
            return fault_sd_bus_flush_close_unref.Real(bus);
        },
        2);
    EXPECT_EQ(command.Execute(), StatusCode::Ok);
    command.result = -EIO;
    EXPECT_EQ(command.Execute(), StatusCode::IoError);
    EXPECT_EQ(closed, command.buses);
    EXPECT_THAT(messagesBefore, ElementsAre(0U, 1U));
    EXPECT_EQ(log.Entries().size(), 2U);
}

// sd-bus flushes without a limit: Execute never returned, however short the time-out of its call was.
TEST_F(CommandTest, BusThatDoesNotReadHoldsExecuteUpNoLongerThanTwoSecondsMore) {
    const std::size_t before = CountDescriptors();
    QueueingCommand queueing;
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(queueing.Execute(), StatusCode::Ok);
    auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, std::chrono::milliseconds(1990));
    EXPECT_LT(took, std::chrono::seconds(2) + tern::test::TOLERANCE);
    EXPECT_THAT(log.Entries(), ElementsAre(UNSENT));
    queueing.Continue();
    EXPECT_EQ(CountDescriptors(), before);

    log.Clear();
    queueing.then = [](sd_bus* bus) {
        EXPECT_GE(sd_bus_set_method_call_timeout(bus, 100000), 0);
        return PingCommand().CallMethod(bus);
    };
    start = std::chrono::steady_clock::now();
    EXPECT_EQ(queueing.Execute(), StatusCode::Timeout);
    took = std::chrono::steady_clock::now() - start;
    EXPECT_LT(took, std::chrono::milliseconds(2100) + tern::test::TOLERANCE);
    EXPECT_THAT(log.Entries(),
                ElementsAre(UNSENT, Error("Service", "Failed to call method (-110, Connection timed out)"),
                            Error("Service", "Failed to execute command on system bus, status=Timeout")));
}

TEST_F(CommandTest, BusThatDoesNotReadHoldsUpNoExceptionOfTheCall) {
    QueueingCommand queueing;
    queueing.then = [](sd_bus*) -> int { throw std::runtime_error("no memory"); };
    EXPECT_THROW(static_cast<void>(queueing.Execute()), std::runtime_error);
    EXPECT_THAT(log.Entries(), ElementsAre(UNSENT));
}

TEST_F(CommandTest, WhatIsQueuedReachesABusThatReads) {
    const Bus peer = OpenBus();
    int received = 0;
    ASSERT_GE(sd_bus_add_match(
                  peer.get(), nullptr, "interface='org.example.Queueing'",
                  [](sd_bus_message*, void* count, sd_bus_error*) { return ++*static_cast<int*>(count), 0; },
                  &received),
              0);
    QueueingCommand queueing;
    for (const int result : {0, -EIO}) {
        received = 0;
        queueing.then = [&](sd_bus*) {
            queueing.Continue();
            return result;
        };
        EXPECT_EQ(queueing.Execute(), result == 0 ? StatusCode::Ok : StatusCode::IoError);
        EXPECT_FALSE(log.Contains(UNSENT));
        while (received < queueing.sent) {
            const int r = sd_bus_process(peer.get(), nullptr);
            ASSERT_GE(r, 0);
            if (r == 0) {
                ASSERT_GT(sd_bus_wait(peer.get(), UINT64_C(30000000)), 0);
            }
        }
    }
}

TEST_F(CommandTest, ReportsABusThatIsNotThereAndDoesNotCall) {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/socket", 1);
    EXPECT_EQ(command.Execute(), StatusCode::NotFound);
    EXPECT_THAT(command.buses, IsEmpty());
    EXPECT_THAT(
        log.Entries(),
        ElementsAre(Error("Service", "Failed to connect to system bus (-2, No such file or directory)"),
                    Error("Service", "Failed to execute command on system bus, status=NotFound")));
}

TEST_F(CommandTest, TimeOutIsThatOfTheGreetingToo) {
    const MuteBus bus("DATA\r\nOK 0123456789abcdef0123456789abcdef\r\nAGREE_UNIX_FD\r\n");
    setenv("SYSTEMD_BUS_TIMEOUT", "50ms", 1);
    PingCommand ping;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_NE(ping.Execute(), StatusCode::Ok);
    const auto took = std::chrono::steady_clock::now() - start;
    unsetenv("SYSTEMD_BUS_TIMEOUT");
    EXPECT_GE(took, std::chrono::milliseconds(45));
    EXPECT_LT(took, std::chrono::milliseconds(50) + tern::test::TOLERANCE);
}

// The times of 32-bit libraries are not those of the test program.
#if __SIZEOF_POINTER__ == 8
TEST_F(CommandTest, BusThatDoesNotAnswerIsWaitedForNinetySecondsWhateverTheTimeOut) {
    const MuteBus bus;
    setenv("SYSTEMD_BUS_TIMEOUT", "50ms", 1);
    const FaultScope scope(fault_ppoll);
    std::vector<time_t> waits;
    // Not waited for: the lengths of the waits are looked at, the call's and that of the last flush, and they
    // fail.
    fault_ppoll.Replace(
        [&](pollfd*, nfds_t, const timespec* limit, const sigset_t*) {
            waits.push_back(limit->tv_sec);
            errno = EIO;
            return -1;
        },
        10);
    PingCommand ping;
    EXPECT_EQ(ping.Execute(), StatusCode::IoError);
    unsetenv("SYSTEMD_BUS_TIMEOUT");
    EXPECT_THAT(waits, testing::Not(IsEmpty()));
    EXPECT_THAT(waits, testing::Each(testing::AllOf(testing::Gt(60), testing::Le(90))));
}
#endif

TEST_F(CommandTest, SuppliedBusIsUsedAndNeverClosed) {
    const Bus bus = OpenBus();
    const FaultScope scope(fault_sd_bus_open_system);
    fault_sd_bus_open_system.Fail(-EIO);
    command.SetBus(bus.get());
    EXPECT_EQ(command.Execute(), StatusCode::Ok);
    command.result = -EACCES;
    EXPECT_EQ(command.Execute(), StatusCode::AccessDenied);
    EXPECT_THAT(command.buses, ElementsAre(bus.get(), bus.get()));
    EXPECT_EQ(fault_sd_bus_open_system.Calls(), 0);
    EXPECT_GT(sd_bus_is_open(bus.get()), 0);
    {
        FakeCommand mortal;
        mortal.SetBus(bus.get());
        EXPECT_EQ(mortal.Execute(), StatusCode::Ok);
    }
    EXPECT_GT(sd_bus_is_open(bus.get()), 0) << "closed by the command's end";
}

TEST_F(CommandTest, WithoutTheSuppliedBusItOpensItsOwnAgain) {
    const Bus bus = OpenBus();
    command.SetBus(bus.get());
    command.SetBus(nullptr);
    EXPECT_EQ(command.Execute(), StatusCode::Ok);
    ASSERT_EQ(command.buses.size(), 1U);
    EXPECT_NE(command.buses[0], bus.get());
}

TEST_F(CommandTest, ExceptionOfTheCallPassesAndTheConnectionIsClosed) {
    const std::size_t before = CountDescriptors();
    command.throws = true;
    EXPECT_THROW(static_cast<void>(command.Execute()), std::runtime_error);
    EXPECT_EQ(CountDescriptors(), before);
}

// A peer that does not answer held the thread for 25 s; the watchdog bites earlier than that.
TEST_F(CommandTest, OnALoopWithAWatchdogItWaitsAQuarterOfThePeriod) {
    const WatchedLoop loop(40000000);
    EXPECT_EQ(command.Execute(), StatusCode::Ok);
    EXPECT_EQ(command.timeOutUs, 10000000U) << "of its own bus";
    const Bus bus = OpenBus();
    command.SetBus(bus.get());
    for (const int result : {0, -EIO}) {
        command.result = result;
        command.timeOutUs = 0;
        static_cast<void>(command.Execute());
        EXPECT_EQ(command.timeOutUs, 10000000U);
        std::uint64_t behind = 0;
        EXPECT_GE(sd_bus_get_method_call_timeout(bus.get(), &behind), 0);
        EXPECT_EQ(behind, 25000000U) << "as it was";
    }
    command.throws = true;
    EXPECT_THROW(static_cast<void>(command.Execute()), std::runtime_error);
    std::uint64_t behind = 0;
    EXPECT_GE(sd_bus_get_method_call_timeout(bus.get(), &behind), 0);
    EXPECT_EQ(behind, 25000000U);
}

TEST_F(CommandTest, PeerThatDoesNotAnswerIsGivenUpBeforeTheWatchdogBites) {
    const PeerService peer(MuteCommand::NAME, [](sd_bus* bus) {
        EXPECT_GE(sd_bus_add_object(
                      bus, nullptr, "/", [](sd_bus_message*, void*, sd_bus_error*) { return 1; }, nullptr),
                  0);
    });
    const WatchedLoop loop(400000);
    const Bus bus = OpenBus();
    MuteCommand mute;
    mute.SetBus(bus.get());
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(mute.Execute(), StatusCode::Timeout);
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, std::chrono::milliseconds(100));
    EXPECT_LT(took, std::chrono::milliseconds(100) + tern::test::TOLERANCE);
}

TEST_F(CommandTest, QueueIsGivenUpBeforeTheWatchdogBites) {
    const WatchedLoop loop(400000);
    QueueingCommand queueing;
    for (const bool calls : {false, true}) {
        queueing.then = [&](sd_bus* bus) { return calls ? PingCommand().CallMethod(bus) : 0; };
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(queueing.Execute(), calls ? StatusCode::Timeout : StatusCode::Ok);
        const auto took = std::chrono::steady_clock::now() - start;
        EXPECT_GE(took, std::chrono::milliseconds(99));
        EXPECT_LT(took, std::chrono::milliseconds(100) + tern::test::TOLERANCE);
        EXPECT_TRUE(log.Contains(UNSENT));
        log.Clear();
        queueing.Continue();
    }
}

TEST_F(CommandTest, ShorterTimeOutOfASuppliedBusStays) {
    const WatchedLoop loop(40000000);
    const Bus bus = OpenBus();
    EXPECT_GE(sd_bus_set_method_call_timeout(bus.get(), 7000000), 0);
    command.SetBus(bus.get());
    EXPECT_EQ(command.Execute(), StatusCode::Ok);
    EXPECT_EQ(command.timeOutUs, 7000000U);
}

TEST_F(CommandTest, ThreadThatFeedsNoWatchdogIsNotLimited) {
    const Bus bus = OpenBus();
    EXPECT_GE(sd_bus_set_method_call_timeout(bus.get(), 70000000), 0);
    command.SetBus(bus.get());
    {
        // The loop is another thread's.
        const WatchedLoop loop(40000000);
        std::thread([&] { EXPECT_EQ(command.Execute(), StatusCode::Ok); }).join();
        EXPECT_EQ(command.timeOutUs, 70000000U);
        loop.StopFeeding();
        EXPECT_EQ(command.Execute(), StatusCode::Ok);
        EXPECT_EQ(command.timeOutUs, 70000000U);
    }
    const std::size_t before = CountDescriptors();
    command.timeOutUs = 0;
    EXPECT_EQ(command.Execute(), StatusCode::Ok);
    EXPECT_EQ(command.timeOutUs, 70000000U) << "no watchdog";
    EXPECT_EQ(CountDescriptors(), before);
}

TEST_F(CommandTest, LoopThatCannotBeAskedForLeavesTheTimeOut) {
    const WatchedLoop loop(40000000);
    const FaultScope scope(fault_sd_event_default);
    fault_sd_event_default.Fail(-EMFILE);
    EXPECT_EQ(command.Execute(), StatusCode::Ok);
    EXPECT_EQ(command.timeOutUs, 25000000U);
}
