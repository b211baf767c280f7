#pragma once

#include <tern/service/dbus_interface.h>

#include <functional>
#include <string>

#include "room.h"

namespace thermostat {

/// com.example.Thermostat1: what the thermostat shows on the bus.
///
///     Boost(u seconds)                heats for a while, whatever the target says
///     ExportLog(s password) -> s      packs the log folder, encrypted, into the archive that is named
///     Trial(s what)                   only with debug=1: "hang-bus", "hang-control", "hang-pool",
///     "fail-control"
///                                     or "exit"; shows that the service recovers
///     Temperature d  read-only        last measurement, degrees Celsius
///     Target d       read and write   5 to 30 degrees Celsius; anything else is refused
///     Heating b      read-only
///     Measured(d celsius)             signal, every measurement
///     LogExported(s path, s status)   signal, an export has ended
///
/// D-Bus thread only.
class ThermostatInterface : public mw::tern::DBusInterface {
public:
    /// What the interface asks of the extension; each runs on the D-Bus thread.
    struct Actions {
        std::function<void(unsigned int seconds)> boost;
        /// False when the target could not be stored, and then it has not changed.
        std::function<bool(double celsius)> setTarget;
        /// Begins an export and names its archive.
        std::function<std::string(const std::string& password)> exportLog;
        /// False for a trial that is not known; empty where trials are not allowed.
        std::function<bool(const std::string& what)> trial;
    };

    /// The room outlives the interface.
    ThermostatInterface(const Room& room, Actions actions);

    const sd_bus_vtable* GetVtable() const override;
    void* GetUserData() override { return this; }

    /// A new measurement: Temperature (and Heating, when it changed) are announced on the bus.
    void SetTemperature(sd_bus* bus, double celsius);
    /// An export has ended.
    static void EmitLogExported(sd_bus* bus, const std::string& path, const std::string& status);

private:
    static int OnBoost(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int OnExportLog(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int OnTrial(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int OnGetTarget(sd_bus* bus, const char* path, const char* interface, const char* property,
                           sd_bus_message* reply, void* userdata, sd_bus_error* error);
    static int OnSetTarget(sd_bus* bus, const char* path, const char* interface, const char* property,
                           sd_bus_message* value, void* userdata, sd_bus_error* error);
    static int OnGetTemperature(sd_bus* bus, const char* path, const char* interface, const char* property,
                                sd_bus_message* reply, void* userdata, sd_bus_error* error);
    static int OnGetHeating(sd_bus* bus, const char* path, const char* interface, const char* property,
                            sd_bus_message* reply, void* userdata, sd_bus_error* error);

    const Room& mRoom;
    Actions mActions;
    double mTemperature = 0.0;
    bool mHeating = false;
};

}  // namespace thermostat
