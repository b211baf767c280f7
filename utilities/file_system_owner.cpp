#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <tern/foundation/log.h>
#include <tern/utilities/file_system.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <string>

#include "foundation/error_text.h"
#include "foundation/unique_fd.h"
#include "platform/static_text.h"
#include "utilities/file_system_at.h"
#include "utilities/file_system_messages.h"
#include "utilities/file_system_place.h"
#include "utilities/service_files_owner.h"
#include "utilities/user_database.h"

namespace mwl::Utilities {

using mw::tern::MakeStatusCodeFromErrno;

namespace {

/// Owner of service files, as user and as group.
const StaticText MEADOW("meadow");

constexpr mode_t FOLDER_MODE_WHILE_MADE = 0700;
constexpr mode_t FOLDER_MODE = 0775;
constexpr mode_t FILE_MODE = 0644;

bool FindOwner(const std::string& user, const std::string& group, uid_t& uid, gid_t& gid, int& error) {
    return FindUser(user, uid, error) && FindGroup(group, gid, error);
}

/// The folder that a link leads to, when the link itself is root's or this user's: what somebody else planted
/// is not followed (ELOOP). The text of that very link is taken, whatever its name stands for by now.
UniqueFd FollowTrustedLink(int at, int link, const struct stat& information) {
    char target[PATH_MAX];
    if (information.st_uid != 0 && information.st_uid != geteuid()) {
        errno = ELOOP;
        return UniqueFd();
    }
    const ssize_t length = readlinkat(link, "", target, sizeof target - 1);
    if (length < 0) {
        return UniqueFd();
    }
    target[length] = '\0';
    return UniqueFd(openat(at, target, O_PATH | O_DIRECTORY | O_CLOEXEC));
}

/// Opens what is there now, as FolderRequest says; false with `errno`.
bool OpenFolder(const FolderRequest& request, bool isNew, UniqueFd& folder) {
    folder.Reset(openat(request.at, request.name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat information {};
    if (!folder || fstat(folder.Get(), &information) != 0) {
        return false;
    }
    if (S_ISLNK(information.st_mode)) {
        if (!request.followsTrustedLink || isNew) {
            errno = ELOOP;
            return false;
        }
        folder = FollowTrustedLink(request.at, folder.Get(), information);
        return static_cast<bool>(folder);
    }
    if ((isNew || request.mustBeFolder) && !S_ISDIR(information.st_mode)) {
        errno = ENOTDIR;
        return false;
    }
    return true;
}

/// chmod(2) of what is open with O_PATH, for which fchmod(2) is refused; false with `errno`.
bool ChangeMode(int handle, mode_t mode) {
    // This name leads to the open entry itself.
    if (chmod(("/proc/self/fd/" + std::to_string(handle)).c_str(), mode) == 0) {
        return true;
    }
    if (errno != ENOENT) {
        return false;
    }
    // No /proc here.
    const UniqueFd folder(openat(handle, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return folder && fchmod(folder.Get(), mode) == 0;
}

/// Opens the folder and gives it its mode and owner; on failure false and the error number, 0 for an unknown
/// owner.
bool EquipFolder(const FolderRequest& request, bool isNew, UniqueFd& folder, int& error) {
    const char* const path = request.path.c_str();
    if (!OpenFolder(request, isNew, folder) || !ChangeMode(folder.Get(), FOLDER_MODE)) {
        error = errno;
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "%s: Failed to change permission on folder: %s (errno=%s)",
                       "CreateFolder", path, ErrorText(error));
        return false;
    }
    TERN_LOG_TRACE(FILE_SYSTEM_LOGGER, "%s: %s now exists", "CreateFolder", path);

    const uid_t uid = getuid();
    std::string user;
    if (!FindUserName(uid, user, error)) {
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "%s: Failed to get user for uid: %u (errno=%s)", "CreateFolder",
                       uid, ErrorText(error));
        return false;
    }
    gid_t gid = 0;
    if (!FindGroup(user, gid, error)) {
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "%s: Failed to get group for user: %s (errno=%s)", "CreateFolder",
                       user.c_str(), ErrorText(error));
        return false;
    }
    if (fchownat(folder.Get(), "", uid, gid, AT_EMPTY_PATH) != 0) {
        error = errno;
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "%s: Failed to change owner of folder: %s (errno=%s)",
                       "CreateFolder", path, ErrorText(error));
        return false;
    }
    return true;
}

StatusCode FailedToSetRights(const std::string& path, int error) {
    TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "%s: Failed to change permission of file: %s (errno=%s)",
                   "SetDefaultAccessRights", path.c_str(), ErrorText(error));
    return StatusCode::Failure;
}

}  // namespace

StatusCode CreateFolderAt(const FolderRequest& request, UniqueFd& folder) {
    TERN_LOG_TRACE(FILE_SYSTEM_LOGGER, "%s: %s", "CreateFolder", request.path.c_str());
    // As for a system call with that path.
    const bool isTooLong = request.path.size() >= PATH_MAX;
    const bool isNew = !isTooLong && mkdirat(request.at, request.name, FOLDER_MODE_WHILE_MADE) == 0;
    int error = isTooLong ? ENAMETOOLONG : errno;
    // Fixed by the interface: a path that exists, even as a file, counts as created.
    if (!isNew && error != EEXIST) {
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "%s: Failed to create folder: %s (errno=%s)", "CreateFolder",
                       request.path.c_str(), ErrorText(error));
    } else if (EquipFolder(request, isNew, folder, error)) {
        return StatusCode::Ok;
    }
    // Fixed by the interface: an empty folder goes even if this call did not make it; one with content stays.
    if (!isTooLong) {
        static_cast<void>(unlinkat(request.at, request.name, AT_REMOVEDIR));
    }
    return MakeStatusCodeFromErrno(error);
}

StatusCode FileSystem::CreateFolder(const std::string& path) {
    const std::string bare = WithoutTrailingSeparators(path);
    const Place place(bare);
    UniqueFd folder;
    return CreateFolderAt({place.At(), place.name.c_str(), path, bare.size() != path.size(), true}, folder);
}

StatusCode FileSystem::SetMeadowOwner(const std::string& path) {
    return ServiceFilesOwner().SetBy(
        [&](uid_t user, gid_t group) { return chown(path.c_str(), user, group); }, path);
}

StatusCode ServiceFilesOwner::SetOn(int file, const std::string& path) {
    return SetBy([&](uid_t user, gid_t group) { return fchown(file, user, group); }, path);
}

StatusCode ServiceFilesOwner::SetBy(const std::function<int(uid_t, gid_t)>& change, const std::string& path) {
    int error = 0;
    mFound = mFound || FindOwner(MEADOW, MEADOW, mUser, mGroup, error);
    if (!mFound) {
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER,
                       "SetMeadowOwner: Failed to get user info or group info of file %s, errno %s",
                       path.c_str(), ErrorText(error));
        return StatusCode::Failure;
    }
    if (change(mUser, mGroup) != 0) {
        error = errno;
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "SetMeadowOwner: Failed to change owner of file: %s (errno=%s)",
                       path.c_str(), ErrorText(error));
        return StatusCode::Failure;
    }
    return StatusCode::Ok;
}

StatusCode FileSystem::SetDefaultAccessRights(const std::string& path) {
    return chmod(path.c_str(), FILE_MODE) == 0 ? StatusCode::Ok : FailedToSetRights(path, errno);
}

StatusCode SetDefaultAccessRightsOn(int file, const std::string& path) {
    return fchmod(file, FILE_MODE) == 0 ? StatusCode::Ok : FailedToSetRights(path, errno);
}

StatusCode FileSystem::ChangeOwnership(const std::string& path, const std::string& user,
                                       const std::string& group) {
    uid_t uid = 0;
    gid_t gid = 0;
    int error = 0;
    if (!FindOwner(user, group, uid, gid, error)) {
        // Fixed by the interface: the same text in both places, whichever look-up failed.
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER,
                       "[%s] Unable to change ownership of the file %s.\nerror getpwnam[%s] or getgrnam[%s]",
                       "ChangeOwnership", path.c_str(), ErrorText(error), ErrorText(error));
        return StatusCode::Failure;
    }
    if (chown(path.c_str(), uid, gid) != 0) {
        error = errno;
        const StatusCode status = MakeStatusCodeFromErrno(error);
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER,
                       "[%s] Unable to change ownership of the file %s.\nerror[%s], StatusCode[%s]",
                       "ChangeOwnership", path.c_str(), ErrorText(error),
                       mw::tern::ConvertStatusCodeToString(status).c_str());
        return status;
    }
    TERN_LOG_INFO(FILE_SYSTEM_LOGGER, "[%s] Changed ownership of the file %s to %s:%s", "ChangeOwnership",
                  path.c_str(), user.c_str(), group.c_str());
    return StatusCode::Ok;
}

}  // namespace mwl::Utilities
