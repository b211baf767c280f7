#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <systemd/sd-bus.h>
#include <tern/typed/caller.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <latch>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/interpose.h"
#include "support/log_capture.h"
#include "typed/served_bus.h"
#include "typed/wire.h"

TERN_INTERPOSE(int, sd_bus_query_sender_creds, (sd_bus_message * call, uint64_t mask, sd_bus_creds** creds),
               (call, mask, creds))
TERN_INTERPOSE(int, sd_bus_query_sender_privilege, (sd_bus_message * call, int capability),
               (call, capability))
TERN_INTERPOSE(int, sd_bus_add_match_async,
               (sd_bus * bus, sd_bus_slot** slot, const char* match, sd_bus_message_handler_t callback,
                sd_bus_message_handler_t installed, void* userdata),
               (bus, slot, match, callback, installed, userdata))
// With the arguments that the library passes.
TERN_INTERPOSE(int, sd_bus_call_method_async,
               (sd_bus * bus, sd_bus_slot** slot, const char* destination, const char* path,
                const char* interface, const char* member, sd_bus_message_handler_t callback, void* userdata,
                const char* types, const char* argument),
               (bus, slot, destination, path, interface, member, callback, userdata, types, argument))

TERN_INTERPOSE(int, sd_bus_message_rewind, (sd_bus_message * message, int complete), (message, complete))

namespace mwl::Typed {
namespace {

using tern::test::FaultScope;
using tern::test::Peer;
using tern::test::Room;
using tern::test::ROOM;
using tern::test::Served;
using tern::test::WaitUntil;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

constexpr const char* PATH = "/com/example/room";
constexpr const char* STOPPING = "org.freedesktop.DBus.Error.NoReply: the service is stopping";
constexpr const char* DENIED =
    "org.freedesktop.DBus.Error.AccessDenied: Access to com.example.Room1.Guarded() not permitted.";

class CallerTest : public testing::Test {
protected:
    using Number = std::uint32_t;

    CallerTest() {
        mServed.emplace([this](Served& served) {
            room = &served.Export(PATH);
            room->onGuarded = [this](const Caller&, Number number) {
                mGuarded.push_back(number);
                return number + 1;
            };
        });
        mPeer.emplace();
        mPeerName = mPeer->Name();
    }
    std::string Guarded(Number number) { return mPeer->Call(PATH, ROOM, "Guarded", "u", number); }
    void Send(Number number) { mPeer->Send(mAnswers, PATH, ROOM, "Guarded", "u", number); }
    /// The questions for credentials go to the peer, which does not know the answer, and tells so when the
    /// test has it process its messages. What the peer itself calls goes its way.
    void AskThePeer() {
        fault_sd_bus_call_method_async.Replace(
            [this](sd_bus* bus, sd_bus_slot** slot, const char* destination, const char* path,
                   const char* interface, const char* member, auto... others) {
                const bool isQuestion = std::strcmp(member, "GetConnectionCredentials") == 0;
                return fault_sd_bus_call_method_async.Real(bus, slot,
                                                           isQuestion ? mPeerName.c_str() : destination, path,
                                                           interface, member, others...);
            },
            1000);
    }
    /// Those of this member, by service and peer alike.
    void FailCalls(const std::string& failing) {
        fault_sd_bus_call_method_async.Replace(
            [failing](sd_bus* bus, sd_bus_slot** slot, const char* destination, const char* path,
                      const char* interface, const char* member, auto... others) {
                return failing == member ? -ENOBUFS
                                         : fault_sd_bus_call_method_async.Real(bus, slot, destination, path,
                                                                               interface, member, others...);
            },
            1000);
    }
    bool WaitForOpenCalls(std::size_t count) {
        return WaitUntil([&] { return mServed->Count().openCalls == count; });
    }

    tern::test::PrivateBus mDaemon;
    tern::test::LogCapture mLog{5};
    std::optional<Served> mServed;
    std::optional<Peer> mPeer;
    std::string mPeerName;
    std::vector<Number> mGuarded;
    std::vector<std::string> mAnswers;
    Room* room = nullptr;
};

TEST_F(CallerTest, TellsWhoCalls) {
    room->onAsk = [&](Room&, const Caller& caller) -> Number {
        EXPECT_EQ(caller.GetSender(), mPeerName);
        EXPECT_EQ(caller.GetUid(), getuid());
        EXPECT_EQ(caller.GetPid(), getpid());
        EXPECT_TRUE(caller.IsPrivileged());
        EXPECT_TRUE(caller.IsPrivileged(21));
        EXPECT_STREQ(sd_bus_message_get_member(caller.GetMessage()), "Ask");
        return 1;
    };
    const FaultScope scope(fault_sd_bus_query_sender_creds);
    fault_sd_bus_query_sender_creds.Fail(0, 0, 0);  // counts
    EXPECT_EQ(mPeer->Call(PATH, ROOM, "Ask"), "1");
    EXPECT_EQ(fault_sd_bus_query_sender_creds.Calls(), 1) << "asked once, then known";
    EXPECT_EQ(mPeer->Call(PATH, ROOM, "Ask"), "1");
    EXPECT_EQ(fault_sd_bus_query_sender_creds.Calls(), 1);
    EXPECT_EQ(mServed->Count().knownCallers, 1U);
}

TEST_F(CallerTest, WhatCannotBeFoundOutIsNothing) {
    room->onAsk = [&](Room&, const Caller& caller) -> Number {
        const FaultScope scope(fault_sd_bus_query_sender_creds);
        fault_sd_bus_query_sender_creds.Fail(-ENXIO, 0, 3);
        EXPECT_EQ(caller.GetUid(), std::nullopt);
        EXPECT_EQ(caller.GetPid(), std::nullopt);
        EXPECT_FALSE(caller.IsPrivileged());
        return 1;
    };
    EXPECT_EQ(mPeer->Call(PATH, ROOM, "Ask"), "1");
    EXPECT_EQ(mServed->Count().knownCallers, 0U);
}

TEST_F(CallerTest, ACheckedMemberNeverWaitsForTheBus) {
    const FaultScope creds(fault_sd_bus_query_sender_creds);
    const FaultScope privilege(fault_sd_bus_query_sender_privilege);
    fault_sd_bus_query_sender_creds.Fail(-EIO, 0, 100);
    fault_sd_bus_query_sender_privilege.Fail(-EIO, 0, 100);
    room->onGuarded = [&](const Caller& caller, Number number) {
        EXPECT_EQ(caller.GetUid(), getuid());  // known by now
        EXPECT_EQ(caller.GetSender(), mPeerName);
        return number + 1;
    };
    EXPECT_EQ(Guarded(1), "2");
    EXPECT_EQ(Guarded(2), "3");
    EXPECT_EQ(Guarded(3), "4");
    EXPECT_EQ(fault_sd_bus_query_sender_creds.Calls(), 0);
    EXPECT_EQ(fault_sd_bus_query_sender_privilege.Calls(), 0);
    const Bus::Counters counters = mServed->Count();
    EXPECT_EQ(counters.askedCallers, 1U);
    EXPECT_EQ(counters.knownCallers, 1U);
    EXPECT_EQ(counters.openCalls, 0U);
    EXPECT_THAT(mLog.Entries(), IsEmpty());
}

TEST_F(CallerTest, CallsOfOneSenderAreHandledInOrderAndAskedForOnce) {
    for (Number i = 0; i < 20; ++i) {
        Send(i);
    }
    EXPECT_TRUE(mPeer->WaitForAnswers(mAnswers, 20));
    for (std::size_t i = 0; i < 20; ++i) {
        EXPECT_EQ(mAnswers[i], std::to_string(i + 1));
    }
    EXPECT_TRUE(std::is_sorted(mGuarded.begin(), mGuarded.end()));
    EXPECT_EQ(mServed->Count().askedCallers, 1U);
}

/// The second of them was handled at once, because another handler had found out meanwhile who calls, and the
/// first one still waited for the answer.
TEST_F(CallerTest, ACallDoesNotOvertakeOneThatWaitsForTheSameCaller) {
    room->onAsk = [&](Room&, const Caller& caller) -> Number {
        EXPECT_EQ(caller.GetUid(), getuid());
        return 100;
    };
    std::latch isSent(1);
    const FaultScope scope(fault_sd_bus_call_method_async);
    fault_sd_bus_call_method_async.Replace(
        [&](sd_bus* bus, sd_bus_slot** slot, const char* destination, const char* path, const char* interface,
            const char* member, auto... others) {
            if (std::strcmp(member, "GetConnectionCredentials") == 0) {
                isSent.wait();  // the answer comes behind what is sent
            }
            return fault_sd_bus_call_method_async.Real(bus, slot, destination, path, interface, member,
                                                       others...);
        },
        1000);
    Send(1);
    mPeer->Send(mAnswers, PATH, ROOM, "Ask");
    Send(2);
    // The bus has passed on all three when it answers this.
    EXPECT_GE(sd_bus_call_method(mPeer->Get(), "org.freedesktop.DBus", "/", "org.freedesktop.DBus", "GetId",
                                 nullptr, nullptr, nullptr),
              0);
    isSent.count_down();
    EXPECT_TRUE(mPeer->WaitForAnswers(mAnswers, 3));
    EXPECT_THAT(mGuarded, ElementsAre(1U, 2U));
    EXPECT_THAT(mAnswers, ElementsAre("100", "2", "3"));
    EXPECT_EQ(Guarded(3), "4");
    EXPECT_EQ(mServed->Count().askedCallers, 1U);
}

TEST_F(CallerTest, AQuestionThatFailsDoesNotRefuseWhoIsKnownMeanwhile) {
    room->onAsk = [&](Room&, const Caller& caller) -> Number {
        EXPECT_EQ(caller.GetUid(), getuid());
        return 100;
    };
    const FaultScope scope(fault_sd_bus_call_method_async);
    AskThePeer();
    Send(1);
    mPeer->Send(mAnswers, PATH, ROOM, "Ask");
    Send(2);
    EXPECT_TRUE(mPeer->WaitForAnswers(mAnswers, 3));
    EXPECT_THAT(mAnswers, ElementsAre("100", "2", "3"));
}

TEST_F(CallerTest, WhoLeavesTheBusIsForgotten) {
    EXPECT_EQ(Guarded(1), "2");
    EXPECT_EQ(mServed->Count().knownCallers, 1U);
    mPeer->Leave();
    EXPECT_TRUE(WaitUntil([&] { return mServed->Count().knownCallers == 0; }));
    mPeer.emplace();
    EXPECT_EQ(Guarded(1), "2");
    EXPECT_EQ(mServed->Count().askedCallers, 2U);
}

TEST_F(CallerTest, WhoLeavesBeforeItIsKnownLeavesNothingBehind) {
    for (int i = 0; i < 20; ++i) {
        Peer hasty;
        std::vector<std::string> ignored;
        hasty.Send(ignored, PATH, ROOM, "Guarded", "u", 1U);
        hasty.Leave();
    }
    EXPECT_EQ(Guarded(1), "2");
    EXPECT_TRUE(WaitForOpenCalls(0));
    EXPECT_EQ(mServed->Count().unsentReplies, 0U);
}

/// Nobody reports who has left before the bus was told to. Such a caller stayed known for ever, and with it
/// the watch for departures, which wakes the service with each connection that ends.
TEST_F(CallerTest, WhoLeavesBeforeDeparturesAreWatchedIsForgotten) {
    std::optional<Peer> hasty(std::in_place);
    const std::string name = hasty->Name();
    std::latch isSent(1);
    std::atomic<bool> isAsked = false;
    room->onAsk = [&](Room&, const Caller& caller) -> Number {
        isSent.wait();
        EXPECT_EQ(caller.GetUid(), getuid());
        isAsked = true;
        return 1;
    };
    const FaultScope scope(fault_sd_bus_add_match_async);
    fault_sd_bus_add_match_async.Replace(
        [&](auto... arguments) {
            hasty->Leave();
            Peer other;
            EXPECT_TRUE(WaitUntil([&] {
                sd_bus_message* reply = nullptr;
                int hasOwner = 1;
                Peer::Check(sd_bus_call_method(other.Get(), "org.freedesktop.DBus", "/",
                                               "org.freedesktop.DBus", "NameHasOwner", nullptr, &reply, "s",
                                               name.c_str()));
                const Peer::Message owner(reply);
                Peer::Check(sd_bus_message_read_basic(reply, 'b', &hasOwner));
                return hasOwner == 0;
            }));
            return fault_sd_bus_add_match_async.Real(arguments...);
        },
        1);
    std::vector<std::string> ignored;
    hasty->Send(ignored, PATH, ROOM, "Ask");
    isSent.count_down();
    EXPECT_TRUE(WaitUntil([&] { return isAsked.load(); }));
    EXPECT_TRUE(WaitUntil([&] { return mServed->Count().knownCallers == 0; }));
    EXPECT_EQ(fault_sd_bus_add_match_async.Calls(), 1);
}

TEST_F(CallerTest, WhoCannotBeFoundOutIsRefused) {
    const FaultScope scope(fault_sd_bus_call_method_async);
    AskThePeer();
    Send(1);
    EXPECT_TRUE(mPeer->WaitForAnswers(mAnswers, 1));
    EXPECT_THAT(mAnswers, ElementsAre(DENIED));
    EXPECT_THAT(mGuarded, IsEmpty());
    EXPECT_EQ(mServed->Count().knownCallers, 0U);
    fault_sd_bus_call_method_async.Reset();
    EXPECT_EQ(Guarded(1), "2") << "asked for once more";
}

TEST_F(CallerTest, ACallThatWaitsForItsCallerIsAnOpenOne) {
    const FaultScope scope(fault_sd_bus_call_method_async);
    AskThePeer();
    mServed->On([&] { mServed->typed->SetOpenCalls(2); });
    Send(1);
    Send(2);
    EXPECT_TRUE(WaitForOpenCalls(2));
    EXPECT_THAT(mGuarded, IsEmpty());
    Send(3);
    EXPECT_TRUE(WaitUntil([&] { return mServed->Count().refusedCalls == 1; }));
    EXPECT_TRUE(mPeer->WaitForAnswers(mAnswers, 3));
    EXPECT_EQ(std::count(mAnswers.begin(), mAnswers.end(), DENIED), 2);
    EXPECT_EQ(
        std::count(mAnswers.begin(), mAnswers.end(),
                   "org.freedesktop.DBus.Error.LimitsExceeded: too many calls are waiting for their answer"),
        1);
    EXPECT_TRUE(WaitForOpenCalls(0));
}

TEST_F(CallerTest, ACallThatWaitsForItsCallerEndsWithItsObject) {
    const FaultScope scope(fault_sd_bus_call_method_async);
    AskThePeer();
    Send(1);
    EXPECT_TRUE(WaitForOpenCalls(1));
    mServed->On([&] { mServed->exported.clear(); });
    EXPECT_TRUE(mPeer->WaitForAnswers(mAnswers, 1));
    EXPECT_THAT(mAnswers,
                ElementsAre("org.freedesktop.DBus.Error.UnknownObject: the object has been removed"));
    mPeer->Ping();  // the peer's answer to the question comes now, for nobody
    EXPECT_THAT(mGuarded, IsEmpty());
    EXPECT_TRUE(WaitForOpenCalls(0));
}

TEST_F(CallerTest, ACallThatWaitsForItsCallerIsAnsweredAtTheEnd) {
    const FaultScope scope(fault_sd_bus_call_method_async);
    AskThePeer();
    Send(1);
    EXPECT_TRUE(WaitForOpenCalls(1));
    mServed->End();
    EXPECT_TRUE(mPeer->WaitForAnswers(mAnswers, 1));
    EXPECT_THAT(mAnswers, ElementsAre(STOPPING));
    EXPECT_THAT(mGuarded, IsEmpty());
}

TEST_F(CallerTest, AQuestionThatCannotBeSentIsAnErrorOfTheCall) {
    const FaultScope scope(fault_sd_bus_call_method_async);
    FailCalls("GetConnectionCredentials");
    EXPECT_THAT(Guarded(1), StartsWith("org.freedesktop.DBus.Error."));
    EXPECT_THAT(mGuarded, IsEmpty());
    EXPECT_EQ(mServed->Count().openCalls, 0U);
    fault_sd_bus_call_method_async.Reset();
    EXPECT_EQ(Guarded(1), "2");
}

TEST_F(CallerTest, ACallThatCannotBeReadOnceItsCallerIsKnownIsAnswered) {
    std::atomic<bool> isAsked{false};
    const FaultScope question(fault_sd_bus_call_method_async);
    fault_sd_bus_call_method_async.Replace([&](auto... arguments) {
        isAsked = true;
        return fault_sd_bus_call_method_async.Real(arguments...);
    });
    // sd-bus itself comes this way too, but no more with a call that it has handed out.
    const FaultScope scope(fault_sd_bus_message_rewind);
    fault_sd_bus_message_rewind.Replace(
        [&](sd_bus_message* message, int complete) {
            const char* const member = sd_bus_message_get_member(message);
            return isAsked && member != nullptr && std::strcmp(member, "Guarded") == 0
                       ? -ENOBUFS
                       : fault_sd_bus_message_rewind.Real(message, complete);
        },
        1000);
    EXPECT_EQ(Guarded(1), "org.freedesktop.DBus.Error.LimitsExceeded: No buffer space available");
    EXPECT_THAT(mGuarded, IsEmpty());
    EXPECT_EQ(mServed->Count().openCalls, 0U);
    fault_sd_bus_message_rewind.Reset();
    EXPECT_EQ(Guarded(1), "2");
}

TEST_F(CallerTest, DeparturesThatCannotBeWatchedAreToldAndDoNoHarm) {
    const FaultScope scope(fault_sd_bus_add_match_async);
    fault_sd_bus_add_match_async.Fail(-ENOBUFS);
    EXPECT_EQ(Guarded(1), "2");
    EXPECT_TRUE(mLog.Contains(tern::test::Error(
        "Typed",
        "Failed to watch for callers that leave (-105, No buffer space available) (0 like it not logged)")));
    mPeer->Leave();
    mPeer.emplace();
    EXPECT_EQ(Guarded(1), "2");
}

TEST_F(CallerTest, AnotherUserIsRefusedACheckedMember) {
    if (getuid() != 0) {
        GTEST_SKIP() << "only root can be another user";
    }
    constexpr uid_t NOBODY = 65534;  // a bus lets in only users that the system knows
    // The bus's folder and socket are root's alone.
    const std::string socket = mDaemon.Address().substr(mDaemon.Address().find('/'));
    const std::filesystem::path path = socket.substr(0, socket.find(','));
    std::filesystem::permissions(path.parent_path(), std::filesystem::perms::all);
    std::filesystem::permissions(path, std::filesystem::perms::all);
    room->onAsk = [&](Room&, const Caller& caller) -> Number {
        EXPECT_FALSE(caller.IsPrivileged());
        return *caller.GetUid();
    };
    std::thread other([&] {
        // Of this thread alone, unlike setresuid(3).
        ASSERT_EQ(syscall(SYS_setresuid, NOBODY, NOBODY, NOBODY), 0);
        Peer stranger;
        for (int i = 0; i < 2; ++i) {
            EXPECT_EQ(stranger.Call(PATH, ROOM, "Guarded", "u", 1U), DENIED);
        }
        EXPECT_EQ(stranger.Call(PATH, ROOM, "Ask"), std::to_string(NOBODY));
    });
    other.join();
    EXPECT_THAT(mGuarded, IsEmpty());
    EXPECT_EQ(Guarded(1), "2");
}

}  // namespace

TEST(Caller, OnAConnectionWithoutABusIsAskedForThere) {
    tern::test::Wire wire;
    bool wasCalled = false;
    Peer::Check(sd_bus_add_filter(
        wire.Server(), nullptr,
        [](sd_bus_message* message, void* userdata, sd_bus_error*) {
            if (sd_bus_message_is_method_call(message, "com.example.Any", "Ask") > 0) {
                const Caller caller(message);
                EXPECT_STREQ(caller.GetSender(), "");
                EXPECT_EQ(caller.GetMessage(), message);
                EXPECT_TRUE(caller.IsPrivileged());
                *static_cast<bool*>(userdata) = true;
            }
            return 0;
        },
        &wasCalled));
    wire.Call(wire.NewCall("/", "com.example.Any", "Ask"));
    EXPECT_TRUE(wasCalled);
}

}  // namespace mwl::Typed
