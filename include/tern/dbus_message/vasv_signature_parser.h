#pragma once

#include <tern/dbus_message/parser.h>
#include <tern/foundation/api.h>

namespace mw::tern::DBusMessage {

/// Reads a body "v" that holds an a{sv}: the entry Key is stored as __Key, with two separators, because the
/// variant itself counts as a step without a name. A variant that holds a basic type is stored as "_".
///
/// Threads, ownership and outcomes are those of Parser.
class TERN_API VASVsignatureParser : public Parser {
public:
    /// Without a message; see SetMessage.
    VASVsignatureParser();
    /// Of this message, which is borrowed.
    explicit VASVsignatureParser(sd_bus_message* message);
    ~VASVsignatureParser() override;

    /// Reads the variant. Returns 0 or more when it was read, also when its content is of a type that no list
    /// can keep, else sd-bus's negative errno; what was read before the failure stays in the list.
    int ParseMessage();
};

}  // namespace mw::tern::DBusMessage
