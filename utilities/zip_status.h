#pragma once

#include <tern/utilities/zipper.h>
#include <zip.h>

namespace mwl::Utilities {

/// The status of the archive's last error.
inline StatusCode GetArchiveStatus(zip_t* archive) {
    return Zipper::GetStatusZipError(zip_error_code_zip(zip_get_error(archive)));
}

}  // namespace mwl::Utilities
