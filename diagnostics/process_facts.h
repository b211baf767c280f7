#pragma once

#include <cstdint>
#include <string>

namespace mwl::Diagnostics {

// What the system knows of this process, read from /proc; 0 or empty where it does not tell.

/// Since the start of the process, by a clock that nobody sets, nanoseconds, to a hundredth of a second.
std::uint64_t ReadProcessUptimeNs();
/// The start of the process by CLOCK_REALTIME as it is set now, likewise.
std::uint64_t ReadProcessStartedNs();
/// /proc/sys/kernel/random/boot_id, without the newline.
std::string ReadBootId();
/// Name of the program's file, without folders.
std::string ReadProgram();
/// systemd's watchdog period (sd_watchdog_enabled(3)), nanoseconds; 0 for none.
std::uint64_t ReadWatchdogNs();

/// Memory and threads.
struct ProcessSizes {
    std::uint64_t residentBytes = 0;
    std::uint64_t peakBytes = 0;
    std::uint32_t threads = 0;
};
ProcessSizes ReadProcessSizes();
/// Open descriptors, without the one that counts them; the limit where all are taken, so that none counts.
std::uint32_t CountDescriptors();

/// A thread of this process.
struct ThreadFacts {
    std::string name;
    char state = '\0';  ///< as in /proc/PID/stat; 0 when there is no such thread, '?' when nobody tells
};
ThreadFacts ReadThreadFacts(std::int32_t threadId);

}  // namespace mwl::Diagnostics
