#pragma once

#include <tern/dbus_message/asv_signature_parser.h>
#include <tern/foundation/api.h>

#include <string>
#include <vector>

struct sd_bus_message;

namespace mw::tern::DBusMessage {

/// Reads a body "sa{sv}as", that of the signal org.freedesktop.DBus.Properties.PropertiesChanged: a name, and
/// a dictionary whose entry Key is stored as _Key. The array after it is not read.
///
/// One thread at a time, on a message that nobody else reads meanwhile; the message is borrowed.
class TERN_API SASVASsignatureParser {
public:
    /// Of this message.
    explicit SASVASsignatureParser(sd_bus_message* message);
    virtual ~SASVASsignatureParser();
    SASVASsignatureParser(const SASVASsignatureParser&) = delete;
    SASVASsignatureParser& operator=(const SASVASsignatureParser&) = delete;

    /// Reads name and dictionary. Returns 0 when both were read, and also when an array in which the message
    /// stands ends before either: then there is no name, or no value. Else sd-bus's negative errno; values
    /// that were read before the failure stay. The limits are those of Parser, for name and dictionary
    /// together.
    int ParseMessage();

    /// The name; empty before it was read.
    const std::string& GetName() const;
    /// The values read from the dictionary; the parser owns them.
    const ValuesList& GetValuesList() const;
    /// As above, to be changed.
    ValuesList& GetValuesList();
    /// Always empty, because the array of strings is left unread.
    const std::vector<std::string>& GetStrings() const;

private:
    sd_bus_message* mMessage;  ///< borrowed
    std::string mName;
    ASVsignatureParser mParser;
    std::vector<std::string> mStrings;
};

}  // namespace mw::tern::DBusMessage
