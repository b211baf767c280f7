#pragma once

#include <tern/dbus_client/command.h>
#include <tern/foundation/api.h>

#include <string>

struct sd_bus;

namespace mw::tern::DBusCommand {

/// Asks the device-management service to reboot the device:
///
///     RebootSystem(RebootSystem::REBOOT_TYPE_REMOTE).Execute();
///
/// Thread-safety, time limit and messages: as Command.
class TERN_API RebootSystem : public Command {
public:
    /// @name The reasons for a reboot
    /// @{
    static const std::string REBOOT_TYPE_REMOTE;           ///< "Remote"
    static const std::string REBOOT_TYPE_BUTTON;           ///< "Button"
    static const std::string REBOOT_TYPE_FIRMWARE_UPDATE;  ///< "FirmwareUpdate"
    static const std::string REBOOT_TYPE_RESTORE;          ///< "Restore"
    /// @}

    /// `reason` is one of the above; it is copied and passed on as it is.
    explicit RebootSystem(const std::string& reason);
    ~RebootSystem() override;

    /// Calls and reads the answer. Returns the sd-bus result: 0 or more when the service answered, also when
    /// it answered "false" (which only the log says, at info level); else a negative errno, logged.
    int CallMethod(sd_bus* bus) override;

private:
    std::string mReason;
};

}  // namespace mw::tern::DBusCommand
