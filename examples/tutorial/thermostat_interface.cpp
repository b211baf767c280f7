#include "thermostat_interface.h"

using mwl::Typed::Error;
using mwl::Typed::Outcome;

namespace my_thermostat {

namespace {

constexpr std::uint32_t STEPS_PER_SECOND = 10;
constexpr std::uint32_t MAX_BOOST_SECONDS = 3600;

}  // namespace

Outcome<void> ThermostatInterface::Boost(std::uint32_t seconds) {
    if (seconds > MAX_BOOST_SECONDS) {
        return Error::InvalidArgs("that is more than an hour");
    }
    mRoom.Boost(seconds * STEPS_PER_SECOND);
    return {};
}

Outcome<void> ThermostatInterface::SetTarget(double celsius) {
    if (!(celsius >= 5.0 && celsius <= 30.0)) {  // written so that it refuses "not a number" as well
        return Error::InvalidArgs("the target has to be 5 to 30 degrees");
    }
    mRoom.SetTarget(celsius);
    return {};
}

void ThermostatInterface::Measure(double celsius) {
    static_cast<void>(Emit<Thermostat1::Measured>(celsius));
    Changed<Thermostat1::Temperature>();
}

}  // namespace my_thermostat
