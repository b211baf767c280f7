#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <tern/typed/blocking_proxy.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>

#include "foundation/unique_fd.h"
#include "support/child.h"
#include "support/interpose.h"
#include "support/private_bus.h"
#include "support/temp_folder.h"
#include "typed/blocking_peer.h"

TERN_INTERPOSE(int, sd_bus_open_system, (sd_bus * *bus), (bus))
TERN_INTERPOSE(int, sd_bus_call_async,
               (sd_bus * bus, sd_bus_slot** slot, sd_bus_message* call, sd_bus_message_handler_t handler,
                void* userdata, std::uint64_t limit),
               (bus, slot, call, handler, userdata, limit))
TERN_INTERPOSE(int, sd_bus_send, (sd_bus * bus, sd_bus_message* message, std::uint64_t* cookie),
               (bus, message, cookie))
TERN_INTERPOSE(int, sd_bus_wait, (sd_bus * bus, std::uint64_t limit), (bus, limit))
TERN_INTERPOSE(int, sd_bus_add_match_async,
               (sd_bus * bus, sd_bus_slot** slot, const char* rule, sd_bus_message_handler_t handler,
                sd_bus_message_handler_t installed, void* userdata),
               (bus, slot, rule, handler, installed, userdata))

using namespace mwl::Typed;
using namespace std::chrono_literals;
using tern::test::GENEROUS_LIMIT;
using tern::test::MistakenPeer1;
using tern::test::Peer1;
using tern::test::PeerService;
using tern::test::PrivateBus;
using tern::test::Said;
using tern::test::TempFolder;
using testing::HasSubstr;

namespace {

using BlockingBusTest = tern::test::BlockingPeerTest;

/// A signal for one connection, whether it listens or not.
void SendTo(tern::test::Peer& from, const char* to, const char* path, const char* interface,
            const char* member, std::uint32_t number) {
    sd_bus_message* made = nullptr;
    tern::test::Peer::Check(sd_bus_message_new_signal(from.Get(), &made, path, interface, member));
    const tern::test::Peer::Message signal(made);
    tern::test::Peer::Check(sd_bus_message_append(made, "u", number));
    tern::test::Peer::Check(sd_bus_send_to(from.Get(), made, to, nullptr));
}

}  // namespace

TEST_F(BlockingBusTest, ConnectsAnewWhenTheConnectionWasLost) {
    EXPECT_EQ(*mPeer.Call(Peer1::Add, 2U, 3U), 5U);
    ASSERT_NE(mPeer.GetBus()->GetBus(), nullptr);
    ASSERT_GE(shutdown(sd_bus_get_fd(mPeer.GetBus()->GetBus()), SHUT_RDWR), 0);
    const Outcome<std::uint32_t> lost = mPeer.Call(Peer1::Add, 2U, 3U);
    EXPECT_EQ(lost.GetError().GetStatus(), StatusCode::IoError) << Said(lost);
    EXPECT_EQ(*mPeer.Call(Peer1::Add, 2U, 3U), 5U);
}

TEST_F(BlockingBusTest, SaysWhereThereIsNoBus) {
    EXPECT_EQ(*mPeer.Call(Peer1::Add, 2U, 3U), 5U);
    mBus.Kill();
    mService.reset();
    EXPECT_EQ(mPeer.Call(Peer1::Add, 2U, 3U).GetError().GetStatus(), StatusCode::IoError);
    const Outcome<std::uint32_t> none = mPeer.Call(Peer1::Add, 2U, 3U);
    EXPECT_EQ(none.GetError().GetName(), SD_BUS_ERROR_NO_SERVER);
    EXPECT_THAT(none.GetError().GetText(),
                testing::MatchesRegex("there is no connection to the system bus: .*; is dbus running, is "
                                      "DBUS_SYSTEM_BUS_ADDRESS right\\?"));
}

TEST_F(BlockingBusTest, TakesAnAddress) {
    const auto bus = std::make_shared<BlockingBus>(mBus.Address());
    EXPECT_EQ(bus->GetBus(), nullptr);
    EXPECT_EQ(Said(bus->Connect()), "");
    EXPECT_NE(bus->GetBus(), nullptr);
    EXPECT_EQ(Said(bus->Connect()), "");
    const BlockingProxy<Peer1> one(bus, tern::test::PEER, tern::test::PEER_PATH);
    const BlockingProxy<Peer1> two(bus, tern::test::PEER, "/nowhere");
    EXPECT_EQ(*one.Call(Peer1::Add, 2U, 3U), 5U);
    EXPECT_FALSE(two.Call(Peer1::Add, 2U, 3U).IsOk());
    EXPECT_EQ(Said(BlockingBus("unix:what=x").Connect()),
              "org.freedesktop.DBus.Error.InvalidArgs: 'unix:what=x' is no address of a message bus");
    EXPECT_EQ(Said(BlockingBus("unix:path=/nowhere/bus").Connect()),
              "org.freedesktop.DBus.Error.NoServer: there is no connection to the message bus at "
              "'unix:path=/nowhere/bus': No such file or directory; is it running, is the address right?");
    ASSERT_EQ(setenv("DBUS_SESSION_BUS_ADDRESS", mBus.Address().c_str(), 1), 0);
    EXPECT_EQ(Said(BlockingBus(BlockingBus::Which::User).Connect()), "");
    ASSERT_EQ(setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nowhere/bus", 1), 0);
    EXPECT_THAT(Said(BlockingBus(BlockingBus::Which::User).Connect()),
                HasSubstr("the user's bus: No such file or directory; has this user a session"));
}

TEST_F(BlockingBusTest, ReachesTheBusOfAHostThroughSsh) {
    if (access("/usr/bin/systemd-stdio-bridge", X_OK) != 0) {
        GTEST_SKIP() << "systemd-stdio-bridge is missing";
    }
    // Stands in for ssh: keeps what it was asked for, and bridges to the bus of this test.
    const TempFolder folder;
    const std::string path = folder.Path() + "/ssh";
    std::ofstream(path) << "#!/bin/sh\necho \"$@\" >" << folder.Path() << "/asked\n"
                        << "case $* in *unreachable*) exit 255 ;; esac\n"
                        << "exec systemd-stdio-bridge -p '" << mBus.Address() << "'\n";
    ASSERT_EQ(chmod(path.c_str(), 0700), 0);
    const std::string former = getenv("PATH");
    ASSERT_EQ(setenv("PATH", (folder.Path() + ":" + former).c_str(), 1), 0);
    const auto bus = BlockingBus::OnHost("root@device");
    EXPECT_EQ(bus->GetBus(), nullptr);
    const BlockingProxy<Peer1> peer(bus, tern::test::PEER, tern::test::PEER_PATH);
    const Outcome<std::uint32_t> sum = peer.Within(GENEROUS_LIMIT).Call(Peer1::Add, 2U, 3U);
    EXPECT_TRUE(sum.IsOk() && *sum == 5U) << Said(sum);
    std::string asked;
    std::getline(std::ifstream(folder.Path() + "/asked"), asked);
    EXPECT_THAT(asked, testing::AllOf(HasSubstr("root@device"), HasSubstr("systemd-stdio-bridge")));
    EXPECT_THAT(Said(BlockingBus::OnHost("unreachable")->Connect(GENEROUS_LIMIT)),
                testing::MatchesRegex("org.freedesktop.DBus.Error.NoServer: there is no connection to the "
                                      "system bus of 'unreachable': .*; does ssh reach it, is "
                                      "systemd-stdio-bridge there\\?"));
    EXPECT_EQ(Said(BlockingBus::OnHost(":")->Connect()),
              "org.freedesktop.DBus.Error.InvalidArgs: ':' is no host, HOST or USER@HOST");
    ASSERT_EQ(setenv("PATH", former.c_str(), 1), 0);
}

TEST_F(BlockingBusTest, ABusThatDoesNotAnswerKeepsNobody) {
    const TempFolder folder;
    const std::string path = folder.Path() + "/bus";
    const mwl::UniqueFd listening(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(listening.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(listening.Get(), 5), 0);
    const auto bus = std::make_shared<BlockingBus>("unix:path=" + path);
    const Clock::time_point start = Clock::now();
    const Outcome<void> connected = bus->Connect(100ms);
    EXPECT_GE(Clock::now() - start, 100ms);
    EXPECT_EQ(connected.GetError().GetStatus(), StatusCode::Timeout);
    EXPECT_EQ(connected.GetError().GetText(),
              "the message bus at 'unix:path=" + path + "' lets connect, but does not answer");
    EXPECT_EQ(BlockingProxy<Peer1>(bus, "a.b", "/").Within(10ms).Call(Peer1::Fail).GetError().GetStatus(),
              StatusCode::Timeout);
}

TEST_F(BlockingBusTest, RefusesToBlockTheThreadOfAService) {
    tern::test::Served served;
    served.On([this] {
        const Clock::time_point start = Clock::now();
        EXPECT_EQ(mPeer.Call(Peer1::Add, 2U, 3U).GetError().GetStatus(), StatusCode::Deadlock);
        EXPECT_EQ(mPeer.Get(Peer1::Level).GetError().GetStatus(), StatusCode::Deadlock);
        EXPECT_EQ(mPeer.GetBus()->Connect().GetError().GetStatus(), StatusCode::Deadlock);
        EXPECT_EQ(mPeer.WaitFor(Peer1::Told, 10s).GetError().GetStatus(), StatusCode::Deadlock);
        EXPECT_EQ(mPeer.GetBus()->GetBus(), nullptr);
        EXPECT_LT(Clock::now() - start, GENEROUS_LIMIT);
    });
    // Here it may.
    auto told = mPeer.Listen(Peer1::Told);
    EXPECT_EQ(*mPeer.Call(Peer1::Add, 2U, 3U), 5U);
    served.On([&told] { EXPECT_EQ(told.Next(10s).GetError().GetStatus(), StatusCode::Deadlock); });
}

TEST_F(BlockingBusTest, DropsWhatIsSentToItWhileItWaits) {
    EXPECT_EQ(Said(mPeer.Ping()), "");
    const char* name = nullptr;
    ASSERT_GE(sd_bus_get_unique_name(mPeer.GetBus()->GetBus(), &name), 0);
    tern::test::Peer stranger;
    for (int i = 0; i < 1000; ++i) {
        SendTo(stranger, name, "/", "com.example.Noise", "Noise", 0);
    }
    EXPECT_EQ(stranger.Call("/", "org.freedesktop.DBus.Peer", "Ping").substr(0, 4), "org.");
    EXPECT_EQ(*mPeer.Call(Peer1::Add, 2U, 3U), 5U);
    EXPECT_EQ(*mPeer.Call(Peer1::Add, 2U, 3U), 5U);
    std::uint64_t waiting = 7;
    ASSERT_GE(sd_bus_get_n_queued_read(mPeer.GetBus()->GetBus(), &waiting), 0);
    EXPECT_EQ(waiting, 0U);
}

TEST_F(BlockingBusTest, ListensToWhatACallBringsAbout) {
    auto told = mPeer.Listen(Peer1::Told);
    EXPECT_EQ(Said(told.GetState()), "");
    for (std::uint32_t i = 0; i < 3; ++i) {
        ASSERT_EQ(Said(mPeer.Call(Peer1::Tell, i)), "");
    }
    for (std::uint32_t i = 0; i < 3; ++i) {
        const auto values = told.Next(0ms);
        ASSERT_TRUE(values.IsOk()) << Said(values);
        EXPECT_EQ(std::get<0>(*values), i);
    }
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(told.Next(50ms).GetError().GetStatus(), StatusCode::Timeout);
    EXPECT_GE(Clock::now() - start, 50ms);
    // Moved, it goes on.
    auto moved = std::move(told);
    ASSERT_EQ(Said(mPeer.Call(Peer1::Tell, 7U)), "");
    EXPECT_EQ(std::get<0>(*moved.Next(0ms)), 7U);
    EXPECT_EQ(told.GetState().GetError().GetStatus(), StatusCode::NotInitialized);
}

TEST_F(BlockingBusTest, FindsASignalThatIsThereBehindOthers) {
    auto told = mPeer.Listen(Peer1::Told);
    const char* name = nullptr;
    ASSERT_GE(sd_bus_get_unique_name(mPeer.GetBus()->GetBus(), &name), 0);
    tern::test::Peer stranger;
    for (int i = 0; i < 10; ++i) {
        SendTo(stranger, name, "/", "com.example.Noise", "Noise", 0);
    }
    EXPECT_NE(stranger.Call("/", "org.freedesktop.DBus.Peer", "Ping"), "");
    // Of another connection, so that this one takes nothing in.
    ASSERT_EQ(Said(BlockingProxy<Peer1>(tern::test::PEER, tern::test::PEER_PATH).Call(Peer1::Tell, 3U)), "");
    const auto values = told.Next(0ms);
    ASSERT_TRUE(values.IsOk()) << Said(values);
    EXPECT_EQ(std::get<0>(*values), 3U);
    EXPECT_EQ(told.Next(0ms).GetError().GetStatus(), StatusCode::Timeout);
}

TEST_F(BlockingBusTest, OneThatDoesNotListenHasTheBusSendNothing) {
    ASSERT_EQ(Said(mPeer.Ping()), "");
    // A message bus that is held still answers nobody in time.
    sd_bus_creds* creds = nullptr;
    pid_t daemon = 0;
    ASSERT_GE(sd_bus_get_owner_creds(mPeer.GetBus()->GetBus(), SD_BUS_CREDS_PID, &creds), 0);
    ASSERT_GE(sd_bus_creds_get_pid(creds, &daemon), 0);
    sd_bus_creds_unref(creds);
    ASSERT_EQ(kill(daemon, SIGSTOP), 0);
    const auto deaf = mPeer.Within(1ms).Listen(Peer1::Told);
    ASSERT_EQ(kill(daemon, SIGCONT), 0);
    EXPECT_EQ(deaf.GetState().GetError().GetStatus(), StatusCode::Timeout);
    int heard = 0;
    ASSERT_GE(sd_bus_add_filter(
                  mPeer.GetBus()->GetBus(), nullptr,
                  [](sd_bus_message* message, void* userdata, sd_bus_error*) {
                      *static_cast<int*>(userdata) +=
                          sd_bus_message_is_signal(message, Peer1::NAME, "Told") > 0 ? 1 : 0;
                      return 0;
                  },
                  &heard),
              0);
    ASSERT_EQ(Said(mPeer.Ping()), "");
    ASSERT_EQ(Said(mPeer.Call(Peer1::Tell, 3U)), "");
    EXPECT_EQ(heard, 0);
}

TEST_F(BlockingBusTest, HearsThePeerOnly) {
    auto told = mPeer.Listen(Peer1::Told);
    const char* name = nullptr;
    ASSERT_GE(sd_bus_get_unique_name(mPeer.GetBus()->GetBus(), &name), 0);
    tern::test::Peer stranger;
    // To everybody, and to this connection alone.
    tern::test::Peer::Check(
        sd_bus_emit_signal(stranger.Get(), tern::test::PEER_PATH, Peer1::NAME, "Told", "u", 1));
    SendTo(stranger, name, tern::test::PEER_PATH, Peer1::NAME, "Told", 2);
    // Nor is the bus believed to be whoever says that the name is his.
    sd_bus_message* made = nullptr;
    tern::test::Peer::Check(sd_bus_message_new_signal(stranger.Get(), &made, "/org/freedesktop/DBus",
                                                      "org.freedesktop.DBus", "NameOwnerChanged"));
    const tern::test::Peer::Message lie(made);
    tern::test::Peer::Check(
        sd_bus_message_append(made, "sss", tern::test::PEER, "", stranger.Name().c_str()));
    tern::test::Peer::Check(sd_bus_send_to(stranger.Get(), made, name, nullptr));
    SendTo(stranger, name, tern::test::PEER_PATH, Peer1::NAME, "Told", 5);
    // The bus has passed them on when it answers.
    EXPECT_NE(stranger.Call("/", "org.freedesktop.DBus.Peer", "Ping"), "");
    ASSERT_EQ(Said(mPeer.Call(Peer1::Tell, 3U)), "");
    EXPECT_EQ(std::get<0>(*told.Next(0ms)), 3U);
    EXPECT_EQ(told.Next(0ms).GetError().GetStatus(), StatusCode::Timeout);
    // The name's next owner is the peer then.
    mService.reset();
    tern::test::Peer::Check(sd_bus_request_name(stranger.Get(), tern::test::PEER, 0));
    tern::test::Peer::Check(
        sd_bus_emit_signal(stranger.Get(), tern::test::PEER_PATH, Peer1::NAME, "Told", "u", 4));
    tern::test::Peer::Check(sd_bus_flush(stranger.Get()));
    EXPECT_EQ(std::get<0>(*told.Next(GENEROUS_LIMIT)), 4U);
}

TEST_F(BlockingBusTest, ListensToAPeerThatIsNotThereYet) {
    mService.reset();
    auto told = mPeer.Listen(Peer1::Told);
    EXPECT_EQ(Said(told.GetState()), "");
    mService.emplace();
    ASSERT_EQ(Said(mPeer.Call(Peer1::Tell, 3U)), "");
    EXPECT_EQ(std::get<0>(*told.Next(0ms)), 3U);
}

TEST_F(BlockingBusTest, ListensToAUniqueName) {
    tern::test::Peer stranger;
    const BlockingProxy<Peer1> one(stranger.Name(), tern::test::PEER_PATH);
    auto told = one.Listen(Peer1::Told);
    EXPECT_EQ(Said(told.GetState()), "");
    ASSERT_EQ(Said(mPeer.Call(Peer1::Tell, 3U)), "");
    tern::test::Peer::Check(
        sd_bus_emit_signal(stranger.Get(), tern::test::PEER_PATH, Peer1::NAME, "Told", "u", 4));
    tern::test::Peer::Check(sd_bus_flush(stranger.Get()));
    EXPECT_EQ(std::get<0>(*told.Next(GENEROUS_LIMIT)), 4U);
}

TEST_F(BlockingBusTest, SaysThatASignalIsNotOfTheContract) {
    const BlockingProxy<MistakenPeer1> other(mPeer.GetBus(), tern::test::PEER, tern::test::PEER_PATH);
    auto told = other.Listen(MistakenPeer1::Told);
    ASSERT_EQ(Said(mPeer.Call(Peer1::Tell, 3U)), "");
    EXPECT_EQ(Said(told.Next(0ms)), "mwl.Typed.Error.WrongReply: a signal of 'u' where 's' is wanted");
    EXPECT_EQ(told.Next(0ms).GetError().GetStatus(), StatusCode::Timeout);
}

TEST_F(BlockingBusTest, TellsThatSignalsWereLost) {
    auto told = mPeer.Listen(Peer1::Told);
    constexpr std::size_t LIMIT = decltype(told)::LIMIT;
    for (std::uint32_t i = 0; i < LIMIT + 2; ++i) {
        ASSERT_EQ(Said(mPeer.Call(Peer1::Tell, i)), "");
    }
    for (std::uint32_t i = 0; i < LIMIT; ++i) {
        ASSERT_EQ(std::get<0>(*told.Next(0ms)), i);
    }
    EXPECT_EQ(told.Next(0ms).GetError().GetStatus(), StatusCode::ResourceUnavailable);
    EXPECT_EQ(told.Next(0ms).GetError().GetStatus(), StatusCode::Timeout);
    ASSERT_EQ(Said(mPeer.Call(Peer1::Tell, 1U)), "");
    EXPECT_TRUE(told.Next(0ms).IsOk());
}

TEST_F(BlockingBusTest, SaysThatItDoesNotListen) {
    auto told = BlockingProxy<Peer1>("no name", "/").Listen(Peer1::Told);
    EXPECT_EQ(Said(told.GetState()),
              "org.freedesktop.DBus.Error.InvalidArgs: 'no name' is no name of a service");
    EXPECT_EQ(Said(told.Next(0ms)), Said(told.GetState()));
    auto lost = mPeer.Listen(Peer1::Told);
    EXPECT_EQ(Said(lost.GetState()), "");
    mBus.Kill();
    EXPECT_EQ(lost.Next(GENEROUS_LIMIT).GetError().GetStatus(), StatusCode::IoError);
    EXPECT_EQ(lost.GetState().GetError().GetStatus(), StatusCode::IoError);
    EXPECT_EQ(mPeer.Listen(Peer1::Told).GetState().GetError().GetName(), SD_BUS_ERROR_NO_SERVER);
}

TEST_F(BlockingBusTest, SaysThatTheBusRefusesTheProcess) {
    tern::test::FaultScope scope(fault_sd_bus_open_system);
    fault_sd_bus_open_system.Fail(-EACCES);
    EXPECT_EQ(Said(mPeer.Ping()),
              "org.freedesktop.DBus.Error.AccessDenied: the system bus refuses this "
              "process: Permission denied");
    fault_sd_bus_open_system.Fail(-ENOMEM);
    EXPECT_THROW(static_cast<void>(mPeer.Ping()), std::bad_alloc);
    EXPECT_EQ(Said(mPeer.Ping()), "");
}

TEST_F(BlockingBusTest, SaysWhatCouldNotBeSentOrWaitedFor) {
    ASSERT_EQ(Said(mPeer.Ping()), "");
    tern::test::FaultScope call(fault_sd_bus_call_async);
    fault_sd_bus_call_async.Fail(-ENOBUFS);
    EXPECT_EQ(Said(mPeer.Ping()),
              "org.freedesktop.DBus.Error.LimitsExceeded: the call cannot be sent: No buffer "
              "space available");
    tern::test::FaultScope send(fault_sd_bus_send);
    fault_sd_bus_send.Fail(-ENOBUFS);
    EXPECT_EQ(mPeer.Call(Peer1::Nothing).GetError().GetStatus(), StatusCode::ResourceUnavailable);
    tern::test::FaultScope wait(fault_sd_bus_wait);
    fault_sd_bus_wait.Fail(-EIO);
    EXPECT_EQ(Said(mPeer.Call(Peer1::Hold, 1U)),
              "mwl.StatusCode.IoError: the reply cannot be waited for: Input/output error");
    // A signal's handler that has run ends no wait.
    fault_sd_bus_wait.Fail(-EINTR, 0, 3);
    EXPECT_EQ(mPeer.Within(50ms).Call(Peer1::Hold, 1U).GetError().GetStatus(), StatusCode::Timeout);
    tern::test::FaultScope match(fault_sd_bus_add_match_async);
    fault_sd_bus_add_match_async.Fail(-ENOBUFS);
    EXPECT_EQ(mPeer.Listen(Peer1::Told).GetState().GetError().GetStatus(), StatusCode::ResourceUnavailable);
    fault_sd_bus_wait.Reset();
    EXPECT_EQ(Said(mPeer.Ping()), "");
}

TEST(BlockingBusForkTest, AChildConnectsAnew) {
    const PrivateBus bus;
    const pid_t service = PeerService::Fork();
    const BlockingProxy<Peer1> peer(tern::test::PEER, tern::test::PEER_PATH);
    EXPECT_EQ(*peer.Call(Peer1::Add, 2U, 3U), 5U);
    const tern::test::ChildResult child = tern::test::RunInChild([&peer] {
        const Outcome<std::uint32_t> sum = peer.Call(Peer1::Add, 2U, 3U);
        return sum.IsOk() && *sum == 5 ? 0 : 1;
    });
    EXPECT_EQ(child.exitCode, 0) << child.error;
    EXPECT_EQ(*peer.Call(Peer1::Add, 3U, 3U), 6U);
    kill(service, SIGKILL);
    waitpid(service, nullptr, 0);
}
