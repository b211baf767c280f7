// The code of docs/typed.md about watching peers, compiled and run: each block there stands here word for
// word.

#include <tern/typed/object_mirror.h>
#include <tern/typed/peer_watch.h>
#include <tern/typed/property_cache.h>
#include <tern/typed/proxy.h>
#include <tern/typed/subscription.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "typed/watched_peer.h"

namespace guide {

using mwl::StatusCode;
using namespace mwl::Typed;

struct Heater1 {
    static constexpr const char* NAME = "com.example.Heater1";

    static constexpr Property<double> Temperature{"Temperature", EMITS, "Degrees Celsius."};
    static constexpr WritableProperty<double> Target{"Target", EMITS | OPEN, "Degrees Celsius."};
    static constexpr Signal<double> Measured{"Measured", {"celsius"}};

    static constexpr Members<Temperature, Target, Measured> ALL{};
};

/// A client on the D-Bus thread.
class Display {
public:
    explicit Display(const Bus& bus) {
        const Proxy<Heater1> heater(bus, "com.example.Heater", "/com/example/Heater");
        // clang-format off: word for word
        mMeasured = heater.On(Heater1::Measured, [this](double celsius) { Show(celsius); });
        mLogged = heater.On(Heater1::Measured, [this](const Caller& sender, double celsius) {
            Log(sender.GetSender(), celsius);
        });
        mHeater.emplace(heater);  // std::optional<PropertyCache<Heater1>>
        mHeater->OnChange([this](const PropertyChanges<Heater1>& changes) {
            if (changes.Has<Heater1::Target>()) {
                ShowTarget(mHeater->Get<Heater1::Target>());  // std::optional<double>
            }
        });
        mWatch = PeerWatch(
            bus, "com.example.Heater", [this](const std::string& owner) { Log(owner.c_str(), 0); },
            [this] { Hide(); });
        mRooms = ObjectMirror(
            bus, "com.example.Heater", "/com/example",
            [this](const std::string& path, const std::string& interface, const auto& properties) {
                AddRoom(path, interface, properties.size());
            },
            [this](const std::string& path, const std::string&) { RemoveRoom(path); });
        // clang-format on
    }

    std::vector<std::string> shown;
    bool IsReady() const {
        return mMeasured.GetStatus() == StatusCode::Ok && mLogged.GetStatus() == StatusCode::Ok &&
               mHeater->IsReady() && mRooms.GetStatus() == StatusCode::Ok;
    }

private:
    void Show(double celsius) { shown.push_back("measured " + std::to_string(int(celsius))); }
    void Log(const char* sender, double celsius) {
        shown.push_back(std::string(sender) + " " + std::to_string(int(celsius)));
    }
    void ShowTarget(const std::optional<double>& celsius) {
        shown.push_back(celsius ? "target " + std::to_string(int(*celsius)) : "no target");
    }
    void Hide() { shown.emplace_back("hidden"); }
    void AddRoom(const std::string& path, const std::string& interface, std::size_t values) {
        shown.push_back("+" + path + " " + interface + " " + std::to_string(values));
    }
    void RemoveRoom(const std::string& path) { shown.push_back("-" + path); }

    Subscription mMeasured;
    Subscription mLogged;
    std::optional<PropertyCache<Heater1>> mHeater;
    PeerWatch mWatch;
    ObjectMirror mRooms;
};

TEST(WatchGuide, TheBlocksDoWhatTheTextSays) {
    const tern::test::PrivateBus daemon;
    const tern::test::LogCapture log(5);
    std::optional<Display> display;
    tern::test::RawPeer peer;
    peer.Own("com.example.Heater");
    tern::test::Served served;
    served.On([&] { display.emplace(*served.typed); });
    // The calls come in this order: it may not be another.
    peer.Reply(peer.WaitForCall("GetAll"), "a{sv}", 2, "Temperature", "d", 20.0, "Target", "d", 21.0);
    peer.Reply(peer.WaitForCall("GetManagedObjects"), "a{oa{sa{sv}}}", 1, "/com/example/room", 1,
               "com.example.Room1", 1, "Level", "u", 3U);
    EXPECT_TRUE(tern::test::WaitUntil([&] { return served.On([&] { return display->IsReady(); }); }));
    peer.Emit("/com/example/Heater", Heater1::NAME, "Measured", "d", 22.0);
    peer.Ping();
    const std::string name = peer.Name();
    peer.Disown("com.example.Heater");
    peer.Ping();
    served.On([&] {
        EXPECT_THAT(display->shown,
                    testing::UnorderedElementsAre(name + " 0", "target 21",
                                                  "+/com/example/room com.example.Room1 1", "measured 22",
                                                  name + " 22", "no target", "hidden", "-/com/example/room"));
        display.reset();
    });
}

}  // namespace guide
