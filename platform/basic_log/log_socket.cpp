#include "log_socket.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace mwl::Log {

namespace {

/// A socket of ours, closed at the end of the block.
class Socket {
public:
    explicit Socket(int type) noexcept : mFd(socket(AF_UNIX, type | SOCK_CLOEXEC, 0)) {}
    ~Socket() {
        if (mFd >= 0) {
            close(mFd);
        }
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    int Get() const noexcept { return mFd; }

private:
    int mFd;
};

sockaddr_un AddressOf(const char* path) noexcept {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    return address;
}

bool Connect(int fd, const sockaddr_un& address) noexcept {
    return connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

/// Attaches the descriptor to the message. `control` has room for it.
void Attach(int file, msghdr& message, char* control, std::size_t size) noexcept {
    message.msg_control = control;
    message.msg_controllen = size;
    cmsghdr* const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof file);
    memcpy(CMSG_DATA(header), &file, sizeof file);
}

}  // namespace

Sent SendToLogSocket(const char* path, iovec* parts, std::size_t count, int file,
                     Patience& patience) noexcept {
    const Socket socket(SOCK_DGRAM);
    if (socket.Get() < 0) {
        return Sent::Refused;
    }
    sockaddr_un address = AddressOf(path);
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof file)] = {};
    msghdr message{};
    message.msg_name = &address;
    message.msg_namelen = sizeof address;
    message.msg_iov = parts;
    message.msg_iovlen = count;
    if (file >= 0) {
        Attach(file, message, control, sizeof control);
    }
    for (;;) {
        if (sendmsg(socket.Get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT) >= 0) {
            return Sent::Yes;
        }
        switch (errno) {
            case EINTR:
                break;
            case EAGAIN:
                // poll(2) reports on the daemon's queue once the socket is connected to it.
                if (Patience::IsOver()) {
                    return Sent::NotInTime;
                }
                if (message.msg_name != nullptr && Connect(socket.Get(), address)) {
                    message.msg_name = nullptr;
                    message.msg_namelen = 0;
                }
                if (!patience.Wait(socket.Get())) {
                    return Sent::NotInTime;
                }
                break;
            case EMSGSIZE:
            case ENOBUFS:
                return Sent::TooLarge;
            case EPROTOTYPE:
                return Sent::Stream;
            default:
                return Sent::Refused;
        }
    }
}

Sent SendToLogStream(const char* path, const iovec* parts, std::size_t count, Patience& patience) noexcept {
    const Socket socket(SOCK_STREAM | SOCK_NONBLOCK);
    if (socket.Get() < 0) {
        return Sent::Refused;
    }
    const sockaddr_un address = AddressOf(path);
    while (!Connect(socket.Get(), address)) {
        if (errno != EINTR && errno != EAGAIN) {
            return Sent::Refused;
        }
        if (!patience.Wait(socket.Get())) {
            return Sent::NotInTime;
        }
    }
    static constexpr char END[1] = {};
    for (std::size_t part = 0; part <= count; ++part) {
        const char* data = part < count ? static_cast<const char*>(parts[part].iov_base) : END;
        std::size_t size = part < count ? parts[part].iov_len : sizeof END;
        while (size > 0) {
            const ssize_t sent = send(socket.Get(), data, size, MSG_NOSIGNAL);
            if (sent >= 0) {
                data += sent;
                size -= static_cast<std::size_t>(sent);
            } else if (errno != EINTR && errno != EAGAIN) {
                return Sent::Refused;
            } else if (errno == EAGAIN && !patience.Wait(socket.Get())) {
                return Sent::NotInTime;
            }
        }
    }
    return Sent::Yes;
}

}  // namespace mwl::Log
