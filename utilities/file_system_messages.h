#pragma once

#include <tern/foundation/log.h>
#include <tern/foundation/status_code.h>

#include <string>

#include "foundation/error_text.h"
#include "platform/static_text.h"

namespace mwl::Utilities {

/// Logger name of the sources of FileSystem.
extern const StaticText FILE_SYSTEM_LOGGER;

/// Reports a walk that ended early: what was not read must not be taken for not there. Returns the status of
/// the error number.
inline StatusCode FailedToReadDirectory(const char* operation, const std::string& folder, int error) {
    TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "%s: Failed to read directory %s, errno = %s", operation,
                   folder.c_str(), ErrorText(error));
    return mw::tern::MakeStatusCodeFromErrno(error);
}

}  // namespace mwl::Utilities
