#include "client_interface.h"

#include <systemd/sd-bus.h>
#include <tern/dbus_message/asv_signature_parser.h>
#include <tern/dbus_message/values_list.h>

#include <cstdint>
#include <utility>

#include "names.h"

namespace soak {

namespace {

ClientInterface& Self(void* userdata) {
    return *static_cast<ClientInterface*>(userdata);
}

}  // namespace

ClientInterface::ClientInterface(JobDesk& desk, Fault& fault, std::string name)
    : DBusInterface(CLIENT_INTERFACE), mDesk(desk), mFault(fault), mName(std::move(name)) {}

const sd_bus_vtable* ClientInterface::GetVtable() const {
    static const sd_bus_vtable table[] = {
        SdBusVtableStart(0),
        SdBusMethod("Echo", "s", "s", &OnEcho, SD_BUS_VTABLE_UNPRIVILEGED),
        SdBusMethod("Count", "a{sv}", "u", &OnCount, SD_BUS_VTABLE_UNPRIVILEGED),
        SdBusMethod("Work", "s", "u", &OnWork, SD_BUS_VTABLE_UNPRIVILEGED),
        SdBusMethod("Keep", "t", "u", &OnKeep, SD_BUS_VTABLE_UNPRIVILEGED),
        SdBusWritableProperty("Label", "s", &OnGetLabel, &OnSetLabel, 0,
                              SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE | SD_BUS_VTABLE_UNPRIVILEGED),
        SdBusVtableEnd()};
    return table;
}

int ClientInterface::OnEcho(sd_bus_message* message, void* userdata, sd_bus_error*) {
    const char* text = nullptr;
    const int r = sd_bus_message_read(message, "s", &text);
    if (r < 0) {
        return r;
    }
    switch (Self(userdata).mFault.OnCall()) {
        case Fault::Answer::None:
            return 1;
        case Fault::Answer::Wrong:
            return sd_bus_reply_method_return(message, "s", "something else");
        case Fault::Answer::Right:
            break;
    }
    return sd_bus_reply_method_return(message, "s", text);
}

int ClientInterface::OnCount(sd_bus_message* message, void*, sd_bus_error*) {
    mw::tern::DBusMessage::ASVsignatureParser parser(message);
    const int r = parser.ParseMessage();
    return r < 0 ? r
                 : sd_bus_reply_method_return(message, "u",
                                              static_cast<unsigned int>(parser.GetValuesList().Size()));
}

int ClientInterface::OnWork(sd_bus_message* message, void* userdata, sd_bus_error*) {
    const char* kind = nullptr;
    const int r = sd_bus_message_read(message, "s", &kind);
    if (r < 0) {
        return r;
    }
    Self(userdata).mDesk.Submit(message, [kind = std::string(kind)](Jobs& jobs) { return jobs.Run(kind); });
    return 1;  // answered later
}

int ClientInterface::OnKeep(sd_bus_message* message, void* userdata, sd_bus_error*) {
    std::uint64_t number = 0;
    const int r = sd_bus_message_read(message, "t", &number);
    if (r < 0) {
        return r;
    }
    ClientInterface& self = Self(userdata);
    if (self.mFault.IsForgotten(number)) {
        return sd_bus_reply_method_return(message, "u", static_cast<unsigned int>(mwl::StatusCode::Ok));
    }
    self.mDesk.Submit(message, [name = self.mName, number](Jobs& jobs) { return jobs.Keep(name, number); });
    return 1;  // answered later
}

int ClientInterface::OnGetLabel(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                                void* userdata, sd_bus_error*) {
    return sd_bus_message_append(reply, "s", Self(userdata).mLabel.c_str());
}

int ClientInterface::OnSetLabel(sd_bus* bus, const char* path, const char* interface, const char* property,
                                sd_bus_message* value, void* userdata, sd_bus_error* error) {
    const char* label = nullptr;
    const int r = sd_bus_message_read(value, "s", &label);
    if (r < 0) {
        return r;
    }
    if (*label == '\0') {
        return sd_bus_error_set(error, REFUSAL.c_str(), "a label is not empty");
    }
    Self(userdata).mLabel = label;
    return sd_bus_emit_properties_changed(bus, path, interface, property, nullptr);
}

}  // namespace soak
