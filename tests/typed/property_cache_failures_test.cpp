// Values, answers, names and handlers that are wrong, and the end of a cache.

#include "typed/property_cache_fixture.h"

namespace mwl::Typed::Tests {
namespace {

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
}  // namespace mwl::Typed::Tests
