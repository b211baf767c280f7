#include "log_exporter.h"

#include <sys/epoll.h>
#include <tern/utilities/zipper.h>

#include <utility>

using mw::tern::StatusCode;

namespace thermostat {

LogExporter::LogExporter(JobPool& pool, std::string logFolder, const std::string& stateFolder)
    : mPool(pool), mLogFolder(std::move(logFolder)), mArchive(stateFolder + "/log.zip") {}

StatusCode LogExporter::Open(mw::tern::EventLoop& loop) {
    const StatusCode status = mResults.Initialize();
    return status != StatusCode::Ok
               ? status
               : loop.AddIo(mResults.GetReadFd(), EPOLLIN,
                            [this](sd_event_source*, int, unsigned int) { return OnDone(); });
}

bool LogExporter::Export(const std::string& password, Done done) {
    if (mDone) {
        return false;
    }
    mPool.Queue([this, password] {
        const StatusCode result = mwl::Utilities::Zipper::Zip(mLogFolder, mArchive, password);
        // Refused once the D-Bus thread has ended: then nobody waits for it.
        static_cast<void>(mResults.WriteMessage(&result, sizeof result));
    });
    mDone = std::move(done);
    return true;
}

void LogExporter::Close() {
    mResults.Close();
    mDone = nullptr;
}

StatusCode LogExporter::OnDone() {
    StatusCode result = StatusCode::Ok;
    if (mResults.ReadMessage(&result, sizeof result, 0) == StatusCode::Ok) {
        std::exchange(mDone, nullptr)(result);
    }
    return StatusCode::Ok;  // anything else would switch the pipe off for good
}

}  // namespace thermostat
