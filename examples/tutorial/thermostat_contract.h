#pragma once

#include <tern/typed/contract.h>

#include <cstdint>

namespace my_thermostat {

namespace Typed = mwl::Typed;

/// What the thermostat shows on the bus.
struct Thermostat1 {
    static constexpr const char* NAME = "com.example.MyThermostat1";

    static constexpr Typed::Method<void(std::uint32_t)> Boost{
        "Boost", {"seconds"}, Typed::OPEN, "Heats for a while, at most an hour."};
    static constexpr Typed::WritableProperty<double> Target{
        "Target", Typed::EMITS | Typed::OPEN, "5 to 30 degrees Celsius; anything else is refused."};
    static constexpr Typed::Property<double> Temperature{"Temperature", Typed::EMITS, "Degrees Celsius."};
    static constexpr Typed::Signal<double> Measured{"Measured", {"celsius"}};

    static constexpr Typed::Members<Boost, Target, Temperature, Measured> ALL{};
};

}  // namespace my_thermostat
