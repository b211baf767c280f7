#include "heating_watch.h"

#include <tern/foundation/log.h>
#include <tern/typed/sleep.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <utility>

#include "names.h"

using mw::tern::StatusCode;
using mwl::Typed::Outcome;
using namespace std::chrono_literals;

namespace heating_watch {

namespace {

const std::string LOGGER = "HeatingWatch";

constexpr double TOLERANCE = 2.0;
constexpr std::uint32_t BOOST_SECONDS = 5;

}  // namespace

StatusCode HeatingWatch::Start(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop) {
    if (const StatusCode status = mBus.Open(manager, loop); status != StatusCode::Ok) {
        return status;
    }
    mThermostat.emplace(mBus, my_thermostat::BUS_NAME, my_thermostat::OBJECT_PATH);
    mProperties.emplace(*mThermostat);
    mMeasured = mThermostat->On(Thermostat1::Measured, [this](double celsius) { mRoom = celsius; });
    mPeer = mwl::Typed::PeerWatch(
        mBus, my_thermostat::BUS_NAME, [this](const std::string&) { OnAppear(); }, [this] { OnVanish(); });
    return StatusCode::Ok;
}

void HeatingWatch::OnAppear() {
    TERN_LOG_INFO(LOGGER, "The thermostat is here");
    mGuard = Guard();
}

void HeatingWatch::OnVanish() {
    TERN_LOG_WARNING(LOGGER, "The thermostat is away");
    mGuard = {};
    mRoom.reset();
    mState = State::Unknown;
}

mwl::Typed::Task<> HeatingWatch::Guard() {
    while (co_await mwl::Typed::Sleep(mBus, 1s) == StatusCode::Ok) {
        const std::optional<double> target = mProperties->Get<Thermostat1::Target>();
        if (!mRoom.has_value() || !target.has_value()) {
            continue;  // nothing heard yet
        }
        if (*mRoom >= *target - TOLERANCE) {
            if (Enter(State::Warm)) {
                TERN_LOG_INFO(LOGGER, "%.3f degrees where %.1f are wanted: warm enough", *mRoom, *target);
            }
            continue;
        }
        const Outcome<void> boosted =
            co_await mThermostat->Call(Thermostat1::Boost, BOOST_SECONDS).Within(2s);
        if (boosted.IsOk() && Enter(State::Cold)) {
            TERN_LOG_INFO(LOGGER, "%.3f degrees where %.1f are wanted: boosted", *mRoom, *target);
        } else if (!boosted.IsOk() && Enter(State::NoAnswer)) {
            TERN_LOG_WARNING(LOGGER, "The room is cold, and there is no boost: %s",
                             boosted.GetError().GetText().c_str());
        }
    }
}

bool HeatingWatch::Enter(State state) {
    return std::exchange(mState, state) != state;
}

}  // namespace heating_watch
