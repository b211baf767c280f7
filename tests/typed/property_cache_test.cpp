#include "typed/property_cache_fixture.h"

namespace mwl::Typed::Tests {
namespace {

TEST_F(PropertyCacheTest, KeepsAllValues) {
    Make();
    EXPECT_EQ(Status(), StatusCode::Busy);
    EXPECT_EQ(Level(), std::nullopt);
    Answer();
    WaitFor(StatusCode::Ok);
    mServed.On([this] {
        EXPECT_TRUE(mCache->IsReady());
        EXPECT_THAT(mCache->Get<Oven1::Level>(), Optional(1U));
        const std::optional<std::string>& label = mCache->Get<Oven1::Label>();
        EXPECT_THAT(label, Optional(std::string("warm")));
        EXPECT_THAT(mCache->Get<Oven1::Range>(), Optional(ElementsAre(10U, 20U)));
        EXPECT_THAT(mCache->Get<Oven1::Target>(), Optional(0.5));
    });
    EXPECT_THAT(Told(), ElementsAre("Level Label Range Target "));
    EXPECT_THAT(mLog.Entries("Typed"), IsEmpty());
}

TEST_F(PropertyCacheTest, IsMadeOfAProxyThatGoes) {
    mServed.On([this] {
        const Proxy<Oven1> oven(*mServed.typed, NAME, PATH);
        mCache.emplace(oven);
    });
    Answer(7);
    WaitFor(StatusCode::Ok);
    EXPECT_THAT(Level(), Optional(7U));
}

TEST_F(PropertyCacheTest, FollowsTheChanges) {
    Fill();
    Told();
    Announce(5);
    EXPECT_THAT(LevelAfter(mPeer), Optional(5U));
    mPeer.Emit(PATH, PROPERTIES, "PropertiesChanged", "sa{sv}as", OVEN, 2, "Label", "s", "hot", "Target", "d",
               2.5, 0);
    EXPECT_THAT(Told(), ElementsAre("Level ", "Label Target "));
    // Of another interface, and of another object.
    mPeer.Emit(PATH, PROPERTIES, "PropertiesChanged", "sa{sv}as", "com.example.Other1", 1, "Level", "u", 9U,
               0);
    mPeer.Emit("/com/example", PROPERTIES, "PropertiesChanged", "sa{sv}as", OVEN, 1, "Level", "u", 9U, 0);
    EXPECT_THAT(Told(), IsEmpty());
    EXPECT_THAT(Level(), Optional(5U));
}

TEST_F(PropertyCacheTest, AChangeBeforeTheAnswerCounts) {
    Make();
    const auto call = mPeer.WaitForCall("GetAll");
    Announce(5);
    AnswerAll(mPeer, call, 1);
    WaitFor(StatusCode::Ok);
    EXPECT_THAT(Level(), Optional(5U));
    EXPECT_THAT(Told(), ElementsAre("Level ", "Label Range Target "));
}

TEST_F(PropertyCacheTest, AChangeWithoutItsValueBeforeTheAnswerIsAskedFor) {
    Make();
    const auto call = mPeer.WaitForCall("GetAll");
    Invalidate("Level");
    const auto single = mPeer.WaitForCall("Get");
    AnswerAll(mPeer, call, 1);
    EXPECT_EQ(LevelAfter(mPeer), std::nullopt) << "what may be old";
    mPeer.Reply(single, "v", "u", 6U);
    EXPECT_THAT(LevelAfter(mPeer), Optional(6U));
    EXPECT_EQ(Status(), StatusCode::Ok);
    EXPECT_THAT(Told(), ElementsAre("Label Range Target ", "Level "));
}

// The peer may change a value as soon as the message bus passes its signals on.
TEST_F(PropertyCacheTest, ListensBeforeItAsks) {
    const FaultScope scope(fault_sd_bus_call_async);
    fault_sd_bus_call_async.Replace(
        [&](sd_bus* bus, sd_bus_slot** slot, sd_bus_message* message, auto... arguments) {
            const char* const member = sd_bus_message_get_member(message);
            if (member == std::string("GetAll")) {
                EXPECT_GE(sd_bus_flush(bus), 0);
                Announce(5);
            }
            return fault_sd_bus_call_async.Real(bus, slot, message, arguments...);
        },
        100);
    Make();
    const auto call = mPeer.WaitForCall("GetAll");
    EXPECT_THAT(LevelAfter(mPeer), Optional(5U));
    AnswerAll(mPeer, call, 1);
    WaitFor(StatusCode::Ok);
    EXPECT_THAT(Level(), Optional(5U));
}

TEST_F(PropertyCacheTest, AnInvalidatedPropertyHasNoValueUntilItHasBeenAskedFor) {
    Fill();
    Told();
    Invalidate("Range");
    const auto call = mPeer.WaitForCall("Get");
    mServed.On([this] { EXPECT_EQ(mCache->Get<Oven1::Range>(), std::nullopt); });
    EXPECT_THAT(Level(), Optional(1U));
    mPeer.Reply(call, "v", "au", 2, 1U, 2U);
    EXPECT_THAT(Told(), ElementsAre("Range ", "Range "));
    mServed.On([this] { EXPECT_THAT(mCache->Get<Oven1::Range>(), Optional(ElementsAre(1U, 2U))); });
}

TEST_F(PropertyCacheTest, OneQuestionIsUnderWayHoweverOftenAPropertyIsInvalidated) {
    Fill();
    Invalidate("Level");
    const auto first = mPeer.WaitForCall("Get");
    for (int i = 0; i < 50; ++i) {
        Invalidate("Level");
    }
    EXPECT_TRUE(mPeer.HasNoCall("Get"));
    mPeer.Reply(first, "v", "u", 2U);
    const auto second = mPeer.WaitForCall("Get");
    EXPECT_EQ(Level(), std::nullopt) << "the first answer may be older than the last change";
    mPeer.Reply(second, "v", "u", 3U);
    EXPECT_THAT(LevelAfter(mPeer), Optional(3U));
    EXPECT_TRUE(mPeer.HasNoCall("Get"));
}

TEST_F(PropertyCacheTest, AChangeIsNewerThanTheAnswerToAnEarlierQuestion) {
    Fill();
    Invalidate("Level");
    const auto call = mPeer.WaitForCall("Get");
    Announce(9);
    mPeer.Reply(call, "v", "u", 2U);
    EXPECT_THAT(LevelAfter(mPeer), Optional(9U));
}

TEST_F(PropertyCacheTest, APropertyThatIsRefusedHasNoValue) {
    Fill();
    Invalidate("Level");
    mPeer.Refuse(mPeer.WaitForCall("Get"), "com.example.Error.Broken", "secret");
    EXPECT_EQ(LevelAfter(mPeer), std::nullopt);
    EXPECT_EQ(Status(), StatusCode::Ok);
    EXPECT_THAT(mLog.Entries("Typed"),
                ElementsAre(Warning("Typed",
                                    "Failed to get the property com.example.Oven1.Level of com.example.Oven "
                                    "/com/example/oven: com.example.Error.Broken (0 like it not logged)")));
    Announce(4);
    EXPECT_THAT(LevelAfter(mPeer), Optional(4U));
}

// ---- the owner

TEST_F(PropertyCacheTest, IsEmptiedWhenThePeerGoesAndFilledWhenItComesBack) {
    Fill();
    mPeer.Disown(NAME);
    WaitFor(StatusCode::NotFound);
    EXPECT_EQ(Level(), std::nullopt);
    mPeer.Own(NAME);
    Answer(2);
    WaitFor(StatusCode::Ok);
    EXPECT_THAT(Level(), Optional(2U));
    EXPECT_THAT(Told(), ElementsAre("Level Label Range Target ", "Level Label Range Target ", "",
                                    "Level Label Range Target "));
}

TEST_F(PropertyCacheTest, MayBeginBeforeThePeerIsThere) {
    mPeer.Disown(NAME);
    Make();
    WaitFor(StatusCode::NotFound);
    mPeer.Own(NAME);
    Answer(2);
    WaitFor(StatusCode::Ok);
    EXPECT_THAT(Told(), ElementsAre("", "", "Level Label Range Target "));
}

TEST_F(PropertyCacheTest, TheLateAnswerOfAFormerOwnerDoesNotCount) {
    RawPeer next;
    Make();
    const auto late = mPeer.WaitForCall("GetAll");
    next.Own(NAME);
    const auto call = next.WaitForCall("GetAll");
    AnswerAll(mPeer, late, 1);
    EXPECT_EQ(LevelAfter(mPeer), std::nullopt);
    EXPECT_EQ(Status(), StatusCode::Busy);
    Announce(9);
    EXPECT_EQ(LevelAfter(mPeer), std::nullopt);
    AnswerAll(next, call, 2);
    EXPECT_THAT(LevelAfter(next), Optional(2U));
    // The same of a single one.
    next.Emit(PATH, PROPERTIES, "PropertiesChanged", "sa{sv}as", OVEN, 0, 1, "Level");
    const auto single = next.WaitForCall("Get");
    mPeer.Own(NAME);
    const auto again = mPeer.WaitForCall("GetAll");
    next.Reply(single, "v", "u", 3U);
    EXPECT_EQ(LevelAfter(next), std::nullopt);
    AnswerAll(mPeer, again, 4);
    EXPECT_THAT(LevelAfter(mPeer), Optional(4U));
}

TEST_F(PropertyCacheTest, TheLateAnswerOfOneWhoHasGivenUpTheNameDoesNotCount) {
    Fill();
    mServed.On([this] { mCache->Refresh(); });
    const auto all = mPeer.WaitForCall("GetAll");
    Invalidate("Level");
    const auto single = mPeer.WaitForCall("Get");
    mPeer.Disown(NAME);
    WaitFor(StatusCode::NotFound);
    AnswerAll(mPeer, all, 3);
    mPeer.Reply(single, "v", "u", 4U);
    EXPECT_EQ(LevelAfter(mPeer), std::nullopt);
    EXPECT_EQ(Status(), StatusCode::NotFound);
}

TEST_F(PropertyCacheTest, AStrangerChangesNothing) {
    RawPeer stranger;
    Fill();
    stranger.EmitTo(tern::test::SERVICE, PATH, PROPERTIES, "PropertiesChanged", "sa{sv}as", OVEN, 1, "Level",
                    "u", 9U, 0);
    EXPECT_THAT(LevelAfter(stranger), Optional(1U));
}

TEST_F(PropertyCacheTest, KeepsThoseOfAUniqueName) {
    RawPeer next;
    Make(mPeer.Name());
    Answer();
    WaitFor(StatusCode::Ok);
    next.Own(NAME);
    Announce(3);
    EXPECT_THAT(LevelAfter(mPeer), Optional(3U));
    mPeer.Leave();
    WaitFor(StatusCode::NotFound);
    EXPECT_EQ(Level(), std::nullopt);
}

}  // namespace
}  // namespace mwl::Typed::Tests
