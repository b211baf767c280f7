#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>

#include "temp_folder.h"
#include "wait_until.h"

namespace tern::test {

/// Stands in for systemd's notification socket: sd_notify(3) of this process and its children arrives here.
/// Sets NOTIFY_SOCKET until it is destroyed; of several, the living one that was made last is told. Create it
/// before other threads. Throws std::runtime_error when TMPDIR is too long for a socket in it,
/// std::system_error when there is no socket to be had.
class NotifySocket {
public:
    NotifySocket();
    ~NotifySocket();
    NotifySocket(const NotifySocket&) = delete;
    NotifySocket& operator=(const NotifySocket&) = delete;

    /// The next notification, waiting at most `limit`; empty when none came.
    std::optional<std::string> Receive(std::chrono::milliseconds limit = GENEROUS_LIMIT);
    /// The same, but waiting no longer than `child` lives, a child of this process: empty as soon as it has
    /// ended and nothing of what was sent is left, which is known in 10 ms; immediately when there is no such
    /// child. It is not reaped: DescribeChild says how it ended.
    std::optional<std::string> ReceiveFrom(pid_t child, std::chrono::milliseconds limit = GENEROUS_LIMIT);
    /// Takes what has already arrived, without waiting.
    std::optional<std::string> ReceiveNow() { return Receive(std::chrono::milliseconds(0)); }

private:
    TempFolder mFolder;
    int mFd = -1;
};

}  // namespace tern::test
