#include <sys/stat.h>
#include <tern/foundation/log.h>
#include <tern/utilities/file_system.h>
#include <unistd.h>

#include <cerrno>

#include "foundation/error_text.h"
#include "platform/static_text.h"
#include "utilities/file_system_logger.h"
#include "utilities/meadow_owner.h"
#include "utilities/user_database.h"

namespace mwl::Utilities {

using mw::tern::MakeStatusCodeFromErrno;

namespace {

/// Owner of service files, as user and as group.
const StaticText MEADOW("meadow");

constexpr mode_t FOLDER_MODE_WHILE_MADE = 0700;
constexpr mode_t FOLDER_MODE = 0775;
constexpr mode_t FILE_MODE = 0644;

const char* const CREATE_FOLDER = "CreateFolder";
const char* const CHANGE_OWNERSHIP = "ChangeOwnership";

bool FindOwner(const std::string& user, const std::string& group, uid_t& uid, gid_t& gid, int& error) {
    return FindUser(user, uid, error) && FindGroup(group, gid, error);
}

/// Gives the folder its mode and owner; on failure false and the error number, 0 for an unknown owner.
bool EquipFolder(const std::string& path, int& error) {
    if (chmod(path.c_str(), FOLDER_MODE) != 0) {
        error = errno;
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "%s: Failed to change permission on folder: %s (errno=%s)",
                       CREATE_FOLDER, path.c_str(), ErrorText(error));
        return false;
    }
    TERN_LOG_TRACE(FILE_SYSTEM_LOGGER, "%s: %s now exists", CREATE_FOLDER, path.c_str());

    const uid_t uid = getuid();
    std::string user;
    if (!FindUserName(uid, user, error)) {
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "%s: Failed to get user for uid: %u (errno=%s)", CREATE_FOLDER,
                       uid, ErrorText(error));
        return false;
    }
    gid_t gid = 0;
    if (!FindGroup(user, gid, error)) {
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "%s: Failed to get group for user: %s (errno=%s)", CREATE_FOLDER,
                       user.c_str(), ErrorText(error));
        return false;
    }
    if (chown(path.c_str(), uid, gid) != 0) {
        error = errno;
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "%s: Failed to change owner of folder: %s (errno=%s)",
                       CREATE_FOLDER, path.c_str(), ErrorText(error));
        return false;
    }
    return true;
}

}  // namespace

StatusCode FileSystem::CreateFolder(const std::string& path) {
    TERN_LOG_TRACE(FILE_SYSTEM_LOGGER, "%s: %s", CREATE_FOLDER, path.c_str());
    int error = 0;
    // Meant: a path that exists, even as a file, counts as made.
    if (mkdir(path.c_str(), FOLDER_MODE_WHILE_MADE) != 0 && errno != EEXIST) {
        error = errno;
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "%s: Failed to create folder: %s (errno=%s)", CREATE_FOLDER,
                       path.c_str(), ErrorText(error));
    } else if (EquipFolder(path, error)) {
        return StatusCode::Ok;
    }
    // Meant: an empty folder goes even if this call did not make it; one with content stays.
    static_cast<void>(rmdir(path.c_str()));
    return MakeStatusCodeFromErrno(error);
}

StatusCode FileSystem::SetMeadowOwner(const std::string& path) {
    return MeadowOwner().SetOn(path);
}

StatusCode MeadowOwner::SetOn(const std::string& path) {
    int error = 0;
    mFound = mFound || FindOwner(MEADOW, MEADOW, mUser, mGroup, error);
    if (!mFound) {
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER,
                       "SetMeadowOwner: Failed to get user info or group info of file %s, errno %s",
                       path.c_str(), ErrorText(error));
        return StatusCode::Failure;
    }
    if (chown(path.c_str(), mUser, mGroup) != 0) {
        error = errno;
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "SetMeadowOwner: Failed to change owner of file: %s (errno=%s)",
                       path.c_str(), ErrorText(error));
        return StatusCode::Failure;
    }
    return StatusCode::Ok;
}

StatusCode FileSystem::SetDefaultAccessRights(const std::string& path) {
    if (chmod(path.c_str(), FILE_MODE) != 0) {
        const int error = errno;
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "%s: Failed to change permission of file: %s (errno=%s)",
                       "SetDefaultAccessRights", path.c_str(), ErrorText(error));
        return StatusCode::Failure;
    }
    return StatusCode::Ok;
}

StatusCode FileSystem::ChangeOwnership(const std::string& path, const std::string& user,
                                       const std::string& group) {
    uid_t uid = 0;
    gid_t gid = 0;
    int error = 0;
    if (!FindOwner(user, group, uid, gid, error)) {
        // Meant: the same text in both places, whichever look-up failed.
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER,
                       "[%s] Unable to change ownership of the file %s.\nerror getpwnam[%s] or getgrnam[%s]",
                       CHANGE_OWNERSHIP, path.c_str(), ErrorText(error), ErrorText(error));
        return StatusCode::Failure;
    }
    if (chown(path.c_str(), uid, gid) != 0) {
        error = errno;
        const StatusCode status = MakeStatusCodeFromErrno(error);
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER,
                       "[%s] Unable to change ownership of the file %s.\nerror[%s], StatusCode[%s]",
                       CHANGE_OWNERSHIP, path.c_str(), ErrorText(error),
                       mw::tern::ConvertStatusCodeToString(status).c_str());
        return status;
    }
    TERN_LOG_INFO(FILE_SYSTEM_LOGGER, "[%s] Changed ownership of the file %s to %s:%s", CHANGE_OWNERSHIP,
                  path.c_str(), user.c_str(), group.c_str());
    return StatusCode::Ok;
}

}  // namespace mwl::Utilities
