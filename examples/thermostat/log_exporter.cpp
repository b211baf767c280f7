#include "log_exporter.h"

#include <sys/epoll.h>
#include <tern/utilities/zipper.h>

using mw::tern::StatusCode;

namespace thermostat {

LogExporter::LogExporter(JobPool& pool, std::string logFolder, const std::string& stateFolder)
    : mPool(pool), mLogFolder(std::move(logFolder)), mArchive(stateFolder + "/log.zip") {}

StatusCode LogExporter::Open(mw::tern::EventLoop& loop, std::function<void(StatusCode)> onDone) {
    mOnDone = std::move(onDone);
    const StatusCode status = mResults.Initialize();
    return status != StatusCode::Ok
               ? status
               : loop.AddIo(mResults.GetReadFd(), EPOLLIN,
                            [this](sd_event_source*, int, unsigned int) { return OnDone(); });
}

void LogExporter::Export(const std::string& password) {
    mPool.Queue([this, password] {
        const StatusCode result = mwl::Utilities::Zipper::Zip(mLogFolder, mArchive, password);
        static_cast<void>(mResults.WriteMessage(&result, sizeof result));
    });
}

StatusCode LogExporter::OnDone() {
    StatusCode result = StatusCode::Ok;
    const StatusCode status = mResults.ReadMessage(&result, sizeof result, 0);
    if (status == StatusCode::Ok) {
        mOnDone(result);
    }
    return status;
}

}  // namespace thermostat
