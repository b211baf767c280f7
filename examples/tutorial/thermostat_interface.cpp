#include "thermostat_interface.h"

#include "names.h"

namespace my_thermostat {

namespace {

constexpr unsigned int STEPS_PER_SECOND = 10;
constexpr unsigned int MAX_BOOST_SECONDS = 3600;

}  // namespace

ThermostatInterface::ThermostatInterface(Room& room) : DBusInterface(INTERFACE_NAME), mRoom(room) {}

const sd_bus_vtable* ThermostatInterface::GetVtable() const {
    static const sd_bus_vtable table[] = {
        SdBusVtableStart(0),
        SdBusMethod("Boost", "u", "", &OnBoost, SD_BUS_VTABLE_UNPRIVILEGED),
        SdBusWritableProperty("Target", "d", &OnGetTarget, &OnSetTarget, 0,
                              SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE | SD_BUS_VTABLE_UNPRIVILEGED),
        SdBusProperty("Temperature", "d", &OnGetTemperature, 0, 0),
        SdBusSignal("Measured", "d", 0),
        SdBusVtableEnd()};
    return table;
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
    static_cast<ThermostatInterface*>(userdata)->mRoom.Boost(seconds * STEPS_PER_SECOND);
    return sd_bus_reply_method_return(message, "");
}

int ThermostatInterface::OnGetTarget(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                                     void* userdata, sd_bus_error*) {
    return sd_bus_message_append(reply, "d", static_cast<ThermostatInterface*>(userdata)->mRoom.GetTarget());
}

int ThermostatInterface::OnSetTarget(sd_bus* bus, const char* path, const char* interface,
                                     const char* property, sd_bus_message* value, void* userdata,
                                     sd_bus_error* error) {
    double celsius = 0.0;
    const int r = sd_bus_message_read(value, "d", &celsius);
    if (r < 0) {
        return r;
    }
    if (!(celsius >= 5.0 && celsius <= 30.0)) {  // written so that it refuses "not a number" as well
        return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS, "the target has to be 5 to 30 degrees");
    }
    static_cast<ThermostatInterface*>(userdata)->mRoom.SetTarget(celsius);
    return sd_bus_emit_properties_changed(bus, path, interface, property, nullptr);
}

int ThermostatInterface::OnGetTemperature(sd_bus*, const char*, const char*, const char*,
                                          sd_bus_message* reply, void* userdata, sd_bus_error*) {
    return sd_bus_message_append(reply, "d",
                                 static_cast<ThermostatInterface*>(userdata)->mRoom.GetTemperature());
}

void ThermostatInterface::EmitMeasured(sd_bus* bus, double celsius) {
    sd_bus_emit_signal(bus, OBJECT_PATH.c_str(), INTERFACE_NAME.c_str(), "Measured", "d", celsius);
}

}  // namespace my_thermostat
