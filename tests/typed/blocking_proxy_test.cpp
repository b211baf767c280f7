#include <gtest/gtest.h>
#include <tern/typed/blocking_proxy.h>

#include <chrono>
#include <future>
#include <string>
#include <thread>

#include "support/private_bus.h"
#include "typed/blocking_peer.h"

using namespace mwl::Typed;
using namespace std::chrono_literals;
using tern::test::GENEROUS_LIMIT;
using tern::test::MistakenPeer1;
using tern::test::Peer1;
using tern::test::PeerService;
using tern::test::PrivateBus;
using tern::test::Said;

namespace {

using BlockingProxyTest = tern::test::BlockingPeerTest;

}  // namespace

TEST_F(BlockingProxyTest, CallsAndTakesTheResult) {
    const Outcome<std::uint32_t> sum = mPeer.Call(Peer1::Add, 2U, 3U);
    ASSERT_TRUE(sum.IsOk()) << Said(sum);
    EXPECT_EQ(*sum, 5U);
    const Outcome<std::string> echo = mPeer.Call(Peer1::Echo, "hello");
    ASSERT_TRUE(echo.IsOk()) << Said(echo);
    EXPECT_EQ(*echo, "hello");
    const Outcome<std::string> big = mPeer.Call(Peer1::Big, 1000000U);
    ASSERT_TRUE(big.IsOk()) << Said(big);
    EXPECT_EQ(big->size(), 1000000U);
    EXPECT_EQ(Said(mPeer.Ping()), "");
}

TEST_F(BlockingProxyTest, ReadsAndWritesProperties) {
    const Outcome<std::uint32_t> level = mPeer.Get(Peer1::Level);
    ASSERT_TRUE(level.IsOk()) << Said(level);
    EXPECT_EQ(*level, 21U);
    EXPECT_EQ(Said(mPeer.Set(Peer1::Target, 18.5)), "");
    EXPECT_EQ(*mPeer.Get(Peer1::Target), 18.5);
    EXPECT_EQ(Said(mPeer.Set(Peer1::Note, "cold")), "");
    EXPECT_EQ(*mPeer.Get(Peer1::Note), "cold");
}

TEST_F(BlockingProxyTest, GivesThePeersErrors) {
    EXPECT_EQ(Said(mPeer.Call(Peer1::Fail)), "com.example.Error.TooHot: more than 100 degrees");
    EXPECT_EQ(mPeer.Call(Peer1::Missing).GetError().GetStatus(), StatusCode::NotSupported);
    EXPECT_EQ(Said(mPeer.Call(Peer1::Wrong)),
              "mwl.Typed.Error.WrongReply: a reply of 'u' where 's' is wanted");
    EXPECT_EQ(Said(mPeer.Call(Peer1::Heating)),
              "mwl.Typed.Error.WrongReply: the result: 7 is not one of its values");
    EXPECT_EQ(Said(mPeer.Call(Peer1::Both)),
              "mwl.Typed.Error.WrongReply: result 2: 7 is not one of its values");
    EXPECT_EQ(Said(mPeer.Get(Peer1::Title)),
              "mwl.Typed.Error.WrongReply: the result: 'u' where 's' is wanted");
    const BlockingProxy<Peer1> nobody("com.example.Nobody", "/");
    EXPECT_EQ(nobody.Ping().GetError().GetStatus(), StatusCode::NotFound);
    EXPECT_EQ(nobody.Call(Peer1::Fail).GetError().GetName(), SD_BUS_ERROR_SERVICE_UNKNOWN);
    const BlockingProxy<Peer1> nowhere(tern::test::PEER, "/nowhere");
    EXPECT_EQ(nowhere.Call(Peer1::Fail).GetError().GetStatus(), StatusCode::NotFound);
}

TEST_F(BlockingProxyTest, SaysWhatCannotBeSent) {
    EXPECT_EQ(Said(mPeer.Call(Peer1::Echo, "\xff")),
              "org.freedesktop.DBus.Error.InvalidArgs: argument 'text' cannot be sent: Invalid argument");
    EXPECT_EQ(Said(mPeer.Set(Peer1::Note, "\xff")),
              "org.freedesktop.DBus.Error.InvalidArgs: argument 'Note' cannot be sent: Invalid argument");
    EXPECT_EQ(Said(BlockingProxy<Peer1>("no name", "/").Call(Peer1::Fail)),
              "org.freedesktop.DBus.Error.InvalidArgs: 'no name' is no name of a service");
    EXPECT_EQ(Said(BlockingProxy<Peer1>("a.b", "no path").Call(Peer1::Fail)),
              "org.freedesktop.DBus.Error.InvalidArgs: 'no path' is no path of an object");
    // The connection still works.
    EXPECT_EQ(*mPeer.Call(Peer1::Add, 2U, 3U), 5U);
}

TEST_F(BlockingProxyTest, SendsWhatNobodyAnswers) {
    EXPECT_EQ(Said(mPeer.Call(Peer1::Nothing)), "");
    EXPECT_EQ(Said(mPeer.Call(Peer1::Nothing)), "");
    EXPECT_EQ(*mPeer.Call(Peer1::Count), 2U);
    // The bus has it when the call returns: it arrives although the connection ends at once.
    EXPECT_EQ(Said(BlockingProxy<Peer1>(tern::test::PEER, tern::test::PEER_PATH).Call(Peer1::Nothing)), "");
    EXPECT_TRUE(tern::test::WaitUntil([this] { return *mPeer.Call(Peer1::Count) == 3U; }));
}

TEST_F(BlockingProxyTest, WaitsNoLongerThanItsLimit) {
    const Clock::time_point start = Clock::now();
    const Outcome<std::uint32_t> held = mPeer.Within(100ms).Call(Peer1::Hold, 1U);
    EXPECT_EQ(held.GetError().GetStatus(), StatusCode::Timeout);
    EXPECT_GE(Clock::now() - start, 100ms);
    EXPECT_LT(Clock::now() - start, Remote::TIMEOUT);
    // A reply that comes too late is none of a later call.
    EXPECT_EQ(*mPeer.Call(Peer1::Let), 1U);
    EXPECT_EQ(*mPeer.Call(Peer1::Add, 2U, 3U), 5U);
    BlockingProxy<Peer1> hasty = mPeer;
    hasty.SetTimeout(0ms);
    EXPECT_EQ(hasty.Call(Peer1::Hold, 1U).GetError().GetStatus(), StatusCode::Timeout);
    EXPECT_EQ(*mPeer.Within(Remote::NO_LIMIT).Call(Peer1::Add, 2U, 3U), 5U);
}

TEST_F(BlockingProxyTest, SaysThatThePeerHasGone) {
    tern::test::Peer leaving;
    bool isCalled = false;
    tern::test::Peer::Check(sd_bus_add_filter(
        leaving.Get(), nullptr,
        [](sd_bus_message* message, void* called, sd_bus_error*) {
            const bool isIt = sd_bus_message_is_method_call(message, Peer1::NAME, "Hold") > 0;
            *static_cast<bool*>(called) |= isIt;
            return isIt ? 1 : 0;
        },
        &isCalled));
    const BlockingProxy<Peer1> left(leaving.Name(), tern::test::PEER_PATH);
    auto held = std::async(std::launch::async,
                           [&left] { return left.Within(Remote::NO_LIMIT).Call(Peer1::Hold, 1U); });
    ASSERT_TRUE(tern::test::WaitUntil([&] {
        while (leaving.Process()) {
        }
        return isCalled;
    }));
    leaving.Leave();
    EXPECT_EQ(held.get().GetError().GetStatus(), StatusCode::NotFound);
    EXPECT_EQ(left.Call(Peer1::Hold, 1U).GetError().GetStatus(), StatusCode::NotFound);
}

TEST_F(BlockingProxyTest, WaitsForASignal) {
    std::promise<void> over;
    std::thread telling([done = over.get_future()]() mutable {
        const BlockingProxy<Peer1> other(tern::test::PEER, tern::test::PEER_PATH);
        do {
            EXPECT_EQ(Said(other.Call(Peer1::Tell, 9U)), "");
        } while (done.wait_for(1ms) != std::future_status::ready);
    });
    const Outcome<std::tuple<std::uint32_t>> told = mPeer.WaitFor(Peer1::Told, GENEROUS_LIMIT);
    over.set_value();
    telling.join();
    ASSERT_TRUE(told.IsOk()) << Said(told);
    EXPECT_EQ(std::get<0>(*told), 9U);
    EXPECT_EQ(mPeer.WaitFor(Peer1::Told, 10ms).GetError().GetStatus(), StatusCode::Timeout);
}

// What is sensitive is not told apart from outside; that it arrives is.
TEST_F(BlockingProxyTest, SendsSensitiveArguments) {
    const BlockingProxy<MistakenPeer1> other(mPeer.GetBus(), tern::test::PEER, tern::test::PEER_PATH);
    EXPECT_EQ(Said(other.Call(MistakenPeer1::Echo, "secret")),
              "mwl.Typed.Error.WrongReply: a reply of 's' where '' is wanted");
}
