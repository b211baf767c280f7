// What a mirror does with values, answers, signals and handlers that fail, and at its end.

#include <ctime>

#include "typed/object_mirror_fixture.h"

namespace mwl::Typed::Tests {
namespace {

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
    const std::clock_t begin = std::clock();  // processor time: what it costs, on a busy machine too
    Add("/com/example/b");
    EXPECT_THAT(Told(),
                ElementsAre("+/com/example/a com.example.Room1", "+/com/example/b com.example.Room1"));
    const double seconds = static_cast<double>(std::clock() - begin) / CLOCKS_PER_SEC;
    EXPECT_LT(seconds, 2.0 * tern::test::SLOWNESS);
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
}  // namespace mwl::Typed::Tests
