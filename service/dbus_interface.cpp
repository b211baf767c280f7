#include <tern/service/dbus_interface.h>

#include <cstring>
#include <utility>

namespace mw::tern {

namespace {

sd_bus_vtable MakeEntry(char type, unsigned long long flags) {
    sd_bus_vtable entry;
    // Braces would leave the unused part of the union as it is; sd-bus wants it zero.
    std::memset(&entry, 0, sizeof entry);
    entry.type = static_cast<unsigned char>(type);
    entry.flags = flags & ((1ULL << 56) - 1);
    return entry;
}

}  // namespace

DBusInterface::DBusInterface(std::string name) : mName(std::move(name)) {}

DBusInterface::~DBusInterface() = default;

sd_bus_vtable DBusInterface::SdBusVtableStart(unsigned long long flags) {
    sd_bus_vtable entry = MakeEntry(_SD_BUS_VTABLE_START, flags);
    // Features and format stay zero: the entries carry no argument names.
    entry.x.start.element_size = sizeof(sd_bus_vtable);
    return entry;
}

sd_bus_vtable DBusInterface::SdBusMethod(const char* member, const char* signature, const char* result,
                                         sd_bus_message_handler_t handler, unsigned long long flags) {
    return SdBusMethodWithOffset(member, signature, result, handler, 0, flags);
}

sd_bus_vtable DBusInterface::SdBusMethodWithOffset(const char* member, const char* signature,
                                                   const char* result, sd_bus_message_handler_t handler,
                                                   unsigned int offset, unsigned long long flags) {
    sd_bus_vtable entry = MakeEntry(_SD_BUS_VTABLE_METHOD, flags);
    entry.x.method.member = member;
    entry.x.method.signature = signature;
    entry.x.method.result = result;
    entry.x.method.handler = handler;
    entry.x.method.offset = offset;
    return entry;
}

sd_bus_vtable DBusInterface::SdBusSignal(const char* member, const char* signature,
                                         unsigned long long flags) {
    sd_bus_vtable entry = MakeEntry(_SD_BUS_VTABLE_SIGNAL, flags);
    entry.x.signal.member = member;
    entry.x.signal.signature = signature;
    return entry;
}

sd_bus_vtable DBusInterface::SdBusProperty(const char* member, const char* signature,
                                           sd_bus_property_get_t getter, unsigned int offset,
                                           unsigned long long flags) {
    sd_bus_vtable entry = SdBusWritableProperty(member, signature, getter, nullptr, offset, flags);
    entry.type = _SD_BUS_VTABLE_PROPERTY;
    return entry;
}

sd_bus_vtable DBusInterface::SdBusWritableProperty(const char* member, const char* signature,
                                                   sd_bus_property_get_t getter, sd_bus_property_set_t setter,
                                                   unsigned int offset, unsigned long long flags) {
    sd_bus_vtable entry = MakeEntry(_SD_BUS_VTABLE_WRITABLE_PROPERTY, flags);
    entry.x.property.member = member;
    entry.x.property.signature = signature;
    entry.x.property.get = getter;
    entry.x.property.set = setter;
    entry.x.property.offset = offset;
    return entry;
}

sd_bus_vtable DBusInterface::SdBusVtableEnd() {
    return MakeEntry(_SD_BUS_VTABLE_END, 0);
}

}  // namespace mw::tern
