#pragma once

#include <tern/foundation/status_code.h>
#include <tern/threading/unique_function.h>
#include <tern/typed/bus.h>

#include <string>

#include "job_pool.h"

namespace thermostat {

/// Packs the log folder into an encrypted archive on the pool, and notifies the D-Bus thread when it is done.
///
/// D-Bus thread only.
class LogExporter {
public:
    using Done = mwl::UniqueFunction<void(mw::tern::StatusCode)>;

    /// Pool and bus outlive the exporter, which outlives the pool's last job.
    LogExporter(JobPool& pool, mwl::Typed::Bus& bus, std::string logFolder, const std::string& stateFolder);

    /// Returns immediately. `done` runs on the D-Bus thread with the result, when the archive is complete or
    /// has failed; a failure leaves the former archive as it was. When the bus has closed by then, `done` is
    /// destroyed without having run. REQUIRES: no other export runs, because all of them write the same
    /// archive.
    void Export(const std::string& password, Done done);
    const std::string& GetArchivePath() const { return mArchive; }

private:
    JobPool& mPool;
    mwl::Typed::Bus& mBus;
    std::string mLogFolder;
    std::string mArchive;
};

}  // namespace thermostat
