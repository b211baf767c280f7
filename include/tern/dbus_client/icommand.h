#pragma once

#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>

struct sd_bus;

namespace mw::tern::DBusCommand {

/// One method call on the system bus, as an object; see Command.
class TERN_API ICommand {
public:
    virtual ~ICommand() = default;
    /// Connects if need be, and makes the call.
    virtual StatusCode Execute() = 0;
    /// Makes the call on a connected bus. Returns the sd-bus result: negative for a failure.
    virtual int CallMethod(sd_bus* bus) = 0;
};

}  // namespace mw::tern::DBusCommand
