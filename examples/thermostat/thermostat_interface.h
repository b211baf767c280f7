#pragma once

#include <tern/foundation/status_code.h>
#include <tern/service/dbus_interface.h>

#include <functional>
#include <string>

#include "room.h"

namespace thermostat {

/// com.example.Thermostat1: what the thermostat shows on the bus.
///
///     Boost(u seconds)                heats for a while, whatever the target says
///     ExportLog(s password) -> s      packs the log folder, encrypted; replies with the archive's path when
///                                     it is complete, or with the reason why it is not; one at a time,
///                                     com.example.Thermostat1.Error.Busy otherwise
///     Trial(s what)                   only with debug=1: breaks the service (class Trials)
///     Temperature d  read-only        last measurement, degrees Celsius
///     Target d       read and write   5 to 30 degrees Celsius; anything else is refused
///     Heating b      read-only
///     Measured(d celsius)             signal, every measurement
///     LogExported(s path, s status)   signal, an export has ended
///
/// D-Bus thread only.
class ThermostatInterface : public mw::tern::DBusInterface {
public:
    using ExportDone = std::function<void(const std::string& path, mw::tern::StatusCode result)>;

    /// What the interface asks of the extension; each runs on the D-Bus thread.
    struct Actions {
        std::function<void(unsigned int seconds)> boost;
        /// False when the target could not be stored, and then it has not changed.
        std::function<bool(double celsius)> setTarget;
        /// Begins an export, which runs `done` when the archive is complete or has failed.
        /// False while another one runs.
        std::function<bool(const std::string& password, ExportDone done)> exportLog;
        /// False for a trial that is not known; empty where trials are not allowed.
        std::function<bool(const std::string& what)> trial;
    };

    /// The room outlives the interface.
    ThermostatInterface(const Room& room, Actions actions);

    const sd_bus_vtable* GetVtable() const override;
    void* GetUserData() override { return this; }

    /// A new measurement: Temperature (and Heating, when it changed) are announced on the bus.
    void SetTemperature(sd_bus* bus, double celsius);

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
    double mTemperature;
    bool mHeating = false;
};

}  // namespace thermostat
