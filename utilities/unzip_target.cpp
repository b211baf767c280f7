#include "utilities/unzip_target.h"

#include <tern/foundation/log.h>
#include <tern/utilities/file_system.h>

#include "foundation/error_text.h"
#include "utilities/zipper_logger.h"

namespace mwl::Utilities {

std::string UnzipTarget::PathOf(const char* name) const {
    return mPath + FileSystem::FOLDER_SEPARATOR + name;
}

StatusCode UnzipTarget::FailedToOpen(const std::string& path, int error) {
    TERN_LOG_ERROR(ZIPPER_LOGGER, "Unzip: Failed to open destination file %s, errno = %s", path.c_str(),
                   ErrorText(error));
    return mw::tern::MakeStatusCodeFromErrno(error);
}

void UnzipTarget::FailedToWrite(const char* name, int error) {
    TERN_LOG_ERROR(ZIPPER_LOGGER, "Unzip: Failed to write file %s, errno = %s", name, ErrorText(error));
}

}  // namespace mwl::Utilities
