// The code of docs/typed.md about calls of other services, compiled and run: each block there stands here
// word for word.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tern/typed/proxy.h>
#include <tern/typed/task.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "support/private_bus.h"
#include "support/wait_until.h"
#include "typed/heater.h"
#include "typed/served_bus.h"

namespace guide {

using mwl::StatusCode;
using namespace mwl::Typed;
using namespace std::chrono_literals;

// clang-format off: word for word
class Panel {
public:
    explicit Panel(const Bus& bus) : mHeater(bus, "com.example.Heater", "/com/example/Heater") {}

    void Boost(std::uint32_t seconds) {
        mBoost = mHeater.Call(Heater1::Boost, seconds).Within(2s).Then([this](Outcome<void> boosted) {
            Show(boosted.IsOk() ? "heating" : boosted.GetError().GetText());
        });
    }

private:
    void Show(std::string text) { shown = std::move(text); }

    Proxy<Heater1> mHeater;
    Pending mBoost;

public:
    Task<> Warm(double degrees) {
        const Outcome<double> target = co_await mHeater.Get(Heater1::Target);
        if (!target.IsOk()) {
            Show(target.GetError().GetText());
            co_return;
        }
        const Outcome<void> set = co_await mHeater.Set(Heater1::Target, *target + degrees).Within(2s);
        Show(set.IsOk() ? "warmer" : set.GetError().GetText());
    }

    const Proxy<Heater1>& GetHeater() const { return mHeater; }
    std::string shown;
};

std::string BoostFromWorker(const Proxy<Heater1>& heater) {
    Future<void> boost = heater.CallFromWorker(Heater1::Boost, 60u);
    const Outcome<void> boosted = boost.Wait(3s);
    return boosted.IsOk() ? "heating" : boosted.GetError().GetText();
}
// clang-format on

TEST(CallsGuide, TheBlocksDoWhatTheTextSays) {
    const tern::test::PrivateBus daemon;
    tern::test::Served served([](tern::test::Served& service) {
        EXPECT_GE(sd_bus_request_name(service.manager->GetBus(), "com.example.Heater", 0), 0);
        service.exported.push_back(service.typed->Export("/com/example/Heater", std::make_unique<Heater>()));
    });
    std::optional<Panel> panel;
    Task<> warming;
    const auto shows = [&](const char* text) {
        return tern::test::WaitUntil([&] { return served.On([&] { return panel->shown == text; }); });
    };
    served.On([&] {
        panel.emplace(*served.typed);
        panel->Boost(60);
    });
    EXPECT_TRUE(shows("heating"));
    served.On([&] { panel->Boost(7200); });
    EXPECT_TRUE(shows("more than an hour"));
    served.On([&] { warming = panel->Warm(1.5); });
    EXPECT_TRUE(shows("warmer"));
    EXPECT_EQ(BoostFromWorker(panel->GetHeater()), "heating");
    served.On([&] {
        warming = {};
        panel.reset();
    });
}

}  // namespace guide
