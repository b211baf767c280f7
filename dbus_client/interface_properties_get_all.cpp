#include <tern/dbus_client/interface_properties_get_all.h>

#include <systemd/sd-bus.h>
#include <tern/foundation/log.h>
#include <tern/foundation/service_common.h>

#include "dbus_client/bus_error.h"
#include "foundation/error_text.h"
#include "foundation/handle.h"

using mwl::ErrorText;

namespace mw::tern::DBusCommand {

InterfacePropertiesGetAll::InterfacePropertiesGetAll(const std::string& destination,
                                                     const std::string& objectPath)
    : mDestination(destination), mObjectPath(objectPath) {}

InterfacePropertiesGetAll::~InterfacePropertiesGetAll() = default;

int InterfacePropertiesGetAll::CallMethod(sd_bus* bus) {
    BusError error;
    sd_bus_message* message = nullptr;
    int r = sd_bus_call_method(bus, mDestination.c_str(), mObjectPath.c_str(),
                               "org.freedesktop.DBus.Properties", "GetAll", error.Get(), &message, "s", "");
    const mwl::Handle<sd_bus_message, sd_bus_message_unref> reply(message);
    if (r < 0) {
        TERN_LOG_ERROR(ServiceCommon::mLogger,
                       "[InterfacePropertiesGetAll] Failed to call GetAll method (%d, %s)", r, ErrorText(-r));
        return r;
    }
    // Fixed by the interface: the parser stays pointed at the reply when that is released; it reads again
    // only after the next call has given it another one.
    mParser.SetMessage(reply.get());
    r = mParser.ParseMessage();
    if (r < 0) {
        TERN_LOG_ERROR(ServiceCommon::mLogger,
                       "[InterfacePropertiesGetAll] Failed to parse sd_bus asv message (%d, %s)", r,
                       ErrorText(-r));
    }
    return r;
}

const DBusMessage::ValuesList& InterfacePropertiesGetAll::GetValuesList() const {
    return mParser.GetValuesList();
}

}  // namespace mw::tern::DBusCommand
