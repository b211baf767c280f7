#include <fcntl.h>
#include <sys/stat.h>
#include <tern/foundation/log.h>
#include <tern/utilities/file_system.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

#include "foundation/error_text.h"
#include "utilities/directory.h"
#include "utilities/file_system_messages.h"
#include "utilities/file_system_place.h"
#include "utilities/file_system_walk.h"

namespace mwl::Utilities {

using mw::tern::MakeStatusCodeFromErrno;

namespace {

/// Removes an entry and all that is below it, children before their folder. Everything is removed by its name
/// in the folder that the walk has open, never by a path: whatever another user puts in the place of a folder
/// meanwhile is removed itself, not followed. Results are 0 or the error number of what ended it.
class TreeRemoval {
public:
    /// The entry is `name` in the folder `at`; messages call it `path`.
    TreeRemoval(int at, const char* name, const std::string& path) : mAt(at), mName(name), mPath(path) {}

    int Run() {
        struct statx root {};
        if (!Look(mAt, mName, root)) {
            return errno;
        }
        if (!S_ISDIR(root.stx_mode)) {
            return Remove(mAt, mName, 0);
        }
        mMajor = root.stx_dev_major;
        mMinor = root.stx_dev_minor;
        if (!mWalk.Open(mAt, mName, FolderWalk::Links::NotFollowed)) {
            return CannotEnter(mAt, mName, errno);
        }
        int error = 0;
        while (error == 0) {
            const FolderWalk::Entry* const entry = mWalk.Next();
            if (entry != nullptr) {
                error = Treat(*entry);
            } else if (errno != 0) {
                error = errno;
                static_cast<void>(FailedToReadDirectory("DeleteFolder", mPath, error));
            } else if (mWalk.Depth() == 1) {
                return Remove(mAt, mName, AT_REMOVEDIR);
            } else {
                error = LeaveAndRemove();
            }
        }
        return error;
    }

private:
    /// False with `errno`. Of a link the link itself is described, and nothing is mounted by looking at it.
    static bool Look(int at, const char* name, struct statx& entry) {
        return statx(at, name, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, STATX_TYPE, &entry) == 0;
    }

    bool IsOnOtherDevice(const struct statx& entry) const {
        return entry.stx_dev_major != mMajor || entry.stx_dev_minor != mMinor;
    }

    /// Also what is mounted from the same device, as far as the kernel reports it (since 5.8).
    bool IsOtherMount(const struct statx& entry) const {
        return IsOnOtherDevice(entry) || (entry.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
    }

    int Treat(const FolderWalk::Entry& entry) {
        const std::size_t length = mPath.size();
        if (mPath.back() != '/') {
            mPath += '/';
        }
        const std::size_t name = mPath.size();
        mPath += entry.name;
        const int error = entry.type == DT_DIR || entry.type == DT_UNKNOWN
                              ? TreatFolder(length, name)
                              : Remove(mWalk.Descriptor(), entry.name, 0);
        if (mNames.empty() || mNames.back().begin != name) {
            mPath.resize(length);
        }
        return error;
    }

    /// The entry that the path now ends in: one that may be a folder.
    int TreatFolder(std::size_t folderLength, std::size_t nameBegin) {
        const char* const name = mPath.c_str() + nameBegin;
        struct statx entry {};
        if (!Look(mWalk.Descriptor(), name, entry)) {
            // It is removed all the same, or its removal reports what is wrong with it.
            return errno == EACCES || errno == ENOENT ? Remove(mWalk.Descriptor(), name, 0) : errno;
        }
        if (!S_ISDIR(entry.stx_mode)) {
            return Remove(mWalk.Descriptor(), name, 0);
        }
        if (IsOtherMount(entry)) {
            return 0;  // not entered; the folder above cannot go, and says so
        }
        if (!mWalk.Enter(name, FolderWalk::Links::NotFollowed)) {
            return CannotEnter(mWalk.Descriptor(), name, errno);
        }
        mNames.push_back({folderLength, nameBegin});
        return 0;
    }

    /// A folder that may not be read, or in whose place there is something else by now, is removed as if it
    /// were a file.
    int CannotEnter(int at, const char* name, int error) {
        return error == EACCES || error == ENOTDIR || error == ELOOP ? Remove(at, name, 0) : error;
    }

    int LeaveAndRemove() {
        int unused = 0;
        const bool isBack = mWalk.Leave(unused);
        const int error = isBack
                              ? Remove(mWalk.Descriptor(), mPath.c_str() + mNames.back().begin, AT_REMOVEDIR)
                              : FailedToRemove(errno);
        mPath.resize(mNames.back().folderLength);
        mNames.pop_back();
        return error;
    }

    /// Removes the entry that the path ends in.
    int Remove(int at, const char* name, int flags) {
        if (unlinkat(at, name, flags) == 0) {
            return 0;
        }
        const int error = errno;
        struct statx entry {};
        if (error == EBUSY && flags == 0 && mWalk.Depth() > 0 && Look(at, name, entry) &&
            IsOnOtherDevice(entry)) {
            return 0;  // a file that is mounted there: as a folder that is
        }
        return FailedToRemove(error);
    }

    int FailedToRemove(int error) const {
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "DeleteFolder: Failed to remove %s %s", mPath.c_str(),
                       ErrorText(error));
        return error;
    }

    /// Where in the path the name of a folder that the walk went down into begins, and the path above it
    /// ends.
    struct Name {
        std::size_t folderLength;
        std::size_t begin;
    };

    const int mAt;
    const char* const mName;
    std::string mPath;  // of the folder that the walk is in, and behind it the entry that is being removed
    std::vector<Name> mNames;
    std::uint32_t mMajor = 0;
    std::uint32_t mMinor = 0;
    FolderWalk mWalk{O_RDONLY};
};

StatusCode RemoveFolder(int at, const char* name, const std::string& path, const std::string& givenPath,
                        bool quiet) {
    const int error = TreeRemoval(at, name, path).Run();
    if (error == 0) {
        return StatusCode::Ok;
    }
    if (!quiet) {
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "%s: Failed to remove folder %s", "DeleteFolder",
                       givenPath.c_str());
    }
    return MakeStatusCodeFromErrno(error);
}

StatusCode FailedToDelete(const std::string& path, int error) {
    // Info level, because callers often remove what may not be there.
    TERN_LOG_INFO(FILE_SYSTEM_LOGGER, "DeleteFile: Failed to delete file: %s (errno=%s)", path.c_str(),
                  ErrorText(error));
    return MakeStatusCodeFromErrno(error);
}

}  // namespace

StatusCode FileSystem::DeleteFolder(const std::string& path, bool quiet) {
    const std::string bare = WithoutTrailingSeparators(path);
    const Place place(bare);
    return RemoveFolder(place.At(), place.name.c_str(), bare, path, quiet);
}

StatusCode FileSystem::DeleteFile(const std::string& path) {
    if (path.empty()) {
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "DeleteFile: Impossible to remove empty path");
        return StatusCode::Failure;
    }
    return remove(path.c_str()) == 0 ? StatusCode::Ok : FailedToDelete(path, errno);
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
            if (unlinkat(directory.Descriptor(), entry->d_name, 0) != 0) {
                status = FailedToDelete(path, errno);
            }
        } else if (entry->d_type == DT_DIR && includeFolders) {
            status = RemoveFolder(directory.Descriptor(), entry->d_name, path, path, false);
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
