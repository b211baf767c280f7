#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "temp_folder.h"
#include "wait_until.h"

namespace tern::test {

/// Stands in for systemd's notification socket: sd_notify(3) of this process and its children arrives here.
/// Sets NOTIFY_SOCKET until it is destroyed; create it before other threads. Throws std::runtime_error when
/// TMPDIR is too long for a socket in it, std::system_error when there is no socket to be had.
class NotifySocket {
public:
    NotifySocket();
    ~NotifySocket();
    NotifySocket(const NotifySocket&) = delete;
    NotifySocket& operator=(const NotifySocket&) = delete;

    /// The next notification, waiting at most `limit`; empty when none came.
    std::optional<std::string> Receive(std::chrono::milliseconds limit = GENEROUS_LIMIT);
    /// Takes what has already arrived, without waiting.
    std::optional<std::string> ReceiveNow() { return Receive(std::chrono::milliseconds(0)); }

private:
    TempFolder mFolder;
    int mFd = -1;
};

}  // namespace tern::test
