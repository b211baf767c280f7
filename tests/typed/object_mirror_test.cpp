#include "typed/object_mirror_fixture.h"

namespace mwl::Typed::Tests {
namespace {

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

TEST_F(ObjectMirrorTest, RoomForNamesOfInterfacesIsGivenBack) {
    MakeEmpty();
    const std::string path = "/com/example/" + std::string(60000, 'x');
    for (int i = 0; i < 100; ++i) {
        Add((path + std::to_string(i)).c_str());
    }
    Remove((path + "0").c_str());
    Told();
    // There is room for one of those paths, and for two at most; an object that stays adds no more of its
    // own.
    Add("/com/example/a");
    const std::string name = "com.example." + std::string(230, 'I');
    const std::size_t beyond = 2 * path.size() / name.size() + 1;
    for (std::size_t i = 0; i < beyond; ++i) {
        Add("/com/example/a", name.c_str());
        Remove("/com/example/a", name.c_str());
    }
    EXPECT_THAT(Told(), SizeIs(1 + 2 * beyond));
}

}  // namespace
}  // namespace mwl::Typed::Tests
