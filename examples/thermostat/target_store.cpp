#include "target_store.h"

#include <tern/utilities/file_system.h>

#include <fstream>

#include "names.h"

using mw::tern::StatusCode;
using mwl::Utilities::FileSystem;

namespace thermostat {

namespace {

constexpr const char* FILE_NAME = "/target";
constexpr const char* NEW_FILE_NAME = "/target.new";

}  // namespace

StatusCode TargetStore::Open() const {
    // An existing folder keeps the owner and mode that systemd gave it.
    return FileSystem::CheckDirectoryExist(mFolder) == StatusCode::Ok ? StatusCode::Ok
                                                                      : FileSystem::CreateFolder(mFolder);
}

std::optional<double> TargetStore::Load() const {
    const std::string path = mFolder + FILE_NAME;
    if (FileSystem::CheckFileExist(path) != StatusCode::Ok) {
        return std::nullopt;
    }
    double celsius = 0.0;
    std::ifstream file(path);
    return file >> celsius && celsius >= MIN_TARGET && celsius <= MAX_TARGET ? std::optional(celsius)
                                                                             : std::nullopt;
}

StatusCode TargetStore::Save(double celsius) const {
    const StatusCode status =
        FileSystem::WriteContent(mFolder + NEW_FILE_NAME, std::to_string(celsius) + "\n");
    return status == StatusCode::Ok ? FileSystem::Rename(mFolder + NEW_FILE_NAME, mFolder + FILE_NAME)
                                    : status;
}

}  // namespace thermostat
