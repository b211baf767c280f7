#pragma once

#include <sys/types.h>

#include <string>

#include "temp_folder.h"

namespace tern::test {

/// A message bus of the test's own: starts a dbus-daemon that lets anyone own and send anything, and makes it
/// the process's system bus (DBUS_SYSTEM_BUS_ADDRESS) until it is destroyed; of several, the living one that
/// was made last. Create it before other threads: it changes the environment. Throws std::runtime_error when
/// the daemon does not start, with what it said, or when TMPDIR is too long for a socket in it.
class PrivateBus {
public:
    /// `limits` is XML of its configuration, such as "<limit name='max_replies_per_connection'>9</limit>".
    explicit PrivateBus(const std::string& limits = "");
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    /// Its D-Bus address, for connecting by hand.
    const std::string& Address() const { return mAddress; }
    /// Kills the daemon with SIGKILL, as a crash would; every connection is lost.
    void Kill();

private:
    TempFolder mFolder;
    pid_t mPid = -1;
    std::string mAddress;
};

}  // namespace tern::test
