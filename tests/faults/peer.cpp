#include "peer.h"

#include <algorithm>

namespace tern::test {

namespace {

constexpr const char* DEVICE = "com.zr.extension.local_device";
constexpr const char* DEVICE_PATH = "/com/zr/extension/dbus_objects/DeviceManagement";
constexpr const char* DEVICE_INTERFACE = "com.zr.extension.dbus_objects.DeviceManagement";
constexpr std::uint64_t PROCESSING_PERIOD_US = 5000;

int AnswerReboot(sd_bus_message* message, void*, sd_bus_error*) {
    return sd_bus_reply_method_return(message, "b", 1);
}

int AnswerAddress(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*,
                  sd_bus_error*) {
    return sd_bus_message_append(reply, "s", "/run/socket");
}

const sd_bus_vtable DEVICE_TABLE[] = {
    SD_BUS_VTABLE_START(0), SD_BUS_METHOD("Reboot", "s", "b", AnswerReboot, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END};
const sd_bus_vtable ADDRESS_TABLE[] = {SD_BUS_VTABLE_START(0),
                                       SD_BUS_PROPERTY("RequestSocketAddress", "s", AnswerAddress, 0, 0),
                                       SD_BUS_VTABLE_END};

}  // namespace

Peer::Peer(const std::string& name) {
    std::string path = "/" + name;
    std::replace(path.begin(), path.end(), '.', '/');
    // An earlier one may not have been noticed gone yet.
    constexpr std::uint64_t FLAGS = SD_BUS_NAME_ALLOW_REPLACEMENT | SD_BUS_NAME_REPLACE_EXISTING;
    mReady =
        sd_bus_open_system(&mBus) >= 0 &&
        sd_bus_add_object_vtable(mBus, nullptr, DEVICE_PATH, DEVICE_INTERFACE, DEVICE_TABLE, nullptr) >= 0 &&
        sd_bus_add_object_vtable(mBus, nullptr, path.c_str(), name.c_str(), ADDRESS_TABLE, nullptr) >= 0 &&
        sd_bus_request_name(mBus, name.c_str(), FLAGS) >= 0 && sd_bus_request_name(mBus, DEVICE, FLAGS) >= 0;
    mThread = std::thread([this] { Serve(); });
}

Peer::~Peer() {
    mStopping = true;
    mThread.join();
    sd_bus_flush_close_unref(mBus);
}

void Peer::Serve() {
    while (!mStopping) {
        const int r = sd_bus_process(mBus, nullptr);
        if (r < 0) {
            return;
        }
        if (r == 0) {
            static_cast<void>(sd_bus_wait(mBus, PROCESSING_PERIOD_US));
        }
    }
}

}  // namespace tern::test
