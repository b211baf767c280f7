#pragma once

#include <tern/foundation/status_code.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "progress.h"

namespace soak {

/// What the pool's workers do: external programs, archives, settings. Each checks its own result. Any thread
/// after Open.
class Jobs {
public:
    /// `folder` exists; the progress outlives the jobs.
    Jobs(Progress& progress, std::string folder);

    mwl::StatusCode Open();
    /// "command", "archive" or "reload"; NotSupported for any other. A failure is counted, too.
    mwl::StatusCode Run(const std::string& kind);

private:
    mwl::StatusCode RunProgram();
    mwl::StatusCode PackAndUnpack();
    mwl::StatusCode ReloadSettings();
    std::string Unique(const std::string& name);

    Progress& mProgress;
    const std::string mFolder;
    std::atomic<std::uint64_t> mNumber{0};
};

}  // namespace soak
