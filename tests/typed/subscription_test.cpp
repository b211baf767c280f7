#include "typed/subscription_fixture.h"

namespace mwl::Typed::Tests {
namespace {

TEST_F(SubscriptionTest, GivesEachSignalToTheHandler) {
    Listen();
    EXPECT_TRUE(mServed.On([this] { return static_cast<bool>(mSubscription); }));
    Measure(1);
    Measure(2);
    // Of another object, interface, kind.
    mPeer.Emit("/com/example", METER, "Measured", "u", 3U);
    mPeer.Emit(PATH, "com.example.Other1", "Measured", "u", 4U);
    mPeer.Emit(PATH, METER, "Ticked");
    EXPECT_THAT(Seen(), ElementsAre(1, 2));
    EXPECT_EQ(Count().wrongSignals, 0U);
    EXPECT_THAT(mLog.Entries("Typed"), IsEmpty());
}

void Forget(std::uint32_t) {}

TEST_F(SubscriptionTest, AHandlerTakesItsOwnTypesAndKnowsTheSender) {
    std::vector<std::string> seen;
    std::vector<Subscription> all;
    auto only = std::make_unique<int>(5);
    mServed.On([&] {
        const auto peer = Of();
        all.push_back(
            SubscribeTo(peer, METER, Meter1::Named,
                        [&](const Caller& sender, std::string name, const std::vector<double>& values) {
                            seen.push_back(sender.GetSender() + name + std::to_string(values.size()));
                        }));
        all.push_back(SubscribeTo(peer, METER, Meter1::Named, [&](const auto& name, auto values) {
            seen.push_back("auto " + std::string(name) + std::to_string(values.size()));
        }));
        all.push_back(SubscribeTo(peer, METER, Meter1::Ticked, [&, only = std::move(only)]() mutable {
            seen.push_back("tick " + std::to_string((*only)++));
        }));
        all.push_back(SubscribeTo(peer, METER, Meter1::Switched,
                                  [&](Mode mode) { seen.push_back(mode == Mode::Fast ? "fast" : "slow"); }));
        all.push_back(SubscribeTo(peer, METER, Meter1::Measured, &Forget));
        all.push_back(
            SubscribeTo(peer, METER, Meter1::Measured, std::function<void(std::uint32_t)>(&Forget)));
    });
    EXPECT_TRUE(WaitUntil([&] {
        return mServed.On([&] {
            return std::all_of(all.begin(), all.end(),
                               [](const auto& one) { return one.GetStatus() == StatusCode::Ok; });
        });
    }));
    mPeer.Emit(PATH, METER, "Named", "sad", "x", 2, 0.5, 1.5);
    mPeer.Emit(PATH, METER, "Ticked");
    mPeer.Emit(PATH, METER, "Ticked");
    mPeer.Emit(PATH, METER, "Switched", "y", 2);
    Measure(1);
    Seen();
    mServed.On([&] {
        EXPECT_THAT(
            seen, testing::UnorderedElementsAre(mPeer.Name() + "x2", "auto x2", "tick 5", "tick 6", "fast"));
        all.clear();
    });
}

// ---- who sends

/// Lets signals of anybody reach the service, as a careless part of it would, and counts them.
class Careless {
public:
    explicit Careless(Served& served) : mServed(served) {
        served.On([this] {
            sd_bus_slot* slot = nullptr;
            EXPECT_GE(sd_bus_add_match(mServed.typed->GetBus(), &slot, "type='signal',member='Measured'",
                                       OnSignal, this),
                      0);
            mSlot.reset(slot);
        });
    }
    ~Careless() {
        mServed.On([this] { mSlot.reset(); });
    }
    Careless(const Careless&) = delete;
    Careless& operator=(const Careless&) = delete;
    int Count() {
        return mServed.On([this] { return mCount; });
    }

private:
    static int OnSignal(sd_bus_message*, void* self, sd_bus_error*) {
        ++static_cast<Careless*>(self)->mCount;
        return 0;
    }
    Served& mServed;
    mwl::Handle<sd_bus_slot, sd_bus_slot_unref> mSlot;
    int mCount = 0;
};

TEST_F(SubscriptionTest, AnotherSenderIsNotHeard) {
    RawPeer stranger;
    Listen();
    stranger.Emit(PATH, METER, "Measured", "u", 7U);
    Measure(1);
    EXPECT_THAT(SeenAfter(stranger), ElementsAre(1));
}

TEST_F(SubscriptionTest, AnotherSenderWhomAnotherRuleLetsInIsNotHeard) {
    RawPeer stranger;
    Listen();
    Careless careless(mServed);
    stranger.Emit(PATH, METER, "Measured", "u", 7U);
    Measure(1);
    Seen();
    EXPECT_THAT(SeenAfter(stranger), ElementsAre(1));
    EXPECT_EQ(careless.Count(), 2) << "nothing was let in, so nothing was tested";
}

TEST_F(SubscriptionTest, AnotherSenderWhomAnotherSubscriptionWantsIsNotHeard) {
    RawPeer stranger;
    std::vector<std::uint32_t> ofStranger;
    Subscription second;
    mServed.On([&] {
        second = SubscribeTo(Of(stranger.Name()), METER, Meter1::Measured,
                             [&](std::uint32_t value) { ofStranger.push_back(value); });
    });
    Listen();
    stranger.Emit(PATH, METER, "Measured", "u", 7U);
    Measure(1);
    Seen();
    EXPECT_THAT(SeenAfter(stranger), ElementsAre(1));
    mServed.On([&] {
        EXPECT_THAT(ofStranger, ElementsAre(7));
        second.Reset();
    });
}

TEST_F(SubscriptionTest, OneWhoSendsToThisConnectionAloneIsNotHeard) {
    RawPeer stranger;
    for (const std::string& name : {std::string(NAME), mPeer.Name()}) {
        Listen(name);
        stranger.EmitTo(tern::test::SERVICE, PATH, METER, "Measured", "u", 7U);
        EXPECT_THAT(SeenAfter(stranger), IsEmpty()) << name;
    }
    // The peer itself may.
    mPeer.EmitTo(tern::test::SERVICE, PATH, METER, "Measured", "u", 8U);
    EXPECT_THAT(Seen(), ElementsAre(8));
}

TEST_F(SubscriptionTest, ACallOfTheSameNamesIsNoSignal) {
    Listen();
    sd_bus_message* made = nullptr;
    tern::test::Peer::Check(
        sd_bus_message_new_method_call(mPeer.Get(), &made, tern::test::SERVICE, PATH, METER, "Measured"));
    const RawPeer::Message call(made);
    tern::test::Peer::Check(sd_bus_message_append(made, "u", 7U));
    EXPECT_EQ(sd_bus_call(mPeer.Get(), made, 0, nullptr, nullptr), -EBADR) << "answered as an unknown object";
    EXPECT_THAT(Seen(), IsEmpty());
}

TEST_F(SubscriptionTest, FollowsAWellKnownNameToItsNextOwner) {
    RawPeer next;
    Listen();
    Careless careless(mServed);
    Measure(1);
    next.Own(NAME);
    Measure(2);  // no longer its owner
    next.Emit(PATH, METER, "Measured", "u", 3U);
    Seen();
    EXPECT_THAT(SeenAfter(next), ElementsAre(1, 3));
    next.Disown(NAME);
    next.Emit(PATH, METER, "Measured", "u", 4U);
    EXPECT_THAT(SeenAfter(next), ElementsAre(1, 3));
    mPeer.Own(NAME);
    Measure(5);
    EXPECT_THAT(Seen(), ElementsAre(1, 3, 5));
    EXPECT_EQ(careless.Count(), 5);
}

TEST_F(SubscriptionTest, AUniqueNameHasNoNextOwner) {
    RawPeer next;
    Listen(mPeer.Name());
    Measure(1);
    next.Own(NAME);
    next.Emit(PATH, METER, "Measured", "u", 2U);
    SeenAfter(next);
    Measure(3);
    EXPECT_THAT(Seen(), ElementsAre(1, 3));
    mPeer.Leave();
    next.Emit(PATH, METER, "Measured", "u", 4U);
    EXPECT_THAT(SeenAfter(next), ElementsAre(1, 3));
}

TEST_F(SubscriptionTest, MayBeginBeforeThePeerIsThere) {
    mPeer.Disown(NAME);
    Listen();
    mPeer.Own(NAME);
    Measure(1);
    EXPECT_THAT(Seen(), ElementsAre(1));
}

TEST_F(SubscriptionTest, TheMessageBusHasSignalsAsWell) {
    static constexpr Signal<std::string_view, std::string_view, std::string_view> CHANGED{"NameOwnerChanged"};
    std::vector<std::string> names;
    Listen([&] {
        const auto bus =
            std::make_shared<Remote>(*mServed.typed, "org.freedesktop.DBus", "/org/freedesktop/DBus");
        return SubscribeTo(bus, "org.freedesktop.DBus", CHANGED,
                           [&](std::string_view name, std::string_view, std::string_view now) {
                               if (name[0] != ':' && !now.empty()) {
                                   names.emplace_back(name);
                               }
                           });
    });
    mPeer.EmitTo(tern::test::SERVICE, "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameOwnerChanged",
                 "sss", "com.example.Lie", "", ":1.1");
    mPeer.Own("com.example.Truth");
    Seen();
    EXPECT_THAT(mServed.On([&] { return names; }), ElementsAre("com.example.Truth"));
}

// ---- beginning and ending

TEST_F(SubscriptionTest, OneOfSeveralMayLeave) {
    std::optional<Subscription> second;
    mServed.On([&] { second.emplace(Make()); });
    Listen();
    Measure(1);
    EXPECT_THAT(Seen(), ElementsAre(1, 1));
    mServed.On([&] { second.reset(); });
    Measure(2);
    EXPECT_THAT(Seen(), ElementsAre(1, 1, 2));
    mServed.On([&] { mSubscription.Reset(); });
    EXPECT_EQ(Status(), StatusCode::NotInitialized);
    Measure(3);
    EXPECT_THAT(Seen(), ElementsAre(1, 1, 2));
    // And another may begin.
    Listen();
    Measure(4);
    EXPECT_THAT(Seen(), ElementsAre(1, 1, 2, 4));
}

TEST_F(SubscriptionTest, AHandlerMayEndItsSubscriptionAndIsDestroyedAfterwards) {
    const auto kept = std::make_shared<int>(7);
    Listen([&] {
        return SubscribeTo(Of(), METER, Meter1::Measured, [this, kept](std::uint32_t value) {
            mSubscription = Subscription();
            EXPECT_EQ(kept.use_count(), 2) << "destroyed while it runs";
            mSeen.push_back(value);
        });
    });
    Measure(1);
    Measure(2);
    EXPECT_THAT(Seen(), ElementsAre(1));
    EXPECT_EQ(kept.use_count(), 1);
}

TEST_F(SubscriptionTest, AHandlerMayEndAnother) {
    std::array<Subscription, 2> both;
    int calls = 0;
    mServed.On([&] {
        for (std::size_t i = 0; i < 2; ++i) {
            both[i] = SubscribeTo(Of(), METER, Meter1::Measured, [&, i](std::uint32_t) {
                ++calls;
                both[1 - i].Reset();
            });
        }
    });
    Listen([&] { return SubscribeTo(Of(), METER, Meter1::Ticked, [] {}); });
    Measure(1);
    Measure(2);
    Seen();
    EXPECT_EQ(mServed.On([&] { return calls; }), 2) << "one of them twice";
    mServed.On([&] { both = {}; });
}

TEST_F(SubscriptionTest, AHandlerMaySubscribeAnewAndIsNotCalledAgainForTheSameSignal) {
    std::function<void(std::uint32_t)> again = [&](std::uint32_t value) {
        mSeen.push_back(value);
        if (mSeen.size() < 100) {
            mSubscription = SubscribeTo(Of(), METER, Meter1::Measured, again);
        }
    };
    Listen([&] { return SubscribeTo(Of(), METER, Meter1::Measured, again); });
    Measure(1);
    EXPECT_THAT(Seen(), ElementsAre(1));
    EXPECT_TRUE(WaitUntil([&] { return Status() == StatusCode::Ok; }));
    Measure(2);
    EXPECT_THAT(Seen(), ElementsAre(1, 2));
    mServed.On([&] { mSubscription.Reset(); });
}

TEST_F(SubscriptionTest, WhatWasSentBeforeIsNotHeard) {
    Listen();
    Careless careless(mServed);
    std::vector<std::uint32_t> late;
    Subscription second;
    mServed.On([&] {
        Measure(1);
        mPeer.Own("com.example.Nothing");  // so that the signal is on its way
        second =
            SubscribeTo(Of(), METER, Meter1::Measured, [&](std::uint32_t value) { late.push_back(value); });
        EXPECT_EQ(second.GetStatus(), StatusCode::Busy);
    });
    EXPECT_THAT(Seen(), ElementsAre(1));
    EXPECT_TRUE(WaitUntil([&] { return mServed.On([&] { return second.GetStatus(); }) == StatusCode::Ok; }));
    Measure(2);
    EXPECT_THAT(Seen(), ElementsAre(1, 2));
    mServed.On([&] {
        EXPECT_THAT(late, ElementsAre(2));
        second.Reset();
    });
}

TEST_F(SubscriptionTest, IsMovedWhileItListens) {
    Listen();
    mServed.On([this] {
        Subscription first(std::move(mSubscription));
        mSubscription.Reset();
        mSubscription = std::move(first);
        auto& self = mSubscription;
        mSubscription = std::move(self);
    });
    Measure(1);
    EXPECT_THAT(Seen(), ElementsAre(1));
}

}  // namespace
}  // namespace mwl::Typed::Tests
