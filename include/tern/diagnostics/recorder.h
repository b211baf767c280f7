#pragma once

#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace mwl::Diagnostics {

using mw::tern::StatusCode;

/// What a flight recorder is made with.
struct RecorderOptions {
    /// For the events alone, 32 bytes each: rounded up to a power of two, at least 4 KiB, at most 16 MiB.
    /// About 70 KiB more are taken for names, threads and messages.
    std::size_t eventBytes = 65536;
    /// Whether systemd is asked to keep the memory for the next life, and the former life's is taken from it.
    /// The unit needs FileDescriptorStoreMax=1; systemd keeps it over a restart, not over a stop (unless
    /// FileDescriptorStorePreserve=yes).
    bool isKept = true;
    /// Of the service, for people; 63 bytes at most are kept.
    std::string version{};
};

/// The process's flight recorder: the last events of all threads, and the last messages of warning level or
/// worse, in a memory of fixed size that can be read from outside and that outlives the process where systemd
/// keeps it (RecorderOptions).
///
///     int main() {
///         static_cast<void>(mwl::Diagnostics::Recorder::Begin());  // first of all; else Diagnostics does it
///         ...
///
/// One for a process. It goes on until the process ends, so that a stop that hangs is seen too; what exit(3)
/// or the return of main ends is marked as an orderly end. Writing an event takes no lock, no memory and no
/// system call. A forked child does not record. It may begin a recorder of its own, also where it was forked
/// while another thread was in Begin or End; systemd is not asked to keep that, as it is for the service's.
/// While a thread forks (fork(2)), only what that thread does in handlers of pthread_atfork(3) is not
/// recorded.
///
/// Any thread; Begin and End one at a time.
class TERN_API Recorder {
public:
    Recorder() = delete;

    /// Begins recording: first thing in main, so that the start is recorded too. What the former life has
    /// left with systemd is taken, and how it ended is logged, in five lines at most. Ok, also when it is
    /// recording already; then the options are ignored. Otherwise the status of the failing call, logged;
    /// nothing is recorded then, and nothing else is changed.
    static StatusCode Begin(const RecorderOptions& options = {});
    /// Ends recording and marks the end as an orderly one. Begin goes on in the same memory, and knows
    /// nothing of what threads are in then. Harmless to repeat.
    static void End() noexcept;
    /// Whether events are recorded.
    static bool IsRecording() noexcept;
    /// The memory, a memfd; -1 before the first Begin. Borrowed; to be read only. RingReader reads it.
    static int GetFd() noexcept;
};

}  // namespace mwl::Diagnostics
