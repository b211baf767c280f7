#include "standard_error.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

#include "platform/survive_sigpipe.h"

namespace mwl::Log {

namespace {

/// How a line gets to standard error without a wait.
enum class Way : unsigned char {
    Unknown,   ///< not looked at yet
    Plain,     ///< a file or a device: write(2), which does not wait for a reader
    Socket,    ///< send(2) with MSG_DONTWAIT
    Pipe,      ///< pwritev2(2) with RWF_NOWAIT; Linux 6.4
    Reopened,  ///< a terminal, or a pipe on an older Linux: opened once more for each line, with O_NONBLOCK
};

constinit std::atomic<Way> gWay{Way::Unknown};
/// Whether this Linux writes to pipes with RWF_NOWAIT, as far as is known.
constinit std::atomic<bool> gPipesTakeNowait{true};
/// Second (CLOCK_MONOTONIC) in which the way was last looked at.
constinit std::atomic<unsigned> gLookedAt{0};
/// Whether the last line ends in its middle.
constinit std::atomic<bool> gLineIsOpen{false};

/// The clock's last tick will do; it costs no system call.
unsigned Second() noexcept {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<unsigned>(now.tv_sec);
}

Way Look() noexcept {
    struct stat status {};
    Way way = Way::Plain;
    if (fstat(STDERR_FILENO, &status) == 0) {
        if (S_ISSOCK(status.st_mode)) {
            way = Way::Socket;
        } else if (S_ISFIFO(status.st_mode)) {
            SurviveSigpipe();
            way = gPipesTakeNowait.load(std::memory_order_relaxed) ? Way::Pipe : Way::Reopened;
        } else if (S_ISCHR(status.st_mode) && isatty(STDERR_FILENO) == 1) {
            way = Way::Reopened;
        }
    }
    gLookedAt.store(Second(), std::memory_order_relaxed);
    gWay.store(way, std::memory_order_relaxed);
    return way;
}

/// The way after a refusal of `way` as such: another one, or none (false).
bool LookAgain(Way way) noexcept {
    if (way == Way::Pipe) {
        struct stat status {};
        if (fstat(STDERR_FILENO, &status) == 0 && S_ISFIFO(status.st_mode)) {
            gPipesTakeNowait.store(false, std::memory_order_relaxed);
        }
    }
    return Look() != way;
}

/// Where the descriptor cannot be opened again. Another writer may take the room that poll(2) promised: then
/// this waits in write(2).
ssize_t WritePolled(const char* data, std::size_t size) noexcept {
    pollfd wanted = {STDERR_FILENO, POLLOUT, 0};
    if (poll(&wanted, 1, 0) == 0) {
        errno = EAGAIN;
        return -1;
    }
    return write(STDERR_FILENO, data, std::min<std::size_t>(size, PIPE_BUF));
}

/// Through an open file description of its own, whose O_NONBLOCK is nobody else's.
ssize_t WriteReopened(const char* data, std::size_t size) noexcept {
    const int fd =
        open("/proc/self/fd/2", O_WRONLY | O_APPEND | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);  // NOLINT(*-vararg)
    struct stat status {};
    if (fd < 0) {
        if (errno != ENXIO) {
            return WritePolled(data, size);
        }
        // A pipe that nobody reads any more, or a socket by now.
        errno = fstat(STDERR_FILENO, &status) == 0 && S_ISSOCK(status.st_mode) ? EOPNOTSUPP : ENXIO;
        return -1;
    }
    ssize_t written = -1;
    int error = 0;
    if (fstat(fd, &status) == 0 && !S_ISFIFO(status.st_mode) && !S_ISCHR(status.st_mode)) {
        error = EOPNOTSUPP;  // a file by now, whose position is to move
    } else {
        written = write(fd, data, size);
        error = errno;
    }
    close(fd);
    errno = error;
    return written;
}

ssize_t Write(Way way, const char* data, std::size_t size) noexcept {
    switch (way) {
        case Way::Socket:
            return send(STDERR_FILENO, data, size, MSG_DONTWAIT | MSG_NOSIGNAL);
        case Way::Pipe: {
            const iovec part = {const_cast<char*>(data), size};
            return pwritev2(STDERR_FILENO, &part, 1, -1, RWF_NOWAIT);
        }
        case Way::Reopened:
            return WriteReopened(data, size);
        case Way::Unknown:
        case Way::Plain:
            break;
    }
    return write(STDERR_FILENO, data, size);
}

/// Nothing reports that a file has been replaced by a pipe: it is looked at every second.
Way CurrentWay() noexcept {
    const Way way = gWay.load(std::memory_order_relaxed);
    const bool look =
        way == Way::Unknown || (way == Way::Plain && gLookedAt.load(std::memory_order_relaxed) != Second());
    return look ? Look() : way;
}

/// Whether the refusal means that standard error is not what it was taken for.
bool IsOfAnotherKind(int error) noexcept {
    return error == ENOTSOCK || error == EOPNOTSUPP || error == ENOSYS || error == EINVAL;
}

}  // namespace

bool WriteToStandardError(char* line, std::size_t size, Patience& patience) noexcept {
    const bool closesLine = gLineIsOpen.load(std::memory_order_relaxed) && gLineIsOpen.exchange(false);
    if (closesLine) {
        *--line = '\n';
        ++size;
    }
    bool begun = false;
    for (Way way = CurrentWay();;) {
        const ssize_t written = Write(way, line, size);
        if (written == static_cast<ssize_t>(size)) {
            if (begun) {
                gLineIsOpen.store(false, std::memory_order_relaxed);
            }
            return true;
        }
        if (written > 0) {
            // A writer that writes before this line goes on begins a line of its own.
            begun = true;
            gLineIsOpen.store(true, std::memory_order_relaxed);
            line += written;
            size -= static_cast<std::size_t>(written);
            continue;
        }
        const int error = written < 0 ? errno : EIO;
        if (error == EINTR || (error == EAGAIN && patience.Wait(STDERR_FILENO))) {
            continue;
        }
        if (IsOfAnotherKind(error) && LookAgain(way)) {
            way = gWay.load(std::memory_order_relaxed);
            continue;
        }
        if (closesLine && !begun) {
            gLineIsOpen.store(true, std::memory_order_relaxed);
        }
        return false;
    }
}

}  // namespace mwl::Log
