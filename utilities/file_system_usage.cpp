#include <sys/stat.h>
#include <tern/foundation/log.h>
#include <tern/utilities/file_system.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <stack>
#include <string>
#include <system_error>
#include <utility>

#include "utilities/directory.h"
#include "utilities/file_system_logger.h"

namespace mwl::Utilities {

using mw::tern::ConvertStatusCodeToString;
using mw::tern::MakeStatusCodeFromErrno;

namespace {

constexpr std::uint64_t BYTES_PER_KIB = 1024;

/// Whether there is nothing at the path, or nothing that could be looked at.
bool IsMissing(const char* path) {
    std::error_code unused;
    const std::filesystem::file_type type = std::filesystem::status(path, unused).type();
    return type == std::filesystem::file_type::not_found || type == std::filesystem::file_type::none;
}

StatusCode MeasureEntry(const char* path, unsigned int& usage, bool& isFolder) {
    struct stat information {};
    if (stat(path, &information) != 0) {
        const int error = errno;
        if (IsMissing(path)) {
            return StatusCode::NotFound;
        }
        const StatusCode status = MakeStatusCodeFromErrno(error);
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "[%s] Couldn't get size of path '%s', status = %s", "GetDiskUsage",
                       path, ConvertStatusCodeToString(status).c_str());
        return status;
    }
    const auto size = static_cast<std::uint64_t>(information.st_size);
    const auto block = static_cast<std::uint64_t>(std::max<blksize_t>(information.st_blksize, 1));
    usage = static_cast<unsigned int>((size + block - 1) / block * block / BYTES_PER_KIB);
    isFolder = S_ISDIR(information.st_mode);
    return StatusCode::Ok;
}

StatusCode FailedAtEntry(const std::string& path, StatusCode status) {
    TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "[%s] Failed to get disk usage for entry '%s', status = %s",
                   "GetRecursiveDiskUsage", path.c_str(), ConvertStatusCodeToString(status).c_str());
    return status;
}

}  // namespace

StatusCode FileSystem::GetDiskUsage(const std::string& path, unsigned int& usage) {
    bool unused = false;
    return MeasureEntry(path.c_str(), usage, unused);
}

StatusCode FileSystem::GetRecursiveDiskUsage(const std::string& path, unsigned int& usage) {
    struct Level {
        std::string path;
        Directory directory;
    };
    // Walked by hand: the iterators of std::filesystem fail at times beyond 2038 where the C++ library was
    // built with 32-bit time.
    std::stack<Level> levels;
    const auto enter = [&levels](std::string folder) {
        Directory directory(folder);
        if (!directory) {
            return FailedAtEntry(folder, MakeStatusCodeFromErrno(errno));
        }
        levels.push({std::move(folder), std::move(directory)});
        return StatusCode::Ok;
    };

    bool isFolder = false;
    StatusCode status = MeasureEntry(path.c_str(), usage, isFolder);
    if (status == StatusCode::Ok && isFolder) {
        status = enter(path);
    }
    while (status == StatusCode::Ok && !levels.empty()) {
        Level& level = levels.top();
        const dirent* const entry = level.directory.Next();
        if (entry == nullptr) {
            if (errno != 0) {
                return FailedAtEntry(level.path, MakeStatusCodeFromErrno(errno));
            }
            levels.pop();
            continue;
        }
        // Links are followed, as stat(2) does; a loop of them ends where stat refuses the path.
        std::string current = level.path + (level.path.back() == '/' ? "" : "/") + entry->d_name;
        unsigned int entryUsage = 0;
        status = MeasureEntry(current.c_str(), entryUsage, isFolder);
        if (status != StatusCode::Ok) {
            return FailedAtEntry(current, status);
        }
        usage += entryUsage;
        if (isFolder) {
            status = enter(std::move(current));
        }
    }
    return status;
}

}  // namespace mwl::Utilities
