#pragma once

#include <tern/service/dbus_interface.h>

#include "room.h"

namespace my_thermostat {

/// What the thermostat shows on the bus:
///
///     Boost(u seconds)           heats for a while, at most an hour
///     Target d, read and write   5 to 30 degrees Celsius; anything else is refused
///     Temperature d, read-only   degrees Celsius
///     Measured(d celsius)        signal
///
/// D-Bus thread only.
class ThermostatInterface : public mw::tern::DBusInterface {
public:
    /// The room outlives the interface.
    explicit ThermostatInterface(Room& room);

    const sd_bus_vtable* GetVtable() const override;
    void* GetUserData() override { return this; }

    /// Sends the signal Measured.
    static void EmitMeasured(sd_bus* bus, double celsius);

private:
    static int OnBoost(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int OnGetTarget(sd_bus* bus, const char* path, const char* interface, const char* property,
                           sd_bus_message* reply, void* userdata, sd_bus_error* error);
    static int OnSetTarget(sd_bus* bus, const char* path, const char* interface, const char* property,
                           sd_bus_message* value, void* userdata, sd_bus_error* error);
    static int OnGetTemperature(sd_bus* bus, const char* path, const char* interface, const char* property,
                                sd_bus_message* reply, void* userdata, sd_bus_error* error);

    Room& mRoom;
};

}  // namespace my_thermostat
