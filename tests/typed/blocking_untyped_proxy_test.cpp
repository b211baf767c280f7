#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <tern/typed/blocking_untyped_proxy.h>

#include <chrono>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "peer_service.h"
#include "support/private_bus.h"

using namespace mwl::Typed;
using namespace std::chrono_literals;
using tern::test::Peer1;
using tern::test::PEER_PATH;
using tern::test::PeerService;
using tern::test::PrivateBus;
using tern::test::Said;
using testing::ElementsAre;

namespace {

const std::string PEER1 = Peer1::NAME;

class BlockingUntypedProxyTest : public testing::Test {
protected:
    PrivateBus mBus;
    PeerService mService;
    BlockingUntypedProxy mPeer{tern::test::PEER, PEER_PATH};
};

/// The lines of a command's output.
std::vector<std::string> LinesOf(const std::string& command) {
    std::vector<std::string> lines;
    FILE* const output = popen(command.c_str(), "re");
    char line[4096];
    while (output != nullptr && fgets(line, sizeof line, output) != nullptr) {
        lines.emplace_back(line);
    }
    return output != nullptr && pclose(output) == 0 ? lines : std::vector<std::string>();
}

}  // namespace

TEST_F(BlockingUntypedProxyTest, CallsAndTakesTheResults) {
    const auto sum = mPeer.Call(PEER1, "Add", "uu", {Any::From(2U), Any::From(3U)});
    ASSERT_TRUE(sum.IsOk()) << Said(sum);
    EXPECT_THAT(*sum, ElementsAre(Any::From(5U)));
    EXPECT_TRUE(mPeer.Call(PEER1, "Tell", "u", {Any::From(1U)})->empty());
}

TEST_F(BlockingUntypedProxyTest, ReadsAndWritesProperties) {
    EXPECT_EQ(*mPeer.Get(PEER1, "Level"), Any::From(21U));
    EXPECT_EQ(Said(mPeer.Set(PEER1, "Target", Any::From(18.5))), "");
    const auto all = mPeer.GetAll(PEER1);
    ASSERT_TRUE(all.IsOk()) << Said(all);
    EXPECT_EQ(all->at("Target"), Any::From(18.5));
    EXPECT_EQ(all->size(), 4U);
}

TEST_F(BlockingUntypedProxyTest, GivesErrors) {
    const std::string invalid = "org.freedesktop.DBus.Error.InvalidArgs: ";
    EXPECT_EQ(Said(mPeer.Call(PEER1, "Fail", "")), "com.example.Error.TooHot: more than 100 degrees");
    EXPECT_EQ(Said(mPeer.Call(PEER1, "Add", "uu", {Any::From(2U), Any::From(3)})),
              invalid + "argument 2: 'i' where 'u' is wanted");
    EXPECT_EQ(Said(mPeer.Get("x", "Level")), invalid + "'x' is no name of an interface");
    EXPECT_EQ(Said(mPeer.GetAll("x")), invalid + "'x' is no name of an interface");
    EXPECT_EQ(Said(mPeer.Set(PEER1, "Target", Any())), invalid + "no value");
    EXPECT_EQ(mPeer.Within(10ms).Call(PEER1, "Hold", "u", {Any::From(1U)}).GetError().GetStatus(),
              StatusCode::Timeout);
    const BlockingUntypedProxy nobody(mPeer.GetBus(), "com.example.Nobody", "/");
    EXPECT_EQ(nobody.Introspect().GetError().GetStatus(), StatusCode::NotFound);
    tern::test::Served served;
    served.On([this] { EXPECT_EQ(mPeer.Introspect().GetError().GetStatus(), StatusCode::Deadlock); });
}

// Both look at the same object.
TEST_F(BlockingUntypedProxyTest, IntrospectsWhatBusctlDoes) {
    if (LinesOf("busctl --version").empty()) {
        GTEST_SKIP() << "busctl is not installed";
    }
    const auto node = mPeer.Introspect();
    ASSERT_TRUE(node.IsOk()) << Said(node);
    std::set<std::string> seen;
    for (const Introspection::Interface& interface : node->interfaces) {
        seen.insert(interface.name + " interface - -");
        for (const Introspection::Method& method : interface.methods) {
            seen.insert(interface.name + " ." + method.name + " method " +
                        (method.GetInSignature().empty() ? "-" : method.GetInSignature()) + " " +
                        (method.GetOutSignature().empty() ? "-" : method.GetOutSignature()));
        }
        for (const Introspection::Signal& signal : interface.signals) {
            seen.insert(interface.name + " ." + signal.name + " signal " +
                        (signal.GetSignature().empty() ? "-" : signal.GetSignature()) + " -");
        }
        for (const Introspection::Property& property : interface.properties) {
            seen.insert(interface.name + " ." + property.name + " property " + property.type + " ");
        }
    }
    std::set<std::string> told;
    std::string interface;
    for (const std::string& line : LinesOf(std::string("busctl --system --no-pager --no-legend introspect ") +
                                           tern::test::PEER + " " + PEER_PATH)) {
        std::istringstream words(line);
        std::string name;
        std::string kind;
        std::string signature;
        std::string result;
        words >> name >> kind >> signature >> result;
        if (kind == "interface") {
            interface = name;
            name.clear();
        } else {
            name.insert(0, " ");
        }
        told.insert(interface + name + " " + kind + " " + signature + " " +
                    (kind == "property" ? "" : result));
    }
    EXPECT_GT(told.size(), 20U);
    EXPECT_EQ(seen, told);
}
