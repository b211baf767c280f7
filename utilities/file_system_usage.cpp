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

StatusCode MeasureEntry(const std::filesystem::path& path, unsigned int& usage) {
    std::error_code unused;
    const std::filesystem::file_type type = std::filesystem::status(path, unused).type();
    if (type == std::filesystem::file_type::not_found || type == std::filesystem::file_type::none) {
        return StatusCode::NotFound;
    }
    struct stat information {};
    if (stat(path.c_str(), &information) != 0) {
        const StatusCode status = MakeStatusCodeFromErrno(errno);
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "[%s] Couldn't get size of path '%s', status = %s", "GetDiskUsage",
                       path.c_str(), ConvertStatusCodeToString(status).c_str());
        return status;
    }
    const auto size = static_cast<std::uint64_t>(information.st_size);
    const auto block = static_cast<std::uint64_t>(std::max<blksize_t>(information.st_blksize, 1));
    usage = static_cast<unsigned int>((size + block - 1) / block * block / BYTES_PER_KIB);
    return StatusCode::Ok;
}

StatusCode FailedAtEntry(const std::filesystem::path& path, StatusCode status) {
    TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "[%s] Failed to get disk usage for entry '%s', status = %s",
                   "GetRecursiveDiskUsage", path.c_str(), ConvertStatusCodeToString(status).c_str());
    return status;
}

}  // namespace

StatusCode FileSystem::GetDiskUsage(const std::string& path, unsigned int& usage) {
    return MeasureEntry(path, usage);
}

StatusCode FileSystem::GetRecursiveDiskUsage(const std::string& path, unsigned int& usage) {
    using std::filesystem::directory_options;
    using std::filesystem::recursive_directory_iterator;

    std::filesystem::path current = path;
    const StatusCode status = MeasureEntry(current, usage);
    std::error_code error;
    if (status != StatusCode::Ok || !std::filesystem::is_directory(current, error)) {
        return status;
    }
    recursive_directory_iterator entry(current, directory_options::follow_directory_symlink, error);
    while (!error && entry != recursive_directory_iterator()) {
        current = entry->path();
        unsigned int entryUsage = 0;
        const StatusCode entryStatus = MeasureEntry(current, entryUsage);
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
