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

    /// Clears away what a former life may have left half done; what was kept stays.
    mwl::StatusCode Open();
    /// "command", "archive" or "reload"; NotSupported for any other. A failure is counted, too.
    mwl::StatusCode Run(const std::string& kind);
    /// Puts the number into the folder's file kept/`name`, whose former content stays whatever fails: `Ok`
    /// only when the next life will find the number. One at a time for a name.
    mwl::StatusCode Keep(const std::string& name, std::uint64_t number);

private:
    mwl::StatusCode RunProgram();
    mwl::StatusCode PackAndUnpack();
    mwl::StatusCode ReloadSettings();
    /// The file at `path` is replaced as a whole, or not at all.
    mwl::StatusCode Replace(const std::string& path, const std::string& content);
    /// A path for what is made and removed again by one job.
    std::string Unique(const std::string& name);

    Progress& mProgress;
    const std::string mFolder;
    std::atomic<std::uint64_t> mNumber{0};
};

}  // namespace soak
