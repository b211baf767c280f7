#include "utilities/whole_unzip_target.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <tern/foundation/log.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <string_view>

#include "foundation/error_text.h"
#include "utilities/file_system_write.h"
#include "utilities/zip_status.h"
#include "utilities/zipper_logger.h"

namespace mwl::Utilities {

WholeUnzipTarget::WholeUnzipTarget(const std::string& folder)
    : UnzipTarget(folder), mFolder(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)), mError(errno) {}

StatusCode WholeUnzipTarget::Undescribed(zip_t* archive, zip_uint64_t index) {
    const StatusCode status = GetArchiveStatus(archive);
    TERN_LOG_ERROR(ZIPPER_LOGGER, "Unzip: Failed to open zip file %s, error = %s",
                   std::to_string(index).c_str(), zip_strerror(archive));
    return status;
}

StatusCode WholeUnzipTarget::Write(const char* name, const char* buffer, std::size_t size) {
    UniqueFd file = Open(name);
    int error = errno;
    if (!file) {
        return FailedToOpen(PathOf(name), error);
    }
    error = WriteAll(file.Get(), buffer, size);
    if (close(file.Release()) != 0 && error == 0) {
        error = errno;
    }
    if (error != 0) {
        FailedToWrite(name, error);
        return mw::tern::MakeStatusCodeFromErrno(error);
    }
    return StatusCode::Ok;
}

StatusCode WholeUnzipTarget::Finish() {
    if (mFolder && syncfs(mFolder.Get()) == 0) {
        return StatusCode::Ok;
    }
    const int error = mFolder ? errno : mError;
    TERN_LOG_ERROR(ZIPPER_LOGGER, "UnzipWhole: Failed to store what is in %s, errno = %s", GetPath().c_str(),
                   ErrorText(error));
    return mw::tern::MakeStatusCodeFromErrno(error);
}

UniqueFd WholeUnzipTarget::Open(const char* name) const {
    if (!mFolder) {
        errno = mError;
        return UniqueFd();
    }
    std::string_view rest = name;
    if (rest.empty() || rest.back() == '/') {
        errno = EISDIR;
        return UniqueFd();
    }
    UniqueFd below;
    int folder = mFolder.Get();
    for (std::size_t end = rest.find('/'); end != std::string_view::npos; end = rest.find('/')) {
        if (end > 0) {
            const std::string part(rest.substr(0, end));
            below = UniqueFd(openat(folder, part.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            if (!below) {
                return below;
            }
            folder = below.Get();
        }
        rest.remove_prefix(end + 1);
    }
    UniqueFd file(openat(folder, std::string(rest).c_str(),
                         O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, FILE_MODE));
    struct stat information {};
    if (!file || fstat(file.Get(), &information) != 0) {
        return UniqueFd();
    }
    if (!S_ISREG(information.st_mode)) {
        errno = EINVAL;
        return UniqueFd();
    }
    if (information.st_size != 0 && ftruncate(file.Get(), 0) != 0) {
        return UniqueFd();
    }
    return file;
}

}  // namespace mwl::Utilities
