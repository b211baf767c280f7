#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tern/typed/proxy.h>

#include <chrono>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/interpose.h"
#include "support/log_capture.h"
#include "typed/peer_service.h"

TERN_INTERPOSE(int, sd_bus_message_sensitive, (sd_bus_message * message), (message))

namespace mwl::Typed {
namespace {

using namespace std::chrono_literals;
using tern::test::Ask;
using tern::test::Heat;
using tern::test::LogCapture;
using tern::test::PEER;
using tern::test::Peer1;
using tern::test::PEER_PATH;
using tern::test::PeerService;
using tern::test::PrivateBus;
using tern::test::Said;
using tern::test::Served;

using Number = Peer1::Number;

using ProxyTest = tern::test::PeerProxyTest;

TEST_F(ProxyTest, SendsNothingByItself) {
    EXPECT_EQ(served.Count().calls, 0U);
    const Proxy<Peer1> copy = proxy;
    EXPECT_EQ(copy.GetRemote(), proxy.GetRemote());
    served.On([&] {
        const Call<Number> call = proxy.Call(Peer1::Add, 1U, 1U);
        const Call<Number> level = proxy.Get(Peer1::Level);
        EXPECT_NE(call.GetMessage(), nullptr);
    });
    EXPECT_EQ(served.Count().calls, 0U);
}

TEST_F(ProxyTest, IsNeverWithoutAnObject) {
    Proxy<Peer1> moved(std::move(proxy));
    EXPECT_EQ(proxy.GetRemote(), moved.GetRemote());
    const Proxy<tern::test::Room1> other(proxy.GetRemote());
    EXPECT_EQ(other.GetRemote(), moved.GetRemote());
    moved.SetTimeout(7s);
    EXPECT_EQ(other.GetRemote()->GetTimeout(), 7s);
}

struct Safe1 {
    static constexpr const char* NAME = "com.example.Safe1";
    static constexpr Method<void(std::string_view)> Open{"Open", {"password"}, OPEN | SENSITIVE};
    static constexpr Method<void(std::string_view)> Knock{"Knock", {"text"}, OPEN};
    static constexpr Members<Open, Knock> ALL{};
};

TEST_F(ProxyTest, HasTheMemoryOfSensitiveCallsErased) {
    const Proxy<Safe1> safe(*served.typed, PEER, PEER_PATH);
    const tern::test::FaultScope scope(fault_sd_bus_message_sensitive);
    served.On([&] {
        std::vector<sd_bus_message*> sensitive;
        fault_sd_bus_message_sensitive.Replace(
            [&](sd_bus_message* message) {
                sensitive.push_back(message);
                return fault_sd_bus_message_sensitive.Real(message);
            },
            2);
        const Call<void> plain = safe.Call(Safe1::Knock, "hello");
        const Call<void> secret = safe.Call(Safe1::Open, "secret");
        EXPECT_THAT(sensitive, testing::ElementsAre(secret.GetMessage()));
    });
}

TEST_F(ProxyTest, CallsWithResultsOfEachNumber) {
    EXPECT_EQ(*Ask(served, [&] { return proxy.Call(Peer1::Add, 2U, 3U); }), 5U);
    const std::string text = "warm";
    EXPECT_EQ(*Ask(served, [&] { return proxy.Call(Peer1::Echo, text); }), "warm");
    EXPECT_EQ(*Ask(served, [&] { return proxy.Call(Peer1::Echo, std::string_view(text)); }), "warm");
    EXPECT_EQ(*Ask(served, [&] { return proxy.Call(Peer1::Echo, text.c_str()); }), "warm");
    EXPECT_TRUE(Ask(served, [&] { return proxy.Call(Peer1::Tell, 3U); }).IsOk());
    EXPECT_EQ(Said(Ask(served, [&] { return proxy.Call(Peer1::Both); })),
              "mwl.Typed.Error.WrongReply: result 2: 7 is not one of its values");
    EXPECT_EQ(Said(Ask(served, [&] { return proxy.Call(Peer1::Heating); })),
              "mwl.Typed.Error.WrongReply: the result: 7 is not one of its values");
    EXPECT_EQ(Said(Ask(served, [&] { return proxy.Call(Peer1::Echo, static_cast<const char*>(nullptr)); })),
              "org.freedesktop.DBus.Error.InvalidArgs: argument 'text' cannot be sent: Invalid argument");
}

TEST_F(ProxyTest, ResultsOwnWhatTheyHold) {
    static_assert(
        std::is_same_v<decltype(proxy.Call(Peer1::Echo, "warm")), Call<std::string>>);  // a view there
    static_assert(std::is_same_v<decltype(proxy.Get(Peer1::Title)), Call<std::string>>);
    static_assert(std::is_same_v<decltype(proxy.CallFromWorker(Peer1::Echo, "warm")), Future<std::string>>);
}

TEST_F(ProxyTest, ReadsAndWritesProperties) {
    EXPECT_EQ(*Ask(served, [&] { return proxy.Get(Peer1::Level); }), 21U);
    EXPECT_EQ(*Ask(served, [&] { return proxy.Get(Peer1::Target); }), 20.5);
    EXPECT_EQ(Said(Ask(served, [&] { return proxy.Set(Peer1::Target, 22.5); })), "");
    EXPECT_EQ(*Ask(served, [&] { return proxy.Get(Peer1::Target); }), 22.5);
    EXPECT_EQ(Said(Ask(served, [&] { return proxy.Set(Peer1::Note, "a note"); })), "");
    EXPECT_EQ(*Ask(served, [&] { return proxy.Get(Peer1::Note); }), "a note");
    EXPECT_EQ(Said(Ask(served, [&] { return proxy.Set(Peer1::Note, "\xff"); })),
              "org.freedesktop.DBus.Error.InvalidArgs: argument 'Note' cannot be sent: Invalid argument");
}

TEST_F(ProxyTest, RefusesAPropertyOfAnotherType) {
    LogCapture log(4);
    EXPECT_EQ(Said(Ask(served, [&] { return proxy.Get(Peer1::Title); })),
              "mwl.Typed.Error.WrongReply: the result: 'u' where 's' is wanted");
    EXPECT_EQ(served.Count().wrongReplies, 1U);
    EXPECT_EQ(log.Entries("Typed").size(), 1U);
}

TEST_F(ProxyTest, SubscribesToSignals) {
    std::vector<Number> told;
    Subscription subscription;
    served.On([&] { subscription = proxy.On(Peer1::Told, [&](Number number) { told.push_back(number); }); });
    EXPECT_TRUE(tern::test::WaitUntil(
        [&] { return served.On([&] { return subscription.GetStatus(); }) == StatusCode::Ok; }));
    EXPECT_TRUE(Ask(served, [&] { return proxy.Call(Peer1::Tell, 3U); }).IsOk());
    EXPECT_TRUE(Ask(served, [&] { return proxy.Call(Peer1::Tell, 4U); }).IsOk());
    served.On([&] { subscription.Reset(); });
    EXPECT_THAT(told, testing::ElementsAre(3U, 4U));
}

TEST_F(ProxyTest, TellsThatAPropertyOrItsObjectIsNotThere) {
    Proxy<tern::test::Room1> stranger(*served.typed, PEER, PEER_PATH);
    const Outcome<Number> property = Ask(served, [&] { return stranger.Get(tern::test::Room1::Level); });
    EXPECT_EQ(property.GetError().GetStatus(), StatusCode::NotSupported) << Said(property);
    const Proxy<Peer1> missing(*served.typed, PEER, "/missing");
    EXPECT_EQ(Ask(served, [&] { return missing.Get(Peer1::Level); }).GetError().GetStatus(),
              StatusCode::NotFound);
}

TEST_F(ProxyTest, PingsThePeerWhateverThePath) {
    EXPECT_TRUE(Ask(served, [&] { return proxy.Ping(); }).IsOk());
    const Proxy<Peer1> missing(*served.typed, "com.example.Missing", "/");
    EXPECT_EQ(Ask(served, [&] { return missing.Ping(); }).GetError().GetStatus(), StatusCode::NotFound);
}

// A service of this process's own, on the same connection even.
TEST_F(ProxyTest, CallsAServiceOfTheSameBusObject) {
    tern::test::Room* room = nullptr;
    served.On([&] { room = &served.Export("/room"); });
    served.On([&] { room->onLater = [](Reply<Number> reply, Number number) { reply.Return(number + 1); }; });
    const Proxy<tern::test::Room1> own(*served.typed, tern::test::SERVICE, "/room");
    EXPECT_EQ(*Ask(served, [&] { return own.Call(tern::test::Room1::Later, 4U); }), 5U);
    EXPECT_EQ(Said(Ask(served, [&] { return own.Set(tern::test::Room1::Target, 30U); })), "");
    EXPECT_EQ(*Ask(served, [&] { return own.Get(tern::test::Room1::Target); }), 30U);
}

}  // namespace
}  // namespace mwl::Typed
