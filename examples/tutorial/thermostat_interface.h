#pragma once

#include <tern/typed/implements.h>

#include "room.h"
#include "thermostat_contract.h"

namespace my_thermostat {

/// The thermostat's object. D-Bus thread only.
class ThermostatInterface final : public Typed::Implements<ThermostatInterface, Thermostat1> {
public:
    /// The room outlives the interface.
    explicit ThermostatInterface(Room& room) : mRoom(room) {}

    static constexpr auto Describe() {
        using Self = ThermostatInterface;
        return Typed::Bindings<Typed::Bind<Thermostat1::Boost, &Self::Boost>,
                               Typed::Bind<Thermostat1::Target, &Self::GetTarget, &Self::SetTarget>,
                               Typed::Bind<Thermostat1::Temperature, &Self::GetTemperature>>();
    }

    /// Announces a measurement.
    void Measure(double celsius);

private:
    Typed::Outcome<void> Boost(std::uint32_t seconds);
    double GetTarget() const { return mRoom.GetTarget(); }
    Typed::Outcome<void> SetTarget(double celsius);
    double GetTemperature() const { return mRoom.GetTemperature(); }

    Room& mRoom;
};

}  // namespace my_thermostat
