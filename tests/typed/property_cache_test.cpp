#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>
#include <tern/typed/property_cache.h>
#include <tern/typed/proxy.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "typed/watched_peer.h"

namespace mwl::Typed {
namespace {

/// So that a codec of a test's own may throw.
struct Odd {};

}  // namespace

template <>
struct Codec<Odd> {
    static constexpr Text<1> SIGNATURE = "u";
    static int Write(sd_bus_message*, const Odd&) { return 0; }
    static int Read(sd_bus_message*, Odd&, Fault&) { throw std::runtime_error("odd"); }
};

namespace {

using tern::test::Error;
using tern::test::FaultScope;
using tern::test::RawPeer;
using tern::test::Served;
using tern::test::WaitUntil;
using tern::test::Warning;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;
using testing::SizeIs;

constexpr const char* NAME = "com.example.Oven";
constexpr const char* PATH = "/com/example/oven";
constexpr const char* PROPERTIES = "org.freedesktop.DBus.Properties";

struct Oven1 {
    static constexpr const char* NAME = "com.example.Oven1";
    static constexpr Method<void()> Open{"Open"};
    static constexpr Property<std::uint32_t> Level{"Level"};
    static constexpr Property<std::string_view> Label{"Label"};
    static constexpr Property<std::array<std::uint32_t, 2>> Range{"Range", INVALIDATES};
    static constexpr Property<std::uint32_t> Secret{"Secret", EXPLICIT};
    static constexpr WritableProperty<double> Target{"Target", EMITS | OPEN};
    static constexpr Members<Open, Level, Label, Range, Secret, Target> ALL{};
};
constexpr const char* OVEN = Oven1::NAME;

/// The same, as who cannot read it sees it.
struct OddOven1 {
    static constexpr const char* NAME = Oven1::NAME;
    static constexpr Property<Odd> Level{"Level"};
    static constexpr Members<Level> ALL{};
};

using Cache = PropertyCache<Oven1>;
using Changes = PropertyChanges<Oven1>;

/// A service that keeps the properties of a peer, which the test leads.
class PropertyCacheTest : public tern::test::WatchedPeerTest {
protected:
    PropertyCacheTest() : WatchedPeerTest(NAME) {}
    ~PropertyCacheTest() override { mServed.End(); }

    /// D-Bus thread.
    void MakeCache(std::string name = NAME, const char* path = PATH) {
        mCache.emplace(std::make_shared<Remote>(*mServed.typed, std::move(name), path));
        mCache->OnChange([this](const Changes& changes) { mTold.push_back(Describe(changes)); });
    }
    void Make(const std::string& name = NAME) {
        mServed.On([&] { MakeCache(name); });
    }
    static std::string Describe(const Changes& changes) {
        std::string text;
        text += changes.Has<Oven1::Level>() ? "Level " : "";
        text += changes.Has<Oven1::Label>() ? "Label " : "";
        text += changes.Has<Oven1::Range>() ? "Range " : "";
        text += changes.Has<Oven1::Target>() ? "Target " : "";
        EXPECT_EQ(changes.IsEmpty(), text.empty());
        EXPECT_FALSE(changes.Has<Oven1::Secret>());
        return text;
    }
    void AnswerAll(RawPeer& peer, const RawPeer::Message& call, std::uint32_t level = 1) {
        peer.Reply(call, "a{sv}", 4, "Level", "u", level, "Label", "s", "warm", "Range", "au", 2, 10U, 20U,
                   "Target", "d", 0.5);
    }
    void Answer(std::uint32_t level = 1) { AnswerAll(mPeer, mPeer.WaitForCall("GetAll"), level); }
    void Announce(std::uint32_t level) {
        mPeer.Emit(PATH, PROPERTIES, "PropertiesChanged", "sa{sv}as", OVEN, 1, "Level", "u", level, 0);
    }
    void Invalidate(const char* name) {
        mPeer.Emit(PATH, PROPERTIES, "PropertiesChanged", "sa{sv}as", OVEN, 0, 1, name);
    }
    /// A cache that is filled.
    void Fill() {
        Make();
        Answer();
        EXPECT_TRUE(WaitUntil([&] { return Status() == StatusCode::Ok; }));
    }
    StatusCode Status() {
        return mServed.On([this] { return mCache->GetStatus(); });
    }
    std::optional<std::uint32_t> Level() {
        return mServed.On([this] { return mCache->Get<Oven1::Level>(); });
    }
    /// Once the service has handled all that the peer sent.
    std::optional<std::uint32_t> LevelAfter(RawPeer& peer) {
        peer.Ping();
        return Level();
    }
    std::vector<std::string> Told() {
        mPeer.Ping();
        return mServed.On([this] { return std::exchange(mTold, {}); });
    }
    void WaitFor(StatusCode status) {
        EXPECT_TRUE(WaitUntil([&] { return Status() == status; })) << "waited for " << status;
    }

    std::vector<std::string> mTold;
    std::optional<Cache> mCache;
};

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

// ---- what is wrong

TEST_F(PropertyCacheTest, AValueOfAnotherTypeCountsAsNone) {
    Make();
    mPeer.Reply(mPeer.WaitForCall("GetAll"), "a{sv}", 4, "Level", "s", "secret", "Label", "s", "warm",
                "Unknown", "(us)", 1U, "x", "Target", "d", 0.5);
    WaitFor(StatusCode::Ok);
    EXPECT_EQ(Level(), std::nullopt);
    mServed.On([this] {
        EXPECT_THAT(mCache->Get<Oven1::Label>(), Optional(std::string("warm")));
        EXPECT_THAT(mCache->Get<Oven1::Target>(), Optional(0.5))
            << "behind the wrong one and the unknown one";
    });
    EXPECT_EQ(mServed.Count().wrongProperties, 1U);
    EXPECT_THAT(mLog.Entries("Typed"),
                ElementsAre(Warning("Typed",
                                    "Dropped a property com.example.Oven1.Level of com.example.Oven "
                                    "/com/example/oven: 's' where 'u' is wanted (0 like it not logged)")));
    EXPECT_THAT(Told(), ElementsAre("Label Target "));
}

TEST_F(PropertyCacheTest, AValueThatIsNoneOfTheTypeCountsAsNoneAndLeavesTheOthers) {
    Fill();
    Told();
    // Found out in the middle of the value; and the same twice.
    mPeer.Emit(PATH, PROPERTIES, "PropertiesChanged", "sa{sv}as", OVEN, 4, "Label", "s", "cold", "Range",
               "au", 3, 1U, 2U, 3U, "Range", "au", 1, 1U, "Target", "d", 3.5, 1, "Level");
    mPeer.Reply(mPeer.WaitForCall("Get"), "v", "u", 8U);
    EXPECT_THAT(LevelAfter(mPeer), Optional(8U));
    mServed.On([this] {
        EXPECT_THAT(mCache->Get<Oven1::Label>(), Optional(std::string("cold")));
        EXPECT_EQ(mCache->Get<Oven1::Range>(), std::nullopt) << "the old one is none any more";
        EXPECT_THAT(mCache->Get<Oven1::Target>(), Optional(3.5));
    });
    EXPECT_EQ(mServed.Count().wrongProperties, 1U);
    EXPECT_THAT(
        mLog.Entries("Typed"),
        ElementsAre(Warning("Typed",
                            "Dropped a property com.example.Oven1.Range of com.example.Oven "
                            "/com/example/oven: no value of the wanted type (0 like it not logged)")));
    EXPECT_THAT(Told(), ElementsAre("Level Label Range Target ", "Level "));
}

TEST_F(PropertyCacheTest, ASingleAnswerOfAnotherTypeCountsAsNone) {
    Fill();
    Invalidate("Level");
    mPeer.Reply(mPeer.WaitForCall("Get"), "v", "s", "secret");
    Invalidate("Level");
    mPeer.Reply(mPeer.WaitForCall("Get"), "u", 7U);
    EXPECT_EQ(LevelAfter(mPeer), std::nullopt);
    EXPECT_EQ(mServed.Count().wrongProperties, 2U);
}

TEST_F(PropertyCacheTest, AMalformedAnnouncementIsCounted) {
    Fill();
    mPeer.Emit(PATH, PROPERTIES, "PropertiesChanged", "sas", OVEN, 1, "Level");
    EXPECT_THAT(LevelAfter(mPeer), Optional(1U));
    EXPECT_EQ(mServed.Count().wrongSignals, 1U);
}

TEST_F(PropertyCacheTest, APeerThatDoesNotTellIsAskedAgain) {
    const auto begin = std::chrono::steady_clock::now();
    Make();
    mPeer.Refuse(mPeer.WaitForCall("GetAll"), SD_BUS_ERROR_UNKNOWN_OBJECT, "secret");
    WaitFor(StatusCode::NotFound);
    // What it announces meanwhile counts.
    Announce(3);
    EXPECT_THAT(LevelAfter(mPeer), Optional(3U));
    mPeer.Reply(mPeer.WaitForCall("GetAll"), "s", "nonsense");
    WaitFor(StatusCode::InvalidArgument);
    EXPECT_EQ(mServed.Count().wrongReplies, 1U);
    Answer(2);
    WaitFor(StatusCode::Ok);
    EXPECT_THAT(Level(), Optional(2U));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(3)) << "1 s and 2 s";
    EXPECT_THAT(mLog.Entries("Typed"),
                ElementsAre(Error(
                    "Typed",
                    "Failed to get the properties com.example.Oven1 of com.example.Oven "
                    "/com/example/oven: org.freedesktop.DBus.Error.UnknownObject (0 like it not logged)")));
    EXPECT_THAT(Told(), ElementsAre("", "Level ", "", "Level Label Range Target "));
}

TEST_F(PropertyCacheTest, ANameThatComesAndGoesDoesNotFillTheLog) {
    Make();
    for (int i = 0; i < 30; ++i) {
        mPeer.Refuse(mPeer.WaitForCall("GetAll"), "com.example.Error.No");
        mPeer.Disown(NAME);
        mPeer.Own(NAME);
    }
    Told();
    EXPECT_THAT(mLog.Entries("Typed"), SizeIs(10));
}

TEST_F(PropertyCacheTest, APeerThatDoesNotAnswerIsNotWaitedForForEver) {
    mServed.On([this] {
        const auto oven = std::make_shared<Remote>(*mServed.typed, NAME, PATH);
        oven->SetTimeout(std::chrono::milliseconds(50));
        mCache.emplace(oven);
    });
    WaitFor(StatusCode::Timeout);
    // A new owner is asked at once.
    RawPeer next;
    next.Own(NAME);
    AnswerAll(next, next.WaitForCall("GetAll"), 2);
    WaitFor(StatusCode::Ok);
}

TEST_F(PropertyCacheTest, AQuestionThatCannotBeSentIsTold) {
    const FaultScope scope(fault_sd_bus_call_async);
    const FaultScope timers(fault_sd_event_add_time_relative);
    mServed.On([this] {
        MakeCache(mPeer.Name());
        mCache.reset();
    });
    Make(mPeer.Name());
    Answer();
    WaitFor(StatusCode::Ok);
    mServed.On([this] {
        fault_sd_bus_call_async.Fail(-ENOBUFS);
        fault_sd_event_add_time_relative.Fail(-ENOMEM);
        mCache->Refresh();
        EXPECT_EQ(mCache->GetStatus(), mw::tern::MakeStatusCodeFromReturnCode(-ENOBUFS));
        EXPECT_THAT(mCache->Get<Oven1::Level>(), Optional(1U)) << "the values stay";
    });
    const std::string name = mPeer.Name();
    EXPECT_THAT(mLog.Entries("Typed"),
                ElementsAre(Error("Typed",
                                  "Failed to get the properties com.example.Oven1 of " + name +
                                      " /com/example/oven: No buffer space available (0 like it not logged)"),
                            Error("Typed", "Failed to wait for the properties com.example.Oven1 of " + name +
                                               " /com/example/oven (-12, Cannot allocate memory)")));
    mServed.On([this] {
        fault_sd_bus_call_async.Reset();
        mCache->Refresh();
    });
    Answer(2);
    WaitFor(StatusCode::Ok);
    Invalidate("Level");
    mPeer.WaitForCall("Get");
    EXPECT_EQ(Level(), std::nullopt);
}

TEST_F(PropertyCacheTest, ASingleQuestionThatCannotBeSentIsLogged) {
    Fill();
    const FaultScope scope(fault_sd_bus_call_async);
    fault_sd_bus_call_async.Fail(-ENOBUFS);
    Invalidate("Level");
    EXPECT_EQ(LevelAfter(mPeer), std::nullopt);
    EXPECT_THAT(mLog.Entries("Typed"),
                ElementsAre(Warning("Typed",
                                    "Failed to get the property com.example.Oven1.Level of com.example.Oven "
                                    "/com/example/oven: No buffer space available (0 like it not logged)")));
    Invalidate("Level");
    mPeer.Reply(mPeer.WaitForCall("Get"), "v", "u", 5U);
    EXPECT_THAT(LevelAfter(mPeer), Optional(5U));
}

TEST_F(PropertyCacheTest, WithoutItsChangesNothingIsKept) {
    const FaultScope scope(fault_sd_bus_add_match_async);
    RefuseMatch(1);
    Make();
    Answer();
    WaitFor(StatusCode::InvalidArgument);
    EXPECT_EQ(Level(), std::nullopt);
    // For later owners neither.
    EXPECT_THAT(Told(), ElementsAre(""));
    mPeer.Disown(NAME);
    mPeer.Own(NAME);
    mServed.On([this] { mCache->Refresh(); });
    EXPECT_TRUE(mPeer.HasNoCall("GetAll"));
    EXPECT_EQ(Status(), StatusCode::InvalidArgument);
    EXPECT_THAT(Told(), IsEmpty());
}

TEST_F(PropertyCacheTest, WhatIsNoNameOrPathIsRefusedOnce) {
    for (const auto& [name, path] : {std::pair{"no name", PATH}, std::pair{NAME, "no path"}}) {
        mLog.Clear();
        mServed.On([&, destination = name, object = path] {
            MakeCache(destination, object);
            EXPECT_EQ(mCache->GetStatus(), StatusCode::InvalidArgument);
            mCache->Refresh();
        });
        EXPECT_THAT(mLog.Entries("Typed"), SizeIs(1));
    }
}

// ---- handlers and the end

TEST_F(PropertyCacheTest, AHandlerMayDestroyTheCacheAndReplaceItself) {
    const auto kept = std::make_shared<int>(7);
    mServed.On([&] {
        MakeCache();
        mCache->OnChange([this, kept](const Changes& changes) {
            mTold.push_back("first " + Describe(changes));
            mCache->OnChange([this, kept](const Changes& more) {
                mTold.push_back("second " + Describe(more));
                mCache.reset();
                EXPECT_EQ(*kept, 7);
            });
            EXPECT_EQ(*kept, 7);
        });
    });
    Answer();
    Announce(2);
    Announce(3);
    EXPECT_THAT(Told(), ElementsAre("first Level Label Range Target ", "second Level "));
    EXPECT_EQ(kept.use_count(), 1);
}

TEST_F(PropertyCacheTest, WithoutAHandlerItIsAsGood) {
    Fill();
    mServed.On([this] { mCache->OnChange(nullptr); });
    Announce(3);
    EXPECT_THAT(LevelAfter(mPeer), Optional(3U));
}

TEST_F(PropertyCacheTest, WhatAHandlerThrowsEndsTheLoop) {
    mServed.On([this] {
        MakeCache();
        mCache->OnChange([](const Changes&) { throw std::runtime_error("burnt"); });
    });
    Answer();
    WaitForEnd();
    EXPECT_EQ(mServed.result, -ENOTRECOVERABLE);
}

TEST_F(PropertyCacheTest, WhatACodecOfOnesOwnThrowsEndsTheLoop) {
    std::optional<PropertyCache<OddOven1>> cache;
    mServed.On([&] { cache.emplace(std::make_shared<Remote>(*mServed.typed, NAME, PATH)); });
    Answer();
    WaitForEnd();
    EXPECT_EQ(mServed.result, -ENOTRECOVERABLE);
    EXPECT_TRUE(mLog.Contains(
        tern::test::Critical("Typed", "A turn of the typed bus threw std::runtime_error: odd")));
}

TEST_F(PropertyCacheTest, RefreshAsksForWhatIsNotAnnounced) {
    Fill();
    mServed.On([this] { mCache->Refresh(); });
    EXPECT_THAT(Level(), Optional(1U));
    Answer(6);
    EXPECT_THAT(LevelAfter(mPeer), Optional(6U));
}

TEST_F(PropertyCacheTest, IsEmptyAndSilentOnceTheBusHasClosed) {
    Fill();
    Told();
    std::optional<Cache> second;
    mServed.On([&] {
        second.emplace(std::make_shared<Remote>(*mServed.typed, NAME, PATH));
        second->OnChange([this](const Changes&) { mTold.emplace_back("second"); });
    });
    mPeer.WaitForCall("GetAll");
    mServed.End();
    EXPECT_THAT(mTold, IsEmpty());
    for (const auto* const cache : {&*mCache, &*second}) {
        EXPECT_EQ(cache->GetStatus(), StatusCode::Stopping);
        EXPECT_EQ(cache->Get<Oven1::Level>(), std::nullopt);
    }
    second->Refresh();
    second.emplace(std::make_shared<Remote>(*mServed.typed, NAME, PATH));
    EXPECT_EQ(second->GetStatus(), StatusCode::NotInitialized);
    mServed.typed.reset();
    mCache.reset();
}

TEST_F(PropertyCacheTest, IsSilentWhenTheConnectionIsLost) {
    Fill();
    Told();
    mServed.On([this] {
        mCache->Refresh();
        mDaemon.Kill();
    });
    WaitForEnd();
    EXPECT_THAT(mTold, IsEmpty());
    EXPECT_EQ(mCache->GetStatus(), StatusCode::Stopping);
}

}  // namespace
}  // namespace mwl::Typed
