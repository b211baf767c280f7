#include <tern/dbus_client/reboot_system.h>

#include <systemd/sd-bus.h>
#include <tern/foundation/log.h>
#include <tern/foundation/service_common.h>

#include "dbus_client/bus_error.h"
#include "foundation/error_text.h"
#include "foundation/handle.h"
#include "platform/static_text.h"

using mwl::ErrorText;

namespace mw::tern::DBusCommand {

namespace {

const mwl::StaticText DESTINATION("com.zr.extension.local_device");
const mwl::StaticText OBJECT_PATH("/com/zr/extension/dbus_objects/DeviceManagement");
const mwl::StaticText INTERFACE("com.zr.extension.dbus_objects.DeviceManagement");
const mwl::StaticText METHOD("Reboot");

}  // namespace

RebootSystem::RebootSystem(const std::string& reason) : mReason(reason) {}

RebootSystem::~RebootSystem() = default;

int RebootSystem::CallMethod(sd_bus* bus) {
    BusError error;
    sd_bus_message* message = nullptr;
    int r = sd_bus_call_method(bus, DESTINATION.c_str(), OBJECT_PATH.c_str(), INTERFACE.c_str(),
                               METHOD.c_str(), error.Get(), &message, "s", mReason.c_str());
    const mwl::Handle<sd_bus_message, sd_bus_message_unref> reply(message);
    if (r < 0) {
        TERN_LOG_ERROR(ServiceCommon::mLogger, "[Reboot] Failed to call Reboot method (%d, %s)", r,
                       ErrorText(-r));
        return r;
    }
    int accepted = 0;
    r = sd_bus_message_read_basic(reply.get(), SD_BUS_TYPE_BOOLEAN, &accepted);
    if (r < 0) {
        TERN_LOG_ERROR(ServiceCommon::mLogger,
                       "[Reboot] Failed to read SD_BUS_TYPE_BOOLEAN (%d, %s) from message", r, ErrorText(-r));
    } else {
        // "false" is an answer, not a failure.
        TERN_LOG_INFO(ServiceCommon::mLogger, "[Reboot] CallMethod returns %s",
                      accepted != 0 ? "true" : "false");
    }
    return r;
}

}  // namespace mw::tern::DBusCommand

TERN_STATIC_TEXT(mw::tern::DBusCommand::RebootSystem::REBOOT_TYPE_REMOTE,
                 _ZN2mw4tern11DBusCommand12RebootSystem18REBOOT_TYPE_REMOTE, "Remote");
TERN_STATIC_TEXT(mw::tern::DBusCommand::RebootSystem::REBOOT_TYPE_BUTTON,
                 _ZN2mw4tern11DBusCommand12RebootSystem18REBOOT_TYPE_BUTTON, "Button");
TERN_STATIC_TEXT(mw::tern::DBusCommand::RebootSystem::REBOOT_TYPE_FIRMWARE_UPDATE,
                 _ZN2mw4tern11DBusCommand12RebootSystem27REBOOT_TYPE_FIRMWARE_UPDATE, "FirmwareUpdate");
TERN_STATIC_TEXT(mw::tern::DBusCommand::RebootSystem::REBOOT_TYPE_RESTORE,
                 _ZN2mw4tern11DBusCommand12RebootSystem19REBOOT_TYPE_RESTORE, "Restore");
