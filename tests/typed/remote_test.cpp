#include <gtest/gtest.h>
#include <tern/typed/bus.h>
#include <tern/typed/remote.h>

#include <chrono>
#include <memory>
#include <optional>

#include "typed/reply_state.h"

namespace mwl::Typed {
namespace {

using namespace std::chrono_literals;

TEST(Remote, KeepsWhatItWasGiven) {
    const Bus bus;
    Remote remote(bus, "no name", "no path");
    EXPECT_EQ(remote.GetDestination(), "no name");
    EXPECT_EQ(remote.GetPath(), "no path");
    EXPECT_EQ(remote.GetTimeout(), 5s);
    remote.SetTimeout(-1ms);
    EXPECT_EQ(remote.GetTimeout(), -1ms);
    remote.SetTimeout(Remote::NO_LIMIT);
    EXPECT_EQ(remote.GetTimeout(), Remote::NO_LIMIT);
}

TEST(Remote, OutlivesItsBus) {
    std::optional<Bus> bus(std::in_place);
    const Remote remote(*bus, "com.example.Peer", "/");
    ASSERT_NE(remote.GetState(), nullptr);
    EXPECT_NE(remote.GetState()->core, nullptr);
    bus.reset();
    ASSERT_NE(remote.GetState(), nullptr);
    EXPECT_EQ(remote.GetState()->core, nullptr);
}

}  // namespace
}  // namespace mwl::Typed
