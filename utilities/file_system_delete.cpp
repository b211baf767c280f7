#include <ftw.h>
#include <tern/foundation/log.h>
#include <tern/utilities/file_system.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "foundation/error_text.h"
#include "utilities/directory.h"
#include "utilities/file_system_logger.h"

namespace mwl::Utilities {

using mw::tern::MakeStatusCodeFromErrno;

namespace {

/// Folders that nftw(3) keeps open at once; deeper trees are opened again on the way back.
constexpr int WALK_DESCRIPTORS = 16;

extern "C" int RemoveWalkedEntry(const char* path, const struct stat* /*information*/, int type,
                                 struct FTW* /*position*/) {
    const int result = type == FTW_DP ? rmdir(path) : unlink(path);
    if (result != 0) {
        const int error = errno;
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "DeleteFolder: Failed to remove %s %s", path, ErrorText(error));
        errno = error;  // for the caller of nftw
    }
    return result;
}

}  // namespace

StatusCode FileSystem::DeleteFolder(const std::string& path, bool quiet) {
    // Safe: without FTW_CHDIR the walk leaves the working folder alone.
    // NOLINTNEXTLINE(concurrency-mt-unsafe)
    if (nftw(path.c_str(), RemoveWalkedEntry, WALK_DESCRIPTORS, FTW_DEPTH | FTW_MOUNT | FTW_PHYS) == 0) {
        return StatusCode::Ok;
    }
    const int error = errno;
    if (!quiet) {
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "%s: Failed to remove folder %s", "DeleteFolder", path.c_str());
    }
    return MakeStatusCodeFromErrno(error);
}

StatusCode FileSystem::DeleteFile(const std::string& path) {
    if (path.empty()) {
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "DeleteFile: Impossible to remove empty path");
        return StatusCode::Failure;
    }
    if (remove(path.c_str()) != 0) {
        // Meant: info level, as callers often remove what may not be there.
        const int error = errno;
        TERN_LOG_INFO(FILE_SYSTEM_LOGGER, "DeleteFile: Failed to delete file: %s (errno=%s)", path.c_str(),
                      ErrorText(error));
        return MakeStatusCodeFromErrno(error);
    }
    return StatusCode::Ok;
}

StatusCode FileSystem::DeleteFolderContent(const std::string& folder, bool includeFolders,
                                           bool includeFiles) {
    Directory directory(folder);
    if (!directory) {
        const int error = errno;
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "DeleteFolderContent: Failed to open dir %s, errno = %s",
                       folder.c_str(), ErrorText(error));
        return StatusCode::NotFound;
    }
    StatusCode result = StatusCode::Ok;
    while (const dirent* entry = directory.Next()) {
        const std::string path = folder + FOLDER_SEPARATOR + entry->d_name;
        StatusCode status = StatusCode::Ok;
        if (entry->d_type == DT_REG && includeFiles) {
            status = DeleteFile(path);
        } else if (entry->d_type == DT_DIR && includeFolders) {
            status = DeleteFolder(path, false);
        }
        if (status != StatusCode::Ok) {
            result = status;
        }
    }
    if (errno != 0) {
        result = FailedToReadDirectory("DeleteFolderContent", folder, errno);
    }
    return result;
}

}  // namespace mwl::Utilities
