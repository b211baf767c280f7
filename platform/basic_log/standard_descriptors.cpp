#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

namespace mwl::Log {

namespace {

/// A program that is started without descriptor 2 would have the number given to the first file or pipe that
/// it opens, and log lines would go there. So the numbers that nobody opened are taken when this library is
/// loaded, as the C library does for programs that run with another user's rights: by /dev/null, opened the
/// wrong way round, so that reading from 0 and writing to 1 and 2 goes on failing with EBADF. Programs that
/// this one runs inherit that. Something that is put there later (dup2(2)) is written to.
__attribute__((constructor)) void TakeStandardDescriptors() noexcept {
    const int savedErrno = errno;
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) < 0) {  // NOLINT(*-vararg)
            // The lowest free number is this one. Where there is no /dev/null, for example in a bare
            // chroot(2), none is.
            static_cast<void>(
                open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY));  // NOLINT(*-vararg, *-cloexec)
        }
    }
    errno = savedErrno;
}

}  // namespace

}  // namespace mwl::Log
