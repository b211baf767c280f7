#include "notify_socket.h"

#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace tern::test {

NotifySocket::NotifySocket() : mFd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = mFolder / "notify";
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (mFd < 0 || bind(mFd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        throw std::system_error(errno, std::generic_category(), "notification socket");
    }
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no other threads yet, or any more
    setenv("NOTIFY_SOCKET", path.c_str(), 1);
}

NotifySocket::~NotifySocket() {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no other threads yet, or any more
    unsetenv("NOTIFY_SOCKET");
    close(mFd);
}

std::optional<std::string> NotifySocket::Receive(std::chrono::milliseconds limit) {
    pollfd record{mFd, POLLIN, 0};
    if (poll(&record, 1, static_cast<int>(limit.count())) != 1) {
        return std::nullopt;
    }
    char buffer[4096];
    const ssize_t count = recv(mFd, buffer, sizeof buffer, 0);
    return count < 0 ? std::nullopt : std::optional(std::string(buffer, static_cast<std::size_t>(count)));
}

}  // namespace tern::test
