// The code of docs/typed.md about tools and about interfaces that are not known before, compiled and run.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tern/typed/blocking_proxy.h>
#include <tern/typed/blocking_untyped_proxy.h>
#include <tern/typed/untyped_proxy.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "support/private_bus.h"
#include "support/wait_until.h"
#include "typed/heater.h"
#include "typed/served_bus.h"

namespace guide {

using mwl::StatusCode;
using namespace mwl::Typed;
using namespace std::chrono_literals;

// The blocks stand here as they do on the page.
// clang-format off
int Boost(const std::string& destination) {
    const BlockingProxy<Heater1> heater(destination, "/com/example/Heater");
    const Outcome<void> boosted = heater.Call(Heater1::Boost, 60u);
    if (!boosted.IsOk()) {
        std::fprintf(stderr, "cannot boost: %s\n", boosted.GetError().GetText().c_str());
        return EXIT_FAILURE;
    }
    const Outcome<double> target = heater.Get(Heater1::Target);
    if (target.IsOk()) {
        std::printf("heating to %.1f degrees\n", *target);
    }
    return EXIT_SUCCESS;
}

int Complain(const Error& error) {
    std::fprintf(stderr, "%s\n", error.GetText().c_str());
    return EXIT_FAILURE;
}

class Explorer {
public:
    static int Explore(const std::string& destination) {
        const BlockingUntypedProxy object(destination, "/com/example/Heater");
        const Outcome<Introspection::Node> node = object.Introspect();
        if (!node.IsOk()) {
            return Complain(node.GetError());
        }
        for (const Introspection::Interface& interface : node->interfaces) {
            for (const Introspection::Method& method : interface.methods) {
                std::printf("%s.%s(%s)\n", interface.name.c_str(), method.name.c_str(), method.GetInSignature().c_str());
            }
        }
        const Outcome<std::vector<Any>> results =
            object.Call("com.example.Heater1", "Boost", "u", {Any::From(std::uint32_t{60})});
        const Outcome<Any> target = object.Get("com.example.Heater1", "Target");
        return results.IsOk() && results->empty() && target.IsOk() && target->As<double>() == 20.0 ? EXIT_SUCCESS : EXIT_FAILURE;
    }

    // D-Bus thread.
    void Begin(const UntypedProxy& object) {
        mPending = object.GetAll("com.example.Heater1").Then([this](Outcome<std::map<std::string, Any>> all) {
            mProperties = all.IsOk() ? *std::move(all) : std::map<std::string, Any>();
        });
        mSubscription = object.On("com.example.Heater1", "Measured", [this](const std::vector<Any>& values) {
            mLast = values.empty() ? std::nullopt : values[0].As<double>();
        });
    }
    bool IsListening() const { return mSubscription.GetStatus() == StatusCode::Ok; }
    const std::map<std::string, Any>& GetProperties() const { return mProperties; }
    std::optional<double> GetLast() const { return mLast; }

private:
    Pending mPending;
    Subscription mSubscription;
    std::map<std::string, Any> mProperties;
    std::optional<double> mLast;
};
// clang-format on

class ToolsGuide : public testing::Test {
protected:
    ToolsGuide() {
        mServed.On([this] {
            mServed.exported.push_back(
                mServed.typed->Export("/com/example/Heater", std::make_unique<Heater>()));
        });
    }

    tern::test::PrivateBus mBus;
    tern::test::Served mServed;
};

}  // namespace guide

using namespace guide;
using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

TEST_F(ToolsGuide, AToolCalls) {
    CaptureStdout();
    EXPECT_EQ(Boost(tern::test::SERVICE), EXIT_SUCCESS);
    EXPECT_EQ(GetCapturedStdout(), "heating to 20.0 degrees\n");
    CaptureStderr();
    EXPECT_EQ(Boost("com.example.Nobody"), EXIT_FAILURE);
    EXPECT_NE(GetCapturedStderr().find("cannot boost: "), std::string::npos);
    mBus.Kill();
    CaptureStderr();
    EXPECT_EQ(Boost(tern::test::SERVICE), EXIT_FAILURE);
    EXPECT_THAT(GetCapturedStderr(),
                testing::MatchesRegex("cannot boost: there is no connection to the system bus: .*; is dbus "
                                      "running, is DBUS_SYSTEM_BUS_ADDRESS right\\?\n"));
}

TEST_F(ToolsGuide, AToolWaits) {
    const BlockingProxy<Heater1> heater(tern::test::SERVICE, "/com/example/Heater");
    {
        // clang-format off
        const Outcome<void> patient = heater.Within(2min).Call(Heater1::Boost, 60u);
        // clang-format on
        EXPECT_TRUE(patient.IsOk());
    }
    {
        // clang-format off
        auto measured = heater.Listen(Heater1::Measured);
        const Outcome<void> begun = heater.Call(Heater1::Boost, 60u);
        const Outcome<std::tuple<double>> celsius = measured.Next(10s);
        // clang-format on
        EXPECT_TRUE(begun.IsOk());
        ASSERT_TRUE(celsius.IsOk());
        EXPECT_EQ(std::get<0>(*celsius), 20.0);
    }
}

TEST_F(ToolsGuide, AToolHasOtherBuses) {
    ASSERT_EQ(setenv("DBUS_SESSION_BUS_ADDRESS", mBus.Address().c_str(), 1), 0);
    // clang-format off
    const auto bus = std::make_shared<BlockingBus>(BlockingBus::Which::User);
    const BlockingProxy<Heater1> left(bus, "com.example.Heater", "/com/example/Left");
    const BlockingProxy<Heater1> right(bus, "com.example.Heater", "/com/example/Right");
    // clang-format on
    EXPECT_EQ(left.Ping().GetError().GetStatus(), StatusCode::NotFound);
    EXPECT_EQ(right.GetBus(), left.GetBus());
}

TEST_F(ToolsGuide, AnExplorerLearns) {
    CaptureStdout();
    EXPECT_EQ(Explorer::Explore(tern::test::SERVICE), EXIT_SUCCESS);
    EXPECT_NE(GetCapturedStdout().find("com.example.Heater1.Boost(u)\n"), std::string::npos);
    CaptureStderr();
    EXPECT_EQ(Explorer::Explore("com.example.Nobody"), EXIT_FAILURE);
    EXPECT_NE(GetCapturedStderr(), "");
}

TEST_F(ToolsGuide, AGatewayDoesNotBlock) {
    std::optional<Explorer> explorer;
    mServed.On([&] {
        explorer.emplace();
        explorer->Begin(UntypedProxy(*mServed.typed, tern::test::SERVICE, "/com/example/Heater"));
    });
    EXPECT_TRUE(tern::test::WaitUntil([&] {
        return mServed.On([&] { return explorer->IsListening() && explorer->GetProperties().size() == 2; });
    }));
    EXPECT_TRUE(
        BlockingProxy<Heater1>(tern::test::SERVICE, "/com/example/Heater").Call(Heater1::Boost, 1u).IsOk());
    EXPECT_TRUE(
        tern::test::WaitUntil([&] { return mServed.On([&] { return explorer->GetLast() == 20.0; }); }));
    mServed.On([&] { explorer.reset(); });
}

TEST(ToolsGuideValues, AreComposed) {
    CaptureStdout();
    // clang-format off
    const Any level = Any::Compose("{sv}", {Any::From(std::string("Level")), Any::From(std::uint32_t{5})});
    const Any options = Any::Compose("a{sv}", {level});
    std::puts(options.ToText().c_str());  // {"Level": <5>}
    // clang-format on
    EXPECT_EQ(GetCapturedStdout(), "{\"Level\": <5>}\n");
}
