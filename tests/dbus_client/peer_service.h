#pragma once

#include <sys/eventfd.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

#include "foundation/handle.h"
#include "foundation/unique_fd.h"

namespace tern::test {

/// Another service of the bus, in plain sd-bus: connection, loop and thread of its own, up when constructed.
class PeerService {
public:
    /// `setUp` adds the objects; it runs before the name is taken.
    PeerService(const std::string& name, const std::function<void(sd_bus*)>& setUp)
        : mStop(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
        sd_event* event = nullptr;
        Check(sd_event_new(&event));
        mEvent.reset(event);
        sd_bus* bus = nullptr;
        Check(sd_bus_open_system(&bus));
        mBus.reset(bus);
        setUp(bus);
        Check(sd_bus_request_name(bus, name.c_str(), 0));
        Check(sd_bus_attach_event(bus, event, 0));
        Check(sd_event_add_io(
            event, nullptr, mStop.Get(), EPOLLIN,
            [](sd_event_source* source, int, unsigned int, void*) {
                return sd_event_exit(sd_event_source_get_event(source), 0);
            },
            nullptr));
        mThread = std::thread([event] { sd_event_loop(event); });
    }
    ~PeerService() {
        eventfd_write(mStop.Get(), 1);
        mThread.join();
    }
    PeerService(const PeerService&) = delete;
    PeerService& operator=(const PeerService&) = delete;

private:
    static void Check(int r) {
        if (r < 0) {
            throw std::runtime_error("the peer service does not start: " + std::to_string(r));
        }
    }

    mwl::UniqueFd mStop;
    mwl::Handle<sd_event, sd_event_unref> mEvent;
    mwl::Handle<sd_bus, sd_bus_flush_close_unref> mBus;
    std::thread mThread;
};

}  // namespace tern::test
