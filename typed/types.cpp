#include <tern/typed/types.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace mwl::Typed {

OwnedFd OwnedFd::Duplicate(int fd) noexcept {
    return OwnedFd(fcntl(fd, F_DUPFD_CLOEXEC, 3));
}

void OwnedFd::Close(int fd) noexcept {
    const int saved = errno;
    static_cast<void>(close(fd));  // not repeated after EINTR: on Linux the descriptor is gone all the same
    errno = saved;
}

int Codec<OwnedFd>::Write(sd_bus_message* message, const OwnedFd& value) {
    const int fd = value.Get();
    return sd_bus_message_append_basic(message, 'h', &fd);
}

int Codec<OwnedFd>::Read(sd_bus_message* message, OwnedFd& value, Fault&) {
    int borrowed = -1;
    const int result = sd_bus_message_read_basic(message, 'h', &borrowed);
    if (result <= 0) {
        return result;
    }
    OwnedFd own = OwnedFd::Duplicate(borrowed);
    if (!own) {
        return -errno;
    }
    value = std::move(own);
    return result;
}

}  // namespace mwl::Typed
