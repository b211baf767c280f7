#pragma once

// What the tests of Subscription share: a service that listens to a peer, which the test leads. Include it in
// the one source of a test program.

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

#include "typed/throwing_value.h"
#include "typed/watched_peer.h"

namespace mwl::Typed::Tests {

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

inline constexpr const char* NAME = "com.example.Meter";
inline constexpr const char* PATH = "/com/example/meter";

enum class Mode : std::uint8_t { Slow = 1, Fast = 2 };
[[maybe_unused]] inline constexpr auto DBusEnum(Mode) {
    return std::array{Mode::Slow, Mode::Fast};
}

/// So that a codec of a test's own may run out of memory.
struct Greedy {};

}  // namespace mwl::Typed::Tests

namespace mwl::Typed {

template <>
struct Codec<Tests::Greedy> {
    static constexpr Text<1> SIGNATURE = "u";
    static int Write(sd_bus_message*, const Tests::Greedy&) { return 0; }
    static int Read(sd_bus_message*, Tests::Greedy&, Fault&) { throw std::bad_alloc(); }
};

}  // namespace mwl::Typed

namespace mwl::Typed::Tests {

struct Meter1 {
    static constexpr const char* NAME = "com.example.Meter1";
    static constexpr Signal<std::uint32_t> Measured{"Measured", {"value"}};
    static constexpr Signal<std::string_view, std::span<const double>> Named{"Named", {"name", "values"}};
    static constexpr Signal<> Ticked{"Ticked"};
    static constexpr Signal<Mode> Switched{"Switched", {"mode"}};
    static constexpr Signal<Greedy> Grown{"Grown", {"size"}};
    static constexpr Signal<Odd> Strayed{"Strayed", {"where"}};
};
inline constexpr const char* METER = Meter1::NAME;

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

}  // namespace mwl::Typed::Tests
