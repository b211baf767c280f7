#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>
#include <tern/typed/peer_watch.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <latch>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/interpose.h"
#include "support/log_capture.h"
#include "typed/raw_peer.h"
#include "typed/served_bus.h"

TERN_INTERPOSE(int, sd_bus_add_match_async,
               (sd_bus * bus, sd_bus_slot** slot, const char* rule, sd_bus_message_handler_t handler,
                sd_bus_message_handler_t installed, void* userdata),
               (bus, slot, rule, handler, installed, userdata))
TERN_INTERPOSE(int, sd_bus_call_method_async,
               (sd_bus * bus, sd_bus_slot** slot, const char* destination, const char* path,
                const char* interface, const char* member, sd_bus_message_handler_t handler, void* userdata,
                const char* types, const char* argument),
               (bus, slot, destination, path, interface, member, handler, userdata, types, argument))

namespace mwl::Typed {
namespace {

using tern::test::Error;
using tern::test::FaultScope;
using tern::test::RawPeer;
using tern::test::Served;
using tern::test::WaitUntil;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr const char* NAME = "com.example.Neighbour";
constexpr const char* BUS = "org.freedesktop.DBus";

/// Has `stand` take the place of the question for the owner. sd-bus's own calls may go the same way.
template <typename Stand>
void ReplaceQuestion(Stand stand) {
    fault_sd_bus_call_method_async.Replace(
        [stand](sd_bus* bus, sd_bus_slot** slot, const char* destination, const char* path,
                const char* interface, const char* member, auto... arguments) {
            const auto ask = [&](const char* asked) {
                return fault_sd_bus_call_method_async.Real(bus, slot, destination, path, interface, asked,
                                                           arguments...);
            };
            return std::string(member) == "GetNameOwner" ? stand(bus, ask) : ask(member);
        },
        100);
}

/// A service that watches, and peers that come and go.
class PeerWatchTest : public testing::Test {
protected:
    /// Watches; D-Bus thread. What is told is kept, see Told.
    PeerWatch Make(const std::string& name = NAME) {
        return PeerWatch(
            *mServed.typed, name, [this](const std::string& owner) { mTold.push_back(owner); },
            [this] { mTold.emplace_back("gone"); });
    }
    void Watch(const std::string& name = NAME) {
        mServed.On([&] { mWatch = Make(name); });
    }
    std::vector<std::string> Told() {
        return mServed.On([this] { return mTold; });
    }
    /// Waits until that much was told.
    std::vector<std::string> Told(std::size_t count) {
        EXPECT_TRUE(WaitUntil([&] { return Told().size() >= count; }));
        return Told();
    }
    /// What was told once the service has handled all that the peer sent, and what the message bus told
    /// before.
    std::vector<std::string> ToldAfter(RawPeer& peer) {
        peer.Ping();
        return Told();
    }
    /// Waits for the loop to end by itself.
    void WaitForEnd() {
        EXPECT_TRUE(WaitUntil([&] { return !mServed.typed->Post([] {}); })) << "the loop does not end";
        mServed.End();
    }
    StatusCode Status() {
        return mServed.On([this] { return mWatch.GetStatus(); });
    }

    tern::test::PrivateBus mDaemon;
    tern::test::LogCapture mLog{5};
    std::vector<std::string> mTold;
    PeerWatch mWatch;
    Served mServed;
};

TEST_F(PeerWatchTest, TellsWhoIsThere) {
    RawPeer peer;
    peer.Own(NAME);
    Watch();
    EXPECT_THAT(Told(1), ElementsAre(peer.Name()));
    EXPECT_EQ(Status(), StatusCode::Ok);
    EXPECT_EQ(mServed.On([this] { return mWatch.GetOwner(); }), peer.Name());
    EXPECT_THAT(mLog.Entries("Typed"), IsEmpty());
}

TEST_F(PeerWatchTest, TellsOnceThatNobodyIsThere) {
    RawPeer other;
    Watch();
    EXPECT_THAT(Told(1), ElementsAre("gone"));
    other.Own("com.example.Somebody");
    EXPECT_THAT(ToldAfter(other), ElementsAre("gone"));
    EXPECT_EQ(Status(), StatusCode::Ok);
    EXPECT_FALSE(mServed.On([this] { return mWatch.IsPresent(); }));
}

TEST_F(PeerWatchTest, TellsNothingWithinTheConstructor) {
    RawPeer peer;
    peer.Own(NAME);
    Watch();
    EXPECT_THAT(Told(1), SizeIs(1));
    // The second one knows the state at once.
    mServed.On([this] {
        mTold.clear();
        const auto second = Make();
        EXPECT_TRUE(second.IsPresent());
        EXPECT_THAT(mTold, IsEmpty());
    });
    EXPECT_THAT(ToldAfter(peer), IsEmpty()) << "told, although the second one had ended";
}

TEST_F(PeerWatchTest, TellsEachComingAndGoing) {
    RawPeer peer;
    Watch();
    Told(1);
    for (int i = 0; i < 2; ++i) {
        peer.Own(NAME);
        peer.Disown(NAME);
    }
    peer.Own(NAME);
    const std::string name = peer.Name();
    EXPECT_THAT(Told(6), ElementsAre("gone", name, "gone", name, "gone", name));
    peer.Leave();
    EXPECT_THAT(Told(7), ElementsAre("gone", name, "gone", name, "gone", name, "gone"));
}

TEST_F(PeerWatchTest, AnOwnerThatIsReplacedGoesBeforeTheNextOneComes) {
    RawPeer first;
    RawPeer second;
    first.Own(NAME);
    Watch();
    Told(1);
    second.Own(NAME);
    EXPECT_THAT(Told(3), ElementsAre(first.Name(), "gone", second.Name()));
}

TEST_F(PeerWatchTest, WatchesAUniqueName) {
    RawPeer peer;
    const std::string name = peer.Name();
    Watch(name);
    EXPECT_THAT(Told(1), ElementsAre(name));
    peer.Leave();
    EXPECT_THAT(Told(2), ElementsAre(name, "gone"));
}

// Between listening and asking, and before both have reached the message bus.
class PeerWatchGapTest : public PeerWatchTest, public testing::WithParamInterface<bool> {};

TEST_P(PeerWatchGapTest, MissesNobodyWhoComes) {
    RawPeer peer;
    const FaultScope scope(fault_sd_bus_call_method_async);
    ReplaceQuestion([&](sd_bus* bus, const auto& ask) {
        if (GetParam()) {
            EXPECT_GE(sd_bus_flush(bus), 0);
        }
        peer.Own(NAME);
        return ask("GetNameOwner");
    });
    Watch();
    EXPECT_THAT(Told(1), ElementsAre(peer.Name()));
    EXPECT_THAT(ToldAfter(peer), ElementsAre(peer.Name())) << "told twice";
}

TEST_P(PeerWatchGapTest, MissesNobodyWhoGoes) {
    RawPeer peer;
    peer.Own(NAME);
    const FaultScope scope(fault_sd_bus_call_method_async);
    ReplaceQuestion([&](sd_bus* bus, const auto& ask) {
        if (GetParam()) {
            EXPECT_GE(sd_bus_flush(bus), 0);
        }
        peer.Disown(NAME);
        return ask("GetNameOwner");
    });
    Watch();
    EXPECT_THAT(Told(1), ElementsAre("gone"));
    EXPECT_THAT(ToldAfter(peer), ElementsAre("gone"));
}

TEST_P(PeerWatchGapTest, MissesNoChangeAfterTheQuestion) {
    RawPeer first;
    RawPeer second;
    first.Own(NAME);
    const FaultScope scope(fault_sd_bus_call_method_async);
    ReplaceQuestion([&](sd_bus* bus, const auto& ask) {
        const int r = ask("GetNameOwner");
        EXPECT_GE(sd_bus_flush(bus), 0);
        second.Own(NAME);
        if (GetParam()) {
            second.Disown(NAME);
        }
        return r;
    });
    Watch();
    EXPECT_TRUE(WaitUntil([&] { return !Told().empty() && Told().back() != first.Name(); }));
    EXPECT_EQ(ToldAfter(second).back(), GetParam() ? "gone" : second.Name());
}
INSTANTIATE_TEST_SUITE_P(, PeerWatchGapTest, testing::Bool(),
                         [](const auto& test) { return test.param ? "Late" : "Early"; });

TEST_F(PeerWatchTest, EachOfSeveralIsToldAndTheyShareWhatTheyAskFor) {
    RawPeer peer;
    const FaultScope scope(fault_sd_bus_add_match_async);
    fault_sd_bus_add_match_async.Fail(0, 0, 0);  // counts
    std::vector<std::string> told;
    std::optional<PeerWatch> second;
    mServed.On([&] {
        mWatch = Make();
        second.emplace(
            *mServed.typed, NAME, [&](const std::string& owner) { told.push_back(owner); },
            [&] { told.emplace_back("gone"); });
    });
    EXPECT_EQ(fault_sd_bus_add_match_async.Calls(), 1);
    EXPECT_THAT(Told(1), ElementsAre("gone"));
    peer.Own(NAME);
    EXPECT_THAT(ToldAfter(peer), ElementsAre("gone", peer.Name()));
    mServed.On([this] { mWatch.Reset(); });
    peer.Disown(NAME);
    EXPECT_THAT(ToldAfter(peer), ElementsAre("gone", peer.Name())) << "has ended";
    mServed.On([&] {
        EXPECT_THAT(told, ElementsAre("gone", peer.Name(), "gone"));
        second.reset();
    });
    // The next one asks anew.
    Watch();
    EXPECT_EQ(fault_sd_bus_add_match_async.Calls(), 2);
    EXPECT_THAT(Told(3), ElementsAre("gone", peer.Name(), "gone"));
}

TEST_F(PeerWatchTest, AHandlerMayEndItsWatchAndIsDestroyedAfterwards) {
    RawPeer peer;
    const auto kept = std::make_shared<int>(7);
    mServed.On([&] {
        mWatch = PeerWatch(
            *mServed.typed, NAME,
            [this, kept](const std::string& owner) {
                mWatch.Reset();
                EXPECT_EQ(*kept, 7);
                mTold.push_back(owner);
            },
            [this] { mTold.emplace_back("gone"); });
    });
    Told(1);
    peer.Own(NAME);
    peer.Disown(NAME);
    EXPECT_THAT(ToldAfter(peer), ElementsAre("gone", peer.Name()));
    EXPECT_EQ(kept.use_count(), 1);
}

TEST_F(PeerWatchTest, OneThatEndsWhenItsOwnerGoesIsNotToldOfTheNext) {
    RawPeer first;
    RawPeer second;
    first.Own(NAME);
    mServed.On([&] {
        mWatch = PeerWatch(
            *mServed.typed, NAME, [this](const std::string& owner) { mTold.push_back(owner); },
            [this] {
                mTold.emplace_back("gone");
                mWatch = PeerWatch();
            });
    });
    Told(1);
    second.Own(NAME);
    EXPECT_THAT(ToldAfter(second), ElementsAre(first.Name(), "gone"));
}

TEST_F(PeerWatchTest, AHandlerMayBeginAnother) {
    RawPeer peer;
    std::optional<PeerWatch> second;
    mServed.On([&] {
        mWatch = PeerWatch(
            *mServed.typed, NAME,
            [&](const std::string& owner) {
                mTold.push_back(owner);
                second.emplace(Make());
            },
            nullptr);
    });
    peer.Own(NAME);
    EXPECT_THAT(Told(2), ElementsAre(peer.Name(), peer.Name()));
    EXPECT_THAT(ToldAfter(peer), SizeIs(2));
    mServed.On([&] { second.reset(); });
}

TEST_F(PeerWatchTest, BelievesTheMessageBusAlone) {
    RawPeer peer;
    RawPeer liar;
    peer.Own(NAME);
    Watch();
    Told(1);
    liar.EmitTo(tern::test::SERVICE, "/org/freedesktop/DBus", BUS, "NameOwnerChanged", "sss", NAME,
                peer.Name().c_str(), "");
    EXPECT_THAT(ToldAfter(liar), ElementsAre(peer.Name()));
    EXPECT_EQ(Status(), StatusCode::Ok);
}

TEST_F(PeerWatchTest, WhatIsNoNameIsToldAsAbsent) {
    Watch("no name");
    EXPECT_THAT(Told(1), ElementsAre("gone"));
    EXPECT_EQ(Status(), StatusCode::InvalidArgument);
    EXPECT_THAT(mLog.Entries("Typed"),
                ElementsAre(Error("Typed", "Refused to watch 'no name', which is no name of a bus")));
    // The bus was not asked.
    RawPeer peer;
    EXPECT_THAT(ToldAfter(peer), ElementsAre("gone"));
    EXPECT_EQ(Status(), StatusCode::InvalidArgument);
    EXPECT_EQ(mLog.Entries("Typed").size(), 1U);
}

TEST_F(PeerWatchTest, AWatchThatCannotListenIsToldOnce) {
    RawPeer peer;
    peer.Own(NAME);
    {
        const FaultScope scope(fault_sd_bus_add_match_async);
        fault_sd_bus_add_match_async.Fail(-ENOBUFS);
        Watch();
    }
    EXPECT_THAT(Told(1), ElementsAre("gone"));
    EXPECT_EQ(Status(), mw::tern::MakeStatusCodeFromReturnCode(-ENOBUFS));
    peer.Disown(NAME);
    peer.Own(NAME);
    EXPECT_THAT(ToldAfter(peer), ElementsAre("gone"));
    EXPECT_THAT(mLog.Entries("Typed"), ElementsAre(Error("Typed",
                                                         "Failed to watch the owner of com.example."
                                                         "Neighbour (-105, No buffer space "
                                                         "available)")));
    // The next one is not bound to it.
    Watch();
    EXPECT_THAT(Told(2), ElementsAre("gone", peer.Name()));
    EXPECT_EQ(Status(), StatusCode::Ok);
}

TEST_F(PeerWatchTest, AWatchThatTheMessageBusRefusesIsToldOnce) {
    RawPeer peer;
    peer.Own(NAME);
    const FaultScope scope(fault_sd_bus_add_match_async);
    // What sd-bus takes and the message bus does not.
    fault_sd_bus_add_match_async.Replace([](sd_bus* bus, sd_bus_slot** slot, const char*, auto... arguments) {
        return fault_sd_bus_add_match_async.Real(bus, slot, "path='/a',path_namespace='/a'", arguments...);
    });
    Watch();
    EXPECT_THAT(Told(1), ElementsAre("gone"));
    EXPECT_EQ(Status(), StatusCode::InvalidArgument);
    EXPECT_THAT(ToldAfter(peer), ElementsAre("gone"));
    ASSERT_THAT(mLog.Entries("Typed"), SizeIs(1));
    EXPECT_EQ(mLog.Entries("Typed")[0].level, 3);
    EXPECT_THAT(mLog.Entries("Typed")[0].text,
                HasSubstr("The bus refused to tell of the owner of com.example.Neighbour: "
                          "org.freedesktop.DBus.Error.MatchRuleInvalid"));
}

TEST_F(PeerWatchTest, AQuestionThatFailsLeavesTheChanges) {
    RawPeer peer;
    peer.Own(NAME);
    const FaultScope scope(fault_sd_bus_call_method_async);
    ReplaceQuestion([](sd_bus*, const auto& ask) { return ask("GetNothing"); });
    Watch();
    EXPECT_THAT(Told(1), ElementsAre("gone"));
    EXPECT_EQ(Status(), StatusCode::NotSupported);
    ASSERT_THAT(mLog.Entries("Typed"), SizeIs(1));
    EXPECT_THAT(mLog.Entries("Typed")[0].text,
                HasSubstr("Failed to ask for the owner of com.example.Neighbour: "
                          "org.freedesktop.DBus.Error.UnknownMethod"));
    peer.Disown(NAME);
    peer.Own(NAME);
    EXPECT_THAT(Told(2), ElementsAre("gone", peer.Name()));
    EXPECT_EQ(Status(), StatusCode::Ok);
}

TEST_F(PeerWatchTest, AQuestionThatFailsAfterAChangeTakesNobodyAway) {
    RawPeer peer;
    const FaultScope scope(fault_sd_bus_call_method_async);
    ReplaceQuestion([&peer](sd_bus* bus, const auto& ask) {
        EXPECT_GE(sd_bus_flush(bus), 0);
        peer.Own(NAME);
        return ask("GetNothing");
    });
    Watch();
    EXPECT_THAT(Told(1), ElementsAre(peer.Name()));
    EXPECT_THAT(ToldAfter(peer), ElementsAre(peer.Name()));
    EXPECT_EQ(Status(), StatusCode::Ok);
    EXPECT_THAT(mLog.Entries("Typed"), IsEmpty());
}

TEST_F(PeerWatchTest, IsSilentWhenTheBusCloses) {
    RawPeer peer;
    peer.Own(NAME);
    Watch();
    Told(1);
    std::optional<PeerWatch> late;
    mServed.On([&] {
        mWatch = PeerWatch(
            *mServed.typed, NAME, [this](const std::string& owner) { mTold.push_back(owner); },
            [this] { mTold.emplace_back("gone"); });
    });
    mServed.End();
    EXPECT_THAT(mTold, ElementsAre(peer.Name(), peer.Name()));
    EXPECT_EQ(mWatch.GetStatus(), StatusCode::Stopping);
    EXPECT_FALSE(mWatch.IsPresent());
    // And once it has closed.
    const PeerWatch afterwards = Make();
    EXPECT_EQ(afterwards.GetStatus(), StatusCode::NotInitialized);
    mServed.typed.reset();
    EXPECT_EQ(mWatch.GetStatus(), StatusCode::Stopping);
}

/// Watches of one name share who knows its owner, and went out of one list of theirs at the same time.
TEST_F(PeerWatchTest, SeveralAreDestroyedByAnyThreadsOnceTheBusHasClosed) {
    constexpr std::size_t COUNT = 20000;
    std::array<std::vector<PeerWatch>, 2> watches;
    mServed.On([&] {
        for (std::size_t i = 0; i < COUNT; ++i) {
            watches[i % watches.size()].emplace_back(*mServed.typed, NAME, nullptr, nullptr);
        }
    });
    mServed.End();
    EXPECT_EQ(watches[0].front().GetStatus(), StatusCode::Stopping);
    std::latch begin(watches.size());
    std::vector<std::thread> threads;
    for (std::vector<PeerWatch>& some : watches) {
        threads.emplace_back([&] {
            begin.arrive_and_wait();
            some.clear();
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST_F(PeerWatchTest, IsSilentWhenTheConnectionIsLost) {
    RawPeer peer;
    peer.Own(NAME);
    Watch();
    Told(1);
    mServed.On([&] {
        // A second one asks while the connection is lost.
        mDaemon.Kill();
        mWatch = Make(peer.Name());
    });
    WaitForEnd();
    EXPECT_THAT(mTold, ElementsAre(peer.Name()));
    EXPECT_EQ(mWatch.GetStatus(), StatusCode::Stopping);
    EXPECT_EQ(mServed.result, -ECONNRESET);
}

TEST_F(PeerWatchTest, OneThatIsMadeBeforeTheBusOpensWatchesNothing) {
    const Bus closed;
    PeerWatch watch(closed, NAME, nullptr, nullptr);
    EXPECT_EQ(watch.GetStatus(), StatusCode::NotInitialized);
    EXPECT_FALSE(watch.IsPresent());
    watch.Reset();
    EXPECT_EQ(watch.GetStatus(), StatusCode::NotInitialized);
}

TEST_F(PeerWatchTest, IsMovedWhileItWaits) {
    RawPeer peer;
    peer.Own(NAME);
    mServed.On([this] {
        PeerWatch first = Make();
        PeerWatch second(std::move(first));
        first.Reset();
        mWatch = std::move(second);
        auto& self = mWatch;
        mWatch = std::move(self);
    });
    EXPECT_THAT(Told(1), ElementsAre(peer.Name()));
}

TEST_F(PeerWatchTest, WhatAHandlerThrowsEndsTheLoop) {
    RawPeer peer;
    mServed.On([this] {
        mWatch = PeerWatch(
            *mServed.typed, NAME, [](const std::string&) { throw std::runtime_error("no room"); }, nullptr);
    });
    peer.Own(NAME);
    WaitForEnd();
    EXPECT_EQ(mServed.result, -ENOTRECOVERABLE);
    EXPECT_TRUE(mLog.Contains(
        tern::test::Critical("Typed", "A turn of the typed bus threw std::runtime_error: no room")));
}

}  // namespace
}  // namespace mwl::Typed
