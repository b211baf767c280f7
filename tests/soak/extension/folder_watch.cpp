#include "folder_watch.h"

#include <sys/inotify.h>

using mwl::StatusCode;

namespace soak {

FolderWatch::FolderWatch(std::shared_ptr<Progress> progress, const std::string& folder)
    : mProgress(std::move(progress)), mMonitor(folder) {}

StatusCode FolderWatch::Restart() {
    mMonitor.Stop();
    ++mProgress->folderRestarts;
    return mMonitor.Start(
        [this, progress = mProgress](const std::string&, unsigned int) {
            ++progress->folderEvents;
            mMonitor.Stop();  // or it could neither be started nor destroyed any more
        },
        IN_CLOSE_WRITE);
}

}  // namespace soak
