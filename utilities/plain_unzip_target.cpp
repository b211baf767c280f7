#include "utilities/plain_unzip_target.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "foundation/unique_fd.h"

namespace mwl::Utilities {

StatusCode PlainUnzipTarget::Write(const char* name, const char* buffer, std::size_t size) {
    const std::string path = PathOf(name);
    const UniqueFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, FILE_MODE));
    if (!file) {
        return FailedToOpen(path, errno);
    }
    const ssize_t written = write(file.Get(), buffer, size);
    if (written <= 0) {
        // Fixed by the interface: an entry without content ends here too, and the status is the one for a
        // missing key. A short write counts as a success.
        FailedToWrite(name, written < 0 ? errno : EIO);
        return StatusCode::KeyNotFound;
    }
    return StatusCode::Ok;
}

}  // namespace mwl::Utilities
