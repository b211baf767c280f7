#pragma once

#include <systemd/sd-bus.h>
#include <tern/service/event_loop.h>
#include <tern/service/message_pipe.h>

#include <functional>
#include <string>

#include "job_pool.h"

namespace thermostat {

/// Packs the log folder into an encrypted archive on the pool, and tells the D-Bus thread when it is done.
/// One export at a time: all of them write the same archive.
///
/// D-Bus thread only.
class LogExporter {
public:
    using Done = std::function<void(mw::tern::StatusCode)>;

    /// The pool outlives the exporter.
    LogExporter(JobPool& pool, std::string logFolder, const std::string& stateFolder);

    mw::tern::StatusCode Open(mw::tern::EventLoop& loop);
    /// Returns at once. `done` runs on the D-Bus thread with the result, when the archive is complete or has
    /// failed; a failure leaves the former archive as it was. False while another export runs, and then
    /// `done` is not kept.
    bool Export(const std::string& password, Done done);
    /// After the loop has ended: drops `done` of an export that still runs, and refuses its result.
    void Close();
    const std::string& GetArchivePath() const { return mArchive; }

private:
    mw::tern::StatusCode OnDone();

    JobPool& mPool;
    std::string mLogFolder;
    std::string mArchive;
    mw::tern::MessagePipe mResults;
    Done mDone;  ///< of the export that runs
};

}  // namespace thermostat
