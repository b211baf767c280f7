// The server of the comparisons on plain sd-bus and sd-event: the floor. It is a service as one would write
// it by hand, with the systemd watchdog fed and an orderly end on SIGTERM and SIGINT, on one thread. Built a
// second time with TERN_OWN_THREAD it does two things that ours does as well: it serves on a thread of its
// own, and it notices when the bus is lost.

#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <cerrno>
#include <thread>

#include "server_options.h"

namespace {

int OnEcho(sd_bus_message* message, void*, sd_bus_error*) {
    const char* text = nullptr;
    const int r = sd_bus_message_read_basic(message, 's', &text);
    return r < 0 ? r : sd_bus_reply_method_return(message, "s", text);
}

const sd_bus_vtable TABLE[] = {SD_BUS_VTABLE_START(0),
                               SD_BUS_METHOD("Echo", "s", "s", OnEcho, SD_BUS_VTABLE_UNPRIVILEGED),
                               SD_BUS_VTABLE_END};

void Export(sd_bus* bus, sd_event* event, const ServerOptions& options) {
    const ExportClock clock;
    for (int object = 0; object < options.objects; ++object) {
        const std::string path = ServerOptions::Path(object);
        for (int i = 0; i < options.interfaces; ++i) {
            Require(sd_bus_add_object_vtable(bus, nullptr, path.c_str(), ServerOptions::Interface(i).c_str(),
                                             TABLE, nullptr) >= 0,
                    "sd_bus_add_object_vtable");
        }
    }
    for (int i = 0; i < options.matches; ++i) {
        Require(sd_bus_add_match(
                    bus, nullptr, ServerOptions::Match(i).c_str(),
                    [](sd_bus_message*, void*, sd_bus_error*) { return 0; }, nullptr) >= 0,
                "sd_bus_add_match");
    }
    for (int i = 0; i < options.sources; ++i) {
        Require(sd_event_add_io(
                    event, nullptr, eventfd(0, EFD_CLOEXEC), EPOLLIN,
                    [](sd_event_source*, int, uint32_t, void*) { return 0; }, nullptr) >= 0,
                "sd_event_add_io");
    }
}

int OnMessage(sd_bus_message* message, void* event, sd_bus_error*) {
    if (sd_bus_message_is_signal(message, "org.freedesktop.DBus.Local", "Disconnected") <= 0) {
        return 0;
    }
    return sd_event_exit(static_cast<sd_event*>(event), -ECONNRESET);
}

int Serve(const ServerOptions& options) {
    sd_event* event = nullptr;
    sd_bus* bus = nullptr;
    Require(sd_event_default(&event) >= 0 && sd_event_set_watchdog(event, 1) >= 0, "sd_event_default");
    Require(sd_bus_default_system(&bus) >= 0, "sd_bus_default_system");
    Require(sd_bus_request_name(bus, options.name.c_str(), 0) >= 0, "sd_bus_request_name");
    Require(sd_bus_attach_event(bus, event, SD_EVENT_PRIORITY_NORMAL) >= 0, "sd_bus_attach_event");
    if constexpr (TERN_OWN_THREAD) {
        Require(sd_bus_add_filter(bus, nullptr, OnMessage, event) >= 0, "sd_bus_add_filter");
    }
    Export(bus, event, options);
    Require(sd_event_add_signal(event, nullptr, SIGTERM, nullptr, nullptr) >= 0 &&
                sd_event_add_signal(event, nullptr, SIGINT, nullptr, nullptr) >= 0,
            "sd_event_add_signal");
    const int r = sd_event_loop(event);
    sd_bus_flush_close_unref(bus);
    sd_event_unref(event);
    return r < 0 ? EXIT_FAILURE : EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char* argv[]) {
    const ServerOptions options(argc, argv);
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    int result = EXIT_FAILURE;
    if constexpr (TERN_OWN_THREAD) {
        std::thread([&] { result = Serve(options); }).join();
    } else {
        result = Serve(options);
    }
    return result;
}
