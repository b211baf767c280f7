#include "service/vtable_fault.h"

#include <tern/service/dbus_interface.h>

#include <algorithm>
#include <vector>

#include "foundation/handle.h"

namespace mw::tern {

namespace {

using Bus = mwl::Handle<sd_bus, sd_bus_unref>;

const char* KindOf(const sd_bus_vtable& entry) {
    switch (entry.type) {
        case _SD_BUS_VTABLE_START:
            return "start";
        case _SD_BUS_VTABLE_METHOD:
            return "method";
        case _SD_BUS_VTABLE_SIGNAL:
            return "signal";
        case _SD_BUS_VTABLE_PROPERTY:
            return "property";
        case _SD_BUS_VTABLE_WRITABLE_PROPERTY:
            return "writable property";
        default:
            return "unknown type";
    }
}

const char* MemberOf(const sd_bus_vtable& entry) {
    const char* member = nullptr;
    if (entry.type == _SD_BUS_VTABLE_METHOD) {
        member = entry.x.method.member;
    } else if (entry.type == _SD_BUS_VTABLE_SIGNAL) {
        member = entry.x.signal.member;
    } else if (entry.type == _SD_BUS_VTABLE_PROPERTY || entry.type == _SD_BUS_VTABLE_WRITABLE_PROPERTY) {
        member = entry.x.property.member;
    }
    return member == nullptr ? "" : member;
}

/// A connection that was never opened; null without memory.
Bus MakeBus() {
    sd_bus* made = nullptr;
    return Bus(sd_bus_new(&made) < 0 ? nullptr : made);
}

/// Registers the table and takes it back. After a refusal the bus is good for nothing but being released.
int Try(sd_bus* bus, const sd_bus_vtable* table) {
    sd_bus_slot* slot = nullptr;
    const int r = sd_bus_add_object_vtable(bus, &slot, "/", "vtable.fault", table, nullptr);
    sd_bus_slot_unref(slot);
    return r;
}

}  // namespace

VtableFault FindVtableFault(const sd_bus_vtable* table) {
    const Bus whole = MakeBus();
    VtableFault fault;
    if (whole == nullptr) {
        return fault;
    }
    fault.error = std::min(Try(whole.get(), table), 0);
    if (fault.error == 0) {
        return fault;
    }
    // It was built with another sd-bus's header: the form of its entries is not known here.
    const bool isReadable = table != nullptr && (table->type != _SD_BUS_VTABLE_START ||
                                                 table->x.start.element_size == sizeof(sd_bus_vtable));
    const Bus bus = MakeBus();
    if (!isReadable || bus == nullptr) {
        return fault;
    }
    std::vector<sd_bus_vtable> beginning{DBusInterface::SdBusVtableEnd()};
    for (std::size_t index = 0; table[index].type != _SD_BUS_VTABLE_END; ++index) {
        beginning.back() = table[index];
        beginning.push_back(DBusInterface::SdBusVtableEnd());
        const int r = Try(bus.get(), beginning.data());
        if (r < 0) {
            return VtableFault{r, index, KindOf(table[index]), MemberOf(table[index])};
        }
    }
    return fault;
}

}  // namespace mw::tern
