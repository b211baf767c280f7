#include "thermostat_interface.h"

#include <systemd/sd-bus.h>

#include <cmath>
#include <memory>

#include "names.h"

using mw::tern::StatusCode;

namespace thermostat {

namespace {

constexpr unsigned int MAX_BOOST_SECONDS = 3600;

constexpr const char* BUSY_ERROR = "com.example.Thermostat1.Error.Busy";

ThermostatInterface& Self(void* userdata) {
    return *static_cast<ThermostatInterface*>(userdata);
}

/// Nobody is told of what cannot be sent: whoever called may be gone by now, and a lost bus ends the service.
void ReplyExportLog(sd_bus_message* call, const std::string& path, StatusCode result) {
    const std::string status = mw::tern::ConvertStatusCodeToString(result);
    if (result == StatusCode::Ok) {
        sd_bus_reply_method_return(call, "s", path.c_str());
    } else {
        sd_bus_reply_method_errorf(call, SD_BUS_ERROR_FAILED, "the archive %s could not be written: %s",
                                   path.c_str(), status.c_str());
    }
    sd_bus_emit_signal(sd_bus_message_get_bus(call), OBJECT_PATH.c_str(), INTERFACE_NAME.c_str(),
                       "LogExported", "ss", path.c_str(), status.c_str());
}

}  // namespace

ThermostatInterface::ThermostatInterface(const Room& room, Actions actions)
    : DBusInterface(INTERFACE_NAME),
      mRoom(room),
      mActions(std::move(actions)),
      mTemperature(room.GetTemperature()) {}

const sd_bus_vtable* ThermostatInterface::GetVtable() const {
    static const sd_bus_vtable table[] = {
        SdBusVtableStart(0),
        SdBusMethod("Boost", "u", "", &OnBoost, SD_BUS_VTABLE_UNPRIVILEGED),
        SdBusMethod("ExportLog", "s", "s", &OnExportLog,
                    SD_BUS_VTABLE_UNPRIVILEGED | SD_BUS_VTABLE_SENSITIVE),
        SdBusMethod("Trial", "s", "", &OnTrial, SD_BUS_VTABLE_UNPRIVILEGED | SD_BUS_VTABLE_HIDDEN),
        SdBusProperty("Temperature", "d", &OnGetTemperature, 0, SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
        SdBusWritableProperty("Target", "d", &OnGetTarget, &OnSetTarget, 0,
                              SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE | SD_BUS_VTABLE_UNPRIVILEGED),
        SdBusProperty("Heating", "b", &OnGetHeating, 0, SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
        SdBusSignal("Measured", "d", 0),
        SdBusSignal("LogExported", "ss", 0),
        SdBusVtableEnd()};
    return table;
}

void ThermostatInterface::SetTemperature(sd_bus* bus, double celsius) {
    mTemperature = celsius;
    const bool heating = mRoom.IsHeating();
    const bool heatingChanged = heating != mHeating;
    mHeating = heating;
    sd_bus_emit_properties_changed(bus, OBJECT_PATH.c_str(), INTERFACE_NAME.c_str(), "Temperature",
                                   heatingChanged ? "Heating" : nullptr, nullptr);
}

int ThermostatInterface::OnBoost(sd_bus_message* message, void* userdata, sd_bus_error* error) {
    unsigned int seconds = 0;
    const int r = sd_bus_message_read(message, "u", &seconds);
    if (r < 0) {
        return r;
    }
    if (seconds > MAX_BOOST_SECONDS) {
        return sd_bus_error_setf(error, SD_BUS_ERROR_INVALID_ARGS, "%u seconds are more than an hour",
                                 seconds);
    }
    Self(userdata).mActions.boost(seconds);
    return sd_bus_reply_method_return(message, "");
}

int ThermostatInterface::OnExportLog(sd_bus_message* message, void* userdata, sd_bus_error* error) {
    const char* password = nullptr;
    const int r = sd_bus_message_read(message, "s", &password);
    if (r < 0) {
        return r;
    }
    if (*password == '\0') {
        return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS, "the log is exported only with a password");
    }
    // The reply comes later, so the call is kept: by this thread alone, and no longer than the bus.
    const std::shared_ptr<sd_bus_message> call(sd_bus_message_ref(message), sd_bus_message_unref);
    if (!Self(userdata).mActions.exportLog(password, [call](const std::string& path, StatusCode result) {
            ReplyExportLog(call.get(), path, result);
        })) {
        return sd_bus_error_set(error, BUSY_ERROR, "an export is running already, try again when it is done");
    }
    return 1;
}

int ThermostatInterface::OnTrial(sd_bus_message* message, void* userdata, sd_bus_error* error) {
    const char* what = nullptr;
    const int r = sd_bus_message_read(message, "s", &what);
    if (r < 0) {
        return r;
    }
    if (!Self(userdata).mActions.trial) {
        return sd_bus_error_set(error, SD_BUS_ERROR_ACCESS_DENIED, "trials need debug=1 in the settings");
    }
    if (!Self(userdata).mActions.trial(what)) {
        return sd_bus_error_setf(error, SD_BUS_ERROR_INVALID_ARGS, "there is no trial '%s'", what);
    }
    return sd_bus_reply_method_return(message, "");
}

int ThermostatInterface::OnGetTarget(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                                     void* userdata, sd_bus_error*) {
    return sd_bus_message_append(reply, "d", Self(userdata).mRoom.GetTarget());
}

int ThermostatInterface::OnSetTarget(sd_bus* bus, const char* path, const char* interface,
                                     const char* property, sd_bus_message* value, void* userdata,
                                     sd_bus_error* error) {
    double celsius = NAN;
    const int r = sd_bus_message_read(value, "d", &celsius);
    if (r < 0) {
        return r;
    }
    if (!(celsius >= MIN_TARGET && celsius <= MAX_TARGET)) {
        return sd_bus_error_setf(error, SD_BUS_ERROR_INVALID_ARGS,
                                 "the target has to be between %g and %g degrees", MIN_TARGET, MAX_TARGET);
    }
    if (!Self(userdata).mActions.setTarget(celsius)) {
        return sd_bus_error_set(error, SD_BUS_ERROR_FAILED, "the target could not be stored");
    }
    // sd-bus announces nothing by itself; clients that keep the value rely on it.
    return sd_bus_emit_properties_changed(bus, path, interface, property, nullptr);
}

int ThermostatInterface::OnGetTemperature(sd_bus*, const char*, const char*, const char*,
                                          sd_bus_message* reply, void* userdata, sd_bus_error*) {
    return sd_bus_message_append(reply, "d", Self(userdata).mTemperature);
}

int ThermostatInterface::OnGetHeating(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                                      void* userdata, sd_bus_error*) {
    return sd_bus_message_append(reply, "b", Self(userdata).mHeating ? 1 : 0);
}

}  // namespace thermostat
