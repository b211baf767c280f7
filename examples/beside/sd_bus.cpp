// The heater on plain sd-bus and sd-event.
#include <signal.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <cstdint>
#include <cstdlib>

// [interface]
struct Heater {
    double target = 20.0;
};

int OnBoost(sd_bus_message* call, void* userdata, sd_bus_error* error) {
    const auto* const heater = static_cast<Heater*>(userdata);
    std::uint32_t seconds = 0;
    int r = sd_bus_message_read(call, "u", &seconds);
    if (r < 0) {
        return r;
    }
    if (seconds > 3600) {
        return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS, "more than an hour");
    }
    r = sd_bus_emit_signal(sd_bus_message_get_bus(call), "/com/example/Heater", "com.example.Heater1",
                           "Measured", "d", heater->target);
    return r < 0 ? r : sd_bus_reply_method_return(call, "");
}

int GetTarget(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void* userdata,
              sd_bus_error*) {
    return sd_bus_message_append(reply, "d", static_cast<Heater*>(userdata)->target);
}

int SetTarget(sd_bus* bus, const char* path, const char* interface, const char* property,
              sd_bus_message* value, void* userdata, sd_bus_error* error) {
    double celsius = 0.0;
    const int r = sd_bus_message_read(value, "d", &celsius);
    if (r < 0) {
        return r;
    }
    if (!(celsius >= 5 && celsius <= 30)) {
        return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS, "the target is 5 to 30 degrees");
    }
    static_cast<Heater*>(userdata)->target = celsius;
    return sd_bus_emit_properties_changed(bus, path, interface, property, nullptr);
}

const sd_bus_vtable TABLE[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_ARGS("Boost", SD_BUS_ARGS("u", seconds), SD_BUS_NO_RESULT, OnBoost,
                            SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_WRITABLE_PROPERTY("Target", "d", GetTarget, SetTarget, 0,
                             SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE | SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_SIGNAL_WITH_ARGS("Measured", SD_BUS_ARGS("d", celsius), 0), SD_BUS_VTABLE_END};
// [end]

int main() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    Heater heater;
    sd_bus* bus = nullptr;
    sd_event* event = nullptr;
    const bool serving = sd_event_default(&event) >= 0 &&
                         sd_event_add_signal(event, nullptr, SIGTERM, nullptr, nullptr) >= 0 &&
                         sd_bus_open_system(&bus) >= 0 &&
                         sd_bus_add_object_vtable(bus, nullptr, "/com/example/Heater", "com.example.Heater1",
                                                  TABLE, &heater) >= 0 &&
                         sd_bus_request_name(bus, "com.example.Heater", 0) >= 0 &&
                         sd_bus_attach_event(bus, event, SD_EVENT_PRIORITY_NORMAL) >= 0;
    const int result = serving ? sd_event_loop(event) : -1;
    sd_bus_flush_close_unref(bus);
    sd_event_unref(event);
    return result == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
