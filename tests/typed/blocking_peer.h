#pragma once

#include <gtest/gtest.h>
#include <tern/typed/blocking_proxy.h>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "support/private_bus.h"
#include "typed/peer_service.h"

namespace tern::test {

/// The peer as somebody sees it who has a wrong contract of it.
struct MistakenPeer1 {
    static constexpr const char* NAME = Peer1::NAME;
    static constexpr mwl::Typed::Signal<std::string> Told{"Told", {"text"}};  // is a number
    static constexpr mwl::Typed::Method<void(std::string_view)> Echo{"Echo", {"text"}, mwl::Typed::SENSITIVE};
    static constexpr mwl::Typed::Members<Told, Echo> ALL{};
};

/// A program that waits for what it asks the peer, which is there at first.
class BlockingPeerTest : public testing::Test {
protected:
    using Clock = std::chrono::steady_clock;

    PrivateBus mBus;
    std::optional<PeerService> mService{std::in_place};
    mwl::Typed::BlockingProxy<Peer1> mPeer{PEER, PEER_PATH};
};

}  // namespace tern::test
