#pragma once

#include <systemd/sd-bus.h>

#include <cstdio>
#include <cstdlib>

#include "bench_types.h"

namespace bench {

inline void Require(int r, const char* what) {
    if (r < 0) {
        fprintf(stderr, "%s: %d\n", what, r);
        exit(1);
    }
}

/// A connection with that vtable on it, and the name; then what comes, until "Quit" is called. The same for
/// the vtable written by hand and for the typed one, so that what differs is what they do.
inline void Serve(const sd_bus_vtable* table, void* userdata) {
    sd_bus* bus = nullptr;
    Require(sd_bus_open_system(&bus), "sd_bus_open_system");
    bool quit = false;
    const sd_bus_vtable control[] = {SD_BUS_VTABLE_START(0),
                                     SD_BUS_METHOD(
                                         "Quit", "", "",
                                         [](sd_bus_message* message, void* flag, sd_bus_error*) {
                                             *static_cast<bool*>(flag) = true;
                                             return sd_bus_reply_method_return(message, "");
                                         },
                                         SD_BUS_VTABLE_UNPRIVILEGED),
                                     SD_BUS_VTABLE_END};
    Require(sd_bus_add_object_vtable(bus, nullptr, PATH, INTERFACE, table, userdata), "add_object_vtable");
    Require(sd_bus_add_object_vtable(bus, nullptr, PATH, "com.example.Control1", control, &quit), "control");
    Require(sd_bus_request_name(bus, NAME, 0), "request_name");
    while (!quit) {
        const int r = sd_bus_process(bus, nullptr);
        Require(r, "sd_bus_process");
        if (r == 0) {
            Require(sd_bus_wait(bus, UINT64_MAX), "sd_bus_wait");
        }
    }
    sd_bus_flush_close_unref(bus);
}

}  // namespace bench
