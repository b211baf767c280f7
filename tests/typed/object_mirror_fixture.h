#pragma once

// What the tests of ObjectMirror share: a mirror of the objects of a peer that the test leads. Include it in
// the one source of a test program.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>
#include <tern/typed/object_mirror.h>
#include <tern/typed/peer_watch.h>
#include <tern/typed/property_cache.h>
#include <tern/typed/proxy.h>
#include <tern/typed/subscription.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "typed/watched_peer.h"

TERN_INTERPOSE(int, sd_bus_message_copy, (sd_bus_message * to, sd_bus_message* from, int all),
               (to, from, all))

namespace mwl::Typed::Tests {

using tern::test::Error;
using tern::test::FaultScope;
using tern::test::RawPeer;
using tern::test::Served;
using tern::test::WaitUntil;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

inline constexpr const char* NAME = "com.example.House";
inline constexpr const char* ROOT = "/com/example";
inline constexpr const char* MANAGER = "org.freedesktop.DBus.ObjectManager";
inline constexpr const char* ROOM = "com.example.Room1";
inline constexpr const char* DOOR = "com.example.Door1";
inline const std::string LEFT_OUT =
    "Objects of com.example.House /com/example are left out: there are too many, or it is not above them "
    "(0 like it not logged)";

/// A service that mirrors the objects of a peer, which the test leads.
class ObjectMirrorTest : public tern::test::WatchedPeerTest {
protected:
    ObjectMirrorTest() : WatchedPeerTest(NAME) {}
    ~ObjectMirrorTest() override { mServed.End(); }

    /// D-Bus thread.
    ObjectMirror MakeMirror(const std::string& name = NAME, const std::string& root = ROOT) {
        return ObjectMirror(
            *mServed.typed, name, root,
            [this](const std::string& path, const std::string& interface,
                   const ObjectMirror::Properties& properties) {
                std::string text = "+" + path + " " + interface;
                for (const auto& [property, value] : properties) {
                    text += " " + property + "=" + value.ToText();
                }
                mTold.push_back(text);
                const auto object = mMirror.GetObjects().find(path);
                EXPECT_TRUE(object != mMirror.GetObjects().end() && object->second.count(interface) == 1);
            },
            [this](const std::string& path, const std::string& interface) {
                mTold.push_back("-" + path + " " + interface);
                const auto object = mMirror.GetObjects().find(path);
                EXPECT_TRUE(object == mMirror.GetObjects().end() || object->second.count(interface) == 0);
            },
            [this] { mTold.emplace_back("ready"); });
    }
    void Make(const std::string& name = NAME) {
        mServed.On([&] { mMirror = MakeMirror(name); });
    }
    RawPeer::Message WaitForQuestion() { return mPeer.WaitForCall("GetManagedObjects"); }
    /// "There are none."
    void AnswerNone(const RawPeer::Message& call) { mPeer.Reply(call, "a{oa{sa{sv}}}", 0); }
    /// One object with one interface without properties.
    void AnswerOne(RawPeer& peer, const RawPeer::Message& call, const char* path) {
        peer.Reply(call, "a{oa{sa{sv}}}", 1, path, 1, ROOM, 0);
    }
    void Add(const char* path, const char* interface = ROOM) {
        mPeer.Emit(ROOT, MANAGER, "InterfacesAdded", "oa{sa{sv}}", path, 1, interface, 0);
    }
    void Remove(const char* path, const char* interface = ROOM) {
        mPeer.Emit(ROOT, MANAGER, "InterfacesRemoved", "oas", path, 1, interface);
    }
    /// A mirror of a peer that has no objects yet.
    void MakeEmpty() {
        Make();
        AnswerNone(WaitForQuestion());
        EXPECT_THAT(Told(), ElementsAre("ready"));
    }
    StatusCode Status() {
        return mServed.On([this] { return mMirror.GetStatus(); });
    }
    void WaitFor(StatusCode status) {
        EXPECT_TRUE(WaitUntil([&] { return Status() == status; })) << "waited for " << status;
    }
    ObjectMirror::Objects Objects() {
        return mServed.On([this] { return mMirror.GetObjects(); });
    }
    std::size_t Omitted() {
        return mServed.On([this] { return mMirror.GetOmitted(); });
    }
    /// Once the service has handled all that the peer sent.
    std::vector<std::string> ToldAfter(RawPeer& peer) {
        peer.Ping();
        return mServed.On([this] { return std::exchange(mTold, {}); });
    }
    std::vector<std::string> Told() { return ToldAfter(mPeer); }

    std::vector<std::string> mTold;
    ObjectMirror mMirror;
};

}  // namespace mwl::Typed::Tests
