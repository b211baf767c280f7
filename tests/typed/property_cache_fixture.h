#pragma once

// What the tests of PropertyCache share: a cache of the properties of a peer, which the test leads. Include
// it in the one source of a test program.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>
#include <tern/typed/property_cache.h>
#include <tern/typed/proxy.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
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
using testing::IsEmpty;
using testing::Optional;
using testing::SizeIs;

inline constexpr const char* NAME = "com.example.Oven";
inline constexpr const char* PATH = "/com/example/oven";
inline constexpr const char* PROPERTIES = "org.freedesktop.DBus.Properties";

struct Oven1 {
    static constexpr const char* NAME = "com.example.Oven1";
    static constexpr Method<void()> Open{"Open"};
    static constexpr Property<std::uint32_t> Level{"Level"};
    static constexpr Property<std::string_view> Label{"Label"};
    static constexpr Property<std::array<std::uint32_t, 2>> Range{"Range", INVALIDATES};
    static constexpr Property<std::uint32_t> Secret{"Secret", EXPLICIT};
    static constexpr WritableProperty<double> Target{"Target", EMITS | OPEN};
    static constexpr Members<Open, Level, Label, Range, Secret, Target> ALL{};
};
inline constexpr const char* OVEN = Oven1::NAME;

/// The same, as who cannot read it sees it.
struct OddOven1 {
    static constexpr const char* NAME = Oven1::NAME;
    static constexpr Property<Odd> Level{"Level"};
    static constexpr Members<Level> ALL{};
};

using Cache = PropertyCache<Oven1>;
using Changes = PropertyChanges<Oven1>;

/// A service that keeps the properties of a peer, which the test leads.
class PropertyCacheTest : public tern::test::WatchedPeerTest {
protected:
    PropertyCacheTest() : WatchedPeerTest(NAME) {}
    ~PropertyCacheTest() override { mServed.End(); }

    /// D-Bus thread.
    void MakeCache(std::string name = NAME, const char* path = PATH) {
        mCache.emplace(std::make_shared<Remote>(*mServed.typed, std::move(name), path));
        mCache->OnChange([this](const Changes& changes) { mTold.push_back(Describe(changes)); });
    }
    void Make(const std::string& name = NAME) {
        mServed.On([&] { MakeCache(name); });
    }
    static std::string Describe(const Changes& changes) {
        std::string text;
        text += changes.Has<Oven1::Level>() ? "Level " : "";
        text += changes.Has<Oven1::Label>() ? "Label " : "";
        text += changes.Has<Oven1::Range>() ? "Range " : "";
        text += changes.Has<Oven1::Target>() ? "Target " : "";
        EXPECT_EQ(changes.IsEmpty(), text.empty());
        EXPECT_FALSE(changes.Has<Oven1::Secret>());
        return text;
    }
    void AnswerAll(RawPeer& peer, const RawPeer::Message& call, std::uint32_t level = 1) {
        peer.Reply(call, "a{sv}", 4, "Level", "u", level, "Label", "s", "warm", "Range", "au", 2, 10U, 20U,
                   "Target", "d", 0.5);
    }
    void Answer(std::uint32_t level = 1) { AnswerAll(mPeer, mPeer.WaitForCall("GetAll"), level); }
    void Announce(std::uint32_t level) {
        mPeer.Emit(PATH, PROPERTIES, "PropertiesChanged", "sa{sv}as", OVEN, 1, "Level", "u", level, 0);
    }
    void Invalidate(const char* name) {
        mPeer.Emit(PATH, PROPERTIES, "PropertiesChanged", "sa{sv}as", OVEN, 0, 1, name);
    }
    /// A cache that is filled.
    void Fill() {
        Make();
        Answer();
        EXPECT_TRUE(WaitUntil([&] { return Status() == StatusCode::Ok; }));
    }
    StatusCode Status() {
        return mServed.On([this] { return mCache->GetStatus(); });
    }
    std::optional<std::uint32_t> Level() {
        return mServed.On([this] { return mCache->Get<Oven1::Level>(); });
    }
    /// Once the service has handled all that the peer sent.
    std::optional<std::uint32_t> LevelAfter(RawPeer& peer) {
        peer.Ping();
        return Level();
    }
    std::vector<std::string> Told() {
        mPeer.Ping();
        return mServed.On([this] { return std::exchange(mTold, {}); });
    }
    void WaitFor(StatusCode status) {
        EXPECT_TRUE(WaitUntil([&] { return Status() == status; })) << "waited for " << status;
    }

    std::vector<std::string> mTold;
    std::optional<Cache> mCache;
};

}  // namespace mwl::Typed::Tests
