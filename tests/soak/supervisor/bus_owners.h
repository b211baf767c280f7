#pragma once

#include <systemd/sd-bus.h>

#include <memory>
#include <string>

namespace soak {

struct BusCloser {
    void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
};
using Bus = std::unique_ptr<sd_bus, BusCloser>;

struct MessageReleaser {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using Message = std::unique_ptr<sd_bus_message, MessageReleaser>;

/// An error's text, released with it.
struct BusError {
    BusError() = default;
    ~BusError() { sd_bus_error_free(&error); }
    BusError(const BusError&) = delete;
    BusError& operator=(const BusError&) = delete;

    std::string Name() const { return error.name == nullptr ? "" : error.name; }

    sd_bus_error error{};
};

/// A connection to the message bus at this address; null when there is none.
Bus OpenBus(const std::string& address);
/// Whether the extension has its name on the bus.
bool IsExtensionThere(sd_bus* bus);

}  // namespace soak
