#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>
#include <tern/typed/object_mirror.h>
#include <tern/typed/peer_watch.h>
#include <tern/typed/property_cache.h>
#include <tern/typed/proxy.h>
#include <tern/typed/subscription.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "typed/watched_peer.h"

TERN_INTERPOSE(int, sd_bus_message_copy, (sd_bus_message * to, sd_bus_message* from, int all),
               (to, from, all))

namespace mwl::Typed {
namespace {

using tern::test::Error;
using tern::test::FaultScope;
using tern::test::RawPeer;
using tern::test::Served;
using tern::test::WaitUntil;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr const char* NAME = "com.example.House";
constexpr const char* ROOT = "/com/example";
constexpr const char* MANAGER = "org.freedesktop.DBus.ObjectManager";
constexpr const char* ROOM = "com.example.Room1";
constexpr const char* DOOR = "com.example.Door1";
const std::string LEFT_OUT =
    "Objects of com.example.House /com/example are left out: there are too many, or it is not above them "
    "(0 like it not logged)";

/// A service that mirrors the objects of a peer, which the test leads.
class ObjectMirrorTest : public tern::test::WatchedPeerTest {
protected:
    ObjectMirrorTest() : WatchedPeerTest(NAME) {}
    ~ObjectMirrorTest() override { mServed.End(); }

    /// D-Bus thread.
    ObjectMirror MakeMirror(const std::string& name = NAME, const std::string& root = ROOT) {
        return ObjectMirror(
            *mServed.typed, name, root,
            [this](const std::string& path, const std::string& interface,
                   const ObjectMirror::Properties& properties) {
                std::string text = "+" + path + " " + interface;
                for (const auto& [property, value] : properties) {
                    text += " " + property + "=" + value.ToText();
                }
                mTold.push_back(text);
                const auto object = mMirror.GetObjects().find(path);
                EXPECT_TRUE(object != mMirror.GetObjects().end() && object->second.count(interface) == 1);
            },
            [this](const std::string& path, const std::string& interface) {
                mTold.push_back("-" + path + " " + interface);
                const auto object = mMirror.GetObjects().find(path);
                EXPECT_TRUE(object == mMirror.GetObjects().end() || object->second.count(interface) == 0);
            },
            [this] { mTold.emplace_back("ready"); });
    }
    void Make(const std::string& name = NAME) {
        mServed.On([&] { mMirror = MakeMirror(name); });
    }
    RawPeer::Message WaitForQuestion() { return mPeer.WaitForCall("GetManagedObjects"); }
    /// "There are none."
    void AnswerNone(const RawPeer::Message& call) { mPeer.Reply(call, "a{oa{sa{sv}}}", 0); }
    /// One object with one interface without properties.
    void AnswerOne(RawPeer& peer, const RawPeer::Message& call, const char* path) {
        peer.Reply(call, "a{oa{sa{sv}}}", 1, path, 1, ROOM, 0);
    }
    void Add(const char* path, const char* interface = ROOM) {
        mPeer.Emit(ROOT, MANAGER, "InterfacesAdded", "oa{sa{sv}}", path, 1, interface, 0);
    }
    void Remove(const char* path, const char* interface = ROOM) {
        mPeer.Emit(ROOT, MANAGER, "InterfacesRemoved", "oas", path, 1, interface);
    }
    /// A mirror of a peer that has no objects yet.
    void MakeEmpty() {
        Make();
        AnswerNone(WaitForQuestion());
        EXPECT_THAT(Told(), ElementsAre("ready"));
    }
    StatusCode Status() {
        return mServed.On([this] { return mMirror.GetStatus(); });
    }
    void WaitFor(StatusCode status) {
        EXPECT_TRUE(WaitUntil([&] { return Status() == status; })) << "waited for " << status;
    }
    ObjectMirror::Objects Objects() {
        return mServed.On([this] { return mMirror.GetObjects(); });
    }
    std::size_t Omitted() {
        return mServed.On([this] { return mMirror.GetOmitted(); });
    }
    /// Once the service has handled all that the peer sent.
    std::vector<std::string> ToldAfter(RawPeer& peer) {
        peer.Ping();
        return mServed.On([this] { return std::exchange(mTold, {}); });
    }
    std::vector<std::string> Told() { return ToldAfter(mPeer); }

    std::vector<std::string> mTold;
    ObjectMirror mMirror;
};

TEST_F(ObjectMirrorTest, APeerMayHaveNoObjects) {
    Make();
    EXPECT_EQ(Status(), StatusCode::Busy);
    AnswerNone(WaitForQuestion());
    EXPECT_THAT(Told(), ElementsAre("ready"));
    EXPECT_EQ(Status(), StatusCode::Ok);
    EXPECT_THAT(Objects(), IsEmpty());
}

TEST_F(ObjectMirrorTest, TellsWhatIsThere) {
    Make();
    mPeer.Reply(WaitForQuestion(), "a{oa{sa{sv}}}", 3, "/com/example/a", 2, ROOM, 2, "Level", "u", 7U, "Name",
                "s", "hall", DOOR, 0, "/com/example/b", 1, ROOM, 0, "/com/example/c", 1,
                "org.freedesktop.DBus.Peer", 0);
    EXPECT_THAT(Told(), ElementsAre("+/com/example/a com.example.Room1 Level=7 Name=\"hall\"",
                                    "+/com/example/a com.example.Door1", "+/com/example/b com.example.Room1",
                                    "ready"));
    const ObjectMirror::Objects expected{{"/com/example/a", {DOOR, ROOM}}, {"/com/example/b", {ROOM}}};
    EXPECT_EQ(Objects(), expected);
    EXPECT_EQ(Omitted(), 0U);
    EXPECT_THAT(mLog.Entries("Typed"), IsEmpty());
}

TEST_F(ObjectMirrorTest, TellsWhatComesAndGoes) {
    MakeEmpty();
    mPeer.Emit(ROOT, MANAGER, "InterfacesAdded", "oa{sa{sv}}", "/com/example/a", 2, ROOM, 1, "Level", "u", 7U,
               DOOR, 0);
    Add("/com/example/a");  // again
    Remove("/com/example/a", DOOR);
    Remove("/com/example/a", DOOR);
    Remove("/com/example/b");
    Remove("/com/example/a");
    EXPECT_THAT(Told(),
                ElementsAre("+/com/example/a com.example.Room1 Level=7", "+/com/example/a com.example.Door1",
                            "-/com/example/a com.example.Door1", "-/com/example/a com.example.Room1"));
    EXPECT_THAT(Objects(), IsEmpty());
}

TEST_F(ObjectMirrorTest, WhatComesBeforeTheAnswerIsToldOnce) {
    Make();
    const auto call = WaitForQuestion();
    Add("/com/example/a");
    Add("/com/example/b");
    AnswerOne(mPeer, call, "/com/example/a");
    EXPECT_THAT(Told(), ElementsAre("+/com/example/a com.example.Room1", "+/com/example/b com.example.Room1",
                                    "ready"));
}

TEST_F(ObjectMirrorTest, WhatGoesBeforeTheAnswerStaysAway) {
    Make();
    const auto call = WaitForQuestion();
    Remove("/com/example/a");
    AnswerOne(mPeer, call, "/com/example/a");
    EXPECT_THAT(Told(), ElementsAre("ready"));
    Add("/com/example/a");
    EXPECT_THAT(Told(), ElementsAre("+/com/example/a com.example.Room1"));
}

TEST_F(ObjectMirrorTest, WhatGoesAndComesBackBeforeTheAnswerIsThere) {
    Make();
    const auto call = WaitForQuestion();
    Remove("/com/example/a");
    Add("/com/example/a");
    AnswerOne(mPeer, call, "/com/example/a");
    EXPECT_THAT(Told(), ElementsAre("+/com/example/a com.example.Room1", "ready"));
}

TEST_F(ObjectMirrorTest, WhenMoreGoesThanIsRememberedThePeerIsAskedAgain) {
    Make();
    const auto first = WaitForQuestion();
    for (int i = 0; i <= 4096; ++i) {
        Remove(("/com/example/x" + std::to_string(i)).c_str());
    }
    AnswerOne(mPeer, first, "/com/example/x4096");
    const auto second = WaitForQuestion();
    EXPECT_THAT(Told(), IsEmpty());
    AnswerNone(second);
    EXPECT_THAT(Told(), ElementsAre("ready"));
}

TEST_F(ObjectMirrorTest, MirrorsTheObjectsOfTheTypedBus) {
    mServed.On([this] {
        EXPECT_EQ(mServed.typed->AddObjectManager(ROOT), StatusCode::Ok);
        mServed.Export("/com/example/rooms/one");
        mMirror = MakeMirror(tern::test::SERVICE);
    });
    EXPECT_TRUE(WaitUntil([this] { return Status() == StatusCode::Ok; }));
    EXPECT_THAT(Told(),
                ElementsAre("+/com/example/rooms/one com.example.Room1 Level=1 Serial=3 Target=5", "ready"));
    mServed.On([this] { mServed.Export("/com/example/rooms/two"); });
    EXPECT_TRUE(WaitUntil([this] { return Objects().size() == 2; }));
    mServed.On([this] { mServed.exported.clear(); });
    EXPECT_TRUE(WaitUntil([this] { return Objects().empty(); })) << "an interface of every object is left";
    EXPECT_THAT(Told(), ElementsAre("+/com/example/rooms/two com.example.Room1 Level=1 Serial=3 Target=5",
                                    "-/com/example/rooms/one com.example.Room1",
                                    "-/com/example/rooms/two com.example.Room1"));
}

// ---- the owner

TEST_F(ObjectMirrorTest, AllGoWithThePeerAndComeBackWithIt) {
    Make();
    AnswerOne(mPeer, WaitForQuestion(), "/com/example/a");
    Add("/com/example/b");
    Told();
    mPeer.Disown(NAME);
    EXPECT_THAT(Told(),
                ElementsAre("-/com/example/a com.example.Room1", "-/com/example/b com.example.Room1"));
    EXPECT_EQ(Status(), StatusCode::NotFound);
    Add("/com/example/b");
    EXPECT_THAT(Told(), IsEmpty());
    mPeer.Own(NAME);
    AnswerOne(mPeer, WaitForQuestion(), "/com/example/a");
    EXPECT_THAT(Told(), ElementsAre("+/com/example/a com.example.Room1", "ready"));
}

TEST_F(ObjectMirrorTest, TheLateAnswerOfAFormerOwnerDoesNotCount) {
    RawPeer next;
    Make();
    const auto late = WaitForQuestion();
    next.Own(NAME);
    const auto call = next.WaitForCall("GetManagedObjects");
    AnswerOne(mPeer, late, "/com/example/a");
    EXPECT_THAT(Told(), IsEmpty());
    AnswerOne(next, call, "/com/example/b");
    EXPECT_THAT(ToldAfter(next), ElementsAre("+/com/example/b com.example.Room1", "ready"));
    // Nor does that of one who has given the name up.
    mServed.On([this] { mMirror = MakeMirror(); });
    const auto second = next.WaitForCall("GetManagedObjects");
    next.Disown(NAME);
    AnswerOne(next, second, "/com/example/b");
    EXPECT_THAT(ToldAfter(next), IsEmpty());
    EXPECT_EQ(Status(), StatusCode::NotFound);
}

TEST_F(ObjectMirrorTest, AStrangerAddsAndRemovesNothing) {
    RawPeer stranger;
    Make();
    AnswerOne(mPeer, WaitForQuestion(), "/com/example/a");
    Told();
    stranger.EmitTo(tern::test::SERVICE, ROOT, MANAGER, "InterfacesAdded", "oa{sa{sv}}", "/com/example/b", 1,
                    ROOM, 0);
    stranger.EmitTo(tern::test::SERVICE, ROOT, MANAGER, "InterfacesRemoved", "oas", "/com/example/a", 1,
                    ROOM);
    EXPECT_THAT(ToldAfter(stranger), IsEmpty());
}

// ---- hostile peers

TEST_F(ObjectMirrorTest, WhatIsNotBelowTheRootIsLeftOut) {
    MakeEmpty();
    Add("/com/examples/a");
    Add("/a");
    Add("/com/example");
    EXPECT_THAT(Told(), ElementsAre("+/com/example com.example.Room1"));
    EXPECT_EQ(Omitted(), 2U);
    EXPECT_THAT(mLog.Entries("Typed"), ElementsAre(Error("Typed", LEFT_OUT)));
}

TEST_F(ObjectMirrorTest, TheRootMayBeAboveAll) {
    mServed.On([this] { mMirror = MakeMirror(NAME, "/"); });
    AnswerOne(mPeer, WaitForQuestion(), "/org/other");
    EXPECT_THAT(Told(), ElementsAre("+/org/other com.example.Room1", "ready"));
}

TEST_F(ObjectMirrorTest, ObjectsBeyondTheLimitAreLeftOut) {
    MakeEmpty();
    for (std::size_t i = 0; i <= ObjectMirror::OBJECTS; ++i) {
        Add(("/com/example/x" + std::to_string(i)).c_str());
    }
    EXPECT_THAT(Told(), SizeIs(ObjectMirror::OBJECTS));
    EXPECT_EQ(Omitted(), 1U);
    EXPECT_THAT(mLog.Entries("Typed"), ElementsAre(Error("Typed", LEFT_OUT)));
    // There is room again.
    Remove("/com/example/x0");
    Add("/com/example/y");
    EXPECT_THAT(Told(),
                ElementsAre("-/com/example/x0 com.example.Room1", "+/com/example/y com.example.Room1"));
    // A new owner begins anew.
    mPeer.Disown(NAME);
    EXPECT_THAT(Told(), SizeIs(ObjectMirror::OBJECTS));
    mPeer.Own(NAME);
    AnswerOne(mPeer, WaitForQuestion(), "/com/example/a");
    EXPECT_THAT(Told(), ElementsAre("+/com/example/a com.example.Room1", "ready"));
    EXPECT_EQ(Omitted(), 0U);
}

TEST_F(ObjectMirrorTest, InterfacesBeyondTheLimitAreLeftOut) {
    MakeEmpty();
    for (std::size_t i = 0; i <= ObjectMirror::INTERFACES; ++i) {
        Add("/com/example/a", ("com.example.I" + std::to_string(i)).c_str());
    }
    EXPECT_THAT(Told(), SizeIs(ObjectMirror::INTERFACES));
    EXPECT_EQ(Omitted(), 1U);
    Remove("/com/example/a", "com.example.I0");
    Add("/com/example/b", DOOR);
    EXPECT_THAT(Told(), ElementsAre("-/com/example/a com.example.I0", "+/com/example/b com.example.Door1"));
}

TEST_F(ObjectMirrorTest, NamesBeyondTheLimitAreLeftOut) {
    MakeEmpty();
    const std::string longest = "/com/example/" + std::string(60000, 'x');
    for (int i = 0; i < 100; ++i) {
        Add((longest + std::to_string(i)).c_str());
    }
    const std::size_t each = longest.size() + 2 + std::string(ROOM).size();
    const std::size_t fitting = Told().size();
    EXPECT_GE(fitting, ObjectMirror::NAME_BYTES / each - 1);
    EXPECT_LE(fitting, ObjectMirror::NAME_BYTES / each + 1);
    EXPECT_EQ(Omitted(), 100 - fitting);
    // All of it is given back.
    for (int i = 0; i < 100; ++i) {
        Remove((longest + std::to_string(i)).c_str());
    }
    EXPECT_THAT(Told(), SizeIs(fitting));
    for (int i = 0; i < 100; ++i) {
        Add((longest + std::to_string(i)).c_str());
    }
    EXPECT_THAT(Told(), SizeIs(fitting));
}

TEST_F(ObjectMirrorTest, AValueThatCannotBeKeptIsMissing) {
    MakeEmpty();
    mPeer.Emit(ROOT, MANAGER, "InterfacesAdded", "oa{sa{sv}}", "/com/example/a", 2, ROOM, 3, "Level", "u", 7U,
               "File", "(uh)", 1U, STDIN_FILENO, "Name", "s", "hall", DOOR, 1, "Width", "u", 8U);
    EXPECT_THAT(Told(), ElementsAre("+/com/example/a com.example.Room1 Level=7 Name=\"hall\"",
                                    "+/com/example/a com.example.Door1 Width=8"));
}

TEST_F(ObjectMirrorTest, ManyValuesThatCannotBeKeptCostLittle) {
    MakeEmpty();
    sd_bus_message* made = nullptr;
    RawPeer::Check(sd_bus_message_new_signal(mPeer.Get(), &made, ROOT, MANAGER, "InterfacesAdded"));
    const RawPeer::Message signal(made);
    RawPeer::Check(sd_bus_message_append(made, "o", "/com/example/a"));
    RawPeer::Check(sd_bus_message_open_container(made, 'a', "{sa{sv}}"));
    RawPeer::Check(sd_bus_message_open_container(made, 'e', "sa{sv}"));
    RawPeer::Check(sd_bus_message_append(made, "s", ROOM));
    RawPeer::Check(sd_bus_message_open_container(made, 'a', "{sv}"));
    for (int i = 0; i < 5000; ++i) {
        // A variant in a variant, and so on: deeper than what may be kept.
        RawPeer::Check(sd_bus_message_open_container(made, 'e', "sv"));
        RawPeer::Check(sd_bus_message_append(made, "s", std::to_string(i).c_str()));
        for (unsigned depth = 0; depth < Any::MAX_NESTING + 1; ++depth) {
            RawPeer::Check(sd_bus_message_open_container(made, 'v', "v"));
        }
        RawPeer::Check(sd_bus_message_append(made, "v", "y", 1));
        for (unsigned depth = 0; depth < Any::MAX_NESTING + 2; ++depth) {
            RawPeer::Check(sd_bus_message_close_container(made));
        }
    }
    RawPeer::Check(sd_bus_message_close_container(made));
    RawPeer::Check(sd_bus_message_close_container(made));
    RawPeer::Check(sd_bus_message_close_container(made));
    RawPeer::Check(sd_bus_send(mPeer.Get(), made, nullptr));
    const auto begin = std::chrono::steady_clock::now();
    Add("/com/example/b");
    EXPECT_THAT(Told(),
                ElementsAre("+/com/example/a com.example.Room1", "+/com/example/b com.example.Room1"));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 4 * tern::test::TOLERANCE);
}

TEST_F(ObjectMirrorTest, AnAnswerThatCannotBeReadIsAskedForAgain) {
    Make();
    const FaultScope scope(fault_sd_bus_message_copy);
    fault_sd_bus_message_copy.Fail(-EMFILE, 0, 1, 1);
    const auto answer = [this] {
        mPeer.Reply(WaitForQuestion(), "a{oa{sa{sv}}}", 3, "/com/example/a", 1, ROOM, 1, "Level", "u", 1U,
                    "/com/example/b", 1, ROOM, 1, "Level", "u", 2U, "/com/example/c", 1, ROOM, 0);
    };
    answer();
    EXPECT_THAT(Told(), ElementsAre("+/com/example/a com.example.Room1 Level=1"));
    EXPECT_EQ(Status(), StatusCode::ResourceUnavailable);
    EXPECT_THAT(mLog.Entries("Typed"),
                ElementsAre(Error("Typed",
                                  "Failed to get the objects of com.example.House /com/example: Too many "
                                  "open files (0 like it not logged)")));
    answer();
    EXPECT_THAT(Told(), ElementsAre("+/com/example/b com.example.Room1 Level=2",
                                    "+/com/example/c com.example.Room1", "ready"));
    EXPECT_EQ(Status(), StatusCode::Ok);
}

TEST_F(ObjectMirrorTest, ASignalThatCannotBeReadIsCounted) {
    MakeEmpty();
    const FaultScope scope(fault_sd_bus_message_copy);
    fault_sd_bus_message_copy.Fail(-EMFILE);
    Add("/com/example/a");
    EXPECT_THAT(Told(), IsEmpty());
    EXPECT_THAT(Objects(), IsEmpty());
    EXPECT_EQ(mServed.Count().wrongSignals, 1U);
    EXPECT_THAT(mLog.Entries("Typed"), SizeIs(1));
    Add("/com/example/a");
    EXPECT_THAT(Told(), ElementsAre("+/com/example/a com.example.Room1"));
}

TEST_F(ObjectMirrorTest, SignalsOfAnotherSignatureAreCounted) {
    MakeEmpty();
    mPeer.Emit(ROOT, MANAGER, "InterfacesAdded", "o", "/com/example/a");
    mPeer.Emit(ROOT, MANAGER, "InterfacesRemoved", "s", "/com/example/a");
    EXPECT_THAT(Told(), IsEmpty());
    EXPECT_EQ(mServed.Count().wrongSignals, 2U);
}

// ---- failures

TEST_F(ObjectMirrorTest, APeerThatDoesNotTellIsAskedAgain) {
    Make();
    mPeer.Refuse(WaitForQuestion(), SD_BUS_ERROR_UNKNOWN_METHOD, "secret");
    WaitFor(StatusCode::NotSupported);
    // What comes meanwhile is told; what goes is not remembered.
    Add("/com/example/a");
    Remove("/com/example/b");
    EXPECT_THAT(Told(), ElementsAre("+/com/example/a com.example.Room1"));
    mPeer.Reply(WaitForQuestion(), "s", "nonsense");
    WaitFor(StatusCode::InvalidArgument);
    EXPECT_EQ(mServed.Count().wrongReplies, 1U);
    AnswerOne(mPeer, WaitForQuestion(), "/com/example/b");
    EXPECT_THAT(Told(), ElementsAre("+/com/example/b com.example.Room1", "ready"));
    EXPECT_EQ(Status(), StatusCode::Ok);
    EXPECT_THAT(mLog.Entries("Typed"),
                ElementsAre(Error("Typed",
                                  "Failed to get the objects of com.example.House /com/example: "
                                  "org.freedesktop.DBus.Error.UnknownMethod (0 like it not logged)")));
}

TEST_F(ObjectMirrorTest, ANameThatComesAndGoesDoesNotFillTheLog) {
    Make();
    for (int i = 0; i < 30; ++i) {
        if (i % 2 == 0) {
            mPeer.Refuse(WaitForQuestion(), "com.example.Error.No");
        } else {
            AnswerOne(mPeer, WaitForQuestion(), "/elsewhere");
        }
        mPeer.Disown(NAME);
        mPeer.Own(NAME);
    }
    Told();
    EXPECT_THAT(mLog.Entries("Typed"), SizeIs(10));
}

TEST_F(ObjectMirrorTest, AQuestionThatCannotBeSentIsLogged) {
    mPeer.Disown(NAME);
    Make();
    WaitFor(StatusCode::NotFound);
    const FaultScope scope(fault_sd_bus_call_async);
    const FaultScope timers(fault_sd_event_add_time_relative);
    fault_sd_bus_call_async.Fail(-ENOBUFS);
    fault_sd_event_add_time_relative.Fail(-ENOMEM);
    mPeer.Own(NAME);
    WaitFor(mw::tern::MakeStatusCodeFromReturnCode(-ENOBUFS));
    EXPECT_THAT(
        mLog.Entries("Typed"),
        ElementsAre(
            Error("Typed",
                  "Failed to get the objects of com.example.House /com/example: No buffer space available (0 "
                  "like it not logged)"),
            Error("Typed",
                  "Failed to wait for the objects of com.example.House /com/example (-12, Cannot allocate "
                  "memory)")));
}

class ObjectMirrorRefusedTest : public ObjectMirrorTest, public testing::WithParamInterface<int> {};

TEST_P(ObjectMirrorRefusedTest, WithoutBothSignalsNothingIsKept) {
    const FaultScope scope(fault_sd_bus_add_match_async);
    // The first match is for the owner of the name.
    RefuseMatch(GetParam());
    Make();
    const auto call = WaitForQuestion();
    Add("/com/example/a");
    Told();
    AnswerNone(call);
    WaitFor(StatusCode::InvalidArgument);
    EXPECT_THAT(Objects(), IsEmpty());
    Add("/com/example/b");
    mPeer.Disown(NAME);
    mPeer.Own(NAME);
    EXPECT_TRUE(mPeer.HasNoCall("GetManagedObjects"));
    EXPECT_EQ(Status(), StatusCode::InvalidArgument);
    EXPECT_THAT(Objects(), IsEmpty());
}
INSTANTIATE_TEST_SUITE_P(, ObjectMirrorRefusedTest, testing::Values(1, 2),
                         [](const auto& test) { return test.param == 1 ? "Added" : "Removed"; });

TEST_F(ObjectMirrorTest, OneSignalAloneIsNotListenedTo) {
    const FaultScope scope(fault_sd_bus_add_match_async);
    // For the owner, for what comes, for what goes.
    fault_sd_bus_add_match_async.Fail(-ENOBUFS, 0, 1, 2);
    Make();
    const StatusCode failed = mw::tern::MakeStatusCodeFromReturnCode(-ENOBUFS);
    EXPECT_EQ(Status(), failed);
    Add("/com/example/a");
    EXPECT_THAT(Told(), IsEmpty());
    EXPECT_THAT(Objects(), IsEmpty());
    EXPECT_EQ(Status(), failed);
}

TEST_F(ObjectMirrorTest, WhatIsNoNameOrPathIsRefusedOnce) {
    for (const auto& [name, root] : {std::pair{"no name", ROOT}, std::pair{NAME, "no path"}}) {
        mLog.Clear();
        mServed.On([&, destination = name, path = root] {
            mMirror = MakeMirror(destination, path);
            EXPECT_EQ(mMirror.GetStatus(), StatusCode::InvalidArgument);
        });
        EXPECT_THAT(mLog.Entries("Typed"), SizeIs(1));
    }
    EXPECT_THAT(Told(), IsEmpty());
}

// ---- handlers and the end

TEST_F(ObjectMirrorTest, AHandlerMayEndTheMirror) {
    const auto kept = std::make_shared<int>(7);
    for (const bool isRemoval : {false, true}) {
        mServed.On([&] {
            mMirror = ObjectMirror(
                *mServed.typed, NAME, ROOT,
                [this, kept, isRemoval](const std::string& path, const std::string&, const auto&) {
                    mTold.push_back("+" + path);
                    if (!isRemoval) {
                        mMirror.Reset();
                    }
                    EXPECT_EQ(*kept, 7);
                },
                [this, kept](const std::string& path, const std::string&) {
                    mTold.push_back("-" + path);
                    mMirror = ObjectMirror();
                    EXPECT_EQ(*kept, 7);
                },
                [this] { mTold.emplace_back("ready"); });
        });
        mPeer.Reply(WaitForQuestion(), "a{oa{sa{sv}}}", 2, "/com/example/a", 2, ROOM, 0, DOOR, 0,
                    "/com/example/b", 1, ROOM, 0);
        if (isRemoval) {
            EXPECT_THAT(Told(),
                        ElementsAre("+/com/example/a", "+/com/example/a", "+/com/example/b", "ready"));
            mPeer.Disown(NAME);
            EXPECT_THAT(Told(), ElementsAre("-/com/example/a"));
        } else {
            EXPECT_THAT(Told(), ElementsAre("+/com/example/a"));
        }
        EXPECT_EQ(kept.use_count(), 1);
    }
}

TEST_F(ObjectMirrorTest, HandlersMayBeEmpty) {
    mServed.On([this] { mMirror = ObjectMirror(*mServed.typed, NAME, ROOT, nullptr, nullptr); });
    mPeer.Reply(WaitForQuestion(), "a{oa{sa{sv}}}", 1, "/com/example/a", 1, ROOM, 1, "Level", "u", 1U);
    WaitFor(StatusCode::Ok);
    EXPECT_THAT(Objects(), SizeIs(1));
    Remove("/com/example/a");
    Told();
    EXPECT_THAT(Objects(), IsEmpty());
}

TEST_F(ObjectMirrorTest, WhatAHandlerThrowsEndsTheLoop) {
    mServed.On([this] {
        mMirror = ObjectMirror(
            *mServed.typed, NAME, ROOT,
            [](const std::string&, const std::string&, const auto&) { throw std::runtime_error("no"); },
            nullptr);
    });
    AnswerOne(mPeer, WaitForQuestion(), "/com/example/a");
    WaitForEnd();
    EXPECT_EQ(mServed.result, -ENOTRECOVERABLE);
}

TEST_F(ObjectMirrorTest, IsEmptyAndSilentOnceTheBusHasClosed) {
    Make();
    AnswerOne(mPeer, WaitForQuestion(), "/com/example/a");
    Told();
    mServed.End();
    EXPECT_THAT(mTold, IsEmpty());
    EXPECT_EQ(mMirror.GetStatus(), StatusCode::Stopping);
    EXPECT_THAT(mMirror.GetObjects(), IsEmpty());
    const ObjectMirror late = MakeMirror();
    EXPECT_EQ(late.GetStatus(), StatusCode::NotInitialized);
    mServed.typed.reset();
    mMirror.Reset();
    EXPECT_EQ(mMirror.GetStatus(), StatusCode::NotInitialized);
    EXPECT_THAT(mMirror.GetObjects(), IsEmpty());
}

TEST_F(ObjectMirrorTest, IsSilentWhenTheConnectionIsLost) {
    Make();
    AnswerOne(mPeer, WaitForQuestion(), "/com/example/a");
    Told();
    mServed.On([this] { mDaemon.Kill(); });
    WaitForEnd();
    EXPECT_THAT(mTold, IsEmpty());
    EXPECT_EQ(mMirror.GetStatus(), StatusCode::Stopping);
}

TEST_F(ObjectMirrorTest, IsMovedWhileItWaits) {
    mServed.On([this] {
        ObjectMirror first = MakeMirror();
        ObjectMirror second(std::move(first));
        first.Reset();
        EXPECT_THAT(first.GetObjects(), IsEmpty());
        EXPECT_EQ(first.GetOmitted(), 0U);
        mMirror = std::move(second);
        auto& self = mMirror;
        mMirror = std::move(self);
    });
    AnswerOne(mPeer, WaitForQuestion(), "/com/example/a");
    EXPECT_THAT(Told(), ElementsAre("+/com/example/a com.example.Room1", "ready"));
}

}  // namespace
}  // namespace mwl::Typed

// The code of the manual about watching peers, compiled and run: each block there stands here word for word.
namespace guide {

using mwl::StatusCode;
using namespace mwl::Typed;

struct Heater1 {
    static constexpr const char* NAME = "com.example.Heater1";

    static constexpr Property<double> Temperature{"Temperature", EMITS, "Degrees Celsius."};
    static constexpr WritableProperty<double> Target{"Target", EMITS | OPEN, "Degrees Celsius."};
    static constexpr Signal<double> Measured{"Measured", {"celsius"}};

    static constexpr Members<Temperature, Target, Measured> ALL{};
};

/// A client on the D-Bus thread.
class Display {
public:
    explicit Display(const Bus& bus) {
        const Proxy<Heater1> heater(bus, "com.example.Heater", "/com/example/Heater");
        // clang-format off: word for word
        mMeasured = heater.On(Heater1::Measured, [this](double celsius) { Show(celsius); });
        mLogged = heater.On(Heater1::Measured, [this](const Caller& sender, double celsius) {
            Log(sender.GetSender(), celsius);
        });
        mHeater.emplace(heater);  // std::optional<PropertyCache<Heater1>>
        mHeater->OnChange([this](const PropertyChanges<Heater1>& changes) {
            if (changes.Has<Heater1::Target>()) {
                ShowTarget(mHeater->Get<Heater1::Target>());  // std::optional<double>
            }
        });
        mWatch = PeerWatch(
            bus, "com.example.Heater", [this](const std::string& owner) { Log(owner.c_str(), 0); },
            [this] { Hide(); });
        mRooms = ObjectMirror(
            bus, "com.example.Heater", "/com/example",
            [this](const std::string& path, const std::string& interface, const auto& properties) {
                AddRoom(path, interface, properties.size());
            },
            [this](const std::string& path, const std::string&) { RemoveRoom(path); });
        // clang-format on
    }

    std::vector<std::string> shown;
    bool IsReady() const {
        return mMeasured.GetStatus() == StatusCode::Ok && mLogged.GetStatus() == StatusCode::Ok &&
               mHeater->IsReady() && mRooms.GetStatus() == StatusCode::Ok;
    }

private:
    void Show(double celsius) { shown.push_back("measured " + std::to_string(int(celsius))); }
    void Log(const char* sender, double celsius) {
        shown.push_back(std::string(sender) + " " + std::to_string(int(celsius)));
    }
    void ShowTarget(const std::optional<double>& celsius) {
        shown.push_back(celsius ? "target " + std::to_string(int(*celsius)) : "no target");
    }
    void Hide() { shown.emplace_back("hidden"); }
    void AddRoom(const std::string& path, const std::string& interface, std::size_t values) {
        shown.push_back("+" + path + " " + interface + " " + std::to_string(values));
    }
    void RemoveRoom(const std::string& path) { shown.push_back("-" + path); }

    Subscription mMeasured;
    Subscription mLogged;
    std::optional<PropertyCache<Heater1>> mHeater;
    PeerWatch mWatch;
    ObjectMirror mRooms;
};

TEST(WatchGuide, TheBlocksDoWhatTheTextSays) {
    const tern::test::PrivateBus daemon;
    const tern::test::LogCapture log(5);
    std::optional<Display> display;
    tern::test::RawPeer peer;
    peer.Own("com.example.Heater");
    tern::test::Served served;
    served.On([&] { display.emplace(*served.typed); });
    // The calls come in this order: it may not be another.
    peer.Reply(peer.WaitForCall("GetAll"), "a{sv}", 2, "Temperature", "d", 20.0, "Target", "d", 21.0);
    peer.Reply(peer.WaitForCall("GetManagedObjects"), "a{oa{sa{sv}}}", 1, "/com/example/room", 1,
               "com.example.Room1", 1, "Level", "u", 3U);
    EXPECT_TRUE(tern::test::WaitUntil([&] { return served.On([&] { return display->IsReady(); }); }));
    peer.Emit("/com/example/Heater", Heater1::NAME, "Measured", "d", 22.0);
    peer.Ping();
    const std::string name = peer.Name();
    peer.Disown("com.example.Heater");
    peer.Ping();
    served.On([&] {
        EXPECT_THAT(display->shown,
                    testing::UnorderedElementsAre(name + " 0", "target 21",
                                                  "+/com/example/room com.example.Room1 1", "measured 22",
                                                  name + " 22", "no target", "hidden", "-/com/example/room"));
        display.reset();
    });
}

}  // namespace guide
