#pragma once

#include <string>

namespace tern::test {

/// Stands in for the journal or the system log: a socket of its own, to which the messages for the daemons'
/// places go as long as it lives. It reads when it is told to. One at a time.
class LogDaemon {
public:
    /// `type` is SOCK_DGRAM or SOCK_STREAM; of the latter nothing can be read here.
    explicit LogDaemon(const std::string& path, int type);
    ~LogDaemon();
    LogDaemon(const LogDaemon&) = delete;
    LogDaemon& operator=(const LogDaemon&) = delete;

    /// The next datagram, empty when there is none.
    std::string Read() const;
    /// The descriptor, to accept and read from by hand.
    int Get() const { return mFd; }

private:
    int mFd;
};

}  // namespace tern::test
