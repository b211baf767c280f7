#pragma once

#include <tern/dbus_client/command.h>
#include <tern/dbus_message/asv_signature_parser.h>
#include <tern/dbus_message/values_list.h>
#include <tern/foundation/api.h>

#include <string>

struct sd_bus;

namespace mw::tern::DBusCommand {

/// Reads the properties of all interfaces of another service's object (org.freedesktop.DBus.Properties.GetAll
/// with an empty interface name).
///
///     InterfacePropertiesGetAll getAll("org.freedesktop.hostname1", "/org/freedesktop/hostname1");
///     std::string hostname;
///     if (getAll.Execute() == StatusCode::Ok && getAll.GetValuesList().GetString("_Hostname", hostname) ==
///     ...
///
/// Thread-safety, time limit and messages: as Command.
class TERN_API InterfacePropertiesGetAll : public Command {
public:
    /// `destination` is the service's name on the bus. Both are copied, and checked when the call is created.
    InterfacePropertiesGetAll(const std::string& destination, const std::string& objectPath);
    ~InterfacePropertiesGetAll() override;

    /// Calls and reads the reply. Returns the sd-bus result: 0 or more when all was read, else a negative
    /// errno, logged; properties before a malformed one stay in the list.
    int CallMethod(sd_bus* bus) override;

    /// The properties read so far, each under "_" and its name (see Parser). A property keeps the value that
    /// was read first: executed again, the command adds only those that were not there, and a peer that sends
    /// others each time makes the list grow by the limit of one call each time; make a new command then. The
    /// list lives as long as the command. Descriptors in it were closed together with the reply: only their
    /// numbers are left.
    const DBusMessage::ValuesList& GetValuesList() const;

private:
    std::string mDestination;
    std::string mObjectPath;
    DBusMessage::ASVsignatureParser mParser;
};

}  // namespace mw::tern::DBusCommand
