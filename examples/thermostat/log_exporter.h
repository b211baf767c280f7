#pragma once

#include <tern/service/dbus_server_manager.h>
#include <tern/service/event_loop.h>
#include <tern/service/message_pipe.h>

#include <functional>
#include <string>

#include "job_pool.h"

namespace thermostat {

/// Packs the log folder into an encrypted archive on the pool, and tells the D-Bus thread when it is done.
class LogExporter {
public:
    /// The pool outlives the exporter.
    LogExporter(JobPool& pool, std::string logFolder, const std::string& stateFolder);

    /// D-Bus thread. `onDone` runs there after each export.
    mw::tern::StatusCode Open(mw::tern::EventLoop& loop, std::function<void(mw::tern::StatusCode)> onDone);
    /// D-Bus thread. Returns at once.
    void Export(const std::string& password);
    const std::string& GetArchivePath() const { return mArchive; }

private:
    mw::tern::StatusCode OnDone();

    JobPool& mPool;
    std::string mLogFolder;
    std::string mArchive;
    mw::tern::MessagePipe mResults;
    std::function<void(mw::tern::StatusCode)> mOnDone;
};

}  // namespace thermostat
