#pragma once

#include <tern/dbus_message/parser.h>
#include <tern/foundation/api.h>

namespace mw::tern::DBusMessage {

/// Reads a body "a{sv}", such as the reply of org.freedesktop.DBus.Properties.GetAll: the entry Key is stored
/// as _Key.
///
///     ASVsignatureParser parser(message);
///     std::string state;
///     if (parser.ParseMessage() >= 0 && parser.GetValuesList().GetString("_State", state) == StatusCode::Ok)
///
/// Threads, ownership and outcomes are those of Parser.
class TERN_API ASVsignatureParser : public Parser {
public:
    /// Without a message; see SetMessage.
    ASVsignatureParser();
    /// Of this message, which is borrowed.
    explicit ASVsignatureParser(sd_bus_message* message);
    ~ASVsignatureParser() override;

    /// Reads the array. Returns 0 when all was read, else sd-bus's negative errno; the entries before the
    /// failing one stay in the list.
    int ParseMessage();
};

}  // namespace mw::tern::DBusMessage
