#pragma once

#include <tern/diagnostics/contract.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace ternctl {

/// The subject of a finding.
enum class Part {
    Process,
    Handler,
    Watchdog,
    QueuedIn,
    QueuedOut,
    WaitingJobs,
    Thread,
    Watched,
    Pool,
    Component,
    Pipe
};

/// Something that deserves attention.
struct Finding {
    Part part;
    std::size_t index;  ///< in the list of the figures; 0 where there is none
    std::string text;   ///< as the service sent it in parts: not made harmless
};

/// Longest time that a handler, job or run may take without being found.
inline constexpr std::uint64_t LONG_RUN_US = 1'000'000;

/// The findings in `now`: a margin below a quarter (watchdog, watched threads, descriptors), a handler or job
/// that runs for over a second, threads that have gone; and, where `before` is an earlier look at the same
/// process, queues that grow. The most urgent first.
std::vector<Finding> FindTrouble(const mwl::Diagnostics::Figures& now,
                                 const mwl::Diagnostics::Figures* before);

/// Messages in the pipe.
std::uint64_t BacklogOf(const mwl::Diagnostics::PipeFigures& pipe);
/// Whether anything waits in any queue.
bool HasQueues(const mwl::Diagnostics::Figures& figures);

}  // namespace ternctl
