#pragma once

#include <systemd/sd-bus.h>
#include <tern/foundation/api.h>

#include <string>

namespace mw::tern {

/// Base class of the application's D-Bus interfaces: a name, a vtable and the pointer that the vtable's
/// handlers get. The static builders make the vtable's entries, as the SD_BUS_* macros do in C (see
/// sd_bus_add_object_vtable(3)).
///
/// D-Bus thread only. Owned by the object that it was added to, and deleted with it.
///
/// Exceptions: sd-bus calls the handlers of methods and properties directly, as it does those of matches,
/// filters and replies, and sd-bus is C. Catch in a handler every exception that its caller is to receive as
/// an error, and return a negative error number or set the sd_bus_error. An exception that leaves a handler
/// unwinds sd-bus and the loop, which cannot tidy up after it, and ends the service in order: it is logged
/// (critical, logger name "Service") with its type and text and the member whose call was being handled, the
/// connection is closed, so that no caller waits, and the process ends as failed after the IPC server and the
/// workers have been stopped. Where a C library cannot be unwound (32-bit ARM), and from a noexcept handler,
/// the same is logged and the process ends immediately (std::terminate).
///
///     const sd_bus_vtable* GetVtable() const override {
///         static const sd_bus_vtable table[] = {
///             SdBusVtableStart(0),
///             SdBusMethod("Boost", "u", "b", &OnBoost, SD_BUS_VTABLE_UNPRIVILEGED),
///             SdBusSignal("Overheated", "d", 0),
///             SdBusVtableEnd()};
///         return table;
///     }
class TERN_API DBusInterface {
public:
    /// `name` is the interface name, for example "com.example.Thermostat1".
    explicit DBusInterface(std::string name);
    virtual ~DBusInterface();

    /// First entry of a table that starts with a start entry, ends with an end entry and outlives the bus
    /// connection; sd-bus keeps the pointer. A static array is best.
    virtual const sd_bus_vtable* GetVtable() const = 0;
    /// The pointer that sd-bus passes to every handler of this interface as `userdata`; usually the
    /// implementing object.
    virtual void* GetUserData() = 0;

    DBusInterface(const DBusInterface&) = delete;
    DBusInterface& operator=(const DBusInterface&) = delete;

    /// As given to the constructor.
    const std::string& GetName() const { return mName; }

    /// First entry. `flags` are SD_BUS_VTABLE_* flags, here and below passed on unchanged.
    static sd_bus_vtable SdBusVtableStart(unsigned long long flags);
    /// A method; `signature` and `result` are D-Bus signatures, null or "" for none.
    static sd_bus_vtable SdBusMethod(const char* member, const char* signature, const char* result,
                                     sd_bus_message_handler_t handler, unsigned long long flags);
    /// A method whose handler gets the user data moved on by `offset` bytes.
    static sd_bus_vtable SdBusMethodWithOffset(const char* member, const char* signature, const char* result,
                                               sd_bus_message_handler_t handler, unsigned int offset,
                                               unsigned long long flags);
    /// A signal; `signature` is that of its arguments, null or "" for none.
    static sd_bus_vtable SdBusSignal(const char* member, const char* signature, unsigned long long flags);
    /// A read-only property. Without a getter sd-bus reads the value at the user data plus `offset` itself.
    static sd_bus_vtable SdBusProperty(const char* member, const char* signature,
                                       sd_bus_property_get_t getter, unsigned int offset,
                                       unsigned long long flags);
    /// A writable property; without getter or setter sd-bus accesses the value at the user data plus
    /// `offset`.
    static sd_bus_vtable SdBusWritableProperty(const char* member, const char* signature,
                                               sd_bus_property_get_t getter, sd_bus_property_set_t setter,
                                               unsigned int offset, unsigned long long flags);
    /// Last entry.
    static sd_bus_vtable SdBusVtableEnd();

private:
    std::string mName;
};

}  // namespace mw::tern
