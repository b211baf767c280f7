#include <fcntl.h>
#include <sys/stat.h>
#include <tern/foundation/log.h>
#include <tern/utilities/file_system.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "utilities/file_system_messages.h"
#include "utilities/file_system_walk.h"

namespace mwl::Utilities {

using mw::tern::ConvertStatusCodeToString;
using mw::tern::MakeStatusCodeFromErrno;

namespace {

constexpr std::uint64_t BYTES_PER_KIB = 1024;

/// Links that one path may lead through, as for a system call (path_resolution(7)). It ends loops of links.
constexpr unsigned int LARGEST_LINKS = 40;

/// Whether there is nothing at the path, or nothing that could be looked at.
bool IsMissing(const char* path) {
    std::error_code unused;
    const std::filesystem::file_type type = std::filesystem::status(path, unused).type();
    return type == std::filesystem::file_type::not_found || type == std::filesystem::file_type::none;
}

unsigned int UsageOf(const struct stat& information) {
    const auto size = static_cast<std::uint64_t>(information.st_size);
    const auto block = static_cast<std::uint64_t>(std::max<blksize_t>(information.st_blksize, 1));
    return static_cast<unsigned int>((size + block - 1) / block * block / BYTES_PER_KIB);
}

/// `error` is that of a first look at the entry.
StatusCode FailedToMeasure(const char* path, int error) {
    if (IsMissing(path)) {
        return StatusCode::NotFound;
    }
    const StatusCode status = MakeStatusCodeFromErrno(error);
    TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "[%s] Couldn't get size of path '%s', status = %s", "GetDiskUsage",
                   path, ConvertStatusCodeToString(status).c_str());
    return status;
}

/// Adds up what is below a folder, links to folders followed. Once a link to a folder was met, what a folder
/// holds is remembered, so that none is read more than twice however many links lead to it.
class TreeUsage {
public:
    /// Adds to `usage` as it goes.
    TreeUsage(const std::string& path, unsigned int& usage) : mPath(path), mUsage(usage) {}

    StatusCode Run() {
        if (!mWalk.Open(AT_FDCWD, mPath.c_str(), FolderWalk::Links::Followed)) {
            return FailedAtEntry(MakeStatusCodeFromErrno(errno));
        }
        mLevels.push_back({mPath.size(), mUsage, 0});
        StatusCode status = StatusCode::Ok;
        while (status == StatusCode::Ok) {
            const FolderWalk::Entry* const entry = mWalk.Next();
            if (entry != nullptr) {
                status = Measure(*entry);
            } else if (errno != 0) {
                status = FailedAtEntry(MakeStatusCodeFromErrno(errno));
            } else if (mLevels.size() == 1) {
                return status;
            } else {
                status = Leave();
            }
        }
        return status;
    }

private:
    struct Level {
        std::size_t pathLength;  // of the folder above
        unsigned int usage;      // before what is below it
        unsigned int links;      // on the way to it
    };
    using Key = std::pair<dev_t, ino_t>;

    StatusCode Measure(const FolderWalk::Entry& entry) {
        const std::size_t length = mPath.size();
        const bool isLink = entry.type != DT_DIR;  // should it be a folder
        if (mPath.back() != '/') {
            mPath += '/';
        }
        const std::size_t name = mPath.size();
        mPath += entry.name;
        struct stat information {};
        if (fstatat(mWalk.Descriptor(), mPath.c_str() + name, &information, 0) != 0) {
            return FailedAtEntry(FailedToMeasure(mPath.c_str(), errno));
        }
        if (S_ISDIR(information.st_mode)) {
            return MeasureFolder(information, length, name, isLink);
        }
        mUsage += UsageOf(information);
        mPath.resize(length);
        return StatusCode::Ok;
    }

    /// The folder that the path now ends in.
    StatusCode MeasureFolder(const struct stat& information, std::size_t length, std::size_t name,
                             bool isLink) {
        const unsigned int links = mLevels.back().links + (isLink ? 1 : 0);
        if (links > LARGEST_LINKS) {
            return FailedAtEntry(StatusCode::NotFound);
        }
        mUsage += UsageOf(information);
        mRemembers = mRemembers || isLink;
        const auto known = mKnown.find({information.st_dev, information.st_ino});
        if (known != mKnown.end()) {
            mUsage += known->second;
            mPath.resize(length);
            return StatusCode::Ok;
        }
        const auto followed = isLink ? FolderWalk::Links::Followed : FolderWalk::Links::NotFollowed;
        if (!mWalk.Enter(mPath.c_str() + name, followed)) {
            return FailedAtEntry(MakeStatusCodeFromErrno(errno));
        }
        mLevels.push_back({length, mUsage, links});
        return StatusCode::Ok;
    }

    StatusCode Leave() {
        const Level level = mLevels.back();
        if (mRemembers) {
            mKnown.emplace(Key{mWalk.Identity().device, mWalk.Identity().inode}, mUsage - level.usage);
        }
        mLevels.pop_back();
        mPath.resize(level.pathLength);
        int unused = 0;
        return mWalk.Leave(unused) ? StatusCode::Ok : FailedAtEntry(MakeStatusCodeFromErrno(errno));
    }

    StatusCode FailedAtEntry(StatusCode status) const {
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "[%s] Failed to get disk usage for entry '%s', status = %s",
                       "GetRecursiveDiskUsage", mPath.c_str(), ConvertStatusCodeToString(status).c_str());
        return status;
    }

    std::string mPath;  // of the folder that the walk is in, and behind it the entry that is being measured
    unsigned int& mUsage;
    FolderWalk mWalk{O_RDONLY};
    std::vector<Level> mLevels;
    bool mRemembers = false;
    std::map<Key, unsigned int> mKnown;  // what is below a folder
};

StatusCode MeasurePath(const char* path, unsigned int& usage, bool& isFolder) {
    struct stat information {};
    if (stat(path, &information) != 0) {
        return FailedToMeasure(path, errno);
    }
    usage = UsageOf(information);
    isFolder = S_ISDIR(information.st_mode);
    return StatusCode::Ok;
}

}  // namespace

StatusCode FileSystem::GetDiskUsage(const std::string& path, unsigned int& usage) {
    bool unused = false;
    return MeasurePath(path.c_str(), usage, unused);
}

StatusCode FileSystem::GetRecursiveDiskUsage(const std::string& path, unsigned int& usage) {
    bool isFolder = false;
    const StatusCode status = MeasurePath(path.c_str(), usage, isFolder);
    return status == StatusCode::Ok && isFolder ? TreeUsage(path, usage).Run() : status;
}

}  // namespace mwl::Utilities
