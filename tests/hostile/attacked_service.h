#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <string>
#include <thread>

#include "foundation/unique_fd.h"

namespace hostile {

/// The attacked service as a process: started when constructed, its log read and counted, as the journal
/// would. Killed at the end.
class AttackedService {
public:
    /// `watchdog` is announced to the service unless it is 0.
    AttackedService(const std::string& program, const char* logLevel, std::chrono::milliseconds watchdog);
    ~AttackedService();
    AttackedService(const AttackedService&) = delete;
    AttackedService& operator=(const AttackedService&) = delete;

    /// From now on growth and log are counted. Call it when the service answers; throws std::runtime_error
    /// when its log does not say that it is up.
    void BeginCount();
    /// The largest resident memory since, beyond what there was then. 0 when the process is gone.
    std::size_t GrowthBytes() const;
    /// Kills the service and reads its log to the end.
    void End();
    /// Since BeginCount. REQUIRES: End.
    std::size_t LogLines() const { return mLines - mLinesBefore; }
    std::size_t LogBytes() const { return mBytes - mBytesBefore; }
    /// Whether the process is still there.
    bool IsAlive() const;

private:
    /// Of /proc/PID/status, in bytes.
    std::size_t Memory(const char* field) const;
    void ReadLog();

    pid_t mPid = -1;
    mwl::UniqueFd mLog;
    std::atomic<bool> mIsUp{false};
    std::atomic<std::size_t> mLines{0};
    std::atomic<std::size_t> mBytes{0};
    std::size_t mLinesBefore = 0;
    std::size_t mBytesBefore = 0;
    std::size_t mMemoryBefore = 0;
    std::thread mReader;
};

}  // namespace hostile
