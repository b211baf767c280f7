#pragma once

#include <tern/service/dbus_interface.h>

#include <string>

#include "fault.h"
#include "job_desk.h"

namespace soak {

/// com.example.SoakClient1, one for each client, which alone calls it and so knows every answer beforehand:
///
///     Echo(s) -> s        the same text
///     Count(a{sv}) -> u   the number of entries
///     Work(s) -> u        the status of a job that the pool has run meanwhile
///     Keep(t) -> u        0 when the number is kept for the next life, else the status that hindered it
///     Label s             read and write; an empty one is refused
///
/// D-Bus thread only.
class ClientInterface : public mw::tern::DBusInterface {
public:
    /// Desk and fault outlive the interface. What is kept, is kept under the name.
    ClientInterface(JobDesk& desk, Fault& fault, std::string name);

    const sd_bus_vtable* GetVtable() const override;
    void* GetUserData() override { return this; }

private:
    static int OnEcho(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int OnCount(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int OnWork(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int OnKeep(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int OnGetLabel(sd_bus* bus, const char* path, const char* interface, const char* property,
                          sd_bus_message* reply, void* userdata, sd_bus_error* error);
    static int OnSetLabel(sd_bus* bus, const char* path, const char* interface, const char* property,
                          sd_bus_message* value, void* userdata, sd_bus_error* error);

    JobDesk& mDesk;
    Fault& mFault;
    const std::string mName;
    std::string mLabel = "new";
};

}  // namespace soak
