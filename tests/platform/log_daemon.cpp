#include "log_daemon.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "support/interpose.h"

// Without locks, which a child forked beside other threads could find held: no Fault.

namespace {

sockaddr_un gPlace{};

/// An address that is not whole is none, as to the kernel.
bool IsDaemonsPlace(const void* address, socklen_t size) {
    const auto* const place = static_cast<const sockaddr_un*>(address);
    return gPlace.sun_family != 0 && place != nullptr && size == sizeof *place &&
           place->sun_family == AF_UNIX &&
           (strcmp(place->sun_path, "/dev/log") == 0 ||
            strcmp(place->sun_path, "/run/systemd/journal/socket") == 0);
}

using SendMessage = ssize_t (*)(int, const msghdr*, int);
using Connect = int (*)(int, const sockaddr*, socklen_t);

ssize_t RedirectedSendMessage(const char* name, int fd, const msghdr* message, int flags) {
    static const auto real = reinterpret_cast<SendMessage>(dlsym(RTLD_NEXT, name));
    msghdr redirected = *message;
    if (IsDaemonsPlace(message->msg_name, message->msg_namelen)) {
        redirected.msg_name = &gPlace;
        redirected.msg_namelen = sizeof gPlace;
    }
    return real(fd, &redirected, flags);
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) ssize_t StandInForSendmsg(int fd, const msghdr* message,
                                                                 int flags) asm("sendmsg");
ssize_t StandInForSendmsg(int fd, const msghdr* message, int flags) {
    return RedirectedSendMessage("sendmsg", fd, message, flags);
}

#ifdef TERN_HAS_TIME64_NAMES
__attribute__((visibility("default"))) ssize_t StandInForSendmsg64(int fd, const msghdr* message,
                                                                   int flags) asm("__sendmsg64");
ssize_t StandInForSendmsg64(int fd, const msghdr* message, int flags) {
    return RedirectedSendMessage("__sendmsg64", fd, message, flags);
}
#endif

__attribute__((visibility("default"))) int StandInForConnect(int fd, const sockaddr* address,
                                                             socklen_t size) asm("connect");
int StandInForConnect(int fd, const sockaddr* address, socklen_t size) {
    static const auto real = reinterpret_cast<Connect>(dlsym(RTLD_NEXT, "connect"));
    if (IsDaemonsPlace(address, size)) {
        return real(fd, reinterpret_cast<const sockaddr*>(&gPlace), sizeof gPlace);
    }
    return real(fd, address, size);
}
}

namespace tern::test {

LogDaemon::LogDaemon(const std::string& path, int type)
    : mFd(socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    sockaddr_un place{};
    place.sun_family = AF_UNIX;
    EXPECT_LT(path.size(), sizeof place.sun_path);
    path.copy(place.sun_path, sizeof place.sun_path - 1);
    EXPECT_EQ(bind(mFd, reinterpret_cast<const sockaddr*>(&place), sizeof place), 0);
    if (type == SOCK_STREAM) {
        EXPECT_EQ(listen(mFd, 1), 0);
    }
    gPlace = place;
}

LogDaemon::~LogDaemon() {
    close(mFd);
    unlink(gPlace.sun_path);
    gPlace = {};
}

std::string LogDaemon::Read() const {
    std::vector<char> buffer(1 << 20);
    const ssize_t count = recv(mFd, buffer.data(), buffer.size(), 0);
    return std::string(buffer.data(), static_cast<std::size_t>(count < 0 ? 0 : count));
}

}  // namespace tern::test
