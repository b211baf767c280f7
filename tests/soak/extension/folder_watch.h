#pragma once

#include <tern/foundation/status_code.h>
#include <tern/utilities/folder_monitor.h>

#include <memory>
#include <string>

#include "progress.h"

namespace soak {

/// Watches a folder for files that were written, one event at a time, and is restarted again and again:
/// sometimes while it still watches, sometimes after an event. One thread at a time.
class FolderWatch {
public:
    FolderWatch(std::shared_ptr<Progress> progress, const std::string& folder);

    /// Ends what is left of the former watch and begins another.
    mwl::StatusCode Restart();
    void Stop() { mMonitor.Stop(); }

private:
    const std::shared_ptr<Progress> mProgress;
    mwl::Utilities::FolderMonitor mMonitor;
};

}  // namespace soak
