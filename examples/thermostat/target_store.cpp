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

/// A renamed file has its new name after a power cut only when the folder is on the disk.
StatusCode WriteToDisk(const std::string& folder) {
    const int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0 && fsync(fd) == 0) {
        close(fd);
        return StatusCode::Ok;
    }
    const int error = errno;
    if (fd >= 0) {
        close(fd);
    }
    TERN_LOG_ERROR(LOGGER, "%s cannot be written to the disk (%d, %s)", folder.c_str(), error,
                   strerrordesc_np(error));
    return mw::tern::MakeStatusCodeFromErrno(error);
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
    const std::string newPath = mFolder + NEW_FILE_NAME;
    StatusCode status = FileSystem::WriteWholeContent(newPath, std::to_string(celsius) + "\n");
    if (status == StatusCode::Ok) {
        status = FileSystem::Rename(newPath, mFolder + FILE_NAME);
    }
    return status == StatusCode::Ok ? WriteToDisk(mFolder) : status;
}

}  // namespace thermostat
