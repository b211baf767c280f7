#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace soak {

/// A program that is started, watched and ended. It dies with the thread that started it. One thread.
class ChildProcess {
public:
    ChildProcess() = default;
    /// Kills it if it still runs.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    /// Standard error is appended to the file `log`; with `watchdogUs` the program is told of a watchdog and
    /// a notification socket, as by systemd. Throws std::system_error. REQUIRES: none is running.
    void Start(const std::vector<std::string>& command, const std::string& log, unsigned long watchdogUs = 0);
    void Signal(int signal) const;
    /// Its status as of wait(2), waiting at most `limit`; none while it runs. It is no more afterwards.
    std::optional<int> WaitForEnd(std::chrono::milliseconds limit);
    bool IsRunning() const { return mPid > 0; }
    pid_t GetPid() const { return mPid; }

private:
    pid_t mPid = -1;
};

}  // namespace soak
