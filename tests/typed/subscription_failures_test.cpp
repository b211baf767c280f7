// Signals, names and handlers that are wrong, and the end of a subscription.

#include "typed/subscription_fixture.h"

namespace mwl::Typed::Tests {
namespace {

TEST_F(SubscriptionTest, AnotherSignatureIsCountedAndDoesNotReachTheHandler) {
    Listen();
    mPeer.Emit(PATH, METER, "Measured", "s", "secret");
    mPeer.Emit(PATH, METER, "Measured");
    mPeer.Emit(PATH, METER, "Measured", "uu", 1U, 2U);
    Measure(3);
    EXPECT_THAT(Seen(), ElementsAre(3));
    EXPECT_EQ(Count().wrongSignals, 3U);
    EXPECT_TRUE(mLog.Contains(Warning("Typed",
                                      "Dropped a signal com.example.Meter1.Measured of com.example.Meter "
                                      "/com/example/meter: 's' where 'u' is wanted (0 like it not logged)")));
}

TEST_F(SubscriptionTest, AValueThatIsNoneOfTheTypeIsCountedAndDoesNotReachTheHandler) {
    std::vector<Mode> seen;
    Listen(
        [&] { return SubscribeTo(Of(), METER, Meter1::Switched, [&](Mode mode) { seen.push_back(mode); }); });
    mPeer.Emit(PATH, METER, "Switched", "y", 9);
    mPeer.Emit(PATH, METER, "Switched", "y", 1);
    Seen();
    EXPECT_THAT(mServed.On([&] { return seen; }), ElementsAre(Mode::Slow));
    EXPECT_EQ(Count().wrongSignals, 1U);
    EXPECT_THAT(
        mLog.Entries("Typed"),
        ElementsAre(Warning("Typed",
                            "Dropped a signal com.example.Meter1.Switched of com.example.Meter "
                            "/com/example/meter: no value of the wanted type (0 like it not logged)")));
}

TEST_F(SubscriptionTest, AValueForWhichMemoryIsShortIsCountedAndDoesNotEndTheLoop) {
    bool isCalled = false;
    Listen([&] { return SubscribeTo(Of(), METER, Meter1::Grown, [&](const Greedy&) { isCalled = true; }); });
    mPeer.Emit(PATH, METER, "Grown", "u", 9U);
    Seen();
    EXPECT_FALSE(mServed.On([&] { return isCalled; }));
    EXPECT_EQ(Count().wrongSignals, 1U);
    EXPECT_THAT(mLog.Entries("Typed"),
                ElementsAre(Warning("Typed",
                                    "Dropped a signal com.example.Meter1.Grown of com.example.Meter "
                                    "/com/example/meter (-12, Cannot allocate memory) (0 like it not "
                                    "logged)")));
}

TEST_F(SubscriptionTest, WrongSignalsDoNotFillTheLog) {
    Listen();
    for (int i = 0; i < 1000; ++i) {
        mPeer.Emit(PATH, METER, "Measured", "s", "x");
    }
    EXPECT_THAT(Seen(), IsEmpty());
    EXPECT_EQ(Count().wrongSignals, 1000U);
    EXPECT_LE(mLog.Entries("Typed").size(), 40U);
    EXPECT_GE(mLog.Entries("Typed").size(), 10U);
}

TEST_F(SubscriptionTest, WhatIsNoNameOrPathIsRefused) {
    struct Row {
        const char* name;
        const char* path;
        const char* interface;
    };
    mServed.On([this] {
        for (const Row& row :
             {Row{"no name", PATH, METER}, Row{"com.example.A',sender='b.c", PATH, METER},
              Row{NAME, "path", METER}, Row{NAME, "/a'", METER}, Row{NAME, PATH, "nothing"}}) {
            mLog.Clear();
            const auto peer = std::make_shared<Remote>(*mServed.typed, row.name, row.path);
            const Subscription refused = SubscribeTo(peer, row.interface, Meter1::Ticked, [] {});
            EXPECT_EQ(refused.GetStatus(), StatusCode::InvalidArgument) << row.name << row.path;
            ASSERT_THAT(mLog.Entries("Typed"), SizeIs(1)) << row.name << row.path;
            EXPECT_EQ(mLog.Entries("Typed")[0],
                      Error("Typed", std::string("Refused to subscribe to ") + row.interface + ".Ticked of " +
                                         row.name + " " + row.path + ": a name or path is none"));
        }
    });
}

TEST_F(SubscriptionTest, WhatCannotBeSentIsTold) {
    const FaultScope scope(fault_sd_bus_add_match_async);
    mServed.On([this] {
        // The first match is for the owner of the name.
        fault_sd_bus_add_match_async.Fail(-ENOBUFS, 0, 1, 1);
        mSubscription = Make();
        EXPECT_EQ(mSubscription.GetStatus(), mw::tern::MakeStatusCodeFromReturnCode(-ENOBUFS));
        fault_sd_bus_add_match_async.Fail(-ENOMEM);
        mSubscription.Reset();
        mSubscription = Make();
        EXPECT_EQ(mSubscription.GetStatus(), StatusCode::OutOfMemory);
    });
    Measure(1);
    EXPECT_THAT(Seen(), IsEmpty());
    EXPECT_THAT(mLog.Entries("Typed"),
                ElementsAre(Error("Typed",
                                  "Failed to subscribe to com.example.Meter1.Measured of com.example.Meter "
                                  "/com/example/meter (-105, No buffer space available)"),
                            Error("Typed",
                                  "Failed to watch the owner of com.example.Meter (-12, Cannot allocate "
                                  "memory)")));
}

class SubscriptionRefusedTest : public SubscriptionTest, public testing::WithParamInterface<int> {};

// The match for the signals, and that for the owner of the name.
TEST_P(SubscriptionRefusedTest, IsTold) {
    const FaultScope scope(fault_sd_bus_add_match_async);
    // What sd-bus takes and the message bus does not.
    RefuseMatch(GetParam());
    mServed.On([this] { mSubscription = Make(); });
    EXPECT_TRUE(WaitUntil([&] { return Status() == StatusCode::InvalidArgument; }));
    Measure(1);
    EXPECT_THAT(Seen(), IsEmpty());
    EXPECT_EQ(Status(), StatusCode::InvalidArgument);
    ASSERT_THAT(mLog.Entries("Typed"), SizeIs(1));
    EXPECT_EQ(mLog.Entries("Typed")[0].level, 3);
    EXPECT_THAT(
        mLog.Entries("Typed")[0].text,
        HasSubstr(GetParam() == 0 ? "The bus refused to tell of the owner of com.example.Meter: "
                                    "org.freedesktop.DBus.Error.MatchRuleInvalid"
                                  : "The bus refused the subscription to com.example.Meter1.Measured of "
                                    "com.example.Meter /com/example/meter: "
                                    "org.freedesktop.DBus.Error.MatchRuleInvalid"));
    // A later one works.
    fault_sd_bus_add_match_async.Reset();
    Listen();
    Measure(2);
    EXPECT_THAT(Seen(), ElementsAre(2));
}
INSTANTIATE_TEST_SUITE_P(, SubscriptionRefusedTest, testing::Values(0, 1),
                         [](const auto& test) { return test.param == 0 ? "Owner" : "Signals"; });

TEST_F(SubscriptionTest, WhatAHandlerThrowsEndsTheLoop) {
    Listen([&] {
        return SubscribeTo(Of(), METER, Meter1::Measured,
                           [](std::uint32_t) { throw std::runtime_error("too hot"); });
    });
    Measure(1);
    WaitForEnd();
    EXPECT_EQ(mServed.result, -ENOTRECOVERABLE);
    EXPECT_TRUE(mLog.Contains(
        tern::test::Critical("Typed", "A turn of the typed bus threw std::runtime_error: too hot")));
}

TEST_F(SubscriptionTest, WhatACodecOfOnesOwnThrowsEndsTheLoop) {
    Listen([&] { return SubscribeTo(Of(), METER, Meter1::Strayed, [](const Odd&) {}); });
    mPeer.Emit(PATH, METER, "Strayed", "u", 9U);
    WaitForEnd();
    EXPECT_EQ(mServed.result, -ENOTRECOVERABLE);
    EXPECT_TRUE(mLog.Contains(
        tern::test::Critical("Typed", "A turn of the typed bus threw std::runtime_error: odd")));
}

// ---- the end

TEST_F(SubscriptionTest, IsSilentOnceTheBusHasClosed) {
    Listen();
    Measure(1);
    Seen();
    std::shared_ptr<Remote> peer;
    mServed.On([&] { peer = Of(); });
    mServed.onStop = [&] {
        // The connection is still open; what is to come is refused.
        mServed.typed->Close();
        EXPECT_EQ(mSubscription.GetStatus(), StatusCode::Stopping);
    };
    mServed.End();
    EXPECT_EQ(mSubscription.GetStatus(), StatusCode::Stopping);
    EXPECT_TRUE(mSubscription);
    mServed.typed.reset();
    const Subscription late = SubscribeTo(peer, METER, Meter1::Ticked, [] {});
    EXPECT_EQ(late.GetStatus(), StatusCode::NotInitialized);
    mSubscription.Reset();
    EXPECT_THAT(mSeen, ElementsAre(1));
}

TEST_F(SubscriptionTest, IsSilentWhenTheConnectionIsLost) {
    Listen();
    mServed.On([&] {
        mDaemon.Kill();
        mSubscription = Make();
    });
    WaitForEnd();
    EXPECT_EQ(mSubscription.GetStatus(), StatusCode::Stopping);
    EXPECT_EQ(mServed.result, -ECONNRESET);
}

// ---- storms

TEST_F(SubscriptionTest, AStormOfSignalsDelaysCallsAndDoesNotSilenceThem) {
    constexpr std::uint32_t SIGNALS = 100000;
    std::uint32_t seen = 0;
    std::uint64_t longest = 0;
    bool isInOrder = true;
    Listen([&] {
        return SubscribeTo(Of(), METER, Meter1::Measured, [&](std::uint32_t value) {
            isInOrder = isInOrder && value == seen;
            ++seen;
            std::uint64_t queued = 0;
            EXPECT_GE(sd_bus_get_n_queued_read(mServed.typed->GetBus(), &queued), 0);
            longest = std::max(longest, queued);
        });
    });
    std::atomic<bool> isOver{false};
    std::atomic<int> calls{0};
    std::thread client([&] {
        RawPeer other;
        while (!isOver) {
            other.Ping();
            ++calls;
        }
    });
    for (std::uint32_t i = 0; i < SIGNALS; ++i) {
        tern::test::Peer::Check(sd_bus_emit_signal(mPeer.Get(), PATH, METER, "Measured", "u", i));
    }
    tern::test::Peer::Check(sd_bus_flush(mPeer.Get()));
    Seen();
    isOver = true;
    client.join();
    mServed.On([&] {
        EXPECT_EQ(seen, SIGNALS);
        EXPECT_TRUE(isInOrder);
        EXPECT_LE(longest, 2U) << "signals are kept in this process";
    });
    EXPECT_GT(calls, 10);
    RecordProperty("calls_served", calls.load());
}

}  // namespace
}  // namespace mwl::Typed::Tests
