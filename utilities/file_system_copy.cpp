#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <tern/foundation/log.h>
#include <tern/utilities/file_system.h>
#include <unistd.h>

#include <cerrno>

#include "foundation/error_text.h"
#include "foundation/unique_fd.h"
#include "utilities/directory.h"
#include "utilities/file_system_logger.h"
#include "utilities/meadow_owner.h"

namespace mwl::Utilities {

using mw::tern::ConvertStatusCodeToString;
using mw::tern::MakeStatusCodeFromErrno;

namespace {

/// Meant: the decimal number, that is octal 1204 (sticky, owner writes, others read). Users of a copy set its
/// owner and rights afterwards.
constexpr mode_t COPY_MODE = 644;

const char* const COPY_FOLDER_CONTENT = "CopyFolderContent";

StatusCode FailedToOpen(const std::string& path, int error) {
    TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "CopyFile: Failed to open file %s, errno = %s", path.c_str(),
                   ErrorText(error));
    return MakeStatusCodeFromErrno(error);
}

StatusCode FailedToInspect(const std::string& path, int error) {
    TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "CopyFile: Information file failed for %s, errno = %s", path.c_str(),
                   ErrorText(error));
    return MakeStatusCodeFromErrno(error);
}

/// Copies one regular file and gives it to the service user.
StatusCode CopyEntry(const std::string& from, const std::string& to, MeadowOwner& owner) {
    const StatusCode status = FileSystem::CopyFile(from, to);
    TERN_LOG_INFO(FILE_SYSTEM_LOGGER, "%s: Copy %s to %s, status = %s", COPY_FOLDER_CONTENT, from.c_str(),
                  to.c_str(), ConvertStatusCodeToString(status).c_str());
    if (status != StatusCode::Ok) {
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "%s: Failed to copy file (%s), status = %s", COPY_FOLDER_CONTENT,
                       from.c_str(), ConvertStatusCodeToString(status).c_str());
        return status;
    }
    // Meant: a file that was copied is a success, whoever owns it.
    if (owner.SetOn(to) != StatusCode::Ok) {
        TERN_LOG_WARNING(FILE_SYSTEM_LOGGER, "%s: Failed to set meadow owner for %s", COPY_FOLDER_CONTENT,
                         to.c_str());
    } else if (FileSystem::SetDefaultAccessRights(to) != StatusCode::Ok) {
        TERN_LOG_WARNING(FILE_SYSTEM_LOGGER, "%s: Failed to set default meadow rights for %s",
                         COPY_FOLDER_CONTENT, to.c_str());
    }
    return StatusCode::Ok;
}

StatusCode CopyContent(const std::string& source, const std::string& destination, bool includeFolders,
                       bool includeFiles, MeadowOwner& owner);

/// Makes the sub-folder and copies everything in it. The paths come without a separator at their end.
StatusCode CopySubFolder(std::string from, std::string to, MeadowOwner& owner) {
    StatusCode status = FileSystem::CreateFolder(to);
    if (status != StatusCode::Ok) {
        return status;
    }
    from += FileSystem::FOLDER_SEPARATOR;
    to += FileSystem::FOLDER_SEPARATOR;
    // Meant: what is below the first level is copied whole, whatever was chosen for that level.
    status = CopyContent(from, to, true, true, owner);
    if (status == StatusCode::NotFound) {
        TERN_LOG_INFO(FILE_SYSTEM_LOGGER, "%s: Copy empty %s to %s, status = %s", COPY_FOLDER_CONTENT,
                      from.c_str(), to.c_str(), ConvertStatusCodeToString(StatusCode::Ok).c_str());
        return StatusCode::Ok;
    }
    if (status != StatusCode::Ok) {
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "%s: Failed to copy sub-folder (%s), status = %s",
                       COPY_FOLDER_CONTENT, from.c_str(), ConvertStatusCodeToString(status).c_str());
        return status;
    }
    TERN_LOG_INFO(FILE_SYSTEM_LOGGER, "%s: Copy %s to %s, status = %s", COPY_FOLDER_CONTENT, from.c_str(),
                  to.c_str(), ConvertStatusCodeToString(status).c_str());
    return status;
}

StatusCode CopyContent(const std::string& source, const std::string& destination, bool includeFolders,
                       bool includeFiles, MeadowOwner& owner) {
    Directory directory(source);
    if (!directory) {
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "%s: Failed to open directory: %s", COPY_FOLDER_CONTENT,
                       source.c_str());
        return StatusCode::Failure;
    }
    // Meant: nothing copied is NotFound, and each entry's result covers the ones before it.
    StatusCode result = StatusCode::NotFound;
    while (const dirent* entry = directory.Next()) {
        const std::string from = source + entry->d_name;
        const std::string to = destination + entry->d_name;
        if (entry->d_type == DT_REG) {
            if (includeFiles) {
                result = CopyEntry(from, to, owner);
            } else {
                TERN_LOG_TRACE(FILE_SYSTEM_LOGGER, "%s: includeFiles=false, %s is not copied to %s",
                               COPY_FOLDER_CONTENT, from.c_str(), destination.c_str());
            }
        } else if (entry->d_type == DT_DIR) {
            if (includeFolders) {
                result = CopySubFolder(from, to, owner);
            } else {
                TERN_LOG_TRACE(FILE_SYSTEM_LOGGER, "%s: includeFolders=false, %s is not copied to %s",
                               COPY_FOLDER_CONTENT, from.c_str(), destination.c_str());
            }
        } else {
            TERN_LOG_INFO(FILE_SYSTEM_LOGGER, "%s: File %s, type (%u) is not supported", COPY_FOLDER_CONTENT,
                          entry->d_name, static_cast<unsigned int>(entry->d_type));
        }
    }
    if (errno != 0) {
        result = FailedToReadDirectory(COPY_FOLDER_CONTENT, source, errno);
    }
    if (directory.Close() != 0) {
        const int error = errno;
        TERN_LOG_WARNING(FILE_SYSTEM_LOGGER, "%s: Failed to close directory, errno: %s", COPY_FOLDER_CONTENT,
                         ErrorText(error));
    }
    return result;
}

}  // namespace

StatusCode FileSystem::CopyFile(const std::string& source, const std::string& destination) {
    const UniqueFd from(open(source.c_str(), O_RDONLY | O_CLOEXEC));
    if (!from) {
        return FailedToOpen(source, errno);
    }
    struct stat information {};
    if (fstat(from.Get(), &information) != 0) {
        return FailedToInspect(source, errno);
    }
    // As creat(2), but the destination is emptied only when it is known not to be the source itself.
    const UniqueFd to(open(destination.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, COPY_MODE));
    if (!to) {
        return FailedToOpen(destination, errno);
    }
    struct stat former {};
    if (fstat(to.Get(), &former) != 0) {
        return FailedToInspect(destination, errno);
    }
    if (former.st_dev == information.st_dev && former.st_ino == information.st_ino) {
        return FailedToOpen(destination, EINVAL);
    }
    if (S_ISREG(former.st_mode) && former.st_size != 0 && ftruncate(to.Get(), 0) != 0) {
        return FailedToOpen(destination, errno);
    }
    // Meant: one call; a file that it does not take whole is a failure.
    const ssize_t copied =
        sendfile(to.Get(), from.Get(), nullptr, static_cast<std::size_t>(information.st_size));
    if (copied < information.st_size) {
        const int error = copied < 0 ? errno : EIO;
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "CopyFile: Failed to copy file, errno = %s", ErrorText(error));
        return MakeStatusCodeFromErrno(error);
    }
    return StatusCode::Ok;
}

StatusCode FileSystem::CopyFolderContent(const std::string& source, const std::string& destination,
                                         bool includeFolders, bool includeFiles) {
    MeadowOwner owner;
    return CopyContent(source, destination, includeFolders, includeFiles, owner);
}

}  // namespace mwl::Utilities
