#pragma once

#include <tern/foundation/status_code.h>

#include <optional>
#include <string>

namespace thermostat {

/// Keeps the target temperature across restarts, in a file of the state folder that is replaced as a whole: a
/// power cut leaves the former or the new one. D-Bus thread only, after Open on the main thread.
class TargetStore {
public:
    /// `folder` is made when it is missing; its parent has to be there.
    explicit TargetStore(std::string folder) : mFolder(std::move(folder)) {}

    mw::tern::StatusCode Open() const;
    /// The stored target; none when nothing sensible is stored.
    std::optional<double> Load() const;
    mw::tern::StatusCode Save(double celsius) const;

private:
    std::string mFolder;
};

}  // namespace thermostat
