#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstddef>

#include "foundation/unique_fd.h"

namespace mwl::Utilities {

/// Writes all of it, in as many calls of write(2) as it takes. 0 or the error number.
inline int WriteAll(int file, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t written = write(file, data, size);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return written < 0 ? errno : EIO;
        }
        data += written;
        size -= static_cast<std::size_t>(written);
    }
    return 0;
}

/// Brings what was written onto its medium (fsync(2)) and closes the file. 0 or the error number. For a file
/// that knows no fsync, such as a pipe, there is nothing to be done.
inline int StoreAndClose(UniqueFd& file) {
    int error = fsync(file.Get()) == 0 || errno == EINVAL || errno == EROFS ? 0 : errno;
    if (close(file.Release()) != 0 && error == 0) {
        error = errno;
    }
    return error;
}

}  // namespace mwl::Utilities
