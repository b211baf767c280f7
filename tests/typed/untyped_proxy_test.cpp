#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tern/typed/untyped_proxy.h>

#include <cerrno>
#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "peer_service.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/private_bus.h"
#include "support/wait_until.h"

TERN_INTERPOSE(int, sd_bus_message_open_container,
               (sd_bus_message * message, char type, const char* contents), (message, type, contents))

using namespace mwl::Typed;
using namespace std::chrono_literals;
using tern::test::Ask;
using tern::test::FaultScope;
using tern::test::Peer1;
using tern::test::PEER_PATH;
using tern::test::PeerService;
using tern::test::PrivateBus;
using tern::test::Said;
using tern::test::Served;
using tern::test::WaitUntil;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

const std::string PEER1 = Peer1::NAME;
constexpr const char* ODD_PATH = "/odd";
constexpr const char* ODD = "com.example.Odd1";

/// A peer whose methods are of every type, and some of whose answers are odd.
class OddPeer {
public:
    OddPeer() {
        tern::test::Peer::Check(sd_bus_add_object_vtable(mPeer.Get(), nullptr, ODD_PATH, ODD, VTABLE, this));
        tern::test::Peer::Check(sd_bus_add_object(mPeer.Get(), nullptr, "/text", OnText, this));
        tern::test::Peer::Check(sd_bus_request_name(mPeer.Get(), "com.example.Odd", 0));
        mThread = std::thread([this] { Main(); });
    }
    ~OddPeer() {
        mIsEnding = true;
        mThread.join();
    }
    OddPeer(const OddPeer&) = delete;
    OddPeer& operator=(const OddPeer&) = delete;

    /// What it answers to Introspect at /text.
    std::string text;

private:
    void Main() {
        while (!mIsEnding) {
            while (mPeer.Process()) {
            }
            sd_bus_wait(mPeer.Get(), 10000);
        }
    }
    static int OnText(sd_bus_message* call, void* self, sd_bus_error*) {
        if (sd_bus_message_is_method_call(call, "org.freedesktop.DBus.Introspectable", "Introspect") <= 0) {
            return 0;
        }
        return sd_bus_reply_method_return(call, "s", static_cast<OddPeer*>(self)->text.c_str());
    }
    /// Gives back what it was given.
    static int Echo(sd_bus_message* call, void*, sd_bus_error*) {
        sd_bus_message* reply = nullptr;
        tern::test::Peer::Check(sd_bus_message_new_method_return(call, &reply));
        const tern::test::Peer::Message owner(reply);
        tern::test::Peer::Check(sd_bus_message_copy(reply, call, 1));
        return sd_bus_send(nullptr, reply, nullptr);
    }
    static int Descriptor(sd_bus_message* call, void*, sd_bus_error*) {
        return sd_bus_reply_method_return(call, "sh", "one", 0);
    }
    static int Emit(sd_bus_message* call, void*, sd_bus_error*) {
        sd_bus* const bus = sd_bus_message_get_bus(call);
        tern::test::Peer::Check(sd_bus_emit_signal(bus, ODD_PATH, ODD, "Happened", "u(sb)", 5, "x", 1));
        tern::test::Peer::Check(sd_bus_emit_signal(bus, ODD_PATH, ODD, "Happened", "h", 0));
        tern::test::Peer::Check(sd_bus_emit_signal(bus, ODD_PATH, ODD, "Happened", ""));
        return sd_bus_reply_method_return(call, "");
    }

    static constexpr std::uint64_t OPEN = SD_BUS_VTABLE_UNPRIVILEGED;
    static inline const sd_bus_vtable VTABLE[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("Echo", "ybnqiuxtdsogasa{sv}v(ia{us})ayad", "ybnqiuxtdsogasa{sv}v(ia{us})ayad", Echo,
                      OPEN),
        SD_BUS_METHOD("Descriptor", "", "sh", Descriptor, OPEN), SD_BUS_METHOD("Emit", "", "", Emit, OPEN),
        SD_BUS_VTABLE_END};

    tern::test::Peer mPeer;
    std::atomic<bool> mIsEnding{false};
    std::thread mThread;
};

Any AnyText(const std::string& text) {
    return Any::From(text);
}

class UntypedProxyTest : public testing::Test {
protected:
    /// The outcome of a call that `make` makes with the proxy.
    template <typename Make>
    auto Do(const UntypedProxy& proxy, Make make) {
        return Ask(mServed, [&] { return make(proxy); });
    }
    template <typename Make>
    auto Do(Make make) {
        return Do(mPeer, make);
    }
    auto CallPeer(const std::string& member, std::string_view signature, const std::vector<Any>& arguments) {
        return Do([&](const UntypedProxy& peer) { return peer.Call(PEER1, member, signature, arguments); });
    }

    PrivateBus mBus;
    PeerService mService;
    OddPeer mOddPeer;
    Served mServed;
    UntypedProxy mPeer{*mServed.typed, tern::test::PEER, PEER_PATH};
    UntypedProxy mOdd{*mServed.typed, "com.example.Odd", ODD_PATH};
};

}  // namespace

TEST_F(UntypedProxyTest, CallsAndTakesTheResults) {
    const auto sum = CallPeer("Add", "uu", {Any::From(2U), Any::From(3U)});
    ASSERT_TRUE(sum.IsOk()) << Said(sum);
    EXPECT_THAT(*sum, ElementsAre(Any::From(5U)));
    const auto both = CallPeer("Both", "", {});
    ASSERT_TRUE(both.IsOk()) << Said(both);
    EXPECT_THAT(*both, ElementsAre(AnyText("warm"), Any::From(7U)));
    const auto none = CallPeer("Tell", "u", {Any::From(1U)});
    ASSERT_TRUE(none.IsOk()) << Said(none);
    EXPECT_TRUE(none->empty());
}

TEST_F(UntypedProxyTest, PassesEveryType) {
    const std::vector<Any> values{
        Any::From(std::uint8_t{1}),
        Any::From(true),
        Any::From(std::int16_t{-2}),
        Any::From(std::uint16_t{3}),
        Any::From(std::int32_t{-4}),
        Any::From(std::uint32_t{5}),
        Any::From(std::int64_t{-6}),
        Any::From(std::uint64_t{7}),
        Any::From(0.5),
        AnyText("\u00e4"),
        Any::From(ObjectPath("/a/b")),
        Any::From(Signature("a{sv}")),
        Any::From(std::vector<std::string>{"a", "b"}),
        Any::From(std::map<std::string, Any>{{"k", Any::From(1U)}}),
        Any::From(AnyText("content")),
        Any::Compose(
            "(ia{us})",
            {Any::From(9), Any::Compose("a{us}", {Any::Compose("{us}", {Any::From(1U), AnyText("x")})})}),
        Any::From(std::vector<std::uint8_t>{1, 2, 3}),
        Any::From(std::vector<double>{})};
    const auto echo = Do(mOdd, [&](const UntypedProxy& odd) {
        return odd.Call(ODD, "Echo", "ybnqiuxtdsogasa{sv}v(ia{us})ayad", values);
    });
    ASSERT_TRUE(echo.IsOk()) << Said(echo);
    ASSERT_EQ(echo->size(), values.size());
    for (std::size_t i = 0; i < values.size(); ++i) {
        EXPECT_EQ((*echo)[i], values[i]) << i << ": " << (*echo)[i].ToText();
    }
}

TEST_F(UntypedProxyTest, RefusesBeforeItSendsWhatDoesNotFit) {
    const std::string invalid = "org.freedesktop.DBus.Error.InvalidArgs: ";
    EXPECT_EQ(Said(CallPeer("Add", "u)", {Any::From(2U)})), invalid + "'u)' is no signature");
    EXPECT_EQ(Said(CallPeer("Add", "uu", {Any::From(2U)})), invalid + "1 argument where 2 are wanted");
    EXPECT_EQ(Said(CallPeer("Add", "", {Any::From(2U), Any::From(2U)})),
              invalid + "2 arguments where 0 are wanted");
    EXPECT_EQ(Said(CallPeer("Add", "u", {})), invalid + "0 arguments where 1 is wanted");
    EXPECT_EQ(Said(CallPeer("Add", "uu", {Any::From(2U), Any::From(3)})),
              invalid + "argument 2: 'i' where 'u' is wanted");
    EXPECT_EQ(Said(CallPeer("Add", "uu", {Any(), Any::From(3U)})), invalid + "argument 1: no value");
    EXPECT_EQ(Said(CallPeer("No member", "", {})), invalid + "'No member' is no name of a member");
    EXPECT_EQ(Said(Do([](const UntypedProxy& peer) { return peer.Call("interface", "Member", ""); })),
              invalid + "'interface' is no name of an interface");
    EXPECT_EQ(Said(Do([](const UntypedProxy& peer) { return peer.Get(PEER1, ""); })),
              invalid + "'' is no name of a member");
    EXPECT_EQ(Said(Do([](const UntypedProxy& peer) { return peer.GetAll("x"); })),
              invalid + "'x' is no name of an interface");
    EXPECT_EQ(Said(Do([](const UntypedProxy& peer) { return peer.Set(PEER1, "Target", Any()); })),
              invalid + "no value");
    EXPECT_EQ(Said(Do(UntypedProxy(*mServed.typed, "no name", "/"),
                      [](const UntypedProxy& peer) { return peer.Introspect(); })),
              invalid + "'no name' is no name of a service");
    // Nothing of it was sent, and the connection works.
    EXPECT_TRUE(CallPeer("Add", "uu", {Any::From(2U), Any::From(3U)}).IsOk());
}

TEST_F(UntypedProxyTest, TheArgumentForWhichThereIsNoMemoryIsTold) {
    const FaultScope scope(fault_sd_bus_message_open_container);
    EXPECT_EQ(Said(Do([](const UntypedProxy& peer) {
                  fault_sd_bus_message_open_container.Fail(-ENOMEM);
                  return peer.Set(PEER1, "Note", AnyText("cold"));
              })),
              "org.freedesktop.DBus.Error.NoMemory: argument 3 cannot be sent: Cannot allocate memory");
}

TEST_F(UntypedProxyTest, GivesThePeersErrors) {
    EXPECT_EQ(Said(CallPeer("Fail", "", {})), "com.example.Error.TooHot: more than 100 degrees");
    EXPECT_EQ(CallPeer("Missing", "", {}).GetError().GetStatus(), StatusCode::NotSupported);
    // Of a type that the peer does not take.
    EXPECT_EQ(CallPeer("Echo", "u", {Any::From(1U)}).GetError().GetStatus(), StatusCode::InvalidArgument);
    const auto late = Do(
        [](const UntypedProxy& peer) { return peer.Call(PEER1, "Hold", "u", {Any::From(1U)}).Within(10ms); });
    EXPECT_EQ(late.GetError().GetStatus(), StatusCode::Timeout);
}

TEST_F(UntypedProxyTest, AReplyThatCannotBeKeptIsAnError) {
    EXPECT_EQ(Said(Do(mOdd, [](const UntypedProxy& odd) { return odd.Call(ODD, "Descriptor", ""); })),
              "mwl.Typed.Error.WrongReply: result 2: a file descriptor where none can be kept");
    mServed.On([this] { EXPECT_EQ(mServed.typed->GetCounters().wrongReplies, 1U); });
}

TEST_F(UntypedProxyTest, ReadsAndWritesProperties) {
    const auto level = Do([](const UntypedProxy& peer) { return peer.Get(PEER1, "Level"); });
    ASSERT_TRUE(level.IsOk()) << Said(level);
    EXPECT_EQ(*level, Any::From(21U));
    EXPECT_EQ(Said(Do([](const UntypedProxy& peer) { return peer.Set(PEER1, "Note", AnyText("cold")); })),
              "");
    const auto all = Do([](const UntypedProxy& peer) { return peer.GetAll(PEER1); });
    ASSERT_TRUE(all.IsOk()) << Said(all);
    EXPECT_EQ(*all, (std::map<std::string, Any>{{"Level", Any::From(21U)},
                                                {"Title", Any::From(5U)},
                                                {"Target", Any::From(20.5)},
                                                {"Note", AnyText("cold")}}));
    const auto ofAll = Do([](const UntypedProxy& peer) { return peer.GetAll(""); });
    ASSERT_TRUE(ofAll.IsOk()) << Said(ofAll);
    EXPECT_EQ(ofAll->count("Level"), 1U);
    EXPECT_FALSE(Do([](const UntypedProxy& peer) { return peer.Get(PEER1, "Missing"); }).IsOk());
    EXPECT_FALSE(Do([](const UntypedProxy& peer) { return peer.Set(PEER1, "Level", Any::From(1U)); }).IsOk());
    EXPECT_FALSE(Do([](const UntypedProxy& peer) { return peer.Set(PEER1, "Note", Any::From(1U)); }).IsOk());
}

TEST_F(UntypedProxyTest, LearnsAnInterfaceAndCallsIt) {
    const auto node = Do([](const UntypedProxy& peer) { return peer.Introspect(); });
    ASSERT_TRUE(node.IsOk()) << Said(node);
    const Introspection::Interface* const interface = node->FindInterface(PEER1);
    ASSERT_NE(interface, nullptr);
    EXPECT_EQ(interface->FindProperty("Target")->access, Introspection::Access::ReadWrite);
    EXPECT_EQ(interface->FindSignal("Told")->GetSignature(), "u");
    const Introspection::Method* const add = interface->FindMethod("Add");
    ASSERT_NE(add, nullptr);
    const auto sum = CallPeer(add->name, add->GetInSignature(), {Any::From(2U), Any::From(3U)});
    ASSERT_TRUE(sum.IsOk()) << Said(sum);
    EXPECT_EQ(sum->front().GetSignature(), add->GetOutSignature());
}

TEST_F(UntypedProxyTest, IntrospectsWhatATypedServiceHas) {
    mServed.On([this] { mServed.Export("/room/one"); });
    const UntypedProxy typed(*mServed.typed, tern::test::SERVICE, "/room/one");
    const auto one = Do(typed, [](const UntypedProxy& room) { return room.Introspect(); });
    ASSERT_TRUE(one.IsOk()) << Said(one);
    const Introspection::Interface* const room = one->FindInterface(tern::test::ROOM);
    ASSERT_NE(room, nullptr);
    EXPECT_EQ(room->FindMethod("Later")->GetInSignature(), "u");
    EXPECT_EQ(room->FindMethod("Later")->arguments[1].name, "result");
    EXPECT_EQ(room->properties.size(), 5U);
    const UntypedProxy above(*mServed.typed, tern::test::SERVICE, "/");
    const auto root = Do(above, [](const UntypedProxy& it) { return it.Introspect(); });
    ASSERT_TRUE(root.IsOk()) << Said(root);
    ASSERT_EQ(root->children.size(), 1U);
    EXPECT_EQ(root->children[0].name, "room");
}

TEST_F(UntypedProxyTest, IntrospectionThatIsNotSoundIsAnError) {
    const UntypedProxy text(*mServed.typed, "com.example.Odd", "/text");
    const auto introspect = [&](const std::string& xml) {
        mOddPeer.text = xml;
        return Do(text, [](const UntypedProxy& odd) { return odd.Introspect(); });
    };
    EXPECT_EQ(introspect("<node name='/text'/>")->name, "/text");
    EXPECT_EQ(Said(introspect("<node>\n<interface name='1'/></node>")),
              "mwl.Typed.Error.WrongReply: the result: line 2: '1' is no interface name");
    EXPECT_EQ(Said(introspect("")), "mwl.Typed.Error.WrongReply: the result: line 1: no element found");
}

TEST_F(UntypedProxyTest, HearsSignalsOfEveryType) {
    std::vector<std::string> heard;
    Subscription happened;
    mServed.On([&] {
        happened = mOdd.On(ODD, "Happened", [&heard](const std::vector<Any>& values) {
            std::string all;
            for (const Any& value : values) {
                all += value.GetSignature() + " " + value.ToText() + "; ";
            }
            heard.push_back(all);
        });
    });
    EXPECT_TRUE(
        WaitUntil([&] { return mServed.On([&] { return happened.GetStatus() == mwl::StatusCode::Ok; }); }));
    const auto emitted = Do(mOdd, [](const UntypedProxy& odd) { return odd.Call(ODD, "Emit", ""); });
    EXPECT_EQ(Said(emitted), "");
    mServed.On([&] {
        EXPECT_THAT(heard, ElementsAre("u 5; (sb) (\"x\", true); ", ""));
        EXPECT_EQ(mServed.typed->GetCounters().wrongSignals, 1U);
        happened.Reset();
    });
}

TEST_F(UntypedProxyTest, SharesItsRemote) {
    const UntypedProxy same(mPeer.GetRemote());
    EXPECT_TRUE(Do(same, [](const UntypedProxy& peer) {
                    return peer.Call(PEER1, "Add", "uu", {Any::From(2U), Any::From(3U)});
                }).IsOk());
    UntypedProxy hasty = mPeer;
    hasty.SetTimeout(1ms);
    EXPECT_EQ(mPeer.GetRemote()->GetTimeout(), 1ms);
}
