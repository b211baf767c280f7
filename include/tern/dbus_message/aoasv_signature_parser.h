#pragma once

#include <tern/dbus_message/values_list.h>
#include <tern/foundation/api.h>

#include <string>

struct sd_bus_message;

namespace mw::tern::DBusMessage {

/// Reads a body "a(oa{sv})": hands out each structure, an object path and a dictionary, as it is read. Derive
/// from it and implement OnEntry.
///
/// One thread at a time, on a message that nobody else reads meanwhile; the message is borrowed.
///
/// Outcomes, of every reader: 0 or more for success, else sd-bus's negative errno; the structures before the
/// failure have been handed out. The limits of one call are those of Parser, for all structures together; at
/// -ENOBUFS the reading ends.
class TERN_API AOASVsignatureParser {
public:
    /// Of this message.
    explicit AOASVsignatureParser(sd_bus_message* message);
    virtual ~AOASVsignatureParser();
    AOASVsignatureParser(const AOASVsignatureParser&) = delete;
    AOASVsignatureParser& operator=(const AOASVsignatureParser&) = delete;

    /// Called on the reading thread for each structure that was read whole, in message order, with its
    /// path and the entries of its dictionary; the entry Key is there as _Key. Both live until it returns:
    /// copy what is to stay. An exception leaves through the reader and the message cannot be read on.
    virtual void OnEntry(const std::string& name, const ValuesList& values) = 0;

    /// Reads the array: ReadArrayAOASV.
    int ParseMessage();

    /// Enters the array, reads its structures, leaves it. Returns the result of the last structure, 0 when
    /// there is none: a structure that fails is not handed out and does not stop the others.
    int ReadArrayAOASV();

    /// The structures of an array that has been entered; otherwise as ReadArrayAOASV.
    int ParseArrayOfStructures();

    /// The content of one structure that has been entered.
    int ReadObjectPathAndArrayASV();

private:
    sd_bus_message* mMessage;  ///< borrowed
};

}  // namespace mw::tern::DBusMessage
