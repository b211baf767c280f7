#include "bus_owners.h"

#include "names.h"

namespace soak {

Bus OpenBus(const std::string& address) {
    sd_bus* bus = nullptr;
    if (sd_bus_new(&bus) < 0) {
        return nullptr;
    }
    Bus owner(bus);
    if (sd_bus_set_address(bus, address.c_str()) < 0 || sd_bus_set_bus_client(bus, 1) < 0 ||
        sd_bus_start(bus) < 0) {
        return nullptr;
    }
    return owner;
}

bool IsExtensionThere(sd_bus* bus) {
    sd_bus_message* reply = nullptr;
    const int r =
        sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                           "NameHasOwner", nullptr, &reply, "s", BUS_NAME.c_str());
    const Message owner(reply);
    int has = 0;
    return r >= 0 && sd_bus_message_read(reply, "b", &has) >= 0 && has != 0;
}

}  // namespace soak
