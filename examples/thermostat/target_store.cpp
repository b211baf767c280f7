#include "target_store.h"

#include <fcntl.h>
#include <tern/foundation/log.h>
#include <tern/utilities/file_system.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "names.h"

using mw::tern::StatusCode;
using mwl::Utilities::FileSystem;

namespace thermostat {

namespace {

constexpr const char* FILE_NAME = "/target";
constexpr const char* NEW_FILE_NAME = "/target.new";

/// Logs the failure of `call` on `path` and turns errno into a status.
StatusCode Failed(const char* call, const std::string& path) {
    const int error = errno;
    TERN_LOG_ERROR(LOGGER, "The target is not stored: %s of %s failed (%d, %s)", call, path.c_str(), error,
                   strerrordesc_np(error));
    return mw::tern::MakeStatusCodeFromErrno(error);
}

/// Opens `path`, lets `use` work on the descriptor, writes everything to the disk, closes. Any step that
/// fails ends it: what a full disk could not take shows at the latest here, not after a power cut.
template <typename Use>
StatusCode OnDisk(const std::string& path, int flags, Use use) {
    const int fd = open(path.c_str(), flags | O_CLOEXEC, 0640);
    if (fd < 0) {
        return Failed("open", path);
    }
    StatusCode status = use(fd);
    if (status == StatusCode::Ok && fsync(fd) != 0) {
        status = Failed("fsync", path);
    }
    if (close(fd) != 0 && status == StatusCode::Ok) {
        status = Failed("close", path);
    }
    return status;
}

}  // namespace

StatusCode TargetStore::Open() const {
    // An existing folder keeps the owner and mode that systemd gave it.
    StatusCode status = FileSystem::CheckDirectoryExist(mFolder);
    if (status != StatusCode::Ok) {
        status = FileSystem::CreateFolder(mFolder);
    }
    if (status != StatusCode::Ok) {
        TERN_LOG_ERROR(LOGGER, "The folder of the target, %s, cannot be used: %s", mFolder.c_str(),
                       mw::tern::ConvertStatusCodeToString(status).c_str());
    }
    return status;
}

std::optional<double> TargetStore::Load() const {
    const std::string path = mFolder + FILE_NAME;
    if (FileSystem::CheckFileExist(path) != StatusCode::Ok) {
        return std::nullopt;
    }
    double celsius = 0.0;
    std::ifstream file(path);
    if (!(file >> celsius && celsius >= MIN_TARGET && celsius <= MAX_TARGET)) {
        TERN_LOG_WARNING(LOGGER, "%s holds no target from %g to %g, the settings' is taken", path.c_str(),
                         MIN_TARGET, MAX_TARGET);
        return std::nullopt;
    }
    return celsius;
}

StatusCode TargetStore::Save(double celsius) const {
    const std::string path = mFolder + FILE_NAME;
    const std::string newPath = mFolder + NEW_FILE_NAME;
    StatusCode status = OnDisk(newPath, O_WRONLY | O_CREAT | O_TRUNC, [&](int fd) {
        const std::string text = std::to_string(celsius) + "\n";
        const ssize_t written = write(fd, text.data(), text.size());
        if (written >= 0 && written < static_cast<ssize_t>(text.size())) {
            errno = ENOSPC;  // a full disk took a part
        }
        return written == static_cast<ssize_t>(text.size()) ? StatusCode::Ok : Failed("write", newPath);
    });
    if (status == StatusCode::Ok) {
        status = FileSystem::Rename(newPath, path);
    }
    if (status == StatusCode::Ok) {
        status = OnDisk(mFolder, O_RDONLY | O_DIRECTORY, [](int) { return StatusCode::Ok; });
    }
    return status;
}

}  // namespace thermostat
