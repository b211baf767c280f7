#pragma once

#include <tern/foundation/status_code.h>

#include <optional>
#include <string>

namespace thermostat {

/// Keeps the target temperature across restarts, in a file of the state folder that is replaced as a whole: a
/// power cut or a full disk leaves the former or the new one. D-Bus thread only.
class TargetStore {
public:
    /// `folder` is created when it is missing; its parent has to be there.
    explicit TargetStore(std::string folder) : mFolder(std::move(folder)) {}

    /// Ok, or why the folder cannot be used, logged.
    mw::tern::StatusCode Open() const;
    /// The stored target; none when nothing is stored, or nothing sensible, which is logged.
    std::optional<double> Load() const;
    /// Ok: the target is on the disk, and no power cut takes it away.
    /// Otherwise the status of the call that failed, logged; the former target is kept, unless it was the
    /// last step, the writing of the folder: then either may be there after a power cut.
    mw::tern::StatusCode Save(double celsius) const;

private:
    std::string mFolder;
};

}  // namespace thermostat
