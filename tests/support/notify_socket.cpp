#include "notify_socket.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "environment_variable.h"
#include "socket_path.h"

namespace tern::test {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// Between two looks at a child.
constexpr milliseconds CHILD_PERIOD{10};

EnvironmentVariable& Address() {
    static auto* const variable = new EnvironmentVariable("NOTIFY_SOCKET");  // a socket may be static
    return *variable;
}

bool HasEnded(pid_t child) {
    siginfo_t end{};
    return child <= 0 || waitid(P_PID, static_cast<id_t>(child), &end, WEXITED | WNOHANG | WNOWAIT) != 0 ||
           end.si_pid != 0;
}

}  // namespace

NotifySocket::NotifySocket() {
    const std::string path = mFolder / "notify";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    CheckSocketPath(path, sizeof address.sun_path - 1);
    path.copy(address.sun_path, path.size());
    mFd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (mFd < 0 || bind(mFd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        const int error = errno;
        close(mFd);
        throw std::system_error(error, std::generic_category(), "notification socket " + path);
    }
    Address().Add(this, path);
}

NotifySocket::~NotifySocket() {
    Address().Remove(this);
    close(mFd);
}

std::optional<std::string> NotifySocket::Receive(milliseconds limit) {
    const auto deadline = DeadlineAfter(limit);
    char buffer[4096];
    ssize_t count = recv(mFd, buffer, sizeof buffer, 0);
    for (auto rest = std::min(limit, LONGEST_LIMIT); count < 0 && rest.count() > 0;) {
        pollfd record{mFd, POLLIN, 0};
        static_cast<void>(poll(&record, 1, static_cast<int>(rest.count())));
        count = recv(mFd, buffer, sizeof buffer, 0);
        rest = std::chrono::ceil<milliseconds>(deadline - steady_clock::now());
    }
    return count < 0 ? std::nullopt : std::optional(std::string(buffer, static_cast<std::size_t>(count)));
}

std::optional<std::string> NotifySocket::ReceiveFrom(pid_t child, milliseconds limit) {
    const auto deadline = DeadlineAfter(limit);
    bool last = false;
    while (true) {
        const auto rest = std::chrono::ceil<milliseconds>(deadline - steady_clock::now());
        std::optional<std::string> text = Receive(last ? milliseconds(0) : std::min(rest, CHILD_PERIOD));
        if (text || last) {
            return text;
        }
        // What it sent before its end may have come since.
        last = HasEnded(child) || steady_clock::now() >= deadline;
    }
}

}  // namespace tern::test
