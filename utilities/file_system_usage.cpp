#include <sys/stat.h>
#include <tern/foundation/log.h>
#include <tern/utilities/file_system.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <system_error>

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

StatusCode MeasureEntry(const char* path, unsigned int& usage) {
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
    return StatusCode::Ok;
}

StatusCode FailedAtEntry(const std::string& path, StatusCode status) {
    TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "[%s] Failed to get disk usage for entry '%s', status = %s",
                   "GetRecursiveDiskUsage", path.c_str(), ConvertStatusCodeToString(status).c_str());
    return status;
}

}  // namespace

StatusCode FileSystem::GetDiskUsage(const std::string& path, unsigned int& usage) {
    return MeasureEntry(path.c_str(), usage);
}

StatusCode FileSystem::GetRecursiveDiskUsage(const std::string& path, unsigned int& usage) {
    using std::filesystem::directory_options;
    using std::filesystem::recursive_directory_iterator;

    const StatusCode status = MeasureEntry(path.c_str(), usage);
    std::error_code error;
    if (status != StatusCode::Ok || !std::filesystem::is_directory(path, error)) {
        return status;
    }
    std::string current = path;  // outlives the iterator's own, which is gone when a step fails
    recursive_directory_iterator entry(path, directory_options::follow_directory_symlink, error);
    while (!error && entry != recursive_directory_iterator()) {
        current = entry->path().native();
        unsigned int entryUsage = 0;
        const StatusCode entryStatus = MeasureEntry(current.c_str(), entryUsage);
        if (entryStatus != StatusCode::Ok) {
            return FailedAtEntry(current, entryStatus);
        }
        usage += entryUsage;
        entry.increment(error);
    }
    if (error) {
        // A loop of links is told as the measuring of its entries tells it.
        return FailedAtEntry(
            current, error.value() == ELOOP ? StatusCode::NotFound : MakeStatusCodeFromErrno(error.value()));
    }
    return StatusCode::Ok;
}

}  // namespace mwl::Utilities
