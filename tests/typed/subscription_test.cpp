#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>
#include <tern/typed/subscription.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "typed/watched_peer.h"

namespace mwl::Typed {
namespace {

using tern::test::Error;
using tern::test::FaultScope;
using tern::test::RawPeer;
using tern::test::Served;
using tern::test::WaitUntil;
using tern::test::Warning;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr const char* NAME = "com.example.Meter";
constexpr const char* PATH = "/com/example/meter";

enum class Mode : std::uint8_t { Slow = 1, Fast = 2 };
[[maybe_unused]] constexpr auto DBusEnum(Mode) {
    return std::array{Mode::Slow, Mode::Fast};
}

/// So that a codec of a test's own may run out of memory.
struct Greedy {};
/// So that one may throw something else.
struct Odd {};

}  // namespace

template <>
struct Codec<Greedy> {
    static constexpr Text<1> SIGNATURE = "u";
    static int Write(sd_bus_message*, const Greedy&) { return 0; }
    static int Read(sd_bus_message*, Greedy&, Fault&) { throw std::bad_alloc(); }
};

template <>
struct Codec<Odd> {
    static constexpr Text<1> SIGNATURE = "u";
    static int Write(sd_bus_message*, const Odd&) { return 0; }
    static int Read(sd_bus_message*, Odd&, Fault&) { throw std::runtime_error("odd"); }
};

namespace {

struct Meter1 {
    static constexpr const char* NAME = "com.example.Meter1";
    static constexpr Signal<std::uint32_t> Measured{"Measured", {"value"}};
    static constexpr Signal<std::string_view, std::span<const double>> Named{"Named", {"name", "values"}};
    static constexpr Signal<> Ticked{"Ticked"};
    static constexpr Signal<Mode> Switched{"Switched", {"mode"}};
    static constexpr Signal<Greedy> Grown{"Grown", {"size"}};
    static constexpr Signal<Odd> Strayed{"Strayed", {"where"}};
};
constexpr const char* METER = Meter1::NAME;

/// A service that listens to a peer.
class SubscriptionTest : public tern::test::WatchedPeerTest {
protected:
    SubscriptionTest() : WatchedPeerTest(NAME) {}
    ~SubscriptionTest() override { mServed.End(); }

    /// D-Bus thread.
    std::shared_ptr<Remote> Of(std::string name = NAME) {
        return std::make_shared<Remote>(*mServed.typed, std::move(name), PATH);
    }
    /// Keeps what is measured; D-Bus thread.
    Subscription Make(const std::string& name = NAME) {
        return SubscribeTo(Of(name), METER, Meter1::Measured,
                           [this](std::uint32_t value) { mSeen.push_back(value); });
    }
    /// Subscribes, and waits until it has been confirmed.
    void Listen(std::function<Subscription()> make) {
        mServed.On([&] { mSubscription = make(); });
        EXPECT_TRUE(WaitUntil([&] { return Status() == StatusCode::Ok; }));
    }
    void Listen(const std::string& name = NAME) {
        Listen([&] { return Make(name); });
    }
    StatusCode Status() {
        return mServed.On([this] { return mSubscription.GetStatus(); });
    }
    void Measure(std::uint32_t value) { mPeer.Emit(PATH, METER, "Measured", "u", value); }
    /// What was measured once the service has handled all that the peer sent.
    std::vector<std::uint32_t> SeenAfter(RawPeer& peer) {
        peer.Ping();
        return mServed.On([this] { return mSeen; });
    }
    std::vector<std::uint32_t> Seen() { return SeenAfter(mPeer); }
    Bus::Counters Count() { return mServed.Count(); }

    std::vector<std::uint32_t> mSeen;
    Subscription mSubscription;
};

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

// ---- what is wrong

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
}  // namespace mwl::Typed
