#include "foundation/error_text.h"

#include <cerrno>
#include <cstring>

namespace mwl {

const char* ErrorText(int error) noexcept {
    thread_local char buffer[64];
    const int savedErrno = errno;
    // The GNU variant: fills the buffer only for numbers that it does not know.
    const char* const text = strerror_r(error, buffer, sizeof buffer);
    errno = savedErrno;
    return text;
}

}  // namespace mwl
