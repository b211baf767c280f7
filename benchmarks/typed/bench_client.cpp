// Calls the server of the typed comparison: bench_client SHAPE CALLS; then has it end. All calls are sent
// before the first answer is waited for: a server that is slow, because it is counted, finds the next call
// there whenever it looks, so that it does the same for each.

#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>

#include "bench_loop.h"

namespace {

constexpr std::uint64_t LONG_US = 300000000;

sd_bus_message* NewCall(sd_bus* bus, const std::string& shape) {
    sd_bus_message* call = nullptr;
    const bool isGet = shape == "Get";
    bench::Require(sd_bus_message_new_method_call(
                       bus, &call, bench::NAME, bench::PATH,
                       isGet ? "org.freedesktop.DBus.Properties" : bench::INTERFACE, shape.c_str()),
                   "new_method_call");
    int r = 0;
    if (isGet) {
        r = sd_bus_message_append(call, "ss", bench::INTERFACE, "Value");
    } else if (shape == "Number") {
        r = sd_bus_message_append(call, "u", 7U);
    } else if (shape == "Text") {
        r = sd_bus_message_append(call, "s", "a text of twenty-odd chars");
    } else if (shape == "Four") {
        r = sd_bus_message_append(call, "udbs", 7U, 2.0, 1, "text");
    } else if (shape == "Items") {
        r = sd_bus_message_append(call, "a(ds)", 5, 1.0, "a", 2.0, "b", 3.0, "c", 4.0, "d", 5.0, "e");
    } else if (shape == "Options") {
        r = sd_bus_message_append(call, "a{sv}", 2, "Seconds", "u", 5U, "Note", "s", "hello");
    } else if (shape == "Bytes") {
        static const char bytes[4096] = {};
        r = sd_bus_message_append_array(call, 'y', bytes, sizeof bytes);
    }
    bench::Require(r, "append");
    return call;
}

int OnAnswer(sd_bus_message* reply, void* answered, sd_bus_error*) {
    if (const sd_bus_error* const error = sd_bus_message_get_error(reply)) {
        fprintf(stderr, "%s: %s\n", error->name, error->message);
        exit(1);
    }
    ++*static_cast<int*>(answered);
    return 1;
}

/// Which may run under a tool that makes it slow.
void WaitForServer(sd_bus* bus) {
    for (int attempt = 0; attempt < 10000; ++attempt) {
        sd_bus_message* reply = nullptr;
        int isThere = 0;
        bench::Require(
            sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                               "NameHasOwner", nullptr, &reply, "s", bench::NAME),
            "NameHasOwner");
        bench::Require(sd_bus_message_read(reply, "b", &isThere), "NameHasOwner");
        sd_bus_message_unref(reply);
        if (isThere != 0) {
            return;
        }
        usleep(1000);
    }
    bench::Require(-ETIMEDOUT, "the server");
}

}  // namespace

int main(int, char* argv[]) {
    const std::string shape = argv[1];
    const int calls = std::atoi(argv[2]);
    sd_bus* bus = nullptr;
    bench::Require(sd_bus_open_system(&bus), "sd_bus_open_system");
    WaitForServer(bus);
    int answered = 0;
    for (int i = 0; i < calls; ++i) {
        sd_bus_message* const call = NewCall(bus, shape);
        bench::Require(sd_bus_call_async(bus, nullptr, call, OnAnswer, &answered, LONG_US), shape.c_str());
        sd_bus_message_unref(call);
    }
    while (answered < calls) {
        const int r = sd_bus_process(bus, nullptr);
        bench::Require(r, "sd_bus_process");
        if (r == 0) {
            bench::Require(sd_bus_wait(bus, LONG_US), "sd_bus_wait");
        }
    }
    bench::Require(sd_bus_call_method(bus, bench::NAME, bench::PATH, "com.example.Control1", "Quit", nullptr,
                                      nullptr, ""),
                   "Quit");
    sd_bus_flush_close_unref(bus);
}
