#pragma once

#include <tern/diagnostics/contract.h>
#include <tern/diagnostics/ring_reader.h>

#include <cstdint>
#include <vector>

#include "foundation/unique_fd.h"

namespace ternctl {

/// A process of this machine, looked at from outside, without a word to it. It is held by its folder in
/// /proc: one that gets its number later is never taken for it. Every operation throws Failure.
class Process {
public:
    /// A flight recorder's memory, and what was in it.
    struct Recorder {
        mwl::UniqueFd memory;  ///< outlives the process
        mwl::Diagnostics::Flight flight;
    };

    /// NotThere when there is no such process.
    explicit Process(std::uint32_t pid);

    std::uint32_t GetPid() const noexcept { return mPid; }
    /// Whether it has not ended.
    bool IsRunning() const;
    /// Its flight recorder's memory, found among its descriptors. NoDiagnostics when it has none, NotThere
    /// when it has ended. The content of that memory is validated and never trusted.
    Recorder OpenRecorder() const;

private:
    std::uint32_t ReadOwnId() const;

    std::uint32_t mPid;
    mwl::UniqueFd mFolder;
};

/// The flight in that memory as it is now. Throws Failure.
mwl::Diagnostics::Flight ReadFlight(const mwl::UniqueFd& memory, std::uint32_t pid);

/// The content of a flight, as the bus would show it.
std::vector<mwl::Diagnostics::RecordedEvent> ToEvents(const mwl::Diagnostics::Flight& flight);
std::vector<mwl::Diagnostics::LoggedMessage> ToMessages(const mwl::Diagnostics::Flight& flight);

}  // namespace ternctl
